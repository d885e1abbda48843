// The trace facility: its registry settings, stamps, sinks, rolling and encodings.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "base/WFormat.h"
#include "foundation/CDebug.h"
#include "platform/Clock.h"
#include "platform/FileIo.h"
#include "platform/NamedMutex.h"
#include "platform/Thread.h"
#include "tests/unit/TestRegistry.h"

namespace {

const WString kKey = u"SOFTWARE\\Debug\\EM_TEST_TRACE";

std::string ReadBytes(const WString& path) {
  std::string bytes;
  platform::ReadWholeFile(path, bytes);
  return bytes;
}

WString Utf16Text(const std::string& bytes) {
  WString out;
  for (size_t i = 2; i + 1 < bytes.size(); i += 2)
    out.push_back(static_cast<char16_t>(static_cast<uint8_t>(bytes[i]) | (static_cast<uint8_t>(bytes[i + 1]) << 8)));
  return out;
}

class TraceFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = TestDirectory(u"trace");
    file = dir + platform::kPathSeparator + u"trace.log";
    platform::RemoveFilePath(file);
    platform::RemoveFilePath(file + u".txt");
  }
  void TearDown() override {
    platform::RemoveFilePath(file);
    platform::RemoveFilePath(file + u".txt");
  }
  TestRegistry reg{u"trace"};
  WString dir, file;
};

}  // namespace

TEST_F(TraceFileTest, NoKeyMeansInactiveAndNoFile) {
  CDebug debug(u"EM_TEST_TRACE", true);
  EXPECT_FALSE(debug.IsActive());
  debug.Trace(1, u"\nnothing");
  EXPECT_FALSE(platform::FileExists(file));
}

TEST_F(TraceFileTest, FileSinkWritesStampsBehindLeadingLineFeeds) {
  reg.Dword(kKey, u"FileDebugLevel", 3);
  reg.Dword(kKey, u"TimeStampOn", 1);
  reg.Dword(kKey, u"DateStampOn", 1);
  reg.Dword(kKey, u"AppNameOn", 1);
  reg.Dword(kKey, u"ThreadIdOn", 1);
  platform::SetEnv(u"EM_TEST_TRACE_DIR", dir);
  reg.String(kKey, u"TraceFile", WString(u"%EM_TEST_TRACE_DIR%") + platform::kPathSeparator + u"trace.log", true);
  CDebug debug(u"EM_TEST_TRACE", false);
  ASSERT_TRUE(debug.IsActive());
  EXPECT_EQ(debug.FilePath(), file);
  EXPECT_EQ(debug.FileLimit(), 10u << 20);  // the default limit in megabytes
  debug.Trace(3, u"\n\n\nvalue=%d %s", 42, u"wide");
  debug.Trace(4, u"\nabove the level");
  debug.Trace(0, u"\nlevel zero acts as one");

  const std::string bytes = ReadBytes(file);
  ASSERT_GE(bytes.size(), 2u);
  EXPECT_EQ(static_cast<uint8_t>(bytes[0]), 0xFF);  // a new file is UTF-16 with its mark
  EXPECT_EQ(static_cast<uint8_t>(bytes[1]), 0xFE);
  const WString text = Utf16Text(bytes);
  // Three line feeds, each written as CR LF, then the stamps: date, time, thread, name.
  ASSERT_EQ(text.substr(0, 6), u"\r\n\r\n\r\n");
  const WString line = text.substr(6, text.find(u"\r\n", 6) - 6);
  ASSERT_GE(line.size(), 40u);
  EXPECT_EQ(line[0], u'[');
  EXPECT_EQ(line[5], u'-');  // "[YYYY-MM-DD] "
  EXPECT_EQ(line.substr(11, 3), u"] [");
  EXPECT_EQ(line[16], u':');  // "[hh:mm:ss.mmm] "
  EXPECT_EQ(line[22], u'.');
  EXPECT_EQ(line[28], u'(');  // "(tttttt) ", at least six digits
  const size_t close = line.find(u") ");
  ASSERT_GE(close, 35u);
  // "%-13s  " of a 13-character name, its first blank overwritten by the colon.
  EXPECT_EQ(line.substr(close + 2), u"EM_TEST_TRACE: value=42 wide");
  EXPECT_EQ(text.find(u"above the level"), WString::npos);
  EXPECT_NE(text.find(u"level zero acts as one"), WString::npos);
  platform::UnsetEnv(u"EM_TEST_TRACE_DIR");
}

TEST_F(TraceFileTest, RollsAtTheLimitKeepingOneGenerationAndItsEncoding) {
  reg.Dword(kKey, u"FileDebugLevel", 5);
  reg.Dword(kKey, u"TraceFileLimit", 1);
  reg.String(kKey, u"TraceFile", file);
  CDebug debug(u"EM_TEST_TRACE", false);
  ASSERT_TRUE(debug.IsActive());
  const WString chunk(1000, u'x');
  // Each message is 2004 bytes of UTF-16 with its CR LF: 524 of them pass 1 MB.
  for (int i = 0; i < 524; ++i) debug.Trace(1, u"%s\n", chunk.c_str());
  uint64_t size = 0;
  ASSERT_TRUE(platform::FileLength(file, size));
  ASSERT_GE(size, 1u << 20);
  EXPECT_FALSE(platform::FileExists(file + u".txt"));
  debug.Trace(1, u"first of the new file");
  EXPECT_TRUE(platform::FileExists(file + u".txt"));
  std::string fresh = ReadBytes(file);
  EXPECT_EQ(Utf16Text(fresh), u"first of the new file");
  EXPECT_EQ(static_cast<uint8_t>(fresh[0]), 0xFF);
  // A second roll replaces the one generation kept.
  for (int i = 0; i < 524; ++i) debug.Trace(1, u"%s\n", chunk.c_str());
  debug.Trace(1, u"third");
  EXPECT_EQ(Utf16Text(ReadBytes(file)), u"third");
  EXPECT_NE(Utf16Text(ReadBytes(file + u".txt")).find(u"first of the new file"), WString::npos);
}

TEST_F(TraceFileTest, EightBitFileStaysEightBitAndNoLimitNeverRolls) {
  ASSERT_TRUE(platform::WriteWholeFile(file, "old\r\n", 5));
  reg.Dword(kKey, u"FileDebugLevel", 2);
  reg.Dword(kKey, u"TraceFileLimit", 0);
  reg.String(kKey, u"TraceFile", file);
  CDebug debug(u"EM_TEST_TRACE", false);
  debug.Trace(2, u"\nna\u00efve line\nrest");
  EXPECT_EQ(ReadBytes(file), "old\r\n\r\nna\xEFve line\r\nrest");
  // No form in the ANSI code page: replaced, or the conversion failure noted in its place.
  debug.Trace(2, u"\u4e2d");
  const std::string after = ReadBytes(file);
  EXPECT_TRUE(after == "old\r\n\r\nna\xEFve line\r\nrest?" ||
              after == "old\r\n\r\nna\xEFve line\r\nrest### UNICODE-to-MBCS conversion failed ###\n")
      << after;
}

TEST_F(TraceFileTest, FileLevelWithoutPathLeavesOnlyTheOtherSinks) {
  reg.Dword(kKey, u"FileDebugLevel", 5);
  CDebug fileOnly(u"EM_TEST_TRACE", false);
  EXPECT_FALSE(fileOnly.IsActive());
  reg.Dword(kKey, u"WinDebugLevel", 2);
  CDebug withDebugger(u"EM_TEST_TRACE", false);
  EXPECT_TRUE(withDebugger.IsActive());
  EXPECT_EQ(withDebugger.DebuggerLevel(), 2u);
  EXPECT_TRUE(withDebugger.FilePath().empty());
}

TEST_F(TraceFileTest, DynamicUpdateRereadsTheSettings) {
  platform::VirtualClock clock(5000);
  platform::SetClock(&clock);
  reg.Dword(u"SOFTWARE\\Debug", u"DynamicUpdate", 2);  // every 2048 ms
  CDebug debug(u"EM_TEST_TRACE", false);
  EXPECT_TRUE(debug.IsActive());  // DynamicUpdate alone keeps it listening
  reg.Dword(kKey, u"FileDebugLevel", 1);
  reg.String(kKey, u"TraceFile", file);
  debug.Trace(1, u"before");
  EXPECT_FALSE(platform::FileExists(file));
  clock.Advance(2048);
  debug.Trace(1, u"after");
  EXPECT_EQ(Utf16Text(ReadBytes(file)), u"after");
  platform::SetClock(nullptr);
}

TEST_F(TraceFileTest, WithoutDynamicUpdateChangesWaitForTheNextLoad) {
  reg.Dword(kKey, u"FileDebugLevel", 1);
  CDebug debug(u"EM_TEST_TRACE", false);
  reg.String(kKey, u"TraceFile", file);
  debug.Trace(1, u"lost");
  EXPECT_FALSE(platform::FileExists(file));
}

// Support changes the trace file on a running agent while its threads trace: every thread reloads
// the settings at its next message, and no thread may be left writing through a sink that
// another one has just replaced.
TEST_F(TraceFileTest, TraceFileChangedWhileThreadsTrace) {
  platform::VirtualClock clock(5000);
  platform::SetClock(&clock);
  const WString other = dir + platform::kPathSeparator + u"trace2.log";
  platform::RemoveFilePath(other);
  reg.Dword(u"SOFTWARE\\Debug", u"DynamicUpdate", 1);  // every 1024 ms of the clock
  reg.Dword(kKey, u"FileDebugLevel", 3);
  reg.String(kKey, u"TraceFile", file);
  CDebug debug(u"EM_TEST_TRACE", false);
  std::atomic<bool> stop{false};
  std::vector<std::thread> tracers;
  for (int t = 0; t < 3; ++t)
    tracers.emplace_back([&, t] {
      for (int i = 0; !stop; ++i) debug.Trace(1, u"\nthread %d line %d", t, i);
    });
  for (int round = 0; round < 40; ++round) {
    reg.String(kKey, u"TraceFile", round % 2 ? file : other);
    clock.Advance(1024);
    platform::SleepRealMicros(2000);
  }
  stop = true;
  for (auto& t : tracers) t.join();
  // Each file holds whole lines only: no write went through a sink half replaced.
  for (const WString& f : {file, other}) {
    const WString text = Utf16Text(ReadBytes(f));
    EXPECT_FALSE(text.empty());
    size_t at = 0, lines = 0;
    while ((at = text.find(u"\r\n", at)) != WString::npos) {
      at += 2;
      const size_t end = text.find(u"\r\n", at);
      const WString line = text.substr(at, end == WString::npos ? WString::npos : end - at);
      EXPECT_EQ(line.rfind(u"thread ", 0), 0u) << WToUtf8(line);
      ++lines;
    }
    EXPECT_GT(lines, 0u);
  }
  platform::RemoveFilePath(other);
  platform::SetClock(nullptr);
}

#ifndef _WIN32
// Another process holds the trace file's mutex while a thread of ours that traces is ended by
// force: the thread ends, and it leaves neither the in-process lock held nor a file behind.
TEST_F(TraceFileTest, KilledTracerLeavesTheFileMutexFree) {
  const WString path = dir + u"/killed.log";
  WString name = u"CFileDebug_" + path;
  for (auto& c : name)
    if (c == u'/') c = u'_';
  platform::RemoveFilePath(platform::TempDirectory() + u"/" + name + u".lock");  // of an older build
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {  // the other process: holds the mutex for a while
    platform::NativeNamedMutex held;
    held.Create(name);
    const char byte = held.Acquire(1000) ? 1 : 0;
    if (::write(ready[1], &byte, 1) != 1) ::_exit(2);
    platform::SleepRealMicros(600000);
    ::_exit(0);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  ASSERT_EQ(byte, 1);
  reg.Dword(kKey, u"FileDebugLevel", 1);
  reg.String(kKey, u"TraceFile", path);
  CDebug debug(u"EM_TEST_TRACE", false);
  std::pair<CDebug*, int> arg{&debug, 0};
  platform::NativeThread tracer;
  ASSERT_TRUE(tracer.Start(
      [](void* p) -> unsigned {
        auto* a = static_cast<std::pair<CDebug*, int>*>(p);
        for (;;) {
          a->first->Trace(1, u"\nline %d", a->second++);
          platform::SleepMs(1);
        }
      },
      &arg, 0, false, 0));
  platform::SleepRealMicros(150000);
  EXPECT_TRUE(tracer.Terminate(0));
  tracer.Join();
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_GT(arg.second, 0);
  platform::NativeNamedMutex after;
  after.Create(name);
  EXPECT_TRUE(after.Acquire(200)) << "the killed tracer left the in-process lock held";
  after.Release();
  std::vector<platform::DirEntry> entries;
  platform::ListDirectory(platform::TempDirectory(), entries);
  for (const auto& e : entries) EXPECT_EQ(e.name.find(u"killed.log"), WString::npos) << WToUtf8(e.name);
  ::close(ready[0]);
  ::close(ready[1]);
  platform::RemoveFilePath(path);
}
#endif

TEST(WFormat, PrintfCompatibleConversions) {
  EXPECT_EQ(WFormat(u"%d|%u|%x|%X|%04X|%%|%c", -5, 7u, 255u, 255u, 10u, u'z'), u"-5|7|ff|FF|000A|%|z");
  EXPECT_EQ(WFormat(u"[%-10s][%10s][%.2s]", u"abc", u"abc", u"abc"), u"[abc       ][       abc][ab]");
  EXPECT_EQ(WFormat(u"%ld %lu %lld %I64d", -1L, 4000000000UL, -9000000000LL, 9000000000LL),
            u"-1 4000000000 -9000000000 9000000000");
  EXPECT_EQ(WFormat(u"%hs|%S|%s", "n\xC3\xA4rrow", "x", static_cast<const char16_t*>(nullptr)),
            u"n\u00e4rrow|x|(null)");
  EXPECT_EQ(WFormat(u"%05d|%-5d|%+d|%*d", 42, 42, 42, 4, 7), u"00042|42   |+42|   7");
  EXPECT_EQ(WFormat(u"%.2f", 3.14159), u"3.14");
  char16_t small[6];
  EXPECT_EQ(WFormatTo(small, 6, u"%s", u"truncated"), 5u);
  EXPECT_EQ(WString(small), u"trunc");
  // 1 March 2024 13:05:09 in plain seconds, leap year included.
  EXPECT_EQ(WDateText(1709298309u), u"01.03.2024 13:05:09");
}
