#include "platform/EventLog.h"

#include "platform/win32/Win32Util.h"

namespace platform {

EventSourceHandle OpenEventSource(const WString& source) {
  return RegisterEventSourceW(nullptr, W32(source));
}

bool CloseEventSource(EventSourceHandle handle, uint32_t& error) {
  error = 0;
  if (DeregisterEventSource(static_cast<HANDLE>(handle))) return true;
  error = GetLastError();
  return false;
}

int ReportEventEntry(EventSourceHandle handle, uint16_t type, uint32_t eventId, const WString& text) {
  LPCWSTR strings[1] = {W32(text)};
  return ReportEventW(static_cast<HANDLE>(handle), type, 0, eventId, nullptr, 1, 0, strings, nullptr) ? 1 : 0;
}

}  // namespace platform
