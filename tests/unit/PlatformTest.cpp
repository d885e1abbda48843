// The platform services, run alike on POSIX and (under Wine) on Windows.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/Clock.h"
#include "platform/Environment.h"
#include "platform/Event.h"
#include "platform/FileIo.h"
#include "platform/NamedMutex.h"
#include "platform/RegFile.h"
#include "platform/Registry.h"
#include "platform/SystemInfo.h"
#include "platform/Thread.h"
#include "tests/unit/TestRegistry.h"

using namespace platform;

namespace {

const char16_t kRegText[] =
    u"Windows Registry Editor Version 5.00\r\n"
    u"\r\n"
    u"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Debug\\EM_MENDER]\r\n"
    u"\"FileDebugLevel\"=dword:0000000a\r\n"
    u"\"Quoted\"=\"a \\\"b\\\" c:\\\\dir\"\r\n"
    // %EM_TEST_ROOT%\x.log as UTF-16LE bytes, continued over two lines.
    u"\"TraceFile\"=hex(2):25,00,45,00,4d,00,5f,00,54,00,45,00,53,00,54,00,5f,00,52,00,4f,00,\\\r\n"
    u"  4f,00,54,00,25,00,5c,00,78,00,2e,00,6c,00,6f,00,67,00,00,00\r\n"
    u"; a comment\r\n"
    u"[HKEY_CURRENT_USER\\Other]\r\n"
    u"\"x\"=\"y\"\r\n";

}  // namespace

TEST(RegFile, ReadsBothEncodingsAndLineEnds) {
  const std::string utf8Crlf = WToUtf8(kRegText);
  std::string utf8Lf;
  for (char c : utf8Crlf)
    if (c != '\r') utf8Lf.push_back(c);
  const std::string utf16 = Utf16LeWithMark(kRegText);
  const std::pair<std::string, bool> inputs[] = {{utf8Crlf, false}, {utf8Lf, false}, {utf16, true}};
  for (const auto& [bytes, isUtf16] : inputs) {
    RegFile file;
    ASSERT_TRUE(ParseRegFile(bytes, file));
    RegFileKey* key = file.FindLocalMachineKey(u"software\\debug\\em_mender");
    ASSERT_NE(key, nullptr);
    ASSERT_EQ(key->values.size(), 3u);
    EXPECT_EQ(key->values[0].type, RegType::Dword);
    EXPECT_EQ(key->values[0].data, (std::vector<uint8_t>{10, 0, 0, 0}));
    EXPECT_EQ(RegDataString(key->values[1].data), u"a \"b\" c:\\dir");
    EXPECT_EQ(key->values[2].type, RegType::ExpandString);
    EXPECT_EQ(RegDataString(key->values[2].data), u"%EM_TEST_ROOT%\\x.log");
    // Keys of other hives are not below the local machine.
    EXPECT_EQ(file.FindLocalMachineKey(u"Other"), nullptr);
    EXPECT_EQ(file.utf16, isUtf16);  // written back in the encoding it came in
  }
  RegFile bad;
  EXPECT_FALSE(ParseRegFile("not a registry file\n", bad));
}

TEST(RegFile, WritesWhatItReads) {
  RegFile file;
  ASSERT_TRUE(ParseRegFile(Utf16LeWithMark(kRegText), file));
  for (bool utf16 : {true, false}) {
    file.utf16 = utf16;
    RegFile again;
    ASSERT_TRUE(ParseRegFile(SerializeRegFile(file), again));
    ASSERT_EQ(again.keys.size(), file.keys.size());
    for (size_t k = 0; k < file.keys.size(); ++k) {
      ASSERT_EQ(again.keys[k].values.size(), file.keys[k].values.size());
      for (size_t v = 0; v < file.keys[k].values.size(); ++v) {
        EXPECT_EQ(again.keys[k].values[v].type, file.keys[k].values[v].type);
        EXPECT_EQ(again.keys[k].values[v].data, file.keys[k].values[v].data);
      }
    }
    EXPECT_EQ(again.utf16, utf16);
  }
}

TEST(Registry, ReadsValuesAndExpandsFromTheEnvironment) {
  TestRegistry reg(u"registry");
  const WString key = u"SOFTWARE\\EM_TEST\\Registry";
  EXPECT_EQ(RegistryKey::OpenLocalMachine(key), nullptr);
  ASSERT_TRUE(SetEnv(u"EM_TEST_ROOT", u"/data/root"));
  reg.Dword(key, u"Level", 7);
  reg.String(key, u"Plain", u"%EM_TEST_ROOT%\\a");
  reg.String(key, u"Expand", u"%EM_TEST_ROOT%\\a;%EM_NO_SUCH_VAR%", true);
  auto k = RegistryKey::OpenLocalMachine(u"software\\em_test\\REGISTRY");
  ASSERT_NE(k, nullptr);
  uint32_t d = 0;
  EXPECT_TRUE(k->ReadDword(u"level", d));
  EXPECT_EQ(d, 7u);
  WString s;
  EXPECT_TRUE(k->ReadString(u"Plain", s));
  EXPECT_EQ(s, u"%EM_TEST_ROOT%\\a");
  EXPECT_TRUE(k->ReadString(u"Expand", s));
  EXPECT_EQ(s, u"/data/root\\a;%EM_NO_SUCH_VAR%");
  EXPECT_FALSE(k->ReadDword(u"Missing", d));
  EXPECT_FALSE(k->ReadString(u"Level", s));
  UnsetEnv(u"EM_TEST_ROOT");
}

TEST(Environment, ExpansionKeepsUnknownNames) {
  ASSERT_TRUE(SetEnv(u"EM_TEST_A", u"alpha"));
  EXPECT_EQ(ExpandEnvironment(u"x%EM_TEST_A%y%EM_TEST_A%"), u"xalphayalpha");
  EXPECT_EQ(ExpandEnvironment(u"%EM_UNSET_1%EM_TEST_A%"), u"%EM_UNSET_1alpha");
  EXPECT_EQ(ExpandEnvironment(u"50% off"), u"50% off");
  EXPECT_EQ(ExpandEnvironment(u"%%"), u"%%");
  WString v;
  ASSERT_TRUE(UnsetEnv(u"EM_TEST_A"));
  EXPECT_FALSE(GetEnv(u"EM_TEST_A", v));
}

TEST(SystemInfo, DescribesThisMachineAndModule) {
  EXPECT_FALSE(ComputerName().empty());
  uint16_t arch = 0xFFFF;
  ASSERT_TRUE(NativeProcessorArchitecture(arch));
  EXPECT_EQ(arch, 9);  // the project builds for x86-64 only
  EXPECT_FALSE(ModuleFilePath().empty());
  uint64_t pb = 0, ws = 0;
  EXPECT_TRUE(ProcessMemory(pb, ws));
  EXPECT_GT(pb + ws, 0u);
  uint32_t handles = 0;
  EXPECT_TRUE(ProcessHandleCount(handles));
}

TEST(Clock, VirtualTimeMovesOnlyWhenWaiting) {
  VirtualClock clock(1000);
  SetClock(&clock);
  EXPECT_EQ(LocalClockSeconds(), 1000u);
  SleepMs(30000);  // the design's long waits take no real time
  EXPECT_EQ(LocalClockSeconds(), 1030u);
  NativeEvent ev;
  EXPECT_FALSE(WaitFor(ev, 180000));
  EXPECT_EQ(LocalClockSeconds(), 1210u);
  ev.Set();
  EXPECT_TRUE(WaitFor(ev, 500000));
  EXPECT_EQ(LocalClockSeconds(), 1210u);
  EXPECT_EQ(clock.ElapsedMs(), 210000u);
  SetClock(nullptr);
}

TEST(Event, ManualResetWakesEveryWaiter) {
  NativeEvent ev;
  ASSERT_TRUE(ev.Valid());
  EXPECT_FALSE(ev.IsSet());
  EXPECT_FALSE(ev.WaitRealMicros(1000));
  std::atomic<int> woken{0};
  std::thread a([&] { woken += ev.WaitRealMicros(kInfiniteMicros); });
  std::thread b([&] { woken += ev.WaitRealMicros(5000000); });
  ev.Set();
  a.join();
  b.join();
  EXPECT_EQ(woken, 2);
  EXPECT_TRUE(ev.IsSet());  // stays set until reset
  ev.Reset();
  EXPECT_FALSE(ev.WaitRealMicros(0));
}

namespace {
std::atomic<int> g_ran{0};
unsigned CountingEntry(void* arg) {
  g_ran += *static_cast<int*>(arg);
  return 0;
}
unsigned SleepingEntry(void* arg) {
  auto* stop = static_cast<NativeEvent*>(arg);
  stop->WaitRealMicros(kInfiniteMicros);
  return 0;
}
}  // namespace

TEST(Thread, StartsSuspendedWaitsAndEnds) {
  int add = 5;
  NativeThread t;
  g_ran = 0;
  ASSERT_TRUE(t.Start(CountingEntry, &add, 0, true, 0));
  SleepRealMicros(20000);
  EXPECT_EQ(g_ran, 0);  // still suspended
  EXPECT_TRUE(t.IsActive());
  ASSERT_TRUE(t.Resume());
  EXPECT_TRUE(t.WaitRealMicros(5000000));
  EXPECT_EQ(g_ran, 5);
  EXPECT_FALSE(t.IsActive());
  t.Join();
  EXPECT_FALSE(t.HasHandle());
  EXPECT_TRUE(t.WaitRealMicros(0));  // no thread: nothing to wait for
}

TEST(Thread, TerminateEndsABlockedThread) {
  NativeEvent never;
  NativeThread t;
  ASSERT_TRUE(t.Start(SleepingEntry, &never, 0, false, 0));
  EXPECT_FALSE(t.WaitRealMicros(20000));
  EXPECT_TRUE(t.Terminate(0));
  EXPECT_TRUE(t.WaitRealMicros(5000000));
  EXPECT_FALSE(t.IsActive());
}

TEST(NamedMutex, ExcludesOtherHoldersOfTheSameName) {
  NativeNamedMutex a, b;
  ASSERT_TRUE(a.Create(u"EM_TEST_mutex"));
  ASSERT_TRUE(b.Create(u"EM_TEST_mutex"));
  ASSERT_TRUE(a.Acquire(100));
  EXPECT_TRUE(a.Acquire(0));  // the owner may enter again
  std::atomic<bool> got{true};
  std::thread other([&] { got = b.Acquire(30); });
  other.join();
  EXPECT_FALSE(got);
  a.Release();
  a.Release();
  std::thread again([&] {
    got = b.Acquire(1000);
    if (got) b.Release();
  });
  again.join();
  EXPECT_TRUE(got);
}

TEST(FileIo, AppendRenameAndLength) {
  WString dir = TestDirectory(u"fileio");
  WString f = dir + kPathSeparator + u"a.txt";
  WString g = dir + kPathSeparator + u"b.txt";
  RemoveFilePath(f);
  RemoveFilePath(g);
  uint64_t len = 0;
  EXPECT_FALSE(FileLength(f, len));
  ASSERT_TRUE(AppendToFile(f, "abc", 3));
  ASSERT_TRUE(AppendToFile(f, "de", 2));
  ASSERT_TRUE(FileLength(f, len));
  EXPECT_EQ(len, 5u);
  ASSERT_TRUE(WriteWholeFile(g, "old", 3));
  ASSERT_TRUE(RenamePath(f, g));  // replaces the target
  std::string bytes;
  ASSERT_TRUE(ReadWholeFile(g, bytes));
  EXPECT_EQ(bytes, "abcde");
  EXPECT_FALSE(FileExists(f));
  EXPECT_TRUE(DirectoryExists(dir));
  RemoveFilePath(g);
}
