#include "base/WFormat.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <type_traits>

namespace {

// Appends into a fixed buffer, silently cutting what does not fit.
struct Sink {
  char16_t* buf;
  size_t cap;  // including the terminator
  size_t len = 0;
  bool full() const { return len + 1 >= cap; }
  void put(char16_t c) {
    if (!full()) buf[len++] = c;
  }
  // Stops as soon as the buffer is full, so that a width of two thousand million costs nothing.
  void fill(char16_t c, size_t n) {
    for (size_t i = 0; i < n && !full(); ++i) buf[len++] = c;
  }
  template <class Ch>
  void put(const Ch* text, size_t n) {
    for (size_t i = 0; i < n && !full(); ++i) buf[len++] = static_cast<std::make_unsigned_t<Ch>>(text[i]);
  }
};

struct FieldOptions {
  bool left = false, zero = false, plus = false, space = false, alt = false;
  int width = 0;
  int precision = -1;  // -1: none given
};

// Width and precision digits come from texts of outside callers: a number too large for an int
// stays at INT_MAX instead of overflowing. Output is bounded by the buffer anyway.
int ReadCount(const char16_t*& p) {
  int value = 0;
  while (*p >= u'0' && *p <= u'9') {
    const int digit = *p++ - u'0';
    value = value > (INT_MAX - digit) / 10 ? INT_MAX : value * 10 + digit;
  }
  return value;
}

// A field: `prefix` (sign, "0x"), `zeros` leading zeros of the precision, then `body`, padded to
// the width with blanks, or with zeros after the prefix when `zeroPad` allows.
template <class Ch>
void PutField(Sink& s, const FieldOptions& opt, const Ch* prefix, size_t prefixLen, size_t zeros, const Ch* body,
              size_t bodyLen, bool zeroPad) {
  const size_t used = prefixLen + zeros + bodyLen;
  const size_t width = static_cast<size_t>(opt.width);
  const size_t pad = width > used ? width - used : 0;
  if (!opt.left && !(zeroPad && opt.zero)) s.fill(u' ', pad);
  s.put(prefix, prefixLen);
  if (!opt.left && zeroPad && opt.zero) s.fill(u'0', pad);
  s.fill(u'0', zeros);
  s.put(body, bodyLen);
  if (opt.left) s.fill(u' ', pad);
}

void PutText(Sink& s, const FieldOptions& opt, const char16_t* text, size_t n) {
  PutField<char16_t>(s, opt, nullptr, 0, 0, text, n, false);
}

void PutInteger(Sink& s, const FieldOptions& opt, uint64_t mag, bool negative, unsigned base, bool upper) {
  // 22 octal digits hold any 64-bit value.
  char16_t digits[24];
  size_t nd = 0;
  const char* set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  while (mag) {
    digits[sizeof digits / sizeof digits[0] - 1 - nd++] = static_cast<char16_t>(set[mag % base]);
    mag /= base;
  }
  const bool zeroValue = nd == 0;
  if (zeroValue && opt.precision != 0) digits[sizeof digits / sizeof digits[0] - 1 - nd++] = u'0';
  char16_t prefix[3];
  size_t np = 0;
  if (negative)
    prefix[np++] = u'-';
  else if (opt.plus && base == 10)
    prefix[np++] = u'+';
  else if (opt.space && base == 10)
    prefix[np++] = u' ';
  if (opt.alt && base == 16 && !zeroValue) {
    prefix[np++] = u'0';
    prefix[np++] = upper ? u'X' : u'x';
  }
  const size_t precision = opt.precision < 0 ? 0 : static_cast<size_t>(opt.precision);
  const size_t zeros = precision > nd ? precision - nd : 0;
  // As printf: a precision switches the zero flag off for integers.
  PutField(s, opt, prefix, np, zeros, digits + sizeof digits / sizeof digits[0] - nd, nd, opt.precision < 0);
}

// Every digit a double holds is printed within this precision (the longest exact expansion, of the
// smallest subnormal, has 1074 fraction digits); a larger one only adds zeros and is cut to it.
constexpr int kMaxFloatPrecision = 1100;

void PutFloat(Sink& s, const FieldOptions& opt, char16_t conv, double v) {
  char nfmt[16];
  std::snprintf(nfmt, sizeof nfmt, "%%%s%s%s.*%c", opt.plus ? "+" : "", opt.space ? " " : "", opt.alt ? "#" : "",
                static_cast<char>(conv));
  const int precision = opt.precision < 0 ? 6 : std::min(opt.precision, kMaxFloatPrecision);
  // Sign, 309 integer digits, point, the precision and an exponent fit.
  char nbuf[kMaxFloatPrecision + 400];
  int n = std::snprintf(nbuf, sizeof nbuf, nfmt, precision, v);
  if (n < 0) n = 0;
  if (static_cast<size_t>(n) >= sizeof nbuf) n = static_cast<int>(sizeof nbuf) - 1;
  const size_t signLen = n > 0 && (nbuf[0] == '-' || nbuf[0] == '+' || nbuf[0] == ' ') ? 1 : 0;
  // Zeros pad a number; "inf" and "nan" are padded with blanks, as printf does.
  PutField(s, opt, nbuf, signLen, 0, nbuf + signLen, static_cast<size_t>(n) - signLen, std::isfinite(v));
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
    FieldOptions opt;
    for (;; ++p) {
      if (*p == u'-')
        opt.left = true;
      else if (*p == u'0')
        opt.zero = true;
      else if (*p == u'+')
        opt.plus = true;
      else if (*p == u' ')
        opt.space = true;
      else if (*p == u'#')
        opt.alt = true;
      else
        break;
    }
    if (*p == u'*') {
      const int width = va_arg(ap, int);
      if (width < 0) {
        // A negative width means left adjustment; INT_MIN has no positive counterpart.
        opt.left = true;
        opt.width = width == INT_MIN ? INT_MAX : -width;
      } else {
        opt.width = width;
      }
      ++p;
    } else {
      opt.width = ReadCount(p);
    }
    if (*p == u'.') {
      ++p;
      if (*p == u'*') {
        const int precision = va_arg(ap, int);
        opt.precision = precision < 0 ? -1 : precision;  // negative: as if none were given
        ++p;
      } else {
        opt.precision = ReadCount(p);
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
        PutInteger(s, opt, mag, v < 0, 10, false);
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
        PutInteger(s, opt, v, false, base, conv == u'X');
        break;
      }
      case u'p': {
        FieldOptions ps = opt;
        ps.alt = true;
        PutInteger(s, ps, reinterpret_cast<uintptr_t>(va_arg(ap, void*)), false, 16, false);
        break;
      }
      case u'c': {
        char16_t c = static_cast<char16_t>(va_arg(ap, int));
        PutText(s, opt, &c, 1);
        break;
      }
      case u's':
      case u'S': {
        bool narrow = (conv == u'S' && !wideText) || (conv == u's' && narrowText);
        if (narrow) {
          const char* t = va_arg(ap, const char*);
          WString w = WFromUtf8(t ? t : "(null)");
          size_t n = w.size();
          if (opt.precision >= 0 && static_cast<size_t>(opt.precision) < n) n = opt.precision;
          PutText(s, opt, w.data(), n);
        } else {
          const char16_t* t = va_arg(ap, const char16_t*);
          if (!t) t = u"(null)";
          size_t n = 0;
          while (t[n] && (opt.precision < 0 || n < static_cast<size_t>(opt.precision))) ++n;
          PutText(s, opt, t, n);
        }
        break;
      }
      case u'f':
      case u'F':
      case u'e':
      case u'g': {
        PutFloat(s, opt, conv, va_arg(ap, double));
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
