#include "foundation/XmlEncoding.h"

#include <cstdint>
#include <cstring>

namespace {

// Length of the valid UTF-8 sequence at p (1..4) and its value, or 0 when there is none.
inline int DecodeSequence(const unsigned char* p, size_t left, uint32_t& value) {
  unsigned char c = p[0];
  if (c < 0x80) {
    value = c;
    return 1;
  }
  int length;
  uint32_t minimum;
  if (c >= 0xC2 && c <= 0xDF) {
    length = 2;
    value = c & 0x1F;
    minimum = 0x80;
  } else if (c >= 0xE0 && c <= 0xEF) {
    length = 3;
    value = c & 0x0F;
    minimum = 0x800;
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4;
    value = c & 0x07;
    minimum = 0x10000;
  } else {
    return 0;
  }
  if (left < static_cast<size_t>(length)) return -1;  // cut off at the end
  for (int k = 1; k < length; ++k) {
    if ((p[k] & 0xC0) != 0x80) return 0;
    value = (value << 6) | (p[k] & 0x3F);
  }
  if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
  return length;
}

inline bool EightAscii(const unsigned char* p) {
  uint64_t word;
  std::memcpy(&word, p, 8);
  return (word & 0x8080808080808080ULL) == 0;
}

}  // namespace

bool XmlIsValidUtf8(const char* data, size_t length) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(data);
  size_t i = 0;
  while (i < length) {
    if (i + 8 <= length && EightAscii(p + i)) {
      i += 8;
      continue;
    }
    uint32_t value;
    int n = DecodeSequence(p + i, length - i, value);
    if (n <= 0) return false;
    i += static_cast<size_t>(n);
  }
  return true;
}

bool XmlUtf8ToWide(const char* data, size_t length, WString& out) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(data);
  out.resize(length);  // never more units than bytes
  char16_t* w = out.data();
  size_t i = 0;
  bool complete = true;
  while (i < length) {
    if (i + 8 <= length && EightAscii(p + i)) {
      for (int k = 0; k < 8; ++k) w[k] = p[i + k];
      w += 8;
      i += 8;
      continue;
    }
    uint32_t value;
    int n = DecodeSequence(p + i, length - i, value);
    if (n <= 0) {
      if (n < 0) complete = false;
      *w++ = u'\xFFFD';
      if (n < 0) break;
      ++i;
      continue;
    }
    i += static_cast<size_t>(n);
    if (value >= 0x10000) {
      value -= 0x10000;
      *w++ = static_cast<char16_t>(0xD800 + (value >> 10));
      *w++ = static_cast<char16_t>(0xDC00 + (value & 0x3FF));
    } else {
      *w++ = static_cast<char16_t>(value);
    }
  }
  out.resize(static_cast<size_t>(w - out.data()));
  return complete;
}

bool XmlWideToUtf8(WStringView text, std::string& out) {
  out.resize(text.size() * 3);
  char* o = out.data();
  bool clean = true;
  const size_t n = text.size();
  for (size_t i = 0; i < n; ++i) {
    uint32_t cp = text[i];
    if (cp < 0x80) {
      *o++ = static_cast<char>(cp);
      continue;
    }
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < n && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;
      clean = false;
    }
    if (cp < 0x800) {
      *o++ = static_cast<char>(0xC0 | (cp >> 6));
      *o++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      *o++ = static_cast<char>(0xE0 | (cp >> 12));
      *o++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      *o++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      *o++ = static_cast<char>(0xF0 | (cp >> 18));
      *o++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      *o++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      *o++ = static_cast<char>(0x80 | (cp & 0x3F));
    }
  }
  out.resize(static_cast<size_t>(o - out.data()));
  return clean;
}

namespace {

// Characters that a UTF-7 reader takes as themselves: the direct and the optional direct ones
// and white space. The backslash and "~" are left out: some readers refuse them outside base64.
inline bool Utf7Direct(char16_t c) {
  return c == u'\t' || c == u'\n' || c == u'\r' || (c >= u' ' && c <= u'}' && c != u'+' && c != u'\\');
}

}  // namespace

bool XmlWideToUtf7(WStringView text, std::string& out) {
  static const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  out.clear();
  out.reserve(text.size() + text.size() / 4);
  bool clean = true;
  const size_t n = text.size();
  size_t i = 0;
  while (i < n) {
    const char16_t c = text[i];
    if (Utf7Direct(c)) {
      out += static_cast<char>(c);
      ++i;
      continue;
    }
    if (c == u'+') {
      out += "+-";
      ++i;
      continue;
    }
    // One base64 run over the 16-bit units up to the next direct character or "+".
    out += '+';
    uint32_t bits = 0;
    int count = 0;
    for (; i < n && !Utf7Direct(text[i]) && text[i] != u'+'; ++i) {
      char16_t unit = text[i];
      if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < n && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
        // A pair goes in as it stands: the two units one after the other.
      } else if (unit >= 0xDC00 && unit <= 0xDFFF && i > 0 && text[i - 1] >= 0xD800 && text[i - 1] <= 0xDBFF) {
        // The second unit of a pair.
      } else if (unit >= 0xD800 && unit <= 0xDFFF) {
        unit = 0xFFFD;
        clean = false;
      }
      bits = (bits << 16) | unit;
      count += 16;
      while (count >= 6) {
        count -= 6;
        out += kBase64[(bits >> count) & 0x3F];
      }
      bits &= (1u << count) - 1;
    }
    if (count > 0) out += kBase64[(bits << (6 - count)) & 0x3F];
    out += '-';
  }
  return clean;
}
