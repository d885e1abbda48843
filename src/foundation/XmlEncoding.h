// The byte forms of XML files that the XML class converts with its own loops: UTF-8 and UTF-16,
// and UTF-7 when it writes. Everything else goes through the platform's code-page service.
#pragma once

#include <string>

#include "base/WString.h"

// True when the bytes are well-formed UTF-8 (no overlong forms, surrogates or values above
// U+10FFFF).
bool XmlIsValidUtf8(const char* data, size_t length);

// UTF-8 to UTF-16; each byte that does not belong to a valid sequence becomes U+FFFD. Returns
// false when the text ends inside a sequence.
bool XmlUtf8ToWide(const char* data, size_t length, WString& out);

// UTF-16 to UTF-8; a lone surrogate becomes U+FFFD. Returns false when that happened.
bool XmlWideToUtf8(WStringView text, std::string& out);

// UTF-16 to UTF-7 with every printable ASCII character but "+", the backslash and "~" written as itself, so
// that the markup and the encoding declaration of a document stay readable in the bytes. Other
// characters go in base64 runs, each closed by "-"; "+" is "+-". A lone surrogate becomes U+FFFD.
// Returns false when that happened.
bool XmlWideToUtf7(WStringView text, std::string& out);
