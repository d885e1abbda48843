#include "platform/DebugOutput.h"

#include "platform/win32/Win32Util.h"

namespace platform {

namespace {
HANDLE g_console = INVALID_HANDLE_VALUE;
}

bool ConsoleOpen() {
  if (g_console != INVALID_HANDLE_VALUE) return true;
  AllocConsole();  // fails harmlessly when the process already has one
  HANDLE h = GetStdHandle(STD_OUTPUT_HANDLE);
  if (h == nullptr || h == INVALID_HANDLE_VALUE) return false;
  g_console = h;
  return true;
}

void ConsoleWrite(WStringView text) {
  if (g_console == INVALID_HANDLE_VALUE) return;
  DWORD written = 0;
  WriteConsoleW(g_console, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

void DebuggerWrite(const char16_t* text) {
  OutputDebugStringW(reinterpret_cast<const wchar_t*>(text));
}

}  // namespace platform
