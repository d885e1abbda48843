// The formatter on any format text (one character per input byte), given exactly the arguments
// its conversions read: it must never write past the buffer it is given, must always terminate
// it, and a smaller buffer must give the start of what a larger one gives.
//
// The arguments are worked out by reading the format as the formatter documents it (flags,
// width and precision with "*", length modifiers hh h l ll z I64 I32). Each conversion is run on
// its own with its arguments, and the whole text in one call when it reads three or fewer.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "base/WFormat.h"

namespace {

enum class Kind { Int, UInt, Long, ULong, LongLong, ULongLong, Size, Double, Pointer, WideText, NarrowText };

struct Conversion {
  size_t start;  // the position of its "%"
  std::vector<Kind> args;
};

// The conversions of `f` and the arguments each reads, in order.
std::vector<Conversion> Conversions(const std::u16string& f) {
  std::vector<Conversion> out;
  const char16_t* p = f.c_str();
  for (; *p; ++p) {
    if (*p != u'%') continue;
    Conversion c{static_cast<size_t>(p - f.c_str()), {}};
    ++p;
    if (*p == u'%') continue;
    while (*p == u'-' || *p == u'0' || *p == u'+' || *p == u' ' || *p == u'#') ++p;
    if (*p == u'*') {
      c.args.push_back(Kind::Int);
      ++p;
    } else {
      while (*p >= u'0' && *p <= u'9') ++p;
    }
    if (*p == u'.') {
      ++p;
      if (*p == u'*') {
        c.args.push_back(Kind::Int);
        ++p;
      } else {
        while (*p >= u'0' && *p <= u'9') ++p;
      }
    }
    enum { kPlain, kLong, kLongLong, kSize } length = kPlain;
    bool narrow = false, wide = false;
    if (*p == u'h') {
      ++p;
      if (*p == u'h') ++p;
      narrow = true;
    } else if (*p == u'l') {
      ++p;
      length = kLong;
      if (*p == u'l') {
        length = kLongLong;
        ++p;
      }
      wide = true;
    } else if (*p == u'z') {
      length = kSize;
      ++p;
    } else if (p[0] == u'I' && p[1] == u'6' && p[2] == u'4') {
      length = kLongLong;
      p += 3;
    } else if (p[0] == u'I' && p[1] == u'3' && p[2] == u'2') {
      p += 3;
    }
    const char16_t conv = *p;
    switch (conv) {
      case u'd':
      case u'i':
        c.args.push_back(length == kLong       ? Kind::Long
                         : length == kLongLong ? Kind::LongLong
                         : length == kSize     ? Kind::Size
                                               : Kind::Int);
        break;
      case u'u':
      case u'x':
      case u'X':
      case u'o':
        c.args.push_back(length == kLong       ? Kind::ULong
                         : length == kLongLong ? Kind::ULongLong
                         : length == kSize     ? Kind::Size
                                               : Kind::UInt);
        break;
      case u'p':
        c.args.push_back(Kind::Pointer);
        break;
      case u'c':
        c.args.push_back(Kind::Int);
        break;
      case u's':
      case u'S':
        c.args.push_back((conv == u'S' && !wide) || (conv == u's' && narrow) ? Kind::NarrowText : Kind::WideText);
        break;
      case u'f':
      case u'F':
      case u'e':
      case u'g':
        c.args.push_back(Kind::Double);
        break;
      default:
        break;
    }
    out.push_back(std::move(c));
    if (!conv) break;
  }
  return out;
}

// Values chosen by the argument's position, so that one input meets several.
template <class F>
void WithValue(Kind kind, size_t i, F&& f) {
  static const int ints[] = {0, 1, -1, 7, 300, -300, INT_MAX, INT_MIN, 'Z'};
  static const unsigned uints[] = {0u, 1u, 255u, 0x80000000u, UINT_MAX};
  static const long longs[] = {0L, -1L, LONG_MIN, LONG_MAX};
  static const long long llongs[] = {0LL, -1LL, LLONG_MIN, LLONG_MAX};
  static const unsigned long long ullongs[] = {0ULL, 1ULL, ULLONG_MAX};
  static const double doubles[] = {0.0, -0.0, -1.5, 123456.789, 1e308, 5e-324, INFINITY, -INFINITY, NAN};
  static const char16_t* wides[] = {u"wide \u00E9 text", u"", nullptr};
  static const char* narrows[] = {"n\xC3\xA4rrow", "cut \xE2", "", nullptr};
  static int object;
  switch (kind) {
    case Kind::Int:
      return f(ints[i % std::size(ints)]);
    case Kind::UInt:
      return f(uints[i % std::size(uints)]);
    case Kind::Long:
      return f(longs[i % std::size(longs)]);
    case Kind::ULong:
      return f(static_cast<unsigned long>(ullongs[i % std::size(ullongs)]));
    case Kind::LongLong:
      return f(llongs[i % std::size(llongs)]);
    case Kind::ULongLong:
      return f(ullongs[i % std::size(ullongs)]);
    case Kind::Size:
      return f(static_cast<size_t>(ullongs[i % std::size(ullongs)]));
    case Kind::Double:
      return f(doubles[i % std::size(doubles)]);
    case Kind::Pointer:
      return f(i % 2 ? static_cast<void*>(&object) : nullptr);
    case Kind::WideText:
      return f(wides[i % std::size(wides)]);
    case Kind::NarrowText:
      return f(narrows[i % std::size(narrows)]);
  }
}

constexpr size_t kMaxArgs = 3;

// Calls f with one value of each kind in `kinds`, with their static types.
template <class F, class... A>
void Dispatch(const std::vector<Kind>& kinds, size_t i, size_t salt, F& f, A... acc) {
  if (i == kinds.size()) {
    f(acc...);
    return;
  }
  if constexpr (sizeof...(A) < kMaxArgs) {
    WithValue(kinds[i], i + salt, [&](auto v) { Dispatch(kinds, i + 1, salt, f, acc..., v); });
  }
}

template <class... A>
void Check(const char16_t* fmt, A... args) {
  constexpr size_t kCaps[] = {1, 2, 5, 40, 700, 5000};
  constexpr size_t kLargest = kCaps[std::size(kCaps) - 1];
  // Each buffer is exactly as large as the formatter is told, so that the address sanitizer sees
  // any write past it.
  std::unique_ptr<char16_t[]> large(new char16_t[kLargest]);
  const size_t full = WFormatTo(large.get(), kLargest, fmt, args...);
  if (full >= kLargest || large[full] != 0) std::abort();
  for (size_t cap : kCaps) {
    std::unique_ptr<char16_t[]> buf(new char16_t[cap]);
    const size_t n = WFormatTo(buf.get(), cap, fmt, args...);
    if (n >= cap || buf[n] != 0) std::abort();
    if (n != std::min(full, cap - 1)) std::abort();
    if (std::u16string_view(buf.get(), n) != std::u16string_view(large.get(), n)) std::abort();
  }
  if (WFormatTo(nullptr, 10, fmt, args...) != 0 || WFormatTo(large.get(), 0, fmt, args...) != 0) std::abort();
  // The growing form gives the same text when it fits the large buffer (a longer one only costs
  // time here: the growing form goes up to 16 million characters).
  if (full + 1 < kLargest && WFormat(fmt, args...) != std::u16string_view(large.get(), full)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  std::u16string fmt;
  for (size_t i = 0; i < size && data[i]; ++i) fmt.push_back(data[i]);
  const std::vector<Conversion> conversions = Conversions(fmt);
  auto check = [&](const std::u16string& text) { return [&text](auto... args) { Check(text.c_str(), args...); }; };

  // Each conversion with the text that follows it up to the next one, and the text before the first.
  const size_t first = conversions.empty() ? fmt.size() : conversions[0].start;
  const std::u16string head = fmt.substr(0, first);
  Check(head.c_str());
  for (size_t k = 0; k < conversions.size(); ++k) {
    const size_t end = k + 1 < conversions.size() ? conversions[k + 1].start : fmt.size();
    const std::u16string piece = fmt.substr(conversions[k].start, end - conversions[k].start);
    if (conversions[k].args.size() > kMaxArgs) std::abort();  // at most two "*" and a value
    auto f = check(piece);
    Dispatch(conversions[k].args, 0, k, f);
  }

  // The whole text in one call when its arguments fit the dispatcher.
  std::vector<Kind> all;
  for (const Conversion& c : conversions) all.insert(all.end(), c.args.begin(), c.args.end());
  if (all.size() <= kMaxArgs) {
    auto f = check(fmt);
    Dispatch(all, 0, size, f);
  }
  return 0;
}
