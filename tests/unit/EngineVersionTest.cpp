// The dotted version comparison: numeric elements of any length, missing elements as 0, suffixes
// as text, and a total order that never fails.
#include <gtest/gtest.h>

#include <vector>

#include "engine/VersionCompare.h"

using engine::CompareVersions;

namespace {

struct Case {
  const char16_t* a;
  const char16_t* b;
  int expected;  // -1 a older, 0 same, 1 a newer
};

}  // namespace

TEST(EngineVersionTest, TrickyPairs) {
  const std::vector<Case> cases = {
      // numbers, not texts
      {u"1.10", u"1.9", 1},
      {u"1.9", u"1.10", -1},
      {u"2.0", u"10.0", -1},
      {u"1.2.10", u"1.2.9", 1},
      // missing elements are 0
      {u"1.2", u"1.2.0", 0},
      {u"1.2", u"1.2.0.0.0", 0},
      {u"1", u"1.0.1", -1},
      {u"1.2.0.1", u"1.2", 1},
      // leading zeros
      {u"01.002", u"1.2", 0},
      {u"1.02", u"1.10", -1},
      {u"1.0010", u"1.9", 1},
      {u"000", u"0", 0},
      // forty digits and more: no overflow, no saturation
      {u"1.1234567890123456789012345678901234567890", u"1.1234567890123456789012345678901234567891", -1},
      {u"1.1234567890123456789012345678901234567890", u"1.999", 1},
      {u"00000000000000000000000000000000000000001.5", u"1.5", 0},
      {u"18446744073709551616", u"18446744073709551615", 1},  // 2^64 against 2^64-1
      {u"99999999999999999999999999999999999999990", u"99999999999999999999999999999999999999989", 1},
      // suffixes: the number first, then the rest as text
      {u"2.1a", u"2.1b", -1},
      {u"2.1", u"2.1a", -1},
      {u"2.1a", u"2.2", -1},
      {u"2.10a", u"2.9b", 1},
      {u"2.1-rc1", u"2.1-rc2", -1},
      {u"1.2", u"1.2.0a", -1},
      // empty texts and empty elements
      {u"", u"", 0},
      {u"", u"0", 0},
      {u"", u"0.0.1", -1},
      {u"", u"1", -1},
      {u"1.", u"1", 0},
      {u"1..2", u"1.0.2", 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(CompareVersions(c.a, c.b), c.expected) << WToUtf8(c.a) << " vs " << WToUtf8(c.b);
    EXPECT_EQ(CompareVersions(c.b, c.a), -c.expected) << WToUtf8(c.b) << " vs " << WToUtf8(c.a);
  }
}

// The comparison must be a total order for sorting: transitive over a mixed list.
TEST(EngineVersionTest, OrderIsTransitive) {
  const std::vector<const char16_t*> versions = {
      u"",     u"0",       u"0.9",  u"1",    u"1.0.1", u"1.2", u"1.2a",   u"1.9",
      u"1.10", u"01.10.0", u"2.1a", u"2.1b", u"10",    u"x",   u"1.2.0a", u"99999999999999999999999"};
  for (const char16_t* a : versions)
    for (const char16_t* b : versions)
      for (const char16_t* c : versions) {
        int ab = CompareVersions(a, b), bc = CompareVersions(b, c), ac = CompareVersions(a, c);
        if (ab <= 0 && bc <= 0) {
          EXPECT_LE(ac, 0) << WToUtf8(a) << " " << WToUtf8(b) << " " << WToUtf8(c);
        }
        if (ab == 0 && bc == 0) {
          EXPECT_EQ(ac, 0) << WToUtf8(a) << " " << WToUtf8(b) << " " << WToUtf8(c);
        }
      }
}
