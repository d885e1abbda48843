#include "foundation/PasswordCipher.h"

#include <cstring>
#include <vector>

#include "foundation/CDebug.h"
#include "platform/BlockCipher.h"
#include "platform/CodePage.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The value of a base64 character, or -1 for "=" and everything outside the alphabet.
int Base64Value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

// Overwrites key material in a way the optimiser may not drop as a dead store.
void Wipe(void* data, size_t length) {
  volatile uint8_t* p = static_cast<volatile uint8_t*>(data);
  while (length--) *p++ = 0;
}

// The key of the stored passwords, built afresh on the caller's stack for every use: a fixed text of
// seven characters and its terminating zero at the start of 32 zero bytes. It is written character
// by character so that it never lies in the program file as one string. Every installation uses the
// same text; changing it makes every stored password unreadable.
class CipherKey {
 public:
  CipherKey() {
    volatile char text[8];
    text[0] = 'n';
    text[1] = 'W';
    text[2] = '7';
    text[3] = '#';
    text[4] = 'q';
    text[5] = 'M';
    text[6] = 'z';
    text[7] = '\0';
    for (size_t i = 0; i < sizeof(text); ++i) m_bytes[i] = static_cast<uint8_t>(text[i]);
    for (volatile char& c : text) c = 0;
  }
  ~CipherKey() { Wipe(m_bytes, sizeof(m_bytes)); }
  CipherKey(const CipherKey&) = delete;
  CipherKey& operator=(const CipherKey&) = delete;

  const uint8_t* Bytes() const { return m_bytes; }

 private:
  uint8_t m_bytes[platform::kAes256KeyBytes] = {0};
};

}  // namespace

std::string& Base64Encode(std::string& out, const uint8_t* bytes, size_t length) {
  // Built aside, so that `bytes` may point into `out`.
  std::string text;
  text.reserve((length + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= length; i += 3) {
    const uint32_t group = (uint32_t{bytes[i]} << 16) | (uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    text += kAlphabet[(group >> 18) & 0x3F];
    text += kAlphabet[(group >> 12) & 0x3F];
    text += kAlphabet[(group >> 6) & 0x3F];
    text += kAlphabet[group & 0x3F];
  }
  const size_t rest = length - i;
  if (rest > 0) {
    // One or two bytes left: zero bits fill the group, rest + 1 characters carry them, "=" fills up.
    uint32_t group = uint32_t{bytes[i]} << 16;
    if (rest == 2) group |= uint32_t{bytes[i + 1]} << 8;
    text += kAlphabet[(group >> 18) & 0x3F];
    text += kAlphabet[(group >> 12) & 0x3F];
    text += rest == 2 ? kAlphabet[(group >> 6) & 0x3F] : '=';
    text += '=';
  }
  out.swap(text);
  return out;
}

std::string& Base64Decode(std::string& out, const std::string& in) {
  // Built aside, so that `in` may be `out`.
  std::string bytes;
  bytes.reserve(in.size() / 4 * 3 + 2);
  uint32_t group = 0;
  int count = 0;
  for (unsigned char c : in) {
    const int value = Base64Value(c);
    // "=" and any foreign character end the text; what follows is not looked at.
    if (value < 0) break;
    group = (group << 6) | static_cast<uint32_t>(value);
    if (++count == 4) {
      bytes += static_cast<char>((group >> 16) & 0xFF);
      bytes += static_cast<char>((group >> 8) & 0xFF);
      bytes += static_cast<char>(group & 0xFF);
      group = 0;
      count = 0;
    }
  }
  // A short last group: two characters hold one byte, three hold two; a single one holds none.
  if (count == 2) {
    bytes += static_cast<char>((group >> 4) & 0xFF);
  } else if (count == 3) {
    bytes += static_cast<char>((group >> 10) & 0xFF);
    bytes += static_cast<char>((group >> 2) & 0xFF);
  }
  out.swap(bytes);
  return out;
}

void EncryptText(const std::string& in, std::string& out) {
  if (in.empty()) {
    out.clear();
    return;
  }
  // Zero bytes fill the last block; a text of whole blocks gets no further one.
  const size_t blocks = (in.size() + platform::kAesBlockBytes - 1) / platform::kAesBlockBytes;
  std::vector<uint8_t> buffer(blocks * platform::kAesBlockBytes, 0);
  std::memcpy(buffer.data(), in.data(), in.size());
  CipherKey key;
  const bool ok = platform::Aes256EcbEncrypt(key.Bytes(), buffer.data(), buffer.size(), buffer.data());
  if (ok) {
    Base64Encode(out, buffer.data(), buffer.size());
  } else {
    out.clear();
  }
  Wipe(buffer.data(), buffer.size());
  if (!ok) TRACE(1, u"PasswordCipher::EncryptText()\t: the block cipher failed, nothing stored\n");
}

void DecryptText(const std::string& in, std::string& out) {
  std::string decoded;
  Base64Decode(decoded, in);
  out.clear();
  if (decoded.empty()) return;
  // Only a damaged file gives a length that is not whole blocks; the missing bytes count as zero.
  const size_t blocks = (decoded.size() + platform::kAesBlockBytes - 1) / platform::kAesBlockBytes;
  if (decoded.size() % platform::kAesBlockBytes != 0)
    TRACE(1, u"PasswordCipher::DecryptText()\t: %d bytes are not whole blocks, filled with zeros\n",
          static_cast<int>(decoded.size()));
  std::vector<uint8_t> buffer(blocks * platform::kAesBlockBytes, 0);
  std::memcpy(buffer.data(), decoded.data(), decoded.size());
  CipherKey key;
  if (platform::Aes256EcbDecrypt(key.Bytes(), buffer.data(), buffer.size(), buffer.data())) {
    // Every deciphered byte is kept, the zeros of the filling included; DecryptPassword cuts them.
    out.assign(reinterpret_cast<const char*>(buffer.data()), buffer.size());
  } else {
    TRACE(1, u"PasswordCipher::DecryptText()\t: the block cipher failed\n");
  }
  Wipe(buffer.data(), buffer.size());
}

int EncryptPassword(WString& out, WStringView in) {
  TRACE(3, u"PasswordCipher::EncryptPassword()\t: start, %d characters\n", static_cast<int>(in.size()));
  std::string clear;
  bool lossy = false;
  platform::WideToCodePage(platform::kCodePageAnsi, in, clear, &lossy);
  if (lossy) TRACE(2, u"PasswordCipher::EncryptPassword()\t: characters outside the ANSI code page replaced\n");
  std::string stored;
  EncryptText(clear, stored);
  Wipe(clear.data(), clear.size());
  out = WFromAscii(stored);
  TRACE(3, u"PasswordCipher::EncryptPassword()\t: end, %d stored characters\n", static_cast<int>(out.size()));
  return 1;
}

int DecryptPassword(WString& out, WStringView in) {
  TRACE(3, u"PasswordCipher::DecryptPassword()\t: start, %d stored characters\n", static_cast<int>(in.size()));
  std::string stored;
  platform::WideToCodePage(platform::kCodePageAnsi, in, stored);
  std::string clear;
  DecryptText(stored, clear);
  // The password is a zero-terminated text: the first zero byte ends it and drops the block filling.
  const size_t end = clear.find('\0');
  out.clear();
  platform::CodePageToWide(platform::kCodePageAnsi, clear.data(), end == std::string::npos ? clear.size() : end, out);
  Wipe(clear.data(), clear.size());
  TRACE(3, u"PasswordCipher::DecryptPassword()\t: end, %d characters\n", static_cast<int>(out.size()));
  return 1;
}
