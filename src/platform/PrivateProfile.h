// Private-profile (ini) files: the system's GetPrivateProfileStringW, GetPrivateProfileIntW and
// WritePrivateProfileStringW on Windows; on POSIX our own reader and writer of the same files with
// the same results (see docs/config.md for the rules both follow).
//
// Every call reads the file afresh; no handle stays open between calls. Section and key names
// compare without regard to case and without the blanks around them.
#pragma once

#include <cstdint>

#include "base/WString.h"

namespace platform {

// The text of `key` in `section`, else `def` (null: empty) without its trailing blanks. A value
// enclosed in a pair of single or double quotation marks comes without them. At most
// capacity - 1 characters and a terminator are copied; the result is the number of characters
// copied. A value that does not fit comes back cut, with the result capacity - 1 (capacity - 2
// for a quoted value that misses the buffer by its terminator alone). Capacity 0 copies nothing.
uint32_t ProfileReadText(const WString& file, const char16_t* section, const char16_t* key, const char16_t* def,
                         char16_t* buffer, uint32_t capacity);

// The number at the start of the value of `key`: an optional sign, then decimal digits, or
// hexadecimal ones after "0x"; reading stops at the first other character (a text gives 0) and
// wraps modulo 2^32. A missing key or an empty value gives `def`.
uint32_t ProfileReadInt(const WString& file, const char16_t* section, const char16_t* key, int32_t def);

// Writes `key`=`value` into `section`, creating the section (at the end of the file) and the file
// as needed. A null value removes the key; a null key removes the whole section. True on success.
// Refuses (false, file untouched) what ProfileWriteStaysInItsLine refuses.
bool ProfileWrite(const WString& file, const char16_t* section, const char16_t* key, const char16_t* value);

// Whether a write of these names and value changes nothing but its own entry. The file holds one
// entry a line, so a line break (CR or LF) anywhere would end the entry and let the rest be read
// as further entries or a section header; a key holding "=" would be read back as a shorter key,
// and a key starting with "[" as a header. Both platforms check this before the file is touched:
// the system's own call on Windows writes such text as it is.
inline bool ProfileWriteStaysInItsLine(const char16_t* section, const char16_t* key, const char16_t* value) {
  auto breaksLine = [](const char16_t* s) {
    for (; s != nullptr && *s != 0; ++s)
      if (*s == u'\r' || *s == u'\n') return true;
    return false;
  };
  if (breaksLine(section) || breaksLine(key) || breaksLine(value)) return false;
  if (key != nullptr) {
    const char16_t* k = key;
    while (*k != 0 && *k <= u' ') ++k;  // whatever a reader may take for a blank
    if (*k == u'[') return false;
    for (; *k != 0; ++k)
      if (*k == u'=') return false;
  }
  return true;
}

// Whether `path` lies on a medium that cannot be written: a CD-ROM drive on Windows, a read-only
// mounted file system on POSIX (a path that does not exist yet is judged by its nearest existing
// parent directory).
bool IsOnReadOnlyMedium(const WString& path);

// The operating system's own directory (GetSystemDirectoryW; "/tmp" on POSIX), without a trailing
// separator: the last place for files that find no temporary directory.
WString SystemDirectory();

}  // namespace platform
