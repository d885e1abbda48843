#include "base/WString.h"

WString WFromUtf8(std::string_view s) {
  WString out;
  out.reserve(s.size());
  size_t i = 0;
  const size_t n = s.size();
  while (i < n) {
    uint8_t c = static_cast<uint8_t>(s[i]);
    uint32_t cp = 0xFFFD;
    size_t len = 1;
    if (c < 0x80) {
      cp = c;
    } else if ((c & 0xE0) == 0xC0) {
      len = 2;
      cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      len = 3;
      cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      len = 4;
      cp = c & 0x07;
    } else {
      out.push_back(0xFFFD);
      ++i;
      continue;
    }
    if (i + len > n) {
      out.push_back(0xFFFD);
      break;
    }
    bool ok = true;
    for (size_t k = 1; k < len; ++k) {
      uint8_t cc = static_cast<uint8_t>(s[i + k]);
      if ((cc & 0xC0) != 0x80) {
        ok = false;
        break;
      }
      cp = (cp << 6) | (cc & 0x3F);
    }
    if (!ok) {
      out.push_back(0xFFFD);
      ++i;
      continue;
    }
    i += len;
    if (cp >= 0x10000 && cp <= 0x10FFFF) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else if (cp > 0x10FFFF) {
      out.push_back(0xFFFD);
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
  return out;
}

std::string WToUtf8(WStringView w) {
  std::string out;
  out.reserve(w.size());
  for (size_t i = 0; i < w.size(); ++i) {
    uint32_t cp = w[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < w.size() && w[i + 1] >= 0xDC00 && w[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (w[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;  // a lone surrogate has no UTF-8 form
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

WString WFromAscii(std::string_view s) {
  WString out(s.size(), u'\0');
  for (size_t i = 0; i < s.size(); ++i) out[i] = static_cast<uint8_t>(s[i]);
  return out;
}

char16_t WToLowerAscii(char16_t c) {
  return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c + 32) : c;
}
char16_t WToUpperAscii(char16_t c) {
  return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 32) : c;
}

bool WEqualsNoCase(WStringView a, WStringView b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (WToLowerAscii(a[i]) != WToLowerAscii(b[i])) return false;
  return true;
}

size_t WLength(const char16_t* text) {
  if (!text) return 0;
  size_t n = 0;
  while (text[n]) ++n;
  return n;
}

WString WReplaceAll(WString text, WStringView from, WStringView to) {
  if (from.empty()) return text;
  size_t pos = 0;
  while ((pos = text.find(from, pos)) != WString::npos) {
    text.replace(pos, from.size(), to);
    pos += to.size();
  }
  return text;
}
