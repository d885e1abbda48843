// A leaf's package fetched from nginx and unpacked over its information files, as the tree update
// and the download export do; a leaf whose version line has lost its package size.
#include <cstdlib>
#include <string>
#include <vector>

#include "base/WFormat.h"
#include "foundation/TextLineReader.h"
#include "foundation/VersionLine.h"
#include "mirror/DLZTTree.h"
#include "mirror/DownloadLocation.h"
#include "platform/Clock.h"
#include "tests/mirror/MirrorTestSupport.h"
#include "tests/unit/FakeUpdateModule.h"

namespace {

class LeafDownloadTest : public MirrorTest {
 protected:
  void SetUp() override {
    MirrorTest::SetUp();
    if (HasFatalFailure()) return;
    WString repotool = PathFromEnv("EM_REPOTOOL"), stub = PathFromEnv("EM_SFX_STUB");
    ASSERT_FALSE(repotool.empty() || stub.empty());
    served = ServedDir("leafdl");
    auto q = [](const WString& p) { return "\"" + WToUtf8(p) + "\""; };
    std::string run = q(repotool) + " sample --leaves " + q(root + u"/leaves") + " --count 6";
    std::string build =
        q(repotool) + " build --leaves " + q(root + u"/leaves") + " --out " + q(served) + " --stub " + q(stub);
#ifdef _WIN32
    run = "\"" + run + "\"";
    build = "\"" + build + "\"";
#endif
    ASSERT_EQ(std::system(run.c_str()), 0);
    ASSERT_EQ(std::system(build.c_str()), 0);
    params.SetRemoteLocation(u"leafdl");
    ASSERT_EQ(location.BuildStructure(params), 0);
    // The information tree, unpacked as the tree update does.
    par = location.GetTempDir() + u"/temp_par_tree";
    platform::CreateDirectoryPath(par);
    DLUtils utils(nullptr, &params, location.GetTempDir());
    ASSERT_EQ(utils.CopyFilePriv(served + u"/ZT_par_tree.exe", par + u"/ZT_par_tree.exe", DLUtils::kTextMode), 0);
    ASSERT_EQ(utils.Uncompress(par, u"ZT_par_tree.exe"), 0);
    // A leaf with a package.
    TextLineReader reader;
    ASSERT_EQ(utils.CopyFilePriv(served + u"/versionAll.exe", par + u"/versionAll.exe", DLUtils::kTextMode), 0);
    ASSERT_EQ(utils.Uncompress(par, u"versionAll.exe"), 0);
    ASSERT_TRUE(reader.Open(par + u"/versionAll.txt"));
    WString line;
    while (reader.ReadLine(line, versionline::kVersionLineChars)) {
      VersionLineInfo info;
      if (versionline::ParseStrict(line, info) == 0 && info.leafType != u'L' && info.leafVersion >= 0) {
        leaf = info;
        break;
      }
    }
    ASSERT_FALSE(leaf.leafRelPath.empty());
  }
  WString served, par;
  DownloadLocation location;
  VersionLineInfo leaf;
};

}  // namespace

TEST_F(LeafDownloadTest, APackageUnpacksOverItsInformationFiles) {
  DLZTTree tree(nullptr, &params, &location);
  tree.SetParTreeDir(par);
  ASSERT_EQ(tree.CopyParLeaf(leaf.leafRelPath), 0);
  EXPECT_EQ(tree.LeafStatus(leaf.leafRelPath), DLZTTree::kInfoFilesOnly);
  EXPECT_EQ(tree.LeafGetVersionFromVersionFile(leaf.leafRelPath, 1), leaf.leafVersion);

  WString exe;  // taken from the leaf's own versionLeaf.txt, as is the size
  ASSERT_EQ(tree.DownloadUncompressLeaf(leaf.leafRelPath, -1, exe), 0);
  EXPECT_EQ(exe, leaf.leafExeFile);
  EXPECT_FALSE(platform::FileExists(tree.Root() + u"/" + exe));  // the package is gone after unpacking
  // The package brought the short version line and its files.
  int32_t version = 0;
  int64_t size = 0;
  EXPECT_EQ(tree.LeafGetInfoFromVersionFile(leaf.leafRelPath, version, size), -3);
  EXPECT_EQ(version, leaf.leafVersion);
  std::vector<platform::DirEntry> files;
  platform::ListDirectory(tree.Root() + u"/" + leaf.leafRelPath, files);
  EXPECT_GT(files.size(), 3u);
  EXPECT_EQ(tree.RemoveBinary(tree.Root(), leaf.leafRelPath), 0);

  // The mode that keeps packages leaves it in the leaf directory, unopened.
  params.SetDnlFlags(2);
  WString kept;
  kept = leaf.leafExeFile;
  ASSERT_EQ(tree.DownloadUncompressLeaf(leaf.leafRelPath, leaf.leafExeFileSize, kept), 0);
  EXPECT_EQ(DLUtils::GetFileLength(tree.Root() + u"/" + leaf.leafRelPath + u"/" + leaf.leafExeFile),
            leaf.leafExeFileSize);
}

TEST_F(LeafDownloadTest, AShortVersionLineFailsTheSizeTestAfterASecondTry) {
  platform::VirtualClock clock(1700000000u, 20);
  platform::SetClock(&clock);
  FakeUpdateModule module;
  DLZTTree tree(&module, &params, &location);
  tree.SetParTreeDir(par);
  ASSERT_EQ(tree.CopyParLeaf(leaf.leafRelPath), 0);
  WString dir = tree.Root() + u"/" + leaf.leafRelPath;
  std::string shortLine = WToUtf8(leaf.leafRelPath) + "\t" + std::to_string(leaf.leafVersion) + "\r\n";
  platform::WriteWholeFile(dir + u"/versionLeaf.txt", shortLine.data(), shortLine.size());
  WString exe = leaf.leafExeFile;
  EXPECT_EQ(tree.DownloadUncompressLeaf(leaf.leafRelPath, -1, exe), -1);
  EXPECT_GE(clock.ElapsedMs(), 30000u);
  platform::SetClock(nullptr);
  WString log = CheckLog();
  EXPECT_NE(log.find(u"is requested to be downloaded."), WString::npos) << WToUtf8(log);
  EXPECT_NE(log.find(WFormat(u"Verifying download size of 'leafdl/%s/%s' failed!", leaf.leafRelPath.c_str(),
                             leaf.leafExeFile.c_str())),
            WString::npos);
  EXPECT_FALSE(platform::FileExists(tree.Root() + u"/" + exe));  // a failed package does not stay

  // No name in the version line and none given: nothing to fetch.
  WString none;
  EXPECT_EQ(tree.DownloadUncompressLeaf(leaf.leafRelPath, -1, none), -1);
  EXPECT_NE(CheckLog().find(u"Cannot retrieve exe file name from versionLeaf.txt in"), WString::npos);
}
