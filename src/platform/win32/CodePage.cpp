// Code-page conversion on Windows: MultiByteToWideChar and WideCharToMultiByte. The Unicode
// forms that these calls do not take (UTF-16 and UTF-32 in either byte order) are converted here.
#include "platform/CodePage.h"

#include <windows.h>

#include <cstring>

namespace platform {
namespace {

constexpr uint32_t kUtf16Le = 1200;
constexpr uint32_t kUtf16Be = 1201;
constexpr uint32_t kUtf32Le = 12000;
constexpr uint32_t kUtf32Be = 12001;

bool IsOwnUnicodeForm(uint32_t codePage) {
  return codePage == kUtf16Le || codePage == kUtf16Be || codePage == kUtf32Le || codePage == kUtf32Be;
}

// Code pages for which the system refuses the "default character used" report; their loss is
// found by converting back and comparing.
bool NoUsedDefaultReport(uint32_t codePage) {
  switch (codePage) {
    case 42:
    case 50220:
    case 50221:
    case 50222:
    case 50225:
    case 50227:
    case 50229:
    case 52936:
    case 54936:
    case 65000:
    case 65001:
      return true;
    default:
      return codePage >= 57002 && codePage <= 57011;
  }
}

UINT SystemCodePage(uint32_t codePage) {
  return codePage == kCodePageAnsi ? CP_ACP : static_cast<UINT>(codePage);
}

uint32_t ReadUnit(const unsigned char* p, int width, bool bigEndian) {
  uint32_t value = 0;
  for (int i = 0; i < width; ++i) {
    int shift = bigEndian ? 8 * (width - 1 - i) : 8 * i;
    value |= static_cast<uint32_t>(p[i]) << shift;
  }
  return value;
}

void WriteUnit(std::string& out, uint32_t value, int width, bool bigEndian) {
  for (int i = 0; i < width; ++i) {
    int shift = bigEndian ? 8 * (width - 1 - i) : 8 * i;
    out.push_back(static_cast<char>((value >> shift) & 0xFF));
  }
}

void UnicodeToWide(uint32_t codePage, const char* data, size_t length, WString& out) {
  const int width = (codePage == kUtf16Le || codePage == kUtf16Be) ? 2 : 4;
  const bool bigEndian = codePage == kUtf16Be || codePage == kUtf32Be;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(data);
  size_t i = 0;
  for (; i + width <= length; i += width) {
    uint32_t value = ReadUnit(p + i, width, bigEndian);
    if (width == 2) {
      out.push_back(static_cast<char16_t>(value));
    } else if (value >= 0x10000 && value <= 0x10FFFF) {
      value -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (value >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (value & 0x3FF)));
    } else if (value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
      out.push_back(u'\xFFFD');
    } else {
      out.push_back(static_cast<char16_t>(value));
    }
  }
  if (i < length) out.push_back(u'\xFFFD');  // a trailing partial unit
}

void WideToUnicode(uint32_t codePage, WStringView text, std::string& out, bool* lossy) {
  const bool bigEndian = codePage == kUtf16Be || codePage == kUtf32Be;
  if (codePage == kUtf16Le || codePage == kUtf16Be) {
    for (char16_t c : text) WriteUnit(out, c, 2, bigEndian);
    return;
  }
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t value = text[i];
    if (value >= 0xD800 && value <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      value = 0x10000 + ((value - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (value >= 0xD800 && value <= 0xDFFF) {
      value = 0xFFFD;
      if (lossy != nullptr) *lossy = true;
    }
    WriteUnit(out, value, 4, bigEndian);
  }
}

}  // namespace

bool CodePageSupported(uint32_t codePage) {
  if (IsOwnUnicodeForm(codePage) || codePage == kCodePageAnsi) return true;
  return IsValidCodePage(static_cast<UINT>(codePage)) != FALSE;
}

bool CodePageToWide(uint32_t codePage, const char* data, size_t length, WString& out) {
  out.clear();
  if (!CodePageSupported(codePage)) return false;
  if (IsOwnUnicodeForm(codePage)) {
    UnicodeToWide(codePage, data, length, out);
    return true;
  }
  if (length == 0) return true;
  // The calls take int lengths; texts of 2 GB and more are not met by this system.
  int inLength = static_cast<int>(length);
  int needed = MultiByteToWideChar(SystemCodePage(codePage), 0, data, inLength, nullptr, 0);
  if (needed <= 0) return false;
  out.resize(static_cast<size_t>(needed));
  MultiByteToWideChar(SystemCodePage(codePage), 0, data, inLength, reinterpret_cast<wchar_t*>(out.data()), needed);
  return true;
}

bool WideToCodePage(uint32_t codePage, WStringView text, std::string& out, bool* lossy) {
  out.clear();
  if (lossy != nullptr) *lossy = false;
  if (!CodePageSupported(codePage)) return false;
  if (IsOwnUnicodeForm(codePage)) {
    WideToUnicode(codePage, text, out, lossy);
    return true;
  }
  if (text.empty()) return true;
  const UINT cp = SystemCodePage(codePage);
  const wchar_t* wide = reinterpret_cast<const wchar_t*>(text.data());
  const int inLength = static_cast<int>(text.size());
  const bool reportAllowed = !NoUsedDefaultReport(codePage);
  BOOL usedDefault = FALSE;
  int needed = WideCharToMultiByte(cp, 0, wide, inLength, nullptr, 0, nullptr, reportAllowed ? &usedDefault : nullptr);
  if (needed <= 0) return false;
  out.resize(static_cast<size_t>(needed));
  usedDefault = FALSE;
  WideCharToMultiByte(cp, 0, wide, inLength, out.data(), needed, nullptr, reportAllowed ? &usedDefault : nullptr);
  if (lossy != nullptr) {
    if (reportAllowed) {
      *lossy = usedDefault != FALSE;
    } else {
      WString back;
      CodePageToWide(codePage, out.data(), out.size(), back);
      *lossy = back != text;
    }
  }
  return true;
}

}  // namespace platform
