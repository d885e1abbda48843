// Text conversions of the Windows side of the tool: its command line, file names and the system's
// messages are UTF-16 there, everything inside the tool is UTF-8.
#pragma once

#include <windows.h>

#include <string>

#include "base/WString.h"

namespace filedownload {

inline std::wstring WideFromUtf8(const std::string& utf8) {
  const WString w = WFromUtf8(utf8);
  return std::wstring(w.begin(), w.end());
}

inline std::string Utf8FromWide(const wchar_t* wide) {
  const WString w(reinterpret_cast<const char16_t*>(wide));
  return WToUtf8(w);
}

// The message of an error code in one line, from `module`'s messages or, for a null module, the
// system's; empty when there is none.
inline std::string MessageText(DWORD code, HMODULE module) {
  wchar_t* text = nullptr;
  const DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS |
                      (module != nullptr ? FORMAT_MESSAGE_FROM_HMODULE : FORMAT_MESSAGE_FROM_SYSTEM);
  std::string message;
  if (FormatMessageW(flags, module, code, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr) > 0 && text != nullptr) {
    message = Utf8FromWide(text);
  }
  if (text != nullptr) LocalFree(text);
  for (char& c : message) {
    if (c == '\r' || c == '\n') c = ' ';
  }
  while (!message.empty() && (message.back() == ' ' || message.back() == '.')) message.pop_back();
  return message;
}

// The text of an error code followed by the code: the message of `module` (winhttp.dll) when it
// has one for the code, else the system's.
inline std::string SystemErrorText(DWORD code, HMODULE module = nullptr) {
  std::string message = module != nullptr ? MessageText(code, module) : std::string();
  if (message.empty()) message = MessageText(code, nullptr);
  if (message.empty()) message = "error";
  return message + " (error " + std::to_string(code) + ")";
}

}  // namespace filedownload
