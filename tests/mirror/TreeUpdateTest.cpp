// The tree update against trees that repotool builds and changes below nginx: the first run over
// a large tree and the run that finds nothing to do, a list of comments, a corrupt line, leaves
// that follow the server's versions (information files, complete leaves and their backups, a
// package that fails), withdrawn and backtracked leaves, the lock file of other downloads, and a
// server whose leaf paths lead out of the repository.
#include <string>
#include <vector>

#include "mirror/DLZTTree.h"
#include "platform/Process.h"
#include "tests/mirror/ServedTree.h"
#include "tests/support/LockHolder.h"

namespace {

class TreeUpdateTest : public ServedTreeTest {
 protected:
  // The repository as a run must leave it after a server tree `par` (the unpacked information
  // tree): versionTree.txt and every leaf's information files, nothing else.
  Snapshot Expected(const WString& par) {
    Snapshot expected = Take(par);
    expected[u"versionTree.txt"] = ReadBytes(served + u"/versionTree.txt");
    return expected;
  }
  bool Committed() { return RepoFile(u"versionTree.txt") == ReadBytes(served + u"/versionTree.txt"); }
  WString ParTree() const { return location.GetTempDir() + u"/temp_par_tree"; }
  // A payload folder for `bump --files` with one file of the given text.
  WString Payload(const std::string& text) {
    WString dir = root + u"/payload" + Decimal(++m_payloads);
    MakeDirs(dir);
    Put(dir + u"/new.txt", text);
    return dir;
  }
  int m_payloads = 0;
};

const std::string kDone("d\0o\0n\0e\0", 8);

}  // namespace

TEST_F(TreeUpdateTest, AFirstRunBringsEveryLeafsInformationFilesAndTheNextFindsNothingToDo) {
  ASSERT_TRUE(BuildTree(200));
  ASSERT_EQ(Update(), 0);
  std::vector<VersionLineInfo> lines = ServerLines();
  ASSERT_EQ(lines.size(), 200u);
  WString par = ServerPar();
  // Exactly the server's information files and versionTree.txt: no package, no backup, no lock file.
  Snapshot expected = Expected(par), first = Take(repo);
  EXPECT_TRUE(first == expected) << Differences(expected, first);
  // Each leaf reads as information files alone, or as a link.
  int links = 0;
  for (const VersionLineInfo& line : lines) {
    const bool link = line.leafType == u'L';
    links += link ? 1 : 0;
    EXPECT_EQ(Status(line.leafRelPath), link ? DLZTTree::kLink : DLZTTree::kInfoFilesOnly) << WToUtf8(line.leafRelPath);
  }
  EXPECT_GT(links, 0);
  EXPECT_FALSE(platform::DirectoryExists(ParTree()));

  // Up to date: only versionTree.txt is asked for; the archives are not fetched again.
  platform::RemoveFilePath(location.GetTempDir() + u"/versionAll.exe");
  int treeAsked = RequestsAtLeast("versionTree.txt", 1);
  const int allAsked = Requests("versionAll.exe"), parAsked = Requests("ZT_par_tree.exe");
  const int backAsked = Requests("backtrack.txt");
  EXPECT_EQ(allAsked, 1);
  EXPECT_EQ(parAsked, 1);
  EXPECT_EQ(Update(), DLZTTree::kNotNecessary);
  EXPECT_NE(CheckLog().find(u"Updating is not necessary!"), WString::npos);
  EXPECT_EQ(RequestsAtLeast("versionTree.txt", treeAsked + 1), treeAsked + 1);
  EXPECT_EQ(Requests("versionAll.exe"), allAsked);
  EXPECT_EQ(Requests("ZT_par_tree.exe"), parAsked);
  EXPECT_EQ(Requests("backtrack.txt"), backAsked);
  EXPECT_FALSE(platform::FileExists(location.GetTempDir() + u"/versionAll.exe"));
  Snapshot second = Take(repo);
  EXPECT_TRUE(second == first) << Differences(first, second);
}

TEST_F(TreeUpdateTest, AServerWithoutATreeVersionIsAskedTwiceThirtySecondsApart) {
  // The folder is there, versionTree.txt is not.
  uint64_t before = clock.ElapsedMs();
  EXPECT_EQ(Update(), DLZTTree::kRemoteVersionUnknown);
  EXPECT_GE(clock.ElapsedMs() - before, 30000u);
  EXPECT_EQ(RequestsAtLeast("versionTree.txt", 2), 2);
  EXPECT_EQ(Requests("versionAll.exe"), 0);
  EXPECT_NE(CheckLog().find(u"Tree version on Download server could not be determined!"), WString::npos);
  EXPECT_TRUE(Take(repo).empty());
}

TEST_F(TreeUpdateTest, AListOfCommentsCommitsTheNewVersionAndTouchesNoLeaf) {
  ASSERT_TRUE(BuildTree(12));
  ASSERT_EQ(Update(), 0);
  // A leaf with a new version whose line is then a comment: nothing may read it.
  ASSERT_TRUE(Tool({u"bump", u"--out", served, u"--leaf", FirstLeaf(u'F').leafRelPath}));
  ASSERT_TRUE(Tool({u"break", u"--out", served, u"--what", u"comment-only"}));
  auto treeFile = [](const WString& p) { return p == u"versionTree.txt"; };
  Snapshot before = Take(repo, treeFile);
  ASSERT_EQ(Update(), 0);
  Snapshot after = Take(repo, treeFile);
  EXPECT_TRUE(after == before) << Differences(before, after);
  EXPECT_TRUE(Committed());
  EXPECT_FALSE(platform::DirectoryExists(ParTree()));
}

TEST_F(TreeUpdateTest, ACorruptLineStopsTheRunThereAndTheNextRunGoesOverItAgain) {
  ASSERT_TRUE(BuildTree(30));
  std::vector<VersionLineInfo> lines = ServerLines();
  size_t broken = lines.size() / 2;
  while (broken < lines.size() && lines[broken].leafType == u'L') ++broken;
  ASSERT_LT(broken, lines.size());
  ASSERT_TRUE(Tool({u"break", u"--out", served, u"--what", u"corrupt-line", u"--leaf", lines[broken].leafRelPath}));

  EXPECT_EQ(Update(), -1);
  for (size_t i = 0; i < lines.size(); ++i) {
    const WString& rel = lines[i].leafRelPath;
    if (i < broken)
      EXPECT_TRUE(platform::FileExists(Repo(rel + u"/versionLeaf.txt"))) << "before the corrupt line: " << WToUtf8(rel);
    else
      EXPECT_FALSE(platform::DirectoryExists(Repo(rel))) << "from the corrupt line on: " << WToUtf8(rel);
  }
  EXPECT_FALSE(platform::FileExists(repo + u"/versionTree.txt"));

  // The server's tree whole again (a newer version of the same leaves): the run goes over every line.
  ASSERT_TRUE(Rebuild());
  EXPECT_EQ(Update(), 0);
  Snapshot expected = Expected(ServerPar()), after = Take(repo);
  EXPECT_TRUE(after == expected) << Differences(expected, after);
}

TEST_F(TreeUpdateTest, InformationFilesFollowTheServersVersionUpwardsOnly) {
  ASSERT_TRUE(BuildTree(12));
  ASSERT_EQ(Update(), 0);
  const WString full = FirstLeaf(u'F').leafRelPath, link = FirstLeaf(u'L').leafRelPath;
  const WString emptied = FirstLeaf(u'C').leafRelPath, ahead = FirstLeaf(u'F', {full}).leafRelPath;
  // A leaf directory without files; a leaf whose version is ahead of the server's.
  CFile::RemoveDirectoryTree(Repo(emptied), false);
  ASSERT_EQ(Status(emptied), DLZTTree::kEmpty);
  VersionLineInfo aheadLine = ServerLine(ahead);
  std::string aheadText = WToUtf8(ahead) + "\t99\t" + WToUtf8(aheadLine.leafExeFile) + "\t" +
                          std::to_string(aheadLine.leafExeFileSize) + "\tF\t-\t0\t0\r\n";
  Put(Repo(ahead + u"/versionLeaf.txt"), aheadText);
  for (const WString& rel : {full, link, ahead}) ASSERT_TRUE(Tool({u"bump", u"--out", served, u"--leaf", rel}));

  ASSERT_EQ(Update(), 0);
  WString par = ServerPar();
  for (const WString& rel : {full, link, emptied}) {
    Snapshot want = Take(par + u"/" + rel), got = Take(Repo(rel));
    EXPECT_TRUE(got == want) << WToUtf8(rel) << ":" << Differences(want, got);
    EXPECT_FALSE(platform::DirectoryExists(Repo(rel + u"_bk"))) << WToUtf8(rel);
  }
  EXPECT_EQ(Status(link), DLZTTree::kLink);
  EXPECT_EQ(RepoFile(ahead + u"/versionLeaf.txt"), aheadText);
  EXPECT_TRUE(Committed());
}

TEST_F(TreeUpdateTest, ACompleteLeafIsReplacedOnlyByAHigherVersion) {
  ASSERT_TRUE(BuildTree(12));
  ASSERT_EQ(Update(), 0);
  const VersionLineInfo line = FirstLeaf(u'F');
  const WString leaf = line.leafRelPath, other = FirstLeaf(u'F', {leaf}).leafRelPath;
  MakeComplete(leaf);
  Put(Repo(leaf + u"/local.txt"), "only a leaf left alone keeps this");
  const Snapshot complete = Take(Repo(leaf));
  const std::string package = WToUtf8(leaf + u"/" + line.leafExeFile);
  const int fetched = RequestsAtLeast(package, 1);

  // Another leaf's new version: this one keeps what it holds, and its package is not fetched.
  ASSERT_TRUE(Tool({u"bump", u"--out", served, u"--leaf", other}));
  ASSERT_EQ(Update(), 0);
  Snapshot kept = Take(Repo(leaf));
  EXPECT_TRUE(kept == complete) << Differences(complete, kept);
  EXPECT_EQ(Requests(package), fetched);
  EXPECT_EQ(RepoFile(other + u"/versionLeaf.txt"), ReadBytes(ServerPar() + u"/" + other + u"/versionLeaf.txt"));

  // Its own new version with another payload: the leaf becomes the new package's files.
  ASSERT_TRUE(Tool({u"bump", u"--out", served, u"--leaf", leaf, u"--files", Payload("payload two\r\n")}));
  const VersionLineInfo bumped = ServerLine(leaf);
  ASSERT_GT(bumped.leafVersion, line.leafVersion);
  ASSERT_EQ(Update(), 0);
  Snapshot want = Take(Unpacked(leaf + u"/" + bumped.leafExeFile) + u"/" + leaf), got = Take(Repo(leaf));
  EXPECT_TRUE(got == want) << Differences(want, got);
  EXPECT_EQ(RepoFile(leaf + u"/new.txt"), "payload two\r\n");
  EXPECT_EQ(RepoFile(leaf + u"/versionLeaf.txt"), WToUtf8(leaf) + "\t" + std::to_string(bumped.leafVersion) + "\r\n");
  EXPECT_EQ(Status(leaf), DLZTTree::kComplete);
  EXPECT_FALSE(platform::DirectoryExists(Repo(leaf + u"_bk")));
  EXPECT_FALSE(platform::FileExists(repo + u"/" + bumped.leafExeFile));
  EXPECT_TRUE(Committed());
}

TEST_F(TreeUpdateTest, APackageThatFailsBringsTheOldLeafBackAndTheNextRunTriesAgain) {
  ASSERT_TRUE(BuildTree(12));
  ASSERT_EQ(Update(), 0);
  const WString leaf = FirstLeaf(u'F').leafRelPath;
  MakeComplete(leaf);
  Put(Repo(leaf + u"/local.txt"), "the old leaf");
  const Snapshot complete = Take(Repo(leaf));
  const std::string committed = RepoFile(u"versionTree.txt");
  ASSERT_TRUE(Tool({u"bump", u"--out", served, u"--leaf", leaf}));
  ASSERT_TRUE(Tool({u"break", u"--out", served, u"--what", u"corrupt-package", u"--leaf", leaf}));
  const WString exe = ServerLine(leaf).leafExeFile;

  EXPECT_EQ(Update(), -1);
  Snapshot back = Take(Repo(leaf));
  EXPECT_TRUE(back == complete) << Differences(complete, back);
  EXPECT_FALSE(platform::DirectoryExists(Repo(leaf + u"_bk")));
  EXPECT_FALSE(platform::FileExists(repo + u"/" + exe));
  EXPECT_EQ(RepoFile(u"versionTree.txt"), committed);

  // A good package on the server: the next run brings it.
  ASSERT_TRUE(Tool({u"bump", u"--out", served, u"--leaf", leaf, u"--files", Payload("repaired\r\n")}));
  EXPECT_EQ(Update(), 0);
  EXPECT_EQ(RepoFile(leaf + u"/new.txt"), "repaired\r\n");
  EXPECT_FALSE(platform::FileExists(Repo(leaf + u"/local.txt")));
  EXPECT_TRUE(Committed());
}

TEST_F(TreeUpdateTest, AWithdrawnLeafGoesOnlyWhenItHoldsInformationFilesAlone) {
  ASSERT_TRUE(BuildTree(12));
  ASSERT_EQ(Update(), 0);
  const WString infoOnly = FirstLeaf(u'F').leafRelPath, complete = FirstLeaf(u'F', {infoOnly}).leafRelPath;
  const WString link = FirstLeaf(u'L').leafRelPath, absent = FirstLeaf(u'C').leafRelPath;
  MakeComplete(complete);
  const Snapshot held = Take(Repo(complete)), linked = Take(Repo(link));
  CFile::RemoveDirectoryTree(Repo(absent), true);
  ASSERT_EQ(Status(absent), DLZTTree::kNonexistent);
  for (const WString& rel : {infoOnly, complete, link, absent})
    ASSERT_TRUE(Tool({u"withdraw", u"--out", served, u"--leaf", rel}));

  ASSERT_EQ(Update(), 0);
  EXPECT_FALSE(platform::DirectoryExists(Repo(infoOnly)));
  // Downloaded binaries are never thrown away by a withdrawal.
  Snapshot stays = Take(Repo(complete));
  EXPECT_TRUE(stays == held) << Differences(held, stays);
  Snapshot linkStays = Take(Repo(link));
  EXPECT_TRUE(linkStays == linked) << Differences(linked, linkStays);
  EXPECT_FALSE(platform::DirectoryExists(Repo(absent)));
  EXPECT_TRUE(Committed());
}

TEST_F(TreeUpdateTest, BacktrackLinesRemoveLeavesWhateverTheyHoldAndAMissingFileFailsNothing) {
  ASSERT_TRUE(BuildTree(12));
  ASSERT_EQ(Update(), 0);
  const WString complete = FirstLeaf(u'F').leafRelPath, infoOnly = FirstLeaf(u'C').leafRelPath;
  const WString untouched = FirstLeaf(u'F', {complete}).leafRelPath;
  MakeComplete(complete);
  const Snapshot other = Take(Repo(untouched));
  ASSERT_TRUE(Tool({u"backtrack", u"--out", served, u"--leaf", complete, u"--leaf", infoOnly, u"--os", u"any"}));

  ASSERT_EQ(Update(), 0);
  EXPECT_FALSE(platform::DirectoryExists(Repo(complete)));
  EXPECT_FALSE(platform::DirectoryExists(Repo(infoOnly)));
  Snapshot otherAfter = Take(Repo(untouched));
  EXPECT_TRUE(otherAfter == other) << Differences(other, otherAfter);
  EXPECT_TRUE(Committed());

  // No backtrack.txt on the server: the run ends well and commits; the two leaves, still listed,
  // come back with their information files and stay.
  ASSERT_TRUE(platform::RemoveFilePath(served + u"/backtrack.txt"));
  ASSERT_TRUE(Tool({u"bump", u"--out", served, u"--leaf", untouched}));
  EXPECT_EQ(Update(), 0);
  EXPECT_TRUE(Committed());
  WString par = ServerPar();
  for (const WString& rel : {complete, infoOnly, untouched}) {
    Snapshot want = Take(par + u"/" + rel), got = Take(Repo(rel));
    EXPECT_TRUE(got == want) << WToUtf8(rel) << ":" << Differences(want, got);
  }
}

TEST_F(TreeUpdateTest, ALeafAnotherProcessDownloadsIsLeftAlone) {
  WString child = PathFromEnv("EM_TEST_CHILD");
  if (child.empty()) GTEST_SKIP() << "EM_TEST_CHILD is not set (run through ctest)";
  ASSERT_TRUE(BuildTree(12));
  ASSERT_EQ(Update(), 0);
  const WString leaf = FirstLeaf(u'F').leafRelPath;
  MakeComplete(leaf);
  Put(Repo(leaf + u"/1"), "");
  platform::ChildProcess holder;
  const bool locked = StartLockHolder(child, Repo(leaf + u"/1"), root + u"/child.txt", holder);
  // The locked byte cannot be read on Windows: the lock file is looked at by its existence only.
  auto lockFile = [](const WString& p) { return p == u"1"; };
  const Snapshot held = Take(Repo(leaf), lockFile);
  ASSERT_TRUE(Tool({u"bump", u"--out", served, u"--leaf", leaf}));
  int rc = locked ? Update() : -99;
  const Snapshot after = Take(Repo(leaf), lockFile);
  const bool lockStays = platform::FileExists(Repo(leaf + u"/1"));
  StopLockHolder(holder);
  ASSERT_TRUE(locked);
  EXPECT_EQ(rc, 0);
  EXPECT_TRUE(after == held) << Differences(held, after);
  EXPECT_TRUE(lockStays);
}

TEST_F(TreeUpdateTest, TheLockFileOfAFinishedAndOfADeadDownload) {
  ASSERT_TRUE(BuildTree(12));
  ASSERT_EQ(Update(), 0);
  const WString finished = FirstLeaf(u'F').leafRelPath, dead = FirstLeaf(u'F', {finished}).leafRelPath;
  const WString other = FirstLeaf(u'F', {finished, dead}).leafRelPath;
  MakeComplete(finished);
  MakeComplete(dead);
  Put(Repo(finished + u"/local.txt"), "kept");
  Put(Repo(dead + u"/local.txt"), "thrown away with the leaf");
  const Snapshot complete = Take(Repo(finished));
  // "done" in UTF-16LE: the downloader finished; nobody holds a file without it: it died.
  Put(Repo(finished + u"/1"), kDone);
  Put(Repo(dead + u"/1"), "");
  ASSERT_TRUE(Tool({u"bump", u"--out", served, u"--leaf", other}));

  ASSERT_EQ(Update(), 0);
  // The finished one is judged by its other files: complete, of the server's version, left alone.
  Snapshot kept = Take(Repo(finished));
  EXPECT_TRUE(kept == complete) << Differences(complete, kept);
  // The dead one starts again from its information files.
  Snapshot want = Take(ServerPar() + u"/" + dead), got = Take(Repo(dead));
  EXPECT_TRUE(got == want) << Differences(want, got);
  EXPECT_TRUE(Committed());
}

TEST_F(TreeUpdateTest, LeafPathsThatLeaveTheRepositoryAreRefusedAndTheRunGoesOn) {
  ASSERT_TRUE(BuildTree(8));
  // Beside the repository (root/tree) lie leaves a careless client would find, replace, fill or
  // remove: information files only, an empty one, one with files of its own.
  const WString absLeaf = root + u"/abs_leaf", absVictim = root + u"/abs_victim";
  for (const WString& dir : {root + u"/escape/leaf", absLeaf}) {
    MakeDirs(dir);
    Put(dir + u"/0", "");
    Put(dir + u"/zt.par", "type=BIOS\r\n");
    Put(dir + u"/versionLeaf.txt", "leaf\t0\tleaf.exe\t10\tF\t-\t0\t0\r\n");
  }
  MakeDirs(root + u"/x");
  MakeDirs(root + u"/back/leaf");
  Put(root + u"/back/leaf/keep.txt", "mine");
  for (const WString& dir : {root + u"/victim", absVictim}) {
    MakeDirs(dir);
    Put(dir + u"/keep.txt", "not the repository's");
  }
  // Information files a careless copy would take from beside the information tree.
  MakeDirs(location.GetTempDir() + u"/escape/leaf");
  Put(location.GetTempDir() + u"/escape/leaf/versionLeaf.txt", "leaf\t1\thostile.exe\t1000\tF\t-\t0\t0\r\n");
  // The default hostile lines (../escape/leaf, /abs/leaf, C:/drive/leaf, a/../../x, ..\back\leaf,
  // .../dots/leaf, ".. /blank/leaf") at version 1, withdrawals of the two leaves with information
  // files alone, and backtrack lines for ../victim (and its other forms) and for a real directory
  // by its absolute path.
  ASSERT_TRUE(Tool({u"break", u"--out", served, u"--what", u"hostile-lines"}));
  ASSERT_TRUE(Tool({u"break", u"--out", served, u"--what", u"hostile-lines", u"--leaf", absLeaf, u"--leaf",
                    u"../escape/leaf", u"--version", u"-1"}));
  ASSERT_TRUE(Tool({u"break", u"--out", served, u"--what", u"hostile-backtrack"}));
  ASSERT_TRUE(Tool({u"break", u"--out", served, u"--what", u"hostile-backtrack", u"--leaf", absVictim}));
  const Snapshot outside = Outside();

  EXPECT_EQ(Update(), 0);
  const Snapshot after = Outside();
  EXPECT_TRUE(after == outside) << Differences(outside, after);
  // The good leaves behind the hostile lines are all there, and nothing else.
  Snapshot expected = Expected(ServerPar()), got = Take(repo);
  EXPECT_TRUE(got == expected) << Differences(expected, got);
  EXPECT_FALSE(platform::DirectoryExists(u"/abs"));
  EXPECT_FALSE(platform::DirectoryExists(u"C:/drive"));
}
