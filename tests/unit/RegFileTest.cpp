// Registry files from outside: whatever a file holds is read without harm, and what was read is
// written back so that reading it again gives the same keys, values, types and bytes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/RegFile.h"

using namespace platform;

namespace {

const char kHeader[] = "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\X]\r\n";

// Reads `bytes`, writes the result back in both encodings and reads that again: the keys, value
// names, types and bytes must all be the same.
void ExpectSameAfterWriteBack(const std::string& bytes) {
  RegFile file;
  ASSERT_TRUE(ParseRegFile(bytes, file));
  for (bool utf16 : {false, true}) {
    file.utf16 = utf16;
    const std::string written = SerializeRegFile(file);
    RegFile again;
    ASSERT_TRUE(ParseRegFile(written, again)) << written;
    ASSERT_EQ(again.keys.size(), file.keys.size());
    for (size_t k = 0; k < file.keys.size(); ++k) {
      EXPECT_EQ(again.keys[k].path, file.keys[k].path);
      ASSERT_EQ(again.keys[k].values.size(), file.keys[k].values.size()) << written;
      for (size_t v = 0; v < file.keys[k].values.size(); ++v) {
        const RegFileValue& a = file.keys[k].values[v];
        const RegFileValue& b = again.keys[k].values[v];
        EXPECT_EQ(b.name, a.name);
        EXPECT_EQ(b.type, a.type) << written;
        EXPECT_EQ(b.data, a.data) << written;
      }
    }
  }
}

const RegFileValue* OnlyValue(const RegFile& file) {
  if (file.keys.size() != 1 || file.keys[0].values.size() != 1) return nullptr;
  return &file.keys[0].values[0];
}

}  // namespace

TEST(RegFileTypes, TypesAboveAByteKeepAllTheirDigits) {
  RegFile file;
  ASSERT_TRUE(ParseRegFile(std::string(kHeader) + "\"q\"=hex(100):01,02\r\n", file));
  const RegFileValue* v = OnlyValue(file);
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(static_cast<uint32_t>(v->type), 0x100u);
  EXPECT_EQ(v->data, (std::vector<uint8_t>{1, 2}));
  file.utf16 = false;
  const std::string written = SerializeRegFile(file);
  EXPECT_NE(written.find("\"q\"=hex(100):01,02\r\n"), std::string::npos) << written;

  for (const char* type : {"0", "2", "b", "FFFFFFFF", "12345678"})
    ExpectSameAfterWriteBack(std::string(kHeader) + "\"v\"=hex(" + type + "):61,00\r\n");
}

TEST(RegFileTypes, TypeTextsThatAreNoThirtyTwoBitNumberAreNotRead) {
  for (const char* type : {"", "123456789", "-1", "0x7", "1 ", "g"}) {
    RegFile file;
    ASSERT_TRUE(ParseRegFile(std::string(kHeader) + "\"v\"=hex(" + type + "):01\r\n\"ok\"=dword:1\r\n", file));
    ASSERT_EQ(file.keys.size(), 1u);
    ASSERT_EQ(file.keys[0].values.size(), 1u) << type;
    EXPECT_EQ(file.keys[0].values[0].name, u"ok");
  }
}

// Texts and numbers whose bytes a quoted text or a dword cannot carry are written as hex lists of
// their own type.
TEST(RegFileTypes, ValuesKeepTheirBytesWhenTheirUsualFormCannotCarryThem) {
  const char* values[] = {
      "hex(1):61,00",                    // a text without its terminator
      "hex(1):61,00,00,00,62,00,00,00",  // a terminator inside
      "hex(1):61,00,0a,00,62,00,00,00",  // a line feed: the text would end the line
      "hex(1):61,00,00",                 // an odd number of bytes
      "hex(1):00,d8,00,00",              // a lone surrogate, which UTF-8 cannot write
      "hex(1):",                         // nothing at all
      "hex(4):01,02",                    // a dword of two bytes
      "hex(4):01,02,03,04,05",           // and of five
      "\"a\\\\b\\\"c\"",                 // a text needing escapes, written as a text
  };
  for (const char* value : values) ExpectSameAfterWriteBack(std::string(kHeader) + "\"v\"=" + value + "\r\n");

  RegFile file;
  ASSERT_TRUE(ParseRegFile(std::string(kHeader) + "\"t\"=hex(1):61,00,62,00,00,00\r\n", file));
  file.utf16 = false;
  // A text that a quoted form carries exactly is written as one.
  EXPECT_NE(SerializeRegFile(file).find("\"t\"=\"ab\"\r\n"), std::string::npos);
}

TEST(RegFileText, ByteSequencesThatAreNoUtf8ReadAsReplacements) {
  // ED BB BF would be the surrogate U+DEFF; it reads as three replacement characters and the key
  // is written back as read.
  const std::string bytes =
      "REGEDIT4\n\n[HKC\xEF\xBB\xBFY\xED\xBB\xBFY_CURR\x99\x02NT_USER\xC7X]\n\"\xFF\xFF\xFF\"=\"b\"\n";
  RegFile file;
  ASSERT_TRUE(ParseRegFile(bytes, file));
  ASSERT_EQ(file.keys.size(), 1u);
  EXPECT_EQ(file.keys[0].path, u"HKC\uFEFFY\uFFFD\uFFFD\uFFFDY_CURR\uFFFD\u0002NT_USER\uFFFDX");
  ASSERT_EQ(file.keys[0].values.size(), 1u);
  EXPECT_EQ(file.keys[0].values[0].name, u"\uFFFD\uFFFD\uFFFD");
  ExpectSameAfterWriteBack(bytes);
}
