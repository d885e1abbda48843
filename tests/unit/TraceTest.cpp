// The trace facility: its registry settings, stamps, sinks, rolling and encodings.
#include <gtest/gtest.h>

#include <string>

#include "base/WFormat.h"
#include "foundation/CDebug.h"
#include "platform/Clock.h"
#include "platform/FileIo.h"
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
