// Code-page conversion between byte texts and wide texts.
// Code page numbers are the Windows ones: 65001 UTF-8, 1252 Western ("ANSI" on POSIX), 28591
// ISO-8859-1, 1200 UTF-16LE, 1201 UTF-16BE, 932 Shift-JIS, and so on. On Windows these are
// MultiByteToWideChar/WideCharToMultiByte; on POSIX iconv with the matching charset name.
#pragma once

#include <cstdint>
#include <string>

#include "base/WString.h"

namespace platform {

constexpr uint32_t kCodePageAnsi = 0;  // the system's "ANSI" code page (Windows-1252 on POSIX)
constexpr uint32_t kCodePageUtf8 = 65001;

// True when the code page can be converted on this system.
bool CodePageSupported(uint32_t codePage);

// Bytes in the code page to wide text. Returns false when the code page is unknown; bytes that
// have no mapping become U+FFFD (or the platform's replacement) and the call still succeeds.
bool CodePageToWide(uint32_t codePage, const char* data, size_t length, WString& out);

// Wide text to bytes in the code page. `lossy` (optional) is set when a character had no
// mapping and was replaced. Returns false when the code page is unknown.
bool WideToCodePage(uint32_t codePage, WStringView text, std::string& out, bool* lossy = nullptr);

}  // namespace platform
