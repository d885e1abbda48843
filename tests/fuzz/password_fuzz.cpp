// The password cipher on any stored text and any clear text.
//
// The input is taken three ways: as a stored password (UTF-8 text, as the settings file may hold
// anything), as base64 bytes, and as a clear password. A broken rule aborts:
// - deciphering never yields a terminator inside the password;
// - base64 gives back the bytes it was given;
// - a clear password is stored as whole base64 groups of whole cipher blocks, with nothing that
//   could end a line of the settings file, and deciphers to what it was (as the 8-bit code page
//   holds it, up to its first terminator).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/WString.h"
#include "foundation/PasswordCipher.h"
#include "platform/CodePage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const WString text = WFromUtf8(bytes);

  WString clear;
  if (DecryptPassword(clear, text) != 1) std::abort();
  if (clear.find(u'\0') != WString::npos) std::abort();

  std::string encoded, decoded;
  Base64Encode(encoded, data, size);
  if (encoded.size() != (size + 2) / 3 * 4) std::abort();
  if (Base64Decode(decoded, encoded) != bytes) std::abort();
  std::string raw;
  DecryptText(bytes, raw);
  if (raw.size() % 16 != 0) std::abort();

  WString stored;
  if (EncryptPassword(stored, text) != 1) std::abort();
  std::string ansi;
  platform::WideToCodePage(platform::kCodePageAnsi, text, ansi);
  const size_t blocks = (ansi.size() + 15) / 16;
  if (stored.size() != (blocks * 16 + 2) / 3 * 4) std::abort();
  for (char16_t c : stored) {
    const bool base64 = (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') || c == u'+' ||
                        c == u'/' || c == u'=';
    if (!base64) std::abort();
  }
  WString back, expected;
  DecryptPassword(back, stored);
  platform::CodePageToWide(platform::kCodePageAnsi, ansi.data(),
                           ansi.find('\0') == std::string::npos ? ansi.size() : ansi.find('\0'), expected);
  if (back != expected) std::abort();
  return 0;
}
