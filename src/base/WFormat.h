// The one printf-compatible wide formatter of the system. It serves the trace, the logs, file
// names and keys. Conversions: d i u x X o c s p f %, flags - 0 + blank #, width and precision
// (also as *), length modifiers hh h l ll z I64 I32. "%s" and "%ls" take a wide text
// (const char16_t*), "%hs" and "%S" a narrow UTF-8 text, as the wide print functions of the
// platform do.
//
// Format texts may come from outside, so any text with matching arguments is safe: width and
// precision digits beyond INT_MAX count as INT_MAX, a "*" width of INT_MIN as left-adjusted
// INT_MAX, a negative "*" precision as none, and a floating-point precision above 1100 as 1100
// (no double has more digits). Nothing is ever written past the buffer.
#pragma once

#include <cstdarg>
#include <cstddef>

#include "base/WString.h"

// Writes at most cap-1 characters and a terminator into buf; returns the characters written.
size_t WFormatToV(char16_t* buf, size_t cap, const char16_t* fmt, va_list ap);
size_t WFormatTo(char16_t* buf, size_t cap, const char16_t* fmt, ...);

WString WFormatV(const char16_t* fmt, va_list ap);
WString WFormat(const char16_t* fmt, ...);

// Date text "%d.%m.%Y %H:%M:%S" of a LocalClockSeconds value, broken into calendar fields with
// no further zone arithmetic.
WString WDateText(uint32_t localClockSeconds);
