// Wide strings of the system: 16-bit code units on every platform.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

using WString = std::u16string;
using WStringView = std::u16string_view;

// Text conversions at the edges: bytes that leave a message or enter a file are UTF-8.
WString WFromUtf8(std::string_view utf8);
std::string WToUtf8(WStringView text);
// ASCII-only convenience for literals and numbers; bytes above 0x7F are taken as Latin-1.
WString WFromAscii(std::string_view ascii);

// Case-insensitive comparison over ASCII letters, as the registry and ini names compare.
bool WEqualsNoCase(WStringView a, WStringView b);
char16_t WToLowerAscii(char16_t c);
char16_t WToUpperAscii(char16_t c);

// Length of a zero-terminated wide text.
size_t WLength(const char16_t* text);

// Replace every occurrence of `from` by `to`.
WString WReplaceAll(WString text, WStringView from, WStringView to);
