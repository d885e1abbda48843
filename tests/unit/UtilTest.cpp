// The installation's roots, the module's directories, the check log and the version-line reader.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "foundation/CFile.h"
#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "platform/Clock.h"
#include "platform/FileIo.h"
#include "tests/unit/TestRegistry.h"

namespace {

const WString kBase = u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden";
const WString kSetup = kBase + u"\\Setup";
const WString kData = kBase + u"\\DATA";

std::string ReadText(const WString& path) {
  std::string bytes;
  platform::ReadWholeFile(path, bytes);
  return bytes;
}

class UtilTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = TestDirectory(u"util");
    CFile::RemoveDirectoryTree(root, false);
  }
  void TearDown() override { CFile::RemoveDirectoryTree(root, true); }
  TestRegistry reg{u"util"};
  WString root;
};

}  // namespace

TEST_F(UtilTest, RootsFollowTheirFallBackChains) {
  WString v;
  // Nothing configured: data and temp roots are the system's temporary directory.
  EXPECT_EQ(ReadDataRoot(v), SystemTempDirectory());
  EXPECT_EQ(ReadTempRoot(v), SystemTempDirectory());
  EXPECT_EQ(ReadFileRoot(v), CurrentDirectoryText());
  EXPECT_EQ(ReadBinRoot(v), CurrentDirectoryText());

  reg.String(kData, u"DataRoot", root + kSep);  // one trailing separator goes
  EXPECT_EQ(ReadDataRoot(v), root);
  EXPECT_EQ(ReadTempRoot(v), root);  // no TempRoot: the data root
  reg.String(kSetup, u"TempRoot", root + kSep + u"t");
  EXPECT_EQ(ReadTempRoot(v), root + kSep + u"t");
  reg.String(kSetup, u"FileRoot", u"C:\\");  // a bare drive keeps its backslash
  EXPECT_EQ(ReadFileRoot(v), u"C:\\");
  EXPECT_EQ(ReadBinRoot(v), u"C:\\");  // no BinRoot: FileRoot
  reg.String(kSetup, u"BinRoot", u"D:\\bin\\");
  EXPECT_EQ(ReadBinRoot(v), u"D:\\bin");

  // The host's UUID key names another base.
  reg.String(u"SYSTEM\\CurrentControlSet\\Control\\UUID\\7D41E2A0-5B3C-4F18-9E66-2C0A91D7B34F", u"Node Warden",
             u"SOFTWARE\\Other");
  EXPECT_EQ(ReadSetupKeyPath(), u"SOFTWARE\\Other\\Setup");
  EXPECT_EQ(ReadDataRoot(v), SystemTempDirectory());
}

TEST_F(UtilTest, DirectoriesAndTheFirstCallQuirk) {
  reg.String(kData, u"DataRoot", root + kSep + u"data");
  reg.String(kSetup, u"TempRoot", root + kSep + u"temp");
  platform::CreateDirectoryPath(root + kSep + u"data");
  platform::CreateDirectoryPath(root + kSep + u"temp");
  UM_Util util(nullptr);
  const WString work = root + kSep + u"temp" + kSep + u"EM_MENDER";
  EXPECT_EQ(util.umGetWorkDir(), work);
  EXPECT_TRUE(platform::DirectoryExists(work));
  // Kept: a removed directory is not looked at again.
  CFile::RemoveDirectoryTree(work, true);
  EXPECT_EQ(util.umGetWorkDir(), work);
  // The data directory is created by the first call, which answers an empty text.
  const WString data = root + kSep + u"data" + kSep + u"EM_MENDER";
  EXPECT_EQ(util.umGetDataDir(), u"");
  EXPECT_EQ(util.umGetDataDir(), data);
  // The log directory is the work directory; the call that creates it answers an empty text.
  EXPECT_EQ(util.umGetLogDir(), u"");
  EXPECT_EQ(util.umGetLogDir(), work);
  EXPECT_EQ(util.umGetCheckLogDir(), work + kSep + u"UM_Check.log");

  // A root that cannot hold the directory falls back to the fixed one.
  reg.String(kData, u"DataRoot", root + kSep + u"missing" + kSep + u"deeper");
  UM_Util other(nullptr);
  EXPECT_EQ(other.umGetDataDir(), UM_Util::FallbackDirectory());
}

// A plain file where the module's directory should be is no directory: the fixed fall-back
// applies, rather than an empty answer that would put the repository at the root of the disk.
TEST_F(UtilTest, FileStandingWhereADirectoryShouldBe) {
  const WString plain = root + kSep + u"plain";
  platform::CreateDirectoryPath(plain);
  ASSERT_TRUE(platform::WriteWholeFile(plain + kSep + u"EM_MENDER", "x", 1));
  reg.String(kData, u"DataRoot", plain);
  reg.String(kSetup, u"TempRoot", plain);
  UM_Util util(nullptr);
  EXPECT_EQ(util.umGetDataDir(), UM_Util::FallbackDirectory());
  EXPECT_EQ(util.umGetWorkDir(), UM_Util::FallbackDirectory());
  EXPECT_EQ(util.umGetLogDir(), UM_Util::FallbackDirectory());
  EXPECT_FALSE(platform::CreateDirectoryPath(plain + kSep + u"EM_MENDER"));
  EXPECT_TRUE(platform::CreateDirectoryPath(plain));  // an existing directory is fine
}

TEST_F(UtilTest, CheckLogLinesWithAndWithoutDate) {
  reg.String(kSetup, u"TempRoot", root);
  platform::VirtualClock clock(1709298309u);  // 1 March 2024 13:05:09 as local seconds
  platform::SetClock(&clock);
  UM_Util util(nullptr);
  util.umLogError(u"before any start");  // no log open: nothing, no file
  util.umGetLogDir();
  const WString log = util.umGetLogDir() + kSep + u"UM_Checknew.log";
  EXPECT_FALSE(platform::FileExists(log));
  ASSERT_TRUE(util.umStartLogging(u"UM_Checknew.log", u"UpdateCheck"));
  ASSERT_TRUE(util.umStartLogging(u"Other.log", u"UpdateDownload"));  // nested: keeps the open file
  util.umLogWrite(u"with date", true);
  util.umLogWrite(u"without date\n", false);
  util.umLogError(u"bad thing");
  util.umEndLogging();
  util.umLogWrite(u"after the end", true);
  platform::SetClock(nullptr);

  const std::string text = ReadText(log);
  EXPECT_FALSE(platform::FileExists(util.umGetLogDir() + kSep + u"Other.log"));
  const std::regex expected(
      "2024/3/01  13:05:09\t: with date\r\n"
      "13:05:09\t: without date\r\n\r\n"
      "[ 0-9]{2}:[ 0-9]{2}:[ 0-9]{2}\t: >>>>ERROR\tbad thing\r\n");
  EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

TEST(VersionLine, FieldsAndResultCodes) {
  VersionLineInfo v;
  EXPECT_EQ(UM_Util::InterpreteLineFromVersionInfo(u"BIOS\\X1\t5\tbios.exe\t1024\tF\tnone\t3\t2\n", v), 0);
  EXPECT_EQ(v.leafRelPath, u"BIOS/X1");
  EXPECT_EQ(v.leafVersion, 5);
  EXPECT_EQ(v.leafExeFile, u"bios.exe");
  EXPECT_EQ(v.leafExeFileSize, 1024);
  EXPECT_EQ(v.leafType, u'F');
  EXPECT_EQ(v.commonVersion, 3);
  EXPECT_EQ(v.oldVersion, 2);

  EXPECT_EQ(UM_Util::InterpreteLineFromVersionInfo(u"A\t7\tp.exe\t10\tLink\tc\t-1\t-4x", v), 0);
  EXPECT_EQ(v.leafType, u'L');  // only the first letter counts
  EXPECT_EQ(v.oldVersion, -4);  // after "-" the rest is not tested
  EXPECT_EQ(UM_Util::InterpreteLineFromVersionInfo(u"A\t\t\t7\t\tp.exe\t10\tC\tc\t1\t2", v), 0);  // runs of TABs

  EXPECT_EQ(UM_Util::InterpreteLineFromVersionInfo(u"# comment", v), -2);
  EXPECT_EQ(UM_Util::InterpreteLineFromVersionInfo(u"A\t7\n", v), -3);
  EXPECT_EQ(v.leafVersion, 7);
  EXPECT_EQ(v.leafExeFileSize, -1);  // preset
  EXPECT_EQ(UM_Util::InterpreteLineFromVersionInfo(u"A\t7\t blank.exe\t1", v), -3);
  EXPECT_EQ(UM_Util::InterpreteLineFromVersionInfo(u"A\t7\tp.exe\t10", v), -4);
  EXPECT_EQ(UM_Util::InterpreteLineFromVersionInfo(u"A\t7\tp.exe\t10\n", v), -1);  // LF fails the digit test
  EXPECT_EQ(UM_Util::InterpreteLineFromVersionInfo(u"A\t7\tp.exe\t10\tX\tc\t1\t2", v), -1);
  EXPECT_EQ(UM_Util::InterpreteLineFromVersionInfo(u"A\t7a\tp.exe\t10\tF\tc\t1\t2", v), -1);
  EXPECT_EQ(UM_Util::InterpreteLineFromVersionInfo(u"A\t7\tp.exe\t10\tF\tc\t1\t\n", v), -1);
  EXPECT_EQ(UM_Util::InterpreteLineFromVersionInfo(u"A", v), -1);
  EXPECT_EQ(v.leafVersion, -99);
}

TEST_F(UtilTest, RemoveDirectoryTree) {
  EXPECT_EQ(CFile::RemoveDirectoryTree(u"", true), 0);
  const WString top = root + kSep + u"tree";
  platform::CreateDirectoryPath(top);
  platform::CreateDirectoryPath(top + kSep + u"sub");
  platform::WriteWholeFile(top + kSep + u"a.txt", "a", 1);
  platform::WriteWholeFile(top + kSep + u"sub" + kSep + u"b.txt", "b", 1);
  EXPECT_EQ(CFile::RemoveDirectoryTree(top, false), 1);
  EXPECT_TRUE(platform::DirectoryExists(top));  // the directory itself stays
  std::vector<platform::DirEntry> left;
  platform::ListDirectory(top, left);
  EXPECT_TRUE(left.empty());
  EXPECT_EQ(CFile::RemoveDirectoryTree(top, false), 0);  // nothing handled
  EXPECT_EQ(CFile::RemoveDirectoryTree(top, true), 1);
  EXPECT_FALSE(platform::DirectoryExists(top));
  EXPECT_EQ(CFile::RemoveDirectoryTree(top, true), 0);  // gone: its removal fails
}
