// The mirror's door as the check and the jobs use it: the passes of updateTree and the second look
// that may add exactly one more, the download of one leaf's package, the removal of its binaries,
// and the connection test.
#include <memory>
#include <string>

#include "base/WFormat.h"
#include "config/UM_Config.h"
#include "mirror/UM_Download.h"
#include "tests/mirror/ServedTree.h"

namespace {

const char16_t kStarted[] = u"Update of information files and check on updatability is started.";
const char16_t kRestarted[] = u"The whole update of information files and check on updatability is restarted.";

class UmDownloadTest : public ServedTreeTest {
 protected:
  webParam Web() {
    webParam web;
    web.server = params.GetRemoteServer();
    web.path = WFromUtf8(remote);
    web.protocol = 0;
    web.proxyMode = 0;
    return web;
  }
  // The transfer tool lies in the working location of the test, not in the current directory.
  std::unique_ptr<UM_Download> Door(const webParam& web) {
    auto door = std::make_unique<UM_Download>(&module, work, &web);
    door->Params().SetWorkingLocation(work);
    return door;
  }
  // One run of updateTree with a fresh check log.
  int Run() {
    platform::RemoveFilePath(root + u"/EM_MENDER/UM_Checknew.log");
    webParam web = Web();
    return Door(web)->updateTree(&web, repo, WString(), 0);
  }
  static WString Finished(int rc) {
    return WFormat(u"Update of information files and check on updatability is finished (return code=%d).", rc);
  }
  // The paths of `want` that `got` lacks or holds with other content.
  static std::string Missing(const Snapshot& want, const Snapshot& got) {
    std::string text;
    for (const auto& [path, bytes] : want) {
      auto it = got.find(path);
      if (it == got.end() || it->second != bytes) text += " " + WToUtf8(path);
    }
    return text;
  }
  void Stop(const WString& dir, size_t size) {
    MakeDirs(dir);
    Put(dir + u"/Stop.txt", std::string(size, 'x'));
  }
};

}  // namespace

TEST_F(UmDownloadTest, ATreeAnnouncedAsRewrittenGetsExactlyOneMorePass) {
  ASSERT_TRUE(BuildTree(8));
  // The whole tree announced as being rewritten while the run goes on; the tree's own Stop.txt
  // stays normal, so no pass waits.
  Stop(served + u"/ZenTrove", 4711);
  EXPECT_EQ(Run(), 0);
  WString log = CheckLog();
  EXPECT_EQ(Count(log, kStarted), 1u) << WToUtf8(log);
  EXPECT_EQ(Count(log, kRestarted), 1u) << WToUtf8(log);
  EXPECT_EQ(Count(log, Finished(0)), 1u) << WToUtf8(log);
  // Two passes and the look between them; the second pass finds the tree up to date.
  EXPECT_EQ(RequestsAtLeast("versionTree.txt", 3), 3);
  EXPECT_EQ(Requests("versionAll.exe"), 1);
  EXPECT_EQ(RepoFile(u"versionTree.txt"), ReadBytes(served + u"/versionTree.txt"));

  // Nothing announced and the tree unchanged since the pass: no second pass.
  Stop(served + u"/ZenTrove", 10);
  const WString leaf = FirstLeaf(u'F').leafRelPath;
  ASSERT_TRUE(Tool({u"bump", u"--out", served, u"--leaf", leaf}));
  EXPECT_EQ(Run(), 0);
  log = CheckLog();
  EXPECT_EQ(Count(log, kRestarted), 0u) << WToUtf8(log);
  EXPECT_EQ(Count(log, Finished(0)), 1u) << WToUtf8(log);
  EXPECT_EQ(RequestsAtLeast("versionTree.txt", 5), 5);
  EXPECT_EQ(Requests("versionAll.exe"), 2);
  EXPECT_EQ(RepoFile(leaf + u"/versionLeaf.txt"), ReadBytes(ServerPar() + u"/" + leaf + u"/versionLeaf.txt"));

  // Up to date at once: 99 reads as success, without a second look.
  EXPECT_EQ(Run(), 0);
  log = CheckLog();
  EXPECT_EQ(Count(log, kRestarted), 0u) << WToUtf8(log);
  EXPECT_EQ(Count(log, Finished(0)), 1u) << WToUtf8(log);
  EXPECT_EQ(RequestsAtLeast("versionTree.txt", 6), 6);
}

TEST_F(UmDownloadTest, AFailedPassAgainstAnAnsweringServerGetsExactlyOneMore) {
  ASSERT_TRUE(BuildTree(8));
  ASSERT_TRUE(Tool({u"break", u"--out", served, u"--what", u"corrupt-line"}));
  EXPECT_EQ(Run(), -1);
  WString log = CheckLog();
  EXPECT_EQ(Count(log, kRestarted), 1u) << WToUtf8(log);
  EXPECT_EQ(Count(log, Finished(-1)), 1u) << WToUtf8(log);
  EXPECT_EQ(RequestsAtLeast("versionAll.exe", 2), 2);
  EXPECT_FALSE(platform::FileExists(repo + u"/versionTree.txt"));
}

TEST_F(UmDownloadTest, ADownloadBringsTheLeafsPackageWhichLaterRunsKeep) {
  ASSERT_TRUE(BuildTree(8));
  ASSERT_EQ(Run(), 0);
  const VersionLineInfo line = FirstLeaf(u'F');
  const WString leaf = line.leafRelPath;
  webParam web = Web();
  EXPECT_EQ(Door(web)->download(&web, repo, leaf, WString(), 0), 0);
  const Snapshot want = Take(Unpacked(leaf + u"/" + line.leafExeFile) + u"/" + leaf);
  // The package's files over the information files; the package itself does not stay.
  EXPECT_EQ(Missing(want, Take(Repo(leaf))), "");
  EXPECT_FALSE(platform::FileExists(repo + u"/" + line.leafExeFile));
  // The download leaves the marker 0: the job that asked for the package removes it. Until then
  // the leaf reads as information files only; once it is gone, the leaf is complete and keeps its
  // package through the next run that brings something new.
  EXPECT_EQ(Status(leaf), DLZTTree::kInfoFilesOnly);
  ASSERT_TRUE(platform::RemoveFilePath(Repo(leaf + u"/0")));
  EXPECT_EQ(Status(leaf), DLZTTree::kComplete);
  ASSERT_TRUE(Tool({u"bump", u"--out", served, u"--leaf", FirstLeaf(u'F', {leaf}).leafRelPath}));
  ASSERT_EQ(Run(), 0);
  EXPECT_EQ(Missing(want, Take(Repo(leaf))), "") << "lost by the next run";

  // The files at the leaf's top go but for the information files; directories stay.
  EXPECT_EQ(Door(web)->deleteBinary(repo, leaf), 0);
  for (const auto& [path, bytes] : Take(Repo(leaf)))
    EXPECT_TRUE(path.find(u'/') != WString::npos || path == u"versionLeaf.txt" || path == u"zt.par" || path == u"0" ||
                path == u"rel_note.txt" || bytes == "<dir>")
        << WToUtf8(path);
  EXPECT_FALSE(platform::FileExists(Repo(leaf + u"/readme.txt")));
}

TEST_F(UmDownloadTest, ADownloadWithoutAPackageNameInTheVersionLineFetchesNothing) {
  ASSERT_TRUE(BuildTree(8));
  const VersionLineInfo line = FirstLeaf(u'F');
  ASSERT_TRUE(Tool({u"break", u"--out", served, u"--what", u"short-version-leaf", u"--leaf", line.leafRelPath}));
  ASSERT_EQ(Run(), 0);
  webParam web = Web();
  platform::RemoveFilePath(root + u"/EM_MENDER/UM_Checknew.log");
  EXPECT_EQ(Door(web)->download(&web, repo, line.leafRelPath, WString(), 0), -1);
  EXPECT_NE(CheckLog().find(
                WFormat(u"Cannot retrieve exe file name from versionLeaf.txt in '%s'!", line.leafRelPath.c_str())),
            WString::npos)
      << WToUtf8(CheckLog());
  EXPECT_EQ(Requests(WToUtf8(line.leafRelPath + u"/" + line.leafExeFile)), 0);
  EXPECT_EQ(Status(line.leafRelPath), DLZTTree::kInfoFilesOnly);
}

TEST_F(UmDownloadTest, TheJobsTouchNothingOutsideTheRepository) {
  ASSERT_TRUE(BuildTree(2));
  ASSERT_EQ(Run(), 0);
  // A leaf beside the repository, with a package on the server where a careless fetch would look.
  MakeDirs(root + u"/x");
  Put(root + u"/x/versionLeaf.txt", "x\t1\tx.exe\t66000\tF\t-\t0\t0\r\n");
  Put(root + u"/x/bios.bin", "binary that is not the repository's");
  const WString absolute = root + u"/x";
  const Snapshot outside = Outside();
  webParam web = Web();
  for (const WString& rel : {WString(u"../x"), WString(u"a/../../x"), WString(u"..\\x"), absolute}) {
    EXPECT_NE(Door(web)->download(&web, repo, rel, WString(), 0), 0) << WToUtf8(rel);
    EXPECT_NE(Door(web)->deleteBinary(repo, rel), 0) << WToUtf8(rel);
  }
  const Snapshot after = Outside();
  EXPECT_TRUE(after == outside) << Differences(outside, after);
}

TEST_F(UmDownloadTest, TheConnectionTest) {
  ASSERT_TRUE(BuildTree(1));
  webParam web = Web();
  EXPECT_EQ(Door(web)->checkWebConnection(&web), UM_Download::kConnectionOk);
  EXPECT_GE(RequestsAtLeast("versionTree.txt", 1), 1);

  webParam missing = Web();
  missing.path = WFromUtf8(remote + "/missing");
  EXPECT_EQ(Door(missing)->checkWebConnection(&missing), UM_Download::kTransferFailed);

  webParam noServer = Web();
  noServer.server.clear();
  EXPECT_EQ(Door(noServer)->checkWebConnection(&noServer), UM_Download::kParametersMissing);
  auto noCommunity = Door(web);
  noCommunity->Params().SetCommunity(WString());
  EXPECT_EQ(noCommunity->checkWebConnection(&web), UM_Download::kParametersMissing);

  // No transfer tool where the tool is looked for.
  MakeDirs(root + u"/notool");
  auto noTool = Door(web);
  noTool->Params().SetWorkingLocation(root + u"/notool");
  EXPECT_EQ(noTool->checkWebConnection(&web), UM_Download::kCheckFailed);
}
