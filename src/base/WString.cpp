#include "base/WString.h"

namespace {

// The byte range that the second byte of a sequence must fall in, by lead byte. Narrower than
// 80..BF after E0 (no overlong three-byte forms), ED (no encoded surrogates), F0 (no overlong
// four-byte forms) and F4 (nothing above U+10FFFF).
struct Utf8Lead {
  size_t length;  // 0: the byte cannot start a sequence
  uint8_t secondLow, secondHigh;
  uint32_t bits;
};

Utf8Lead ClassifyLead(uint8_t c) {
  if (c >= 0xC2 && c <= 0xDF) return {2, 0x80, 0xBF, c & 0x1Fu};
  if (c == 0xE0) return {3, 0xA0, 0xBF, c & 0x0Fu};
  if (c == 0xED) return {3, 0x80, 0x9F, c & 0x0Fu};
  if (c >= 0xE1 && c <= 0xEF) return {3, 0x80, 0xBF, c & 0x0Fu};
  if (c == 0xF0) return {4, 0x90, 0xBF, c & 0x07u};
  if (c >= 0xF1 && c <= 0xF3) return {4, 0x80, 0xBF, c & 0x07u};
  if (c == 0xF4) return {4, 0x80, 0x8F, c & 0x07u};
  return {0, 0, 0, 0};
}

}  // namespace

// Strict decoding: an ill-formed sequence becomes one U+FFFD per maximal subpart (the longest
// start of a well-formed sequence that is there), and decoding goes on at the first byte that
// does not belong to it, so no valid character around a fault is lost.
WString WFromUtf8(std::string_view s) {
  WString out;
  out.reserve(s.size());
  size_t i = 0;
  const size_t n = s.size();
  while (i < n) {
    const uint8_t c = static_cast<uint8_t>(s[i]);
    if (c < 0x80) {
      out.push_back(c);
      ++i;
      continue;
    }
    const Utf8Lead lead = ClassifyLead(c);
    if (lead.length == 0) {
      out.push_back(0xFFFD);
      ++i;
      continue;
    }
    uint32_t cp = lead.bits;
    size_t k = 1;
    for (; k < lead.length && i + k < n; ++k) {
      const uint8_t cc = static_cast<uint8_t>(s[i + k]);
      const uint8_t low = k == 1 ? lead.secondLow : 0x80;
      const uint8_t high = k == 1 ? lead.secondHigh : 0xBF;
      if (cc < low || cc > high) break;
      cp = (cp << 6) | (cc & 0x3F);
    }
    i += k;
    if (k < lead.length) {
      out.push_back(0xFFFD);
    } else if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
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
