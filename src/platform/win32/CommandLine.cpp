#include "platform/CommandLine.h"

#include <windows.h>
// The shell's declarations need the base ones first.
#include <shellapi.h>

#include "base/WString.h"
#include "platform/win32/Win32Util.h"

namespace platform {

std::vector<std::string> ProgramArguments(int argc, char** argv) {
  int count = 0;
  LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &count);
  if (wide == nullptr) return std::vector<std::string>(argv, argv + argc);
  std::vector<std::string> args;
  for (int i = 0; i < count; ++i) args.push_back(WToUtf8(U16(wide[i])));
  LocalFree(wide);
  return args;
}

}  // namespace platform
