// Texts from outside: UTF-8 bytes read into wide strings, and format texts run through the
// formatter. Both must be safe and lose nothing valid whatever the bytes are.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "base/WFormat.h"
#include "base/WString.h"

namespace {

constexpr char16_t R = u'\xFFFD';

WString Decode(std::initializer_list<uint8_t> bytes) {
  const std::string s(bytes.begin(), bytes.end());
  return WFromUtf8(s);
}

bool HasLoneSurrogate(const WString& w) {
  for (size_t i = 0; i < w.size(); ++i) {
    if (w[i] >= 0xD800 && w[i] <= 0xDBFF && i + 1 < w.size() && w[i + 1] >= 0xDC00 && w[i + 1] <= 0xDFFF)
      ++i;
    else if (w[i] >= 0xD800 && w[i] <= 0xDFFF)
      return true;
  }
  return false;
}

}  // namespace

// The replacement examples of the Unicode standard (one U+FFFD per maximal subpart), and the
// faults found in the field: an overlong NUL, an encoded surrogate, a cut sequence that swallowed
// the character after it.
TEST(Utf8Decoding, OneReplacementPerMaximalSubpart) {
  EXPECT_EQ(Decode({0x61, 0xF1, 0x80, 0x80, 0xE1, 0x80, 0xC2, 0x62, 0x80, 0x63, 0x80, 0xBF, 0x64}),
            (WString{u'a', R, R, R, u'b', R, u'c', R, R, u'd'}));
  EXPECT_EQ(Decode({0xC0, 0xAF, 0xE0, 0x80, 0xBF, 0xF0, 0x81, 0x82, 0x41}), (WString{R, R, R, R, R, R, R, R, u'A'}));
  EXPECT_EQ(Decode({0xED, 0xA0, 0x80, 0xED, 0xBF, 0xBF, 0xED, 0xAF, 0x41}), (WString{R, R, R, R, R, R, R, R, u'A'}));
  EXPECT_EQ(Decode({0xF4, 0x91, 0x92, 0x93, 0xFF, 0x41, 0x80, 0xBF, 0x42}), (WString{R, R, R, R, R, u'A', R, R, u'B'}));
  EXPECT_EQ(Decode({0xE1, 0x80, 0xE2, 0xF0, 0x91, 0x92, 0xF1, 0xBF, 0x41}), (WString{R, R, R, R, u'A'}));

  EXPECT_EQ(Decode({'a', 0xC0, 0x80, 'b'}), (WString{u'a', R, R, u'b'}));           // no U+0000 from an overlong form
  EXPECT_EQ(Decode({'Y', 0xED, 0xBB, 0xBF, 'Y'}), (WString{u'Y', R, R, R, u'Y'}));  // no U+DEFF
  EXPECT_EQ(Decode({'a', 'b', 'c', 0xE2, 'z'}), (WString{u'a', u'b', u'c', R, u'z'}));
  EXPECT_EQ(Decode({'a', 'b', 'c', 0xE2, 0x82}), (WString{u'a', u'b', u'c', R}));
  EXPECT_EQ(Decode({0xF0, 0x9F, 0x98}), (WString{R}));
}

TEST(Utf8Decoding, EveryValidCharacterRoundTrips) {
  for (uint32_t cp : {0x0u, 0x7Fu, 0x80u, 0x7FFu, 0x800u, 0xFFFu, 0x1000u, 0xD7FFu, 0xE000u, 0xFFFDu, 0xFFFFu, 0x10000u,
                      0x3FFFFu, 0x40000u, 0xFFFFFu, 0x100000u, 0x10FFFFu}) {
    WString wide;
    if (cp >= 0x10000) {
      wide = {static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)),
              static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF))};
    } else {
      wide = {static_cast<char16_t>(cp)};
    }
    const std::string utf8 = WToUtf8(wide);
    EXPECT_EQ(WFromUtf8(utf8), wide) << std::hex << cp;
  }
}

// Over every sequence of four bytes taken from the boundaries of the encoding: ASCII is never
// lost or moved, no lone surrogate comes out, decoding what was decoded changes nothing, and
// exactly the well-formed inputs survive the way back to bytes.
TEST(Utf8Decoding, NothingValidIsLostAroundAFault) {
  const uint8_t interesting[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC1, 0xC2, 0xDF,
                                 0xE0, 0xE1, 0xEC, 0xED, 0xEE, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xFF};
  size_t failures = 0;
  for (uint8_t a : interesting)
    for (uint8_t b : interesting)
      for (uint8_t c : interesting)
        for (uint8_t d : interesting) {
          const std::string in{static_cast<char>(a), static_cast<char>(b), static_cast<char>(c), static_cast<char>(d)};
          const WString out = WFromUtf8(in);
          std::u16string asciiIn, asciiOut;
          for (char ch : in)
            if (static_cast<uint8_t>(ch) < 0x80) asciiIn.push_back(static_cast<char16_t>(ch));
          for (char16_t ch : out)
            if (ch < 0x80) asciiOut.push_back(ch);
          const bool wellFormed = out.find(R) == WString::npos;
          const bool ok = asciiIn == asciiOut && !HasLoneSurrogate(out) && WFromUtf8(WToUtf8(out)) == out &&
                          (WToUtf8(out) == in) == wellFormed;
          if (!ok && ++failures <= 5) ADD_FAILURE() << std::hex << +a << " " << +b << " " << +c << " " << +d;
        }
  EXPECT_EQ(failures, 0u);
}

// Counts and widths in format texts can be anything; the output stays what printf would give,
// within the buffer.
TEST(WFormatBounds, LongPrecisionOnAnyIntegerStaysInItsField) {
  const WString zeros80(80, u'0');
  EXPECT_EQ(WFormat(u"%.100llu", ULLONG_MAX), zeros80 + u"18446744073709551615");
  EXPECT_EQ(WFormat(u"%.100lld", LLONG_MIN), u"-" + WString(81, u'0') + u"9223372036854775808");
  EXPECT_EQ(WFormat(u"%#.100llx", ULLONG_MAX), u"0x" + WString(84, u'0') + u"ffffffffffffffff");
  EXPECT_EQ(WFormat(u"%.100llo", ULLONG_MAX), WString(78, u'0') + u"1777777777777777777777");
  EXPECT_EQ(WFormat(u"%+110.100d|", 7).size(), 111u);
  char16_t small[16];
  EXPECT_EQ(WFormatTo(small, 16, u"%.500llu", ULLONG_MAX), 15u);
  EXPECT_EQ(WString(small), WString(15, u'0'));
}

TEST(WFormatBounds, CountsBeyondAnIntSaturate) {
  char16_t buf[16];
  // 2147483648 does not fit an int: it counts as the largest width, not as a negative one.
  EXPECT_EQ(WFormatTo(buf, 16, u"%2147483648d", 5), 15u);
  EXPECT_EQ(WString(buf), WString(15, u' '));
  EXPECT_EQ(WFormatTo(buf, 16, u"%-99999999999999999999d|", 5), 15u);
  EXPECT_EQ(WString(buf), u"5" + WString(14, u' '));
  EXPECT_EQ(WFormatTo(buf, 16, u"%.2147483648d", 5), 15u);
  EXPECT_EQ(WString(buf), WString(15, u'0'));
  // A "*" width of INT_MIN is a left-adjusted field as wide as can be.
  EXPECT_EQ(WFormatTo(buf, 16, u"%*d|", INT_MIN, 5), 15u);
  EXPECT_EQ(WString(buf), u"5" + WString(14, u' '));
  EXPECT_EQ(WFormat(u"%*d|%-*d|%.*d", -3, 1, 3, 2, -1, 0), u"1  |2  |0");
}

TEST(WFormatBounds, FloatsTakeAnyWidth) {
  const WString wide = WFormat(u"%600.1f", -2.5);
  ASSERT_EQ(wide.size(), 600u);
  EXPECT_EQ(wide.substr(596), u"-2.5");
  EXPECT_EQ(WFormat(u"%08.2f|%-8.1e|%+.0f", -3.14159, 1.5, 2.0), u"-0003.14|1.5e+00 |+2");
  EXPECT_EQ(WFormat(u"%.2000f", 1.0), u"1." + WString(1100, u'0'));
}

// Whatever the buffer size, the output is the start of the full text, terminated.
TEST(WFormatBounds, EveryBufferSizeGivesAPrefixOfTheFullText) {
  const WString full =
      WFormat(u"%-6s|%05d|%#x|%c|%.3hs|%lld|%%|%5.1f", u"ab", -42, 255u, u'q', "n\xC3\xA4rrow", -9000000000LL, 2.5);
  ASSERT_EQ(full, u"ab    |-0042|0xff|q|n\u00E4r|-9000000000|%|  2.5");
  for (size_t cap = 1; cap <= full.size() + 2; ++cap) {
    std::vector<char16_t> buf(cap + 1, u'#');
    const size_t n = WFormatTo(buf.data(), cap, u"%-6s|%05d|%#x|%c|%.3hs|%lld|%%|%5.1f", u"ab", -42, 255u, u'q',
                               "n\xC3\xA4rrow", -9000000000LL, 2.5);
    ASSERT_EQ(n, std::min(cap - 1, full.size()));
    EXPECT_EQ(WString(buf.data(), n), full.substr(0, n));
    EXPECT_EQ(buf[n], 0);
    EXPECT_EQ(buf[cap], u'#');
  }
}
