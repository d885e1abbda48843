// The repository's text files as the mirror reads them (version lines, versionTree.txt, key
// files), the directory helpers of the transfer utilities and the download parameters.
#include <gtest/gtest.h>

#include <string>

#include "foundation/CFile.h"
#include "foundation/VersionLine.h"
#include "mirror/DLParameters.h"
#include "mirror/DLUtils.h"
#include "mirror/DownloadLocation.h"
#include "mirror/TreeFiles.h"
#include "platform/FileIo.h"
#include "tests/unit/TestRegistry.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

namespace {

class MirrorFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = TestDirectory(u"mirror_files");
    CFile::RemoveDirectoryTree(root, false);
  }
  void TearDown() override { CFile::RemoveDirectoryTree(root, true); }
  WString Write(const char16_t* name, const std::string& bytes) {
    WString path = root + u"/" + name;
    platform::WriteWholeFile(path, bytes.data(), bytes.size());
    return path;
  }
  WString root;
};

const char kGoodTree[] =
    "# Version of ZT-Zip-Tree : 42\r\n"
    "# VERSIONALLEXE_FILESIZE=1234\r\n"
    "# ZTPAR_FILESIZE=56789\r\n"
    "# Check_VERSIONALLEXE_FILESIZE=1234\r\n"
    "# Check_ZTPAR_FILESIZE=56789\r\n"
    "# Check_Version=42\r\n";

}  // namespace

TEST(VersionLineStrict, OnlyFullLinesPassAndCommentsLeaveTheFieldsAlone) {
  VersionLineInfo v;
  EXPECT_EQ(versionline::ParseStrict(u"A/B\t3\tp.exe\t10\tF\t-\t0\t2\n", v), 0);
  EXPECT_EQ(v.leafRelPath, u"A/B");
  EXPECT_EQ(versionline::ParseStrict(u"A\t7\n", v), -1);           // short: fine in a leaf, not in versionAll
  EXPECT_EQ(versionline::ParseStrict(u"A\t7\tp.exe\t10", v), -1);  // four fields
  EXPECT_EQ(versionline::Parse(u"A\t7\tp.exe\t10", v), -4);
  // A comment returns before anything is reset: what the last line left stays.
  EXPECT_EQ(versionline::Parse(u"A\t9\tq.exe\t11\tC\tc\t1\t2", v), 0);
  EXPECT_EQ(versionline::ParseStrict(u"#A\t1\tx.exe\t1\tF\tc\t1\t1", v), -2);
  EXPECT_EQ(v.leafVersion, 9);
  EXPECT_EQ(v.leafExeFile, u"q.exe");
  // Withdrawal is a full line; numbers of any length saturate instead of overflowing.
  EXPECT_EQ(versionline::Parse(u"A\t-1\tp.exe\t10\tF\tc\t0\t0\n", v), 0);
  EXPECT_EQ(v.leafVersion, -1);
  EXPECT_EQ(versionline::Parse(u"A\t99999999999999999999999\tp.exe\t99999999999999999999999\tF\tc\t0\t0", v), 0);
  EXPECT_EQ(v.leafVersion, INT32_MAX);
  EXPECT_GT(v.leafExeFileSize, int64_t{INT32_MAX});
  EXPECT_EQ(versionline::Parse(u"A\t7\tp.exe\t-10\tF\tc\t0\t0", v), -1);  // a size has no sign
  EXPECT_EQ(versionline::Parse(u"", v), -1);
}

TEST_F(MirrorFilesTest, TreeVersionAndTheTwinsOfTheSizes) {
  WString good = Write(u"good.txt", kGoodTree);
  EXPECT_EQ(treefiles::GetTreeVersion(good), 42);
  treefiles::SpecialFileSizes sizes;
  ASSERT_EQ(treefiles::GetSpecialFileSizes(good, 42, sizes), 0);
  EXPECT_EQ(sizes.versionAllExe, 1234);
  EXPECT_EQ(sizes.ztParTree, 56789);
  // The check version must be the version the title gave.
  EXPECT_EQ(treefiles::GetSpecialFileSizes(good, 41, sizes), -1);

  std::string text = kGoodTree;
  auto variant = [&](const std::string& from, const std::string& to) {
    std::string t = text;
    t.replace(t.find(from), from.size(), to);
    return Write(u"variant.txt", t);
  };
  EXPECT_EQ(treefiles::GetSpecialFileSizes(variant("# Check_ZTPAR_FILESIZE=56789", "# Check_ZTPAR_FILESIZE=56788"), 42,
                                           sizes),
            -1);
  EXPECT_EQ(treefiles::GetSpecialFileSizes(
                variant("# Check_VERSIONALLEXE_FILESIZE=1234", "# Check_VERSIONALLEXE_FILESIZE=1235"), 42, sizes),
            -1);
  EXPECT_EQ(treefiles::GetSpecialFileSizes(variant("# Check_Version=42", "# Check_Version =42"), 42, sizes), -1);
  EXPECT_EQ(treefiles::GetSpecialFileSizes(variant("# ZTPAR_FILESIZE=56789", "# ZTPAR_FILESIZE=\r\n#"), 42, sizes),
            -1);  // a line end right behind "=" fails the read at once
  EXPECT_EQ(treefiles::GetSpecialFileSizes(variant("=1234\r\n# ZTPAR", "=-1\r\n# ZTPAR"), 42, sizes), -1);

  // Title without a colon, a colon only inside the title's 24 characters, no title, no file.
  EXPECT_EQ(treefiles::GetTreeVersion(variant("# Version of ZT-Zip-Tree : 42", "# Version of ZT-Zip-Tree 42")), -1);
  EXPECT_EQ(treefiles::GetTreeVersion(Write(u"t1.txt", "x: # Version of ZT-Zip-Tree:-7\n")), -7);
  EXPECT_EQ(treefiles::GetTreeVersion(Write(u"t2.txt", "# VERSIONALLEXE_FILESIZE=1\n")), -1);
  EXPECT_EQ(treefiles::GetTreeVersion(root + u"/missing.txt"), -1);
  // Only the first title line decides.
  EXPECT_EQ(treefiles::GetTreeVersion(Write(u"t3.txt", "# Version of ZT-Zip-Tree\n# Version of ZT-Zip-Tree: 5\n")), -1);
  // A title line longer than the line buffer arrives in pieces: the colon is in the next piece.
  EXPECT_EQ(treefiles::GetTreeVersion(Write(
                u"t4.txt", "# Version of ZT-Zip-Tree" + std::string(300, ' ') + ": 9\n# Version of ZT-Zip-Tree:3")),
            -1);
}

TEST_F(MirrorFilesTest, KeyFilesReadAsTheIndicatorAndTreeFilesNeed) {
  WString f = Write(u"keys.txt", "SIZEX=9\r\nSIZE=\r\nNAME=first\r\nNAME=Stop.txt more\r\nLAST=7");
  int32_t v = 0;
  EXPECT_EQ(DLUtils::GetIntFromFile(f, u"SIZE", v), -1);  // "SIZEX" has no "=" behind the key; "SIZE=" fails
  EXPECT_EQ(DLUtils::GetIntFromFile(f, u"LAST", v), 0);   // a last line without a line end counts
  EXPECT_EQ(v, 7);
  EXPECT_EQ(DLUtils::GetIntFromFile(Write(u"k2.txt", "A=\r\nA=5\r\n"), u"A", v), -1);  // the first line decides
  EXPECT_EQ(DLUtils::GetIntFromFile(Write(u"k3.txt", "A=5\r\nA="), u"A", v), 0);
  EXPECT_EQ(DLUtils::GetIntFromFile(Write(u"k4.txt", "B=1\r\nA="), u"A", v), -1);  // "A=" at the end is skipped
  EXPECT_EQ(DLUtils::GetIntFromFile(Write(u"k5.txt", "A=  +12abc"), u"A", v), 0);
  EXPECT_EQ(v, 12);
  EXPECT_EQ(DLUtils::GetIntFromFile(root + u"/none.txt", u"A", v), -1);

  WString name;
  size_t length = 99;
  EXPECT_EQ(DLUtils::GetStringFromFile(f, u"NAME", name, length), 0);
  EXPECT_EQ(name, u"Stop.txt");  // the last line wins; the value ends at its first blank
  EXPECT_EQ(length, 8u);
  length = 5;
  EXPECT_EQ(DLUtils::GetStringFromFile(f, u"NAME", name, length), -1);  // longer than the room
  length = 99;
  EXPECT_EQ(DLUtils::GetStringFromFile(f, u"MISSING", name, length), 0);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(DLUtils::GetStringFromFile(root + u"/none.txt", u"NAME", name, length), -1);
}

TEST(DLUtilsText, SlashRewritersAndTheFreeSpaceRules) {
  struct {
    const char16_t* in;
    const char16_t* forward;
    const char16_t* back;
  } cases[] = {
      {u"C:\\a\\\\b\\", u"C:/a/b/", u"C:\\a\\\\b\\"},
      {u"\\\\server\\share\\\\x", u"\\\\server/share/x", u"\\\\server\\share\\\\x"},
      {u"a//b\\/c", u"a//b//c", u"a\\b\\\\c"},
      {u"//x///y", u"//x///y", u"\\x\\y"},
      {u"\\a", u"/a", u"\\a"},
      {u"", u"", u""},
  };
  for (const auto& c : cases) {
    WString f = c.in, b = c.in;
    DLUtils::ToForwardSlashes(f);
    DLUtils::ToBackSlashes(b);
    EXPECT_EQ(f, c.forward) << WToUtf8(c.in);
    EXPECT_EQ(b, c.back) << WToUtf8(c.in);
  }
  EXPECT_EQ(DLUtils::FreeSpaceKbFromBytes(0), 1);
  EXPECT_EQ(DLUtils::FreeSpaceKbFromBytes(1023), 1);
  EXPECT_EQ(DLUtils::FreeSpaceKbFromBytes(2048), 2);
  EXPECT_EQ(DLUtils::FreeSpaceKbFromBytes(uint64_t{0x80000000} * 1024), 0x7ffffffe);  // reads negative
  EXPECT_EQ(DLUtils::FreeSpaceKbFromBytes(uint64_t{0x100000000} * 1024), 1);          // low 32 bits are 0
  EXPECT_EQ(DLUtils::FreeSpaceKbFromBytes(uint64_t{0x100000005} * 1024), 5);
  EXPECT_EQ(DLUtils::GetLocalTimeOffset() % 60, 0);
}

TEST(DLParametersTest, DefaultsModesAndTheTraceLine) {
  DLParameters p;
  EXPECT_EQ(p.GetWebProtocol(), u"https");
  EXPECT_EQ(p.GetCommunity(), u"public");
  EXPECT_EQ(p.GetTimeout(), 5000);
  EXPECT_FALSE(p.GetDownloadLocation().empty());
  EXPECT_EQ(p.GetDownloadLocation(), p.GetWorkingLocation());
  EXPECT_EQ(p.CheckRemoteParameters(), -1);
  p.SetRemoteServer(u"host:8080");
  p.SetRemoteLocation(u"tree");
  EXPECT_EQ(p.CheckRemoteParameters(), 0);
  p.SetCommunity(u"");
  EXPECT_EQ(p.CheckRemoteParameters(), -1);

  p.SetProxyMode(2);
  EXPECT_EQ(p.GetProxyMode(), u"USER_DEFINED_PROXY");
  p.SetProxyMode(3);  // unknown: the previous mode stays
  EXPECT_EQ(p.GetProxyMode(), u"USER_DEFINED_PROXY");
  p.SetProxyMode(1);
  EXPECT_EQ(p.GetProxyMode(), u"PREDEFINED");
  p.SetProxyMode(0);
  EXPECT_EQ(p.GetProxyMode(), u"");
  p.SetProtocol(0);
  EXPECT_EQ(p.GetWebProtocol(), u"http");
  p.SetProtocol(7);
  EXPECT_EQ(p.GetWebProtocol(), u"https");

  WString text;
  p.SetProxyPassword(u"s3cret pass");
  p.GetParameterText(text);
  EXPECT_EQ(text.find(u"s3cret"), WString::npos);
  EXPECT_NE(text.find(u"ProxyPassword : ****, webProtocol : https, Timeout: 5000\n"), WString::npos);
  EXPECT_NE(text.find(u"IpAddress: NULL, ProxyServer: NULL"), WString::npos);
  p.SetProxyPassword(u"");
  p.GetParameterText(text);
  EXPECT_NE(text.find(u"ProxyPassword : NULL"), WString::npos);
}

TEST_F(MirrorFilesTest, DirectoryTreesAndTheStructureOfTheMirror) {
  DLUtils utils;
  int status = -5;
  EXPECT_EQ(utils.CreateDirectoryTree(u"", status), -1);
  EXPECT_EQ(status, 701);
  EXPECT_EQ(utils.CreateDirectoryTree(u"C:", status), 0);
  WString deep = root + u"/a/b//c";
  DLUtils::ToForwardSlashes(deep);
  ASSERT_EQ(utils.CreateDirectoryTree(deep, status), 0);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(platform::DirectoryExists(root + u"/a/b/c"));
  // A file where a level should be: the creation fails with the system's error.
  Write(u"blocker", "x");
  EXPECT_EQ(utils.CreateDirectoryTree(root + u"/blocker/sub", status), -1);
  EXPECT_NE(status, 0);

  DLParameters params;
  params.SetScriptLocation(root + u"\\work");
  params.SetDownloadLocation(root + u"/tree");
  DownloadLocation location;
  ASSERT_EQ(location.BuildStructure(params), 0);
  WString work = root + u"/work";
  DLUtils::ToForwardSlashes(work);  // the work directory is kept with forward slashes
  EXPECT_EQ(location.GetWorkDir(), work);
  EXPECT_EQ(location.GetTempDir(), work + u"/temp");
  EXPECT_TRUE(platform::DirectoryExists(root + u"/work/temp"));
  EXPECT_TRUE(platform::DirectoryExists(root + u"/tree"));
#ifndef _WIN32
  struct stat st {};
  ASSERT_EQ(::stat(WToUtf8(root + u"/tree").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0777u);  // opened for everyone when made here
  // Directories that were there keep their rights.
  ::chmod(WToUtf8(root + u"/tree").c_str(), 0750);
  ASSERT_EQ(location.BuildStructure(params), 0);
  ASSERT_EQ(::stat(WToUtf8(root + u"/tree").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0750u);
#endif
  params.SetDownloadLocation(root + u"/blocker/tree");
  EXPECT_EQ(location.BuildStructure(params), -1);
}

TEST_F(MirrorFilesTest, CopiesAndTheirTraceInTheCheckLog) {
  std::string binary("MZ\x1a\r\n\n\0tail", 12);
  WString src = Write(u"src.exe", binary);
  DLUtils utils;
  EXPECT_EQ(utils.CopyFilePriv(src, root + u"/dst.exe", 1), -1);  // neither text nor binary
  ASSERT_EQ(utils.CopyFilePriv(src, root + u"/dst.exe", DLUtils::kTextMode), 0);
  std::string copied;
  platform::ReadWholeFile(root + u"/dst.exe", copied);
  EXPECT_EQ(copied, binary);  // byte for byte, also in text mode
  EXPECT_FALSE(platform::FileExists(root + u"/dst.exe.new"));
  EXPECT_EQ(utils.CopyFilePriv(root + u"/none", root + u"/dst.exe", DLUtils::kTextMode), -1);
  platform::ReadWholeFile(root + u"/dst.exe", copied);
  EXPECT_EQ(copied, binary);  // a failed copy leaves the old file
  EXPECT_EQ(DLUtils::GetFileLength(root + u"/dst.exe"), 12);
  EXPECT_EQ(DLUtils::GetFileLength(root + u"/none"), -1);
  EXPECT_EQ(utils.CopyFileToServerLog(root + u"/none", u"caption"), 1);
  EXPECT_EQ(utils.RemoveCompleteDirectory(root + u"/does/not/exist"), 0);
}

TEST(BacktrackLineTest, PathAndSystemOrNothing) {
  WString rel, os;
  ASSERT_TRUE(treefiles::ParseBacktrackLine(u"BIOS/D3348/A1\tany\r\n", rel, os));
  EXPECT_EQ(rel, u"BIOS/D3348/A1");
  EXPECT_EQ(os, u"any");
  // Runs of delimiters count as one, before and between the tokens; a third token is ignored.
  ASSERT_TRUE(treefiles::ParseBacktrackLine(u"\t\tA\t\t\twindows\tx\n", rel, os));
  EXPECT_EQ(rel, u"A");
  EXPECT_EQ(os, u"windows");
  // A blank inside a token belongs to it.
  ASSERT_TRUE(treefiles::ParseBacktrackLine(u"My Leaf\tany os", rel, os));
  EXPECT_EQ(rel, u"My Leaf");
  EXPECT_EQ(os, u"any os");
  for (const char16_t* bad : {u"# A\tany", u"A\r\n", u"A", u"", u"\t\r\n", u"A\t\r\n"})
    EXPECT_FALSE(treefiles::ParseBacktrackLine(bad, rel, os)) << WToUtf8(bad);
}
