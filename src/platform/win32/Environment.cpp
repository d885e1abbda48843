#include "platform/Environment.h"

#include "platform/win32/Win32Util.h"

namespace platform {

bool GetEnv(WStringView name, WString& value) {
  WString n(name);
  wchar_t small[260];
  SetLastError(0);
  DWORD len = GetEnvironmentVariableW(W32(n), small, 260);
  if (len == 0) {
    if (GetLastError() == ERROR_ENVVAR_NOT_FOUND) return false;
    value.clear();
    return true;
  }
  if (len < 260) {
    value.assign(U16(small), len);
    return true;
  }
  // Regrown once to the length the system reports.
  WString big(len, u'\0');
  DWORD got = GetEnvironmentVariableW(W32(n), reinterpret_cast<wchar_t*>(big.data()), len);
  if (got == 0 || got >= len) return false;
  big.resize(got);
  value = big;
  return true;
}

bool SetEnv(WStringView name, WStringView value) {
  WString n(name), v(value);
  return SetEnvironmentVariableW(W32(n), W32(v)) != 0;
}

bool UnsetEnv(WStringView name) {
  WString n(name);
  return SetEnvironmentVariableW(W32(n), nullptr) != 0;
}

}  // namespace platform
