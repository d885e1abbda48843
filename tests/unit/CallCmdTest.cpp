// How the transfer utilities run a command: exit codes and output files, a command that cannot
// start, the time limit on a virtual clock, and the shutdown looked at only after the command.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "foundation/CFile.h"
#include "mirror/DLUtils.h"
#include "platform/Clock.h"
#include "platform/FileIo.h"
#include "tests/unit/FakeUpdateModule.h"
#include "tests/unit/TestRegistry.h"

namespace {

class CallCmdTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* v = std::getenv("EM_TEST_CHILD");
    if (!v || !*v) GTEST_SKIP() << "EM_TEST_CHILD is not set (run through ctest)";
    child = WFromUtf8(v);
#ifdef _WIN32
    if (child[0] == u'/') child = u"Z:" + child;
#endif
    root = TestDirectory(u"callcmd");
    CFile::RemoveDirectoryTree(root, false);
  }
  void TearDown() override {
    platform::SetClock(nullptr);
    if (!root.empty()) CFile::RemoveDirectoryTree(root, true);
  }
  WString Cmd(const char16_t* args) {
    return u"\"" + child + u"\" " + args;
  }
  std::string Read(const char16_t* name) {
    std::string bytes;
    platform::ReadWholeFile(root + u"/" + name, bytes);
    return bytes;
  }
  WString child, root;
};

}  // namespace

TEST_F(CallCmdTest, ExitCodeOutputFilesAndAFailedStart) {
  DLUtils utils;
  platform::WriteWholeFile(root + u"/out.txt", "old\n", 4);
  EXPECT_EQ(
      utils.CallCmdAsync(Cmd(u"stdout hello stderr oops exit 3"), root, root + u"/out.txt", root + u"/err.txt", 180),
      3);
  EXPECT_EQ(Read(u"out.txt"), "old\nhello\n");  // appended, not replaced
  EXPECT_EQ(Read(u"err.txt"), "oops\n");
  EXPECT_EQ(utils.CallCmdAsync(Cmd(u"exit 0"), WString(), WString(), WString(), 180), 0);
  EXPECT_EQ(utils.CallCmdAsync(u"\"" + root + u"/no-such-program\" x", root, WString(), WString(), 180), -1);
}

TEST_F(CallCmdTest, AHangingCommandEndsAfterItsLimitWithTheStillActiveCode) {
  platform::VirtualClock clock(1700000000u, 20);
  platform::SetClock(&clock);
  DLUtils utils;
  EXPECT_EQ(utils.CallCmdAsync(Cmd(u"hang"), root, WString(), WString(), 5), 259);
  // Ended at the first poll at which more than 5000 ms are counted: after the sixth second.
  EXPECT_EQ(clock.ElapsedMs(), 7000u);
}

TEST_F(CallCmdTest, AShutdownDoesNotCutARunningCommandShort) {
  FakeUpdateModule module;
  module.shutdown = 1;
  DLUtils utils(&module);
  EXPECT_EQ(utils.CallCmdAsync(Cmd(u"sleep-ms 300 stdout done exit 4"), root, root + u"/out.txt", WString(), 180), 4);
  EXPECT_EQ(Read(u"out.txt"), "done\n");
}
