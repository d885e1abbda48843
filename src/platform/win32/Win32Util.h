// Helpers shared by the Win32 implementations.
#pragma once

#include <windows.h>

#include "base/WString.h"

namespace platform {

inline const wchar_t* W32(const WString& s) {
  return reinterpret_cast<const wchar_t*>(s.c_str());
}
// Callers write paths with '/' or '\'; the system's own forms want '\'.
inline WString Backslashes(WString path) {
  for (char16_t& c : path)
    if (c == u'/') c = u'\\';
  return path;
}
inline const char16_t* U16(const wchar_t* s) {
  return reinterpret_cast<const char16_t*>(s);
}

}  // namespace platform
