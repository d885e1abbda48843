#include "platform/Environment.h"

#include <windows.h>
// The shell's declarations need the base ones first.
#include <shellapi.h>

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

std::vector<std::string> ProgramArguments(int argc, char** argv) {
  int count = 0;
  LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> args;
  if (wide == nullptr) {
    args.assign(argv, argv + argc);
    return args;
  }
  for (int i = 0; i < count; ++i) args.push_back(WToUtf8(U16(wide[i])));
  LocalFree(wide);
  return args;
}

}  // namespace platform
