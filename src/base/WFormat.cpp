#include "base/WFormat.h"

#include <cstdint>
#include <cstdio>

namespace {

// Appends into a fixed buffer, silently cutting what does not fit.
struct Sink {
  char16_t* buf;
  size_t cap;  // including the terminator
  size_t len = 0;
  void put(char16_t c) {
    if (len + 1 < cap) buf[len++] = c;
  }
  void fill(char16_t c, int n) {
    for (int i = 0; i < n; ++i) put(c);
  }
};

struct Spec {
  bool left = false, zero = false, plus = false, space = false, alt = false;
  int width = 0;
  int precision = -1;
};

void putPadded(Sink& s, const Spec& sp, const char16_t* text, size_t n, bool numeric, size_t signLen) {
  int pad = sp.width > static_cast<int>(n) ? sp.width - static_cast<int>(n) : 0;
  if (sp.left) {
    for (size_t i = 0; i < n; ++i) s.put(text[i]);
    s.fill(u' ', pad);
    return;
  }
  if (numeric && sp.zero && sp.precision < 0) {
    for (size_t i = 0; i < signLen; ++i) s.put(text[i]);
    s.fill(u'0', pad);
    for (size_t i = signLen; i < n; ++i) s.put(text[i]);
    return;
  }
  s.fill(u' ', pad);
  for (size_t i = 0; i < n; ++i) s.put(text[i]);
}

void putInteger(Sink& s, const Spec& sp, uint64_t mag, bool negative, unsigned base, bool upper) {
  char16_t digits[72];
  size_t nd = 0;
  const char* set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  if (mag == 0 && sp.precision != 0) digits[nd++] = u'0';
  while (mag) {
    digits[nd++] = static_cast<char16_t>(set[mag % base]);
    mag /= base;
  }
  char16_t text[96];
  size_t n = 0;
  if (negative)
    text[n++] = u'-';
  else if (sp.plus && base == 10)
    text[n++] = u'+';
  else if (sp.space && base == 10)
    text[n++] = u' ';
  if (sp.alt && base == 16 && nd && !(nd == 1 && digits[0] == u'0')) {
    text[n++] = u'0';
    text[n++] = upper ? u'X' : u'x';
  }
  size_t signLen = n;
  for (int z = sp.precision - static_cast<int>(nd); z > 0 && n < 80; --z) text[n++] = u'0';
  while (nd) text[n++] = digits[--nd];
  putPadded(s, sp, text, n, true, signLen);
}

}  // namespace

size_t WFormatToV(char16_t* buf, size_t cap, const char16_t* fmt, va_list ap) {
  if (!buf || cap == 0) return 0;
  Sink s{buf, cap};
  if (!fmt) fmt = u"";
  for (const char16_t* p = fmt; *p; ++p) {
    if (*p != u'%') {
      s.put(*p);
      continue;
    }
    ++p;
    if (*p == u'%') {
      s.put(u'%');
      continue;
    }
    Spec sp;
    for (;; ++p) {
      if (*p == u'-')
        sp.left = true;
      else if (*p == u'0')
        sp.zero = true;
      else if (*p == u'+')
        sp.plus = true;
      else if (*p == u' ')
        sp.space = true;
      else if (*p == u'#')
        sp.alt = true;
      else
        break;
    }
    if (*p == u'*') {
      sp.width = va_arg(ap, int);
      if (sp.width < 0) {
        sp.left = true;
        sp.width = -sp.width;
      }
      ++p;
    } else {
      while (*p >= u'0' && *p <= u'9') sp.width = sp.width * 10 + (*p++ - u'0');
    }
    if (*p == u'.') {
      ++p;
      sp.precision = 0;
      if (*p == u'*') {
        sp.precision = va_arg(ap, int);
        ++p;
      } else {
        while (*p >= u'0' && *p <= u'9') sp.precision = sp.precision * 10 + (*p++ - u'0');
      }
    }
    enum { kInt, kChar, kShort, kLong, kLongLong, kSize } len = kInt;
    bool narrowText = false;
    bool wideText = false;
    if (*p == u'h') {
      ++p;
      if (*p == u'h') {
        len = kChar;
        ++p;
      } else {
        len = kShort;
      }
      narrowText = true;
    } else if (*p == u'l') {
      ++p;
      if (*p == u'l') {
        len = kLongLong;
        ++p;
      } else {
        len = kLong;
      }
      wideText = true;
    } else if (*p == u'z') {
      len = kSize;
      ++p;
    } else if (*p == u'I' && p[1] == u'6' && p[2] == u'4') {
      len = kLongLong;
      p += 3;
    } else if (*p == u'I' && p[1] == u'3' && p[2] == u'2') {
      len = kInt;
      p += 3;
    }
    const char16_t conv = *p;
    if (!conv) break;
    switch (conv) {
      case u'd':
      case u'i': {
        int64_t v;
        switch (len) {
          case kLong:
            v = va_arg(ap, long);
            break;
          case kLongLong:
            v = va_arg(ap, long long);
            break;
          case kSize:
            v = static_cast<int64_t>(va_arg(ap, size_t));
            break;
          case kShort:
            v = static_cast<short>(va_arg(ap, int));
            break;
          case kChar:
            v = static_cast<signed char>(va_arg(ap, int));
            break;
          default:
            v = va_arg(ap, int);
            break;
        }
        uint64_t mag = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
        putInteger(s, sp, mag, v < 0, 10, false);
        break;
      }
      case u'u':
      case u'x':
      case u'X':
      case u'o': {
        uint64_t v;
        switch (len) {
          case kLong:
            v = va_arg(ap, unsigned long);
            break;
          case kLongLong:
            v = va_arg(ap, unsigned long long);
            break;
          case kSize:
            v = va_arg(ap, size_t);
            break;
          case kShort:
            v = static_cast<unsigned short>(va_arg(ap, unsigned));
            break;
          case kChar:
            v = static_cast<unsigned char>(va_arg(ap, unsigned));
            break;
          default:
            v = va_arg(ap, unsigned);
            break;
        }
        unsigned base = conv == u'u' ? 10 : conv == u'o' ? 8 : 16;
        putInteger(s, sp, v, false, base, conv == u'X');
        break;
      }
      case u'p': {
        Spec ps = sp;
        ps.alt = true;
        putInteger(s, ps, reinterpret_cast<uintptr_t>(va_arg(ap, void*)), false, 16, false);
        break;
      }
      case u'c': {
        char16_t c = static_cast<char16_t>(va_arg(ap, int));
        putPadded(s, sp, &c, 1, false, 0);
        break;
      }
      case u's':
      case u'S': {
        bool narrow = (conv == u'S' && !wideText) || (conv == u's' && narrowText);
        if (narrow) {
          const char* t = va_arg(ap, const char*);
          WString w = WFromUtf8(t ? t : "(null)");
          size_t n = w.size();
          if (sp.precision >= 0 && static_cast<size_t>(sp.precision) < n) n = sp.precision;
          putPadded(s, sp, w.data(), n, false, 0);
        } else {
          const char16_t* t = va_arg(ap, const char16_t*);
          if (!t) t = u"(null)";
          size_t n = 0;
          while (t[n] && (sp.precision < 0 || n < static_cast<size_t>(sp.precision))) ++n;
          putPadded(s, sp, t, n, false, 0);
        }
        break;
      }
      case u'f':
      case u'F':
      case u'e':
      case u'g': {
        double v = va_arg(ap, double);
        char nfmt[32];
        std::snprintf(nfmt, sizeof nfmt, "%%%s%s%s%s%s*.*%c", sp.left ? "-" : "", sp.zero ? "0" : "",
                      sp.plus ? "+" : "", sp.space ? " " : "", sp.alt ? "#" : "", static_cast<char>(conv));
        char nbuf[512];
        std::snprintf(nbuf, sizeof nbuf, nfmt, sp.width, sp.precision < 0 ? 6 : sp.precision, v);
        for (const char* q = nbuf; *q; ++q) s.put(static_cast<char16_t>(*q));
        break;
      }
      default:
        // Unknown conversion: copy it as it stands, as the platform's formatter does.
        s.put(u'%');
        s.put(conv);
        break;
    }
  }
  buf[s.len] = 0;
  return s.len;
}

size_t WFormatTo(char16_t* buf, size_t cap, const char16_t* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  size_t n = WFormatToV(buf, cap, fmt, ap);
  va_end(ap);
  return n;
}

WString WFormatV(const char16_t* fmt, va_list ap) {
  // Most texts are short; a second pass with a larger buffer covers the rest.
  char16_t small[512];
  va_list copy;
  va_copy(copy, ap);
  size_t n = WFormatToV(small, sizeof small / sizeof small[0], fmt, copy);
  va_end(copy);
  if (n + 1 < sizeof small / sizeof small[0]) return WString(small, n);
  size_t cap = 4096;
  for (;;) {
    WString out(cap, u'\0');
    va_copy(copy, ap);
    n = WFormatToV(out.data(), cap, fmt, copy);
    va_end(copy);
    if (n + 1 < cap || cap >= (1u << 24)) {
      out.resize(n);
      return out;
    }
    cap *= 4;
  }
}

WString WFormat(const char16_t* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  WString s = WFormatV(fmt, ap);
  va_end(ap);
  return s;
}

WString WDateText(uint32_t localClockSeconds) {
  const int64_t t = localClockSeconds;
  // Civil-from-days over the plain seconds: the value already holds the local offset.
  int64_t days = t / 86400;
  int64_t rem = t % 86400;
  int64_t z = days + 719468;
  int64_t era = z / 146097;
  int64_t doe = z - era * 146097;
  int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t y = yoe + era * 400;
  int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  int64_t mp = (5 * doy + 2) / 153;
  int64_t d = doy - (153 * mp + 2) / 5 + 1;
  int64_t m = mp < 10 ? mp + 3 : mp - 9;
  if (m <= 2) ++y;
  return WFormat(u"%02d.%02d.%04d %02d:%02d:%02d", static_cast<int>(d), static_cast<int>(m), static_cast<int>(y),
                 static_cast<int>(rem / 3600), static_cast<int>(rem / 60 % 60), static_cast<int>(rem % 60));
}
