#include <gtest/gtest.h>

#include "platform/CodePage.h"

using platform::CodePageToWide;
using platform::WideToCodePage;

namespace {

WString ToWide(uint32_t codePage, const std::string& bytes) {
  WString out;
  EXPECT_TRUE(CodePageToWide(codePage, bytes.data(), bytes.size(), out));
  return out;
}

std::string ToBytes(uint32_t codePage, const WString& text, bool* lossy = nullptr) {
  std::string out;
  EXPECT_TRUE(WideToCodePage(codePage, text, out, lossy));
  return out;
}

}  // namespace

TEST(CodePage, AnsiIsWestern1252BothWays) {
  // 0x80 is the euro sign, 0xE9 e-acute, 0x9F Y-diaeresis: the bytes where 1252 and Latin-1 differ.
  const std::string bytes = "Caf\xE9 \x80 \x9F";
  const WString text = u"Caf\u00E9 \u20AC \u0178";
  EXPECT_EQ(ToWide(platform::kCodePageAnsi, bytes), text);
  bool lossy = true;
  EXPECT_EQ(ToBytes(platform::kCodePageAnsi, text, &lossy), bytes);
  EXPECT_FALSE(lossy);
}

TEST(CodePage, UnassignedAnsiBytesKeepTheirValue) {
  // The five holes of 1252 read as the C1 controls of the same value and write back unchanged.
  const std::string bytes = "\x81\x8D\x8F\x90\x9D";
  const WString text = ToWide(1252, bytes);
  EXPECT_EQ(text, WString(u"\u0081\u008D\u008F\u0090\u009D"));
  bool lossy = true;
  EXPECT_EQ(ToBytes(1252, text, &lossy), bytes);
  EXPECT_FALSE(lossy);
}

TEST(CodePage, UnmappableCharactersAreReportedAsLoss) {
  bool lossy = false;
  std::string out = ToBytes(platform::kCodePageAnsi, u"a\u65E5b", &lossy);
  EXPECT_TRUE(lossy);
  EXPECT_EQ(out, "a?b");
  // A character beyond the 16-bit range: one default character per unit on Windows, one for the
  // pair with iconv; either way the loss is reported and the neighbours survive.
  lossy = false;
  out = ToBytes(28591, u"x\U0001F600y", &lossy);
  EXPECT_TRUE(lossy);
  EXPECT_TRUE(out == "x?y" || out == "x??y") << out;
}

TEST(CodePage, MultiByteAndUnicodeForms) {
  const WString nihon = u"\u65E5\u672C";
  EXPECT_EQ(ToBytes(932, nihon), "\x93\xFA\x96\x7B");
  EXPECT_EQ(ToWide(932, "\x93\xFA\x96\x7B"), nihon);
  EXPECT_EQ(ToBytes(65001, nihon), "\xE6\x97\xA5\xE6\x9C\xAC");
  EXPECT_EQ(ToBytes(1201, u"A\u00E9"), std::string("\x00\x41\x00\xE9", 4));
  EXPECT_EQ(ToWide(1200, std::string("\x41\x00\x3D\xD8\x00\xDE", 6)), WString(u"A\U0001F600"));
  EXPECT_EQ(ToWide(866, "\x8F\xE0\xA8"), WString(u"\u041F\u0440\u0438"));
}

TEST(CodePage, BadBytesBecomeReplacementCharacters) {
  WString text = ToWide(65001,
                        "a\xFF"
                        "b");
  ASSERT_EQ(text.size(), 3u);
  EXPECT_EQ(text[0], u'a');
  EXPECT_EQ(text[1], u'\xFFFD');
  EXPECT_EQ(text[2], u'b');
}

TEST(CodePage, UnknownCodePagesAreRefused) {
  EXPECT_FALSE(platform::CodePageSupported(12345));
  WString wide;
  EXPECT_FALSE(CodePageToWide(12345, "a", 1, wide));
  std::string bytes;
  EXPECT_FALSE(WideToCodePage(12345, u"a", bytes));
  EXPECT_TRUE(platform::CodePageSupported(platform::kCodePageAnsi));
  EXPECT_TRUE(platform::CodePageSupported(28605));
  EXPECT_TRUE(ToWide(1252, "").empty());
}

#include "foundation/XmlNameTables.inc"

#ifndef _WIN32
// Windows converts all of these; Wine, where the Windows build is tested, lacks a dozen of them
// (EBCDIC 1047 and 20273, the ISO-2022 and EUC pages, GB18030, 858), so the check runs on iconv.
TEST(CodePage, EveryCharsetNameOfTheXmlClassCanBeConverted) {
  // The charset table of the XML class names code pages; each must be one that this platform's
  // conversion knows, or a declared encoding would silently fall back to detection.
  for (const char* bucket : kXmlCharsetTable) {
    for (const char* p = bucket; *p != '\0';) {
      int length = (p[0] - '0') * 10 + (p[1] - '0');
      uint32_t codePage = static_cast<uint32_t>(std::stoul(std::string(p + 2, 5)));
      std::string name(p + 7, static_cast<size_t>(length));
      EXPECT_TRUE(platform::CodePageSupported(codePage)) << name << " " << codePage;
      p += 7 + length;
    }
  }
}
#endif
