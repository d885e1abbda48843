// Self-extracting archives as repotool writes them, unpacked as the mirror does: in-process on
// Linux, by running the archive stub through the command interpreter on Windows.
#include <cstdlib>
#include <string>
#include <vector>

#include "base/WFormat.h"
#include "foundation/TextLineReader.h"
#include "foundation/VersionLine.h"
#include "mirror/TreeFiles.h"
#include "tests/mirror/MirrorTestSupport.h"

namespace {

class UncompressTest : public MirrorTest {
 protected:
  void SetUp() override {
    MirrorTest::SetUp();
    if (HasFatalFailure()) return;
    repotool = PathFromEnv("EM_REPOTOOL");
    stub = PathFromEnv("EM_SFX_STUB");
    ASSERT_FALSE(repotool.empty() || stub.empty()) << "EM_REPOTOOL and EM_SFX_STUB must be set";
  }
  // Runs repotool with the arguments; its exit code.
  int Repotool(const std::string& args) {
    std::string cmd = "\"" + WToUtf8(repotool) + "\" " + args;
#ifdef _WIN32
    cmd = "\"" + cmd + "\"";  // the command interpreter strips the outer pair
#endif
    return std::system(cmd.c_str());
  }
  std::string Q(const WString& path) {
    return "\"" + WToUtf8(path) + "\"";
  }
  bool Exists(const WString& path) {
    return platform::FileExists(path) || platform::DirectoryExists(path);
  }
  WString repotool, stub;
};

}  // namespace

TEST_F(UncompressTest, TheServersArchivesUnpackIntoWhatTheMirrorReads) {
  WString leaves = root + u"/leaves", server = root + u"/server";
  ASSERT_EQ(Repotool("sample --leaves " + Q(leaves) + " --count 12"), 0);
  ASSERT_EQ(Repotool("build --leaves " + Q(leaves) + " --out " + Q(server) + " --stub " + Q(stub)), 0);

  // versionTree.txt agrees with the archives it describes.
  int32_t version = treefiles::GetTreeVersion(server + u"/versionTree.txt");
  ASSERT_GE(version, 0);
  treefiles::SpecialFileSizes sizes;
  ASSERT_EQ(treefiles::GetSpecialFileSizes(server + u"/versionTree.txt", version, sizes), 0);
  EXPECT_EQ(DLUtils::GetFileLength(server + u"/versionAll.exe"), sizes.versionAllExe);
  EXPECT_EQ(DLUtils::GetFileLength(server + u"/ZT_par_tree.exe"), sizes.ztParTree);

  DLUtils utils(nullptr, &params, temp);
  WString unpack = root + u"/unpack";
  platform::CreateDirectoryPath(unpack);
  DLUtils copier;
  ASSERT_EQ(copier.CopyFilePriv(server + u"/versionAll.exe", unpack + u"/versionAll.exe", DLUtils::kTextMode), 0);
  ASSERT_EQ(utils.Uncompress(unpack, u"versionAll.exe"), 0);
  // Every line of versionAll.txt is a comment or a full line, and each leaf has its package.
  TextLineReader reader;
  ASSERT_TRUE(reader.Open(unpack + u"/versionAll.txt"));
  WString line;
  std::vector<VersionLineInfo> leavesSeen;
  while (reader.ReadLine(line, versionline::kVersionLineChars)) {
    VersionLineInfo info;
    int rc = versionline::ParseStrict(line, info);
    ASSERT_TRUE(rc == 0 || rc == -2) << WToUtf8(line);
    if (rc == 0) leavesSeen.push_back(info);
  }
  ASSERT_EQ(leavesSeen.size(), 12u);

  // The information tree: each leaf directory with its full version line and the marker files.
  ASSERT_EQ(copier.CopyFilePriv(server + u"/ZT_par_tree.exe", unpack + u"/ZT_par_tree.exe", DLUtils::kTextMode), 0);
  ASSERT_EQ(utils.Uncompress(unpack, u"ZT_par_tree.exe"), 0);
  const VersionLineInfo* package = nullptr;
  for (const auto& leaf : leavesSeen) {
    WString dir = unpack + u"/" + leaf.leafRelPath;
    ASSERT_TRUE(reader.Open(dir + u"/versionLeaf.txt")) << WToUtf8(dir);
    ASSERT_TRUE(reader.ReadLine(line, versionline::kVersionLineChars));
    VersionLineInfo info;
    EXPECT_EQ(versionline::Parse(line, info), 0);
    EXPECT_EQ(info.leafVersion, leaf.leafVersion);
    if (leaf.leafType == u'L') {
      EXPECT_TRUE(platform::FileExists(dir + u"/ztlink.par"));
      EXPECT_FALSE(platform::FileExists(dir + u"/0"));
    } else {
      EXPECT_TRUE(platform::FileExists(dir + u"/zt.par"));
      EXPECT_TRUE(platform::FileExists(dir + u"/0"));
      if (!package && leaf.leafVersion >= 0) package = &leaf;
    }
  }
  ASSERT_NE(package, nullptr);

  // A package unpacked in the root lands in its leaf, with the short version line it brings.
  WString mirror = root + u"/tree";
  platform::CreateDirectoryPath(mirror);
  ASSERT_EQ(copier.CopyFilePriv(server + u"/" + package->leafRelPath + u"/" + package->leafExeFile,
                                mirror + u"/" + package->leafExeFile, DLUtils::kBinaryMode),
            0);
  EXPECT_EQ(DLUtils::GetFileLength(mirror + u"/" + package->leafExeFile), package->leafExeFileSize);
  ASSERT_EQ(utils.Uncompress(mirror, package->leafExeFile), 0);
  ASSERT_TRUE(reader.Open(mirror + u"/" + package->leafRelPath + u"/versionLeaf.txt"));
  ASSERT_TRUE(reader.ReadLine(line, versionline::kVersionLineChars));
  VersionLineInfo shortForm;
  EXPECT_EQ(versionline::Parse(line, shortForm), -3);
  EXPECT_TRUE(platform::FileExists(mirror + u"/" + package->leafRelPath + u"/zt.par"));
  // Unpacked again over itself: overwriting is the rule.
  EXPECT_EQ(utils.Uncompress(mirror, package->leafExeFile), 0);
}

TEST_F(UncompressTest, AHostileArchiveWritesNothingAndFailsWithItsReason) {
  DLUtils utils(nullptr, &params, temp);
  const char* entries[] = {"../escaped.txt", "a/../../escaped.txt", "/tmp/em_abs_escaped.txt", "C:\\escaped.txt",
                           "symlink:../../etc"};
  int n = 0;
  for (const char* entry : entries) {
    WString dir = root + WFormat(u"/evil%d/inner", n++);
    platform::CreateDirectoryPath(root + WFormat(u"/evil%d", n - 1));
    platform::CreateDirectoryPath(dir);
    ASSERT_EQ(Repotool("evil --out " + Q(dir + u"/evil.exe") + " --stub " + Q(stub) + " --entry \"" + entry + "\""), 0)
        << entry;
    EXPECT_EQ(utils.Uncompress(dir, u"evil.exe"), -1) << entry;
    std::vector<platform::DirEntry> inside, above;
    platform::ListDirectory(dir, inside);
    platform::ListDirectory(root + WFormat(u"/evil%d", n - 1), above);
    EXPECT_EQ(inside.size(), 1u) << entry << ": only the archive stays";
    EXPECT_EQ(above.size(), 1u) << entry << ": nothing lands beside the directory";
    EXPECT_FALSE(Exists(root + u"/escaped.txt"));
  }
  EXPECT_FALSE(Exists(u"/tmp/em_abs_escaped.txt"));
  WString log = CheckLog();
  EXPECT_NE(log.find(u"Uncompressing of 'evil.exe' failed! (returncode="), WString::npos) << WToUtf8(log);
  EXPECT_NE(log.find(u"Error information - uncompressing failed:"), WString::npos);

  // An archive that is no archive at all, and one that is not there.
  platform::WriteWholeFile(root + u"/junk.exe", "MZ not a zip", 12);
  EXPECT_EQ(utils.Uncompress(root, u"junk.exe"), -1);
  EXPECT_EQ(utils.Uncompress(root, u"missing.exe"), -1);
  EXPECT_EQ(utils.Uncompress(root + u"/no-such-dir", u"x.exe"), -1);
}
