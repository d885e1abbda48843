#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "foundation/PasswordCipher.h"
#include "platform/BlockCipher.h"

namespace {

std::vector<uint8_t> Hex(const char* text) {
  std::vector<uint8_t> bytes;
  for (size_t i = 0; text[i] && text[i + 1]; i += 2) {
    const char pair[3] = {text[i], text[i + 1], '\0'};
    bytes.push_back(static_cast<uint8_t>(std::strtoul(pair, nullptr, 16)));
  }
  return bytes;
}

std::string Encode(const std::string& bytes) {
  std::string out = "stale";
  return Base64Encode(out, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

std::string Decode(const std::string& text) {
  std::string out = "stale";
  return Base64Decode(out, text);
}

WString Encrypt(const WString& password) {
  WString out = u"stale";
  EXPECT_EQ(EncryptPassword(out, password), 1);
  return out;
}

WString Decrypt(const WString& stored) {
  WString out = u"stale";
  EXPECT_EQ(DecryptPassword(out, stored), 1);
  return out;
}

std::string DecryptBytes(const std::string& stored) {
  std::string out = "stale";
  DecryptText(stored, out);
  return out;
}

}  // namespace

TEST(BlockCipher, Aes256KnownAnswerBothWays) {
  // The AES-256 example vector of FIPS-197, appendix C.3.
  const std::vector<uint8_t> key = Hex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
  const std::vector<uint8_t> plain = Hex("00112233445566778899aabbccddeeff");
  const std::vector<uint8_t> cipher = Hex("8ea2b7ca516745bfeafc49904b496089");
  std::vector<uint8_t> out(16);
  ASSERT_TRUE(platform::Aes256EcbEncrypt(key.data(), plain.data(), plain.size(), out.data()));
  EXPECT_EQ(out, cipher);
  ASSERT_TRUE(platform::Aes256EcbDecrypt(key.data(), cipher.data(), cipher.size(), out.data()));
  EXPECT_EQ(out, plain);
}

TEST(BlockCipher, BlocksAreEncipheredEachByItselfWithoutPadding) {
  const std::vector<uint8_t> key = Hex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
  std::vector<uint8_t> data = Hex("00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff");
  // In place, as the password cipher uses it: no chaining, so equal blocks give equal output, and no
  // padding block is added or expected back.
  ASSERT_TRUE(platform::Aes256EcbEncrypt(key.data(), data.data(), data.size(), data.data()));
  EXPECT_EQ(data, Hex("8ea2b7ca516745bfeafc49904b4960898ea2b7ca516745bfeafc49904b496089"));
  ASSERT_TRUE(platform::Aes256EcbDecrypt(key.data(), data.data(), data.size(), data.data()));
  EXPECT_EQ(data, Hex("00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff"));
  // Partial blocks are the caller's to fill.
  EXPECT_FALSE(platform::Aes256EcbEncrypt(key.data(), data.data(), 15, data.data()));
  EXPECT_FALSE(platform::Aes256EcbDecrypt(key.data(), data.data(), 17, data.data()));
  EXPECT_TRUE(platform::Aes256EcbEncrypt(key.data(), data.data(), 0, data.data()));
}

TEST(Base64, RfcVectorsBothWays) {
  // RFC 4648, section 10.
  const char* const vectors[][2] = {{"", ""},
                                    {"f", "Zg=="},
                                    {"fo", "Zm8="},
                                    {"foo", "Zm9v"},
                                    {"foob", "Zm9vYg=="},
                                    {"fooba", "Zm9vYmE="},
                                    {"foobar", "Zm9vYmFy"}};
  for (const auto& v : vectors) {
    EXPECT_EQ(Encode(v[0]), v[1]) << v[0];
    EXPECT_EQ(Decode(v[1]), v[0]) << v[1];
  }
}

TEST(Base64, HighBytesAndTheLastTwoLetters) {
  // Bytes above 0x7F must not spread sign bits into their neighbours; 62 and 63 are "+" and "/".
  const std::string bytes("\xFB\xFF\xBF\x80\x00\xFF", 6);
  EXPECT_EQ(Encode(bytes), "+/+/gAD/");
  EXPECT_EQ(Decode("+/+/gAD/"), bytes);
  EXPECT_EQ(Encode(std::string("\xFF", 1)), "/w==");
  EXPECT_EQ(Decode("/w"), std::string("\xFF", 1));
}

TEST(Base64, DecodingStopsAtTheFirstPadOrForeignCharacter) {
  EXPECT_EQ(Decode("Zm9v=YmFy"), "foo");
  EXPECT_EQ(Decode("Zm9vYmFy!Zm9v"), "foobar");
  EXPECT_EQ(Decode("Zm9v\nYmFy"), "foo");
  EXPECT_EQ(Decode("Zm9vYm-Fy"), "foob");
  EXPECT_EQ(Decode("Zm9vY\xC3\xA9"), "foo");
  EXPECT_EQ(Decode("=Zm9v"), "");
  // Short last groups without padding: 3 characters give 2 bytes, 2 give 1, a single one nothing.
  EXPECT_EQ(Decode("Zm9vYmE"), "fooba");
  EXPECT_EQ(Decode("Zm9vYg"), "foob");
  EXPECT_EQ(Decode("Zm9vY"), "foo");
  // The result replaces what the out string held, even when it is the input itself.
  std::string same = "Zm9vYmFy";
  EXPECT_EQ(Base64Decode(same, same), "foobar");
}

TEST(PasswordCipher, StoredLengthFollowsTheBlockCount) {
  // 16 characters fill one block exactly and get no further one: 16 bytes are 24 characters.
  const WString sixteen = u"0123456789abcdef";
  const WString one = Encrypt(sixteen);
  ASSERT_EQ(one.size(), 24u);
  EXPECT_EQ(one.substr(22), u"==");
  EXPECT_EQ(Decrypt(one), sixteen);

  // One character more starts a second block: 32 bytes are 44 characters.
  const WString seventeen = u"0123456789abcdefg";
  const WString two = Encrypt(seventeen);
  ASSERT_EQ(two.size(), 44u);
  EXPECT_EQ(two[43], u'=');
  EXPECT_NE(two[42], u'=');
  EXPECT_EQ(Decrypt(two), seventeen);

  // Short passwords round-trip through their zero filling.
  EXPECT_EQ(Decrypt(Encrypt(u"a")), u"a");
  EXPECT_EQ(Encrypt(u"a").size(), 24u);
}

TEST(PasswordCipher, EmptyStaysEmpty) {
  EXPECT_EQ(Encrypt(u""), u"");
  EXPECT_EQ(Decrypt(u""), u"");
  EXPECT_EQ(DecryptBytes(""), "");
  std::string out = "stale";
  EncryptText("", out);
  EXPECT_EQ(out, "");
}

TEST(PasswordCipher, StoredFormIsStableAcrossBuildsAndPlatforms) {
  // Values written by an earlier installation, or on the other platform, must stay readable: the key,
  // the zero filling and the ANSI bytes are fixed. Both values were computed apart from this code,
  // with the openssl command line tool.
  EXPECT_EQ(Encrypt(u"Secret1"), u"kxff5Ipvx+xhveuM9jb5xw==");
  EXPECT_EQ(Decrypt(u"kxff5Ipvx+xhveuM9jb5xw=="), u"Secret1");
  const WString proxy = u"Proxy-Pa\u00DFwort\u20AC-17";
  EXPECT_EQ(Encrypt(proxy), u"7EvJMB5YV7yE1np8bBxrMvdELuUyRqcYJIUWHTF621M=");
  EXPECT_EQ(Decrypt(u"7EvJMB5YV7yE1np8bBxrMvdELuUyRqcYJIUWHTF621M="), proxy);
}

TEST(PasswordCipher, CharactersOfTheAnsiCodePageSurvive) {
  const WString password = u"P\u00E4ssw\u00F6rd\u20AC\u00DF";
  const WString stored = Encrypt(password);
  // One byte per character in Windows-1252: 9 bytes, one block.
  EXPECT_EQ(stored.size(), 24u);
  EXPECT_EQ(Decrypt(stored), password);
  // A character the code page lacks is replaced before it is enciphered.
  EXPECT_EQ(Decrypt(Encrypt(u"a\u65E5b")), u"a?b");
}

TEST(PasswordCipher, DecryptTextKeepsWholeBlocksAndPasswordCutsAtZero) {
  std::string stored;
  EncryptText("abc", stored);
  const std::string clear = DecryptBytes(stored);
  ASSERT_EQ(clear.size(), 16u);
  EXPECT_EQ(clear, std::string("abc") + std::string(13, '\0'));

  // Only the first zero ends the password, even when bytes follow it in the block.
  EncryptText(std::string("ab\0cd", 5), stored);
  EXPECT_EQ(DecryptBytes(stored).size(), 16u);
  EXPECT_EQ(Decrypt(WFromAscii(stored)), u"ab");
}

TEST(PasswordCipher, DamagedStoredTextsDecodeAsFarAsTheyGo) {
  const WString first = Encrypt(u"0123456789abcdef");
  const WString both = Encrypt(u"0123456789abcdef0123");
  // Both blocks are enciphered alone, so the first block of the longer one is the same.
  EXPECT_EQ(both.substr(0, 21), first.substr(0, 21));

  // A bad character ends the stored text: what comes before it still reads.
  EXPECT_EQ(Decrypt(first.substr(0, 22) + u"!garbage"), u"0123456789abcdef");
  EXPECT_EQ(Decrypt(both.substr(0, 22) + u"#" + both.substr(22)), u"0123456789abcdef");

  // A cut inside a block: the missing bytes count as zero, whole blocks come out, nothing overruns.
  const std::string cut = WToUtf8(both.substr(0, 30));
  const std::string clear = DecryptBytes(cut);
  EXPECT_EQ(clear.size(), 32u);
  EXPECT_EQ(clear.substr(0, 16), "0123456789abcdef");
  EXPECT_EQ(DecryptBytes("QQ").size(), 16u);
}
