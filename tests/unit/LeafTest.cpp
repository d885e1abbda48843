// The leaves of the local repository: their states in the order they are tested, the lock
// protocol of the file "1" (in this process and against another one), the version-file readers,
// backup and restore, the removal of binaries, and leaf paths that would leave the repository.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "foundation/CFile.h"
#include "mirror/DLParameters.h"
#include "mirror/DLZTTree.h"
#include "mirror/DownloadLocation.h"
#include "mirror/LeafPath.h"
#include "platform/Clock.h"
#include "platform/FileIo.h"
#include "platform/FileLock.h"
#include "platform/Process.h"
#include "tests/support/LockHolder.h"
#include "tests/unit/TestRegistry.h"

namespace {

class LeafTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = TestDirectory(u"leaf");
    CFile::RemoveDirectoryTree(root, false);
    params.SetScriptLocation(root + u"/work");
    params.SetDownloadLocation(root + u"/tree");
    ASSERT_EQ(location.BuildStructure(params), 0);
    tree = std::make_unique<DLZTTree>(nullptr, &params, &location);
  }
  void TearDown() override {
    tree.reset();
    CFile::RemoveDirectoryTree(root, true);
  }
  WString Leaf(const WString& rel) {
    WString dir = root + u"/tree";
    size_t start = 0;
    for (;;) {
      size_t end = rel.find(u'/', start);
      dir += u"/" + rel.substr(start, end == WString::npos ? WString::npos : end - start);
      platform::CreateDirectoryPath(dir);
      if (end == WString::npos) return dir;
      start = end + 1;
    }
  }
  void Put(const WString& path, const std::string& bytes) {
    ASSERT_TRUE(platform::WriteWholeFile(path, bytes.data(), bytes.size())) << WToUtf8(path);
  }
  WString root;
  DLParameters params;
  DownloadLocation location;
  std::unique_ptr<DLZTTree> tree;
};

const std::string kDone("d\0o\0n\0e\0", 8);

}  // namespace

TEST(LeafPathTest, OnlyPathsBelowTheRootAreSafe) {
  for (const char16_t* good : {u"BIOS", u"BIOS/D3348/A1", u"a\\b", u"a..b/c", u".hidden/x", u"a//b"})
    EXPECT_TRUE(leafpath::IsSafe(good)) << WToUtf8(good);
  for (const char16_t* bad :
       {u"", u"/etc", u"\\x", u"C:/x", u"C:x", u"..", u"../x", u"a/../../b", u"a\\..\\b", u"a/.", u"./a", u"a/./b",
        // names Windows shortens to ".." or "."
        u"a/.. /b", u".../x", u"a/. ", u"x/name."})
    EXPECT_FALSE(leafpath::IsSafe(bad)) << WToUtf8(bad);
  EXPECT_FALSE(leafpath::IsSafe(WString(u"a\0b", 3)));
}

TEST_F(LeafTest, StatesInTheirOrder) {
  EXPECT_EQ(tree->LeafStatus(u"A/B"), DLZTTree::kNonexistent);
  WString dir = Leaf(u"A/B");
  EXPECT_EQ(tree->LeafStatus(u"A/B"), DLZTTree::kEmpty);
  Put(dir + u"/zt.par", "type=BIOS\n");
  EXPECT_EQ(tree->LeafStatus(u"A/B"), DLZTTree::kComplete);
  Put(dir + u"/ztlink.par", "type=BIOS\n");
  EXPECT_EQ(tree->LeafStatus(u"A/B"), DLZTTree::kLink);
  Put(dir + u"/0", "");
  EXPECT_EQ(tree->LeafStatus(u"A/B"), DLZTTree::kInfoFilesOnly);  // 0 wins over zt.par and ztlink.par

  // A lock file nobody holds and that does not say "done": a download that died. It stays.
  Put(dir + u"/1", "");
  EXPECT_EQ(tree->LeafStatus(u"A/B"), DLZTTree::kDownloadFailed);
  Put(dir + u"/1", "xxxxxxxx");
  EXPECT_EQ(tree->LeafStatus(u"A/B"), DLZTTree::kDownloadFailed);
  EXPECT_TRUE(platform::FileExists(dir + u"/1"));
  Put(dir + u"/1", kDone.substr(0, 6));  // "don": too short
  EXPECT_EQ(tree->LeafGetDownloadStatus(u"A/B"), -3);
  // "done": finished; the file goes and the other markers decide.
  Put(dir + u"/1", kDone + "trailing");
  EXPECT_EQ(tree->LeafStatus(u"A/B"), DLZTTree::kInfoFilesOnly);
  EXPECT_FALSE(platform::FileExists(dir + u"/1"));
  EXPECT_EQ(tree->LeafGetDownloadStatus(u"A/B"), DLZTTree::kLockFileGone);

  // Held by another downloader (another open of the file: the lock belongs to that open).
  Put(dir + u"/1", "");
  platform::ByteLockFile other;
  ASSERT_EQ(other.Open(dir + u"/1"), platform::ByteLockFile::OpenResult::kOpened);
  ASSERT_EQ(other.TryLock(), platform::ByteLockFile::LockResult::kLocked);
  EXPECT_EQ(tree->LeafStatus(u"A/B"), DLZTTree::kDownloading);
  ASSERT_TRUE(other.WriteAtStart(kDone.data(), kDone.size()));
  other.Close();
  EXPECT_EQ(tree->LeafStatus(u"A/B"), DLZTTree::kInfoFilesOnly);

  // The mode that keeps packages as they are counts every existing leaf as complete.
  Put(dir + u"/1", "");
  platform::RemoveFilePath(dir + u"/0");
  params.SetDnlFlags(1);
  EXPECT_EQ(tree->LeafStatus(u"A/B"), DLZTTree::kComplete);
  EXPECT_EQ(tree->LeafStatus(u"A/C"), DLZTTree::kNonexistent);
  EXPECT_STREQ(reinterpret_cast<const char*>(WToUtf8(DLZTTree::LeafStatusText(1)).c_str()), "is downloading");
}

TEST_F(LeafTest, TheLockOfAnotherProcessIsSeen) {
  const char* child = std::getenv("EM_TEST_CHILD");
  if (!child || !*child) GTEST_SKIP() << "EM_TEST_CHILD is not set (run through ctest)";
  WString program = WFromUtf8(child);
#ifdef _WIN32
  if (program[0] == u'/') program = u"Z:" + program;
#endif
  WString dir = Leaf(u"L");
  Put(dir + u"/1", "");
  Put(dir + u"/zt.par", "");
  platform::ChildProcess holder;
  ASSERT_TRUE(StartLockHolder(program, dir + u"/1", root + u"/child.txt", holder));
  EXPECT_EQ(tree->LeafStatus(u"L"), DLZTTree::kDownloading);
  StopLockHolder(holder);
  // The holder died without writing "done": its lock went with it.
  EXPECT_EQ(tree->LeafStatus(u"L"), DLZTTree::kDownloadFailed);
}

TEST_F(LeafTest, VersionFileReaders) {
  WString dir = Leaf(u"V");
  int32_t version = 0;
  int64_t size = 0;
  WString exe;
  EXPECT_EQ(tree->LeafGetInfoFromVersionFile(u"V", version, size), -1);
  EXPECT_EQ(tree->LeafGetExeFileNameFromVersionFile(u"V", exe), 1);
  Put(dir + u"/versionLeaf.txt", "");
  EXPECT_EQ(tree->LeafGetExeFileNameFromVersionFile(u"V", exe), 2);
  EXPECT_EQ(tree->LeafGetVersionFromVersionFile(u"V", 0), -1);

  Put(dir + u"/versionLeaf.txt", "V\t7\tv.exe\t123\tF\t-\t0\t6\r\nignored\r\n");
  EXPECT_EQ(tree->LeafGetInfoFromVersionFile(u"V", version, size), 0);
  EXPECT_EQ(version, 7);
  EXPECT_EQ(size, 123);
  EXPECT_EQ(tree->LeafGetExeFileNameFromVersionFile(u"V", exe), 0);
  EXPECT_EQ(exe, u"v.exe");
  EXPECT_EQ(tree->LeafGetVersionFromVersionFile(u"V", 1), 7);

  Put(dir + u"/versionLeaf.txt", "V\t8\r\n");  // the form a package brings
  EXPECT_EQ(tree->LeafGetInfoFromVersionFile(u"V", version, size), -3);
  EXPECT_EQ(version, 8);
  EXPECT_EQ(size, -1);
  EXPECT_EQ(tree->LeafGetVersionFromVersionFile(u"V", 0), 8);
  EXPECT_EQ(tree->LeafGetVersionFromVersionFile(u"V", 1), -1);  // any server version replaces it
  EXPECT_EQ(tree->LeafGetExeFileNameFromVersionFile(u"V", exe), 3);

  Put(dir + u"/versionLeaf.txt", "V\t9\tv.exe\t55");  // four fields, no line end
  EXPECT_EQ(tree->LeafGetInfoFromVersionFile(u"V", version, size), 0);
  EXPECT_EQ(size, 55);
  EXPECT_EQ(tree->LeafGetVersionFromVersionFile(u"V", 1), -1);
  Put(dir + u"/versionLeaf.txt", "# V\t9\tv.exe\t55\tF\t-\t0\t0\n");  // a comment tells nothing
  EXPECT_EQ(tree->LeafGetInfoFromVersionFile(u"V", version, size), -1);
  EXPECT_EQ(tree->LeafGetVersionFromVersionFile(u"V", 0), -1);
}

TEST_F(LeafTest, BackupRestoreAndRemoval) {
  WString dir = Leaf(u"P/Q");
  Put(dir + u"/versionLeaf.txt", "new");
  WString old = Leaf(u"P/Q_bk");
  Put(old + u"/stale.txt", "old backup");
  ASSERT_EQ(tree->LeafMakeBackup(u"P/Q"), 0);  // an old backup is replaced
  EXPECT_FALSE(platform::DirectoryExists(dir));
  EXPECT_TRUE(platform::FileExists(root + u"/tree/P/Q_bk/versionLeaf.txt"));
  EXPECT_FALSE(platform::FileExists(root + u"/tree/P/Q_bk/stale.txt"));
  ASSERT_EQ(tree->LeafRestoreBackup(u"P/Q"), 0);
  EXPECT_TRUE(platform::FileExists(dir + u"/versionLeaf.txt"));
  EXPECT_EQ(tree->LeafRestoreBackup(u"P/Q"), -1);
  ASSERT_EQ(tree->RemoveLeaf(u"P/Q", 0), 0);
  EXPECT_FALSE(platform::DirectoryExists(dir));
  EXPECT_EQ(tree->RemoveLeaf(u"P/Q", 0), 0);    // already gone
  EXPECT_EQ(tree->LeafMakeBackup(u"P/Q"), -1);  // nothing to back up

  // RemoveBinary keeps the information files and every subdirectory.
  WString bin = Leaf(u"R");
  for (const char16_t* f : {u"versionLeaf.txt", u"zt.par", u"0", u"rel_note.txt", u"bios.bin", u"flash.exe"})
    Put(bin + u"/" + f, "x");
  platform::CreateDirectoryPath(bin + u"/sub");
  Put(bin + u"/sub/inner.bin", "x");
  DLZTTree bare(nullptr);
  EXPECT_EQ(bare.RemoveBinary(root + u"/tree", u"R"), 0);
  std::vector<platform::DirEntry> left;
  platform::ListDirectory(bin, left);
  EXPECT_EQ(left.size(), 5u);
  EXPECT_FALSE(platform::FileExists(bin + u"/bios.bin"));
  EXPECT_TRUE(platform::FileExists(bin + u"/sub/inner.bin"));
  EXPECT_EQ(bare.RemoveBinary(root + u"/tree", u"missing"), 1);
}

TEST_F(LeafTest, PathsThatLeaveTheRepositoryTouchNothing) {
  WString outside = root + u"/outside";
  platform::CreateDirectoryPath(outside);
  Put(outside + u"/keep.bin", "x");
  for (const char16_t* bad : {u"../outside", u"a/../../outside", u"/etc"}) {
    EXPECT_EQ(tree->LeafStatus(bad), DLZTTree::kNonexistent) << WToUtf8(bad);
    EXPECT_EQ(tree->RemoveLeaf(bad, 0), -1);
    EXPECT_EQ(tree->RemoveLeaf(bad, 1), -1);
    EXPECT_EQ(tree->LeafMakeBackup(bad), -1);
    EXPECT_EQ(tree->RemoveBinary(root + u"/tree", bad), 1);
    WString exe;
    EXPECT_EQ(tree->DownloadUncompressLeaf(bad, 10, exe), -1);
  }
  EXPECT_TRUE(platform::FileExists(outside + u"/keep.bin"));
  // A package name from a server file must be a plain name.
  Leaf(u"S");
  WString exe = u"../evil.exe";
  EXPECT_EQ(tree->DownloadUncompressLeaf(u"S", 10, exe), -1);
}
