// Directory trees: copy, removal, free space, open rights.
#include <gtest/gtest.h>

#include <string>

#include "platform/FileIo.h"
#include "platform/FileTree.h"
#include "tests/unit/LinkTarget.h"

#ifdef _WIN32
#include <aclapi.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

using namespace platform;

namespace {

class FileTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = TempDirectory() + kPathSeparator + u"em_filetree_test";
    WString error;
    RemoveTree(m_dir, error);
    ASSERT_TRUE(CreateDirectoryPath(m_dir));
  }
  void TearDown() override {
    WString error;
    RemoveTree(m_dir, error);
  }
  WString P(const WString& relative) const { return m_dir + u"/" + relative; }
  void Put(const WString& relative, const std::string& text) const {
    ASSERT_TRUE(WriteWholeFile(P(relative), text.data(), text.size())) << WToUtf8(relative);
  }
  std::string Get(const WString& relative) const {
    std::string bytes;
    return ReadWholeFile(P(relative), bytes) ? bytes : std::string("<missing>");
  }
  // Every level of the relative path.
  void MakeDir(const WString& relative) const {
    for (size_t slash = relative.find(u'/');; slash = relative.find(u'/', slash + 1)) {
      ASSERT_TRUE(CreateDirectoryPath(P(relative.substr(0, slash)))) << WToUtf8(relative);
      if (slash == WString::npos) break;
    }
  }

  WString m_dir;
};

void SetHidden(const WString& path) {
#ifdef _WIN32
  SetFileAttributesW(reinterpret_cast<const wchar_t*>(path.c_str()), FILE_ATTRIBUTE_HIDDEN);
#else
  (void)path;  // a leading dot is what hides a file here
#endif
}

void SetReadOnly(const WString& path) {
#ifdef _WIN32
  SetFileAttributesW(reinterpret_cast<const wchar_t*>(path.c_str()), FILE_ATTRIBUTE_READONLY);
#else
  ::chmod(WToUtf8(path).c_str(), 0444);
#endif
}

}  // namespace

TEST_F(FileTreeTest, CopyTakesEverythingAndOverwrites) {
  MakeDir(u"from/sub/deeper");
  MakeDir(u"from/empty");
  MakeDir(u"from/sub/empty too");
  Put(u"from/a.txt", "A");
  Put(u"from/.hidden", "H");
  SetHidden(P(u"from/.hidden"));
  Put(u"from/sub/b.txt", "B");
  Put(u"from/sub/deeper/c.txt", "C");
  // The target's levels are made; a longer old file is cut to the new length, even a read-only
  // one; what only the target has stays.
  MakeDir(u"x/y/to");
  Put(u"x/y/to/a.txt", "old and longer");
  SetReadOnly(P(u"x/y/to/a.txt"));
  Put(u"x/y/to/extra.txt", "E");
  WString error;
  EXPECT_TRUE(CopyTree(P(u"from"), P(u"x/y/to"), error)) << WToUtf8(error);
  EXPECT_EQ(error, u"");
  EXPECT_EQ(Get(u"x/y/to/a.txt"), "A");
  EXPECT_EQ(Get(u"x/y/to/.hidden"), "H");
  EXPECT_EQ(Get(u"x/y/to/sub/b.txt"), "B");
  EXPECT_EQ(Get(u"x/y/to/sub/deeper/c.txt"), "C");
  EXPECT_EQ(Get(u"x/y/to/extra.txt"), "E");
  EXPECT_TRUE(DirectoryExists(P(u"x/y/to/empty")));
  EXPECT_TRUE(DirectoryExists(P(u"x/y/to/sub/empty too")));
  EXPECT_EQ(Get(u"from/a.txt"), "A");

  // Into a target that does not exist yet, with every missing level above it.
  EXPECT_TRUE(CopyTree(P(u"from"), P(u"new/levels/to"), error)) << WToUtf8(error);
  EXPECT_EQ(Get(u"new/levels/to/sub/deeper/c.txt"), "C");
}

TEST_F(FileTreeTest, CopyRefusesAMissingSourceAndATargetInsideTheSource) {
  WString error;
  EXPECT_FALSE(CopyTree(P(u"no-such-dir"), P(u"to"), error));
  EXPECT_FALSE(error.empty());
  MakeDir(u"from");
  Put(u"from/a.txt", "A");
  error.clear();
  EXPECT_FALSE(CopyTree(P(u"from"), P(u"from/inner"), error));
  EXPECT_FALSE(error.empty());
  error.clear();
  EXPECT_FALSE(CopyTree(P(u"from"), P(u"from"), error));
  EXPECT_EQ(Get(u"from/a.txt"), "A");
}

TEST_F(FileTreeTest, RemoveTakesTheWholeTree) {
  MakeDir(u"tree/sub/deeper");
  MakeDir(u"tree/empty");
  Put(u"tree/.hidden", "H");
  SetHidden(P(u"tree/.hidden"));
  Put(u"tree/sub/readonly.txt", "R");
  SetReadOnly(P(u"tree/sub/readonly.txt"));
  Put(u"tree/sub/deeper/c.txt", "C");
  WString error;
  EXPECT_TRUE(RemoveTree(P(u"tree"), error)) << WToUtf8(error);
  EXPECT_FALSE(DirectoryExists(P(u"tree")));
  // Nothing there: nothing to do. A file: removed.
  EXPECT_TRUE(RemoveTree(P(u"tree"), error));
  Put(u"file.txt", "F");
  EXPECT_TRUE(RemoveTree(P(u"file.txt"), error));
  EXPECT_FALSE(FileExists(P(u"file.txt")));
}

#ifndef _WIN32
TEST_F(FileTreeTest, LinksAreCopiedAndRemovedAsLinksNeverFollowed) {
  MakeDir(u"outside");
  Put(u"outside/victim.txt", "keep me");
  MakeDir(u"from/sub");
  Put(u"from/a.txt", "A");
  ASSERT_EQ(::symlink("../outside", WToUtf8(P(u"from/out")).c_str()), 0);
  ASSERT_EQ(::symlink("a.txt", WToUtf8(P(u"from/sub/rel")).c_str()), 0);
  // A link already standing in the target where a file comes is replaced, not written through.
  MakeDir(u"to");
  ASSERT_EQ(::symlink(WToUtf8(P(u"outside/victim.txt")).c_str(), WToUtf8(P(u"to/a.txt")).c_str()), 0);
  // Directories made read-only are no obstacle to removal.
  MakeDir(u"from/locked");
  Put(u"from/locked/x.txt", "X");
  ::chmod(WToUtf8(P(u"from/locked")).c_str(), 0555);

  WString error;
  EXPECT_TRUE(CopyTree(P(u"from"), P(u"to"), error)) << WToUtf8(error);
  std::string target;
  ASSERT_TRUE(IsLink(P(u"to/out"), target));
  EXPECT_EQ(target, "../outside");
  ASSERT_TRUE(IsLink(P(u"to/sub/rel"), target));
  EXPECT_EQ(target, "a.txt");
  EXPECT_FALSE(IsLink(P(u"to/a.txt"), target));
  EXPECT_EQ(Get(u"to/a.txt"), "A");
  EXPECT_EQ(Get(u"outside/victim.txt"), "keep me");

  EXPECT_TRUE(RemoveTree(P(u"from"), error)) << WToUtf8(error);
  EXPECT_TRUE(RemoveTree(P(u"to"), error)) << WToUtf8(error);
  EXPECT_FALSE(DirectoryExists(P(u"from")));
  EXPECT_EQ(Get(u"outside/victim.txt"), "keep me");

  // A link given as the tree itself: the link goes, its target stays.
  ASSERT_EQ(::symlink("outside", WToUtf8(P(u"link")).c_str()), 0);
  EXPECT_TRUE(RemoveTree(P(u"link/"), error));
  EXPECT_FALSE(IsLink(P(u"link"), target));
  EXPECT_EQ(Get(u"outside/victim.txt"), "keep me");
}

TEST_F(FileTreeTest, CopyKeepsModificationTimes) {
  MakeDir(u"from");
  Put(u"from/a.txt", "A");
  const struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, WToUtf8(P(u"from/a.txt")).c_str(), times, 0), 0);
  WString error;
  ASSERT_TRUE(CopyTree(P(u"from"), P(u"to"), error));
  struct stat st {};
  ASSERT_EQ(::stat(WToUtf8(P(u"to/a.txt")).c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1000000000);
}
#endif

TEST_F(FileTreeTest, FreeBytesOfExistingAndFuturePaths) {
  uint64_t bytes = 0;
  ASSERT_TRUE(FreeBytesForCaller(TempDirectory(), bytes));
  EXPECT_GT(bytes, 0u);
  // A directory yet to be made: the free space of the volume it will be on.
  uint64_t future = 0;
  ASSERT_TRUE(FreeBytesForCaller(P(u"not/yet/made"), future));
  EXPECT_GT(future, 0u);
}

#ifndef _WIN32
TEST_F(FileTreeTest, GrantFullAccessOpensTheMode) {
  MakeDir(u"closed");
  ASSERT_EQ(::chmod(WToUtf8(P(u"closed")).c_str(), 0700), 0);
  EXPECT_TRUE(GrantFullAccess(P(u"closed"), u"Everyone"));
  struct stat st {};
  ASSERT_EQ(::stat(WToUtf8(P(u"closed")).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0777u);
  EXPECT_FALSE(GrantFullAccess(P(u"missing"), u"Everyone"));
}
#endif

#ifdef _WIN32
TEST_F(FileTreeTest, GrantFullAccessAddsAnInheritedAceForTheAccount) {
  MakeDir(u"open");
  ASSERT_TRUE(GrantFullAccess(P(u"open"), u"Everyone"));
  BYTE everyone[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof everyone;
  ASSERT_TRUE(CreateWellKnownSid(WinWorldSid, nullptr, everyone, &size));
  PACL acl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const WString path = WReplaceAll(P(u"open"), u"/", u"\\");
  ASSERT_EQ(GetNamedSecurityInfoW(reinterpret_cast<const wchar_t*>(path.c_str()), SE_FILE_OBJECT,
                                  DACL_SECURITY_INFORMATION, nullptr, nullptr, &acl, nullptr, &descriptor),
            static_cast<DWORD>(ERROR_SUCCESS));
  // Full control on Windows. Wine keeps no ACL where the file system has no room for it: it maps
  // the grant onto the Unix mode (0777) and reads back an ACE built from that mode, full control
  // less the rights to change the ACL and owner. Either way everything the mirror needs is there.
  const DWORD kNeeded = FILE_GENERIC_READ | FILE_GENERIC_WRITE | FILE_GENERIC_EXECUTE | DELETE;
  bool found = false;
  for (DWORD i = 0; acl && i < acl->AceCount; ++i) {
    void* ace = nullptr;
    if (!GetAce(acl, i, &ace)) continue;
    auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
    if (allowed->Header.AceType != ACCESS_ALLOWED_ACE_TYPE || !EqualSid(&allowed->SidStart, everyone)) continue;
    found = (allowed->Mask & kNeeded) == kNeeded &&
            (allowed->Header.AceFlags & (OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE)) ==
                (OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE);
  }
  LocalFree(descriptor);
  EXPECT_TRUE(found);
  EXPECT_FALSE(GrantFullAccess(P(u"open"), u"No Such Account 4711"));
  EXPECT_FALSE(GrantFullAccess(P(u"missing"), u"Everyone"));
}
#endif
