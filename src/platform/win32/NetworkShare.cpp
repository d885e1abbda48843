#include "platform/NetworkShare.h"

#include "platform/win32/Win32Util.h"

// After <windows.h>, whose types it uses.
#include <winnetwk.h>

namespace platform {

uint32_t ConnectShare(const WString& share, const WString& user, const WString& password) {
  NETRESOURCEW resource = {};
  resource.dwScope = RESOURCE_GLOBALNET;
  resource.dwType = RESOURCETYPE_DISK;
  resource.dwDisplayType = RESOURCEDISPLAYTYPE_SHARE;
  resource.dwUsage = RESOURCEUSAGE_CONNECTABLE;
  resource.lpLocalName = nullptr;
  WString remote = share;  // the call takes a writable pointer
  resource.lpRemoteName = const_cast<wchar_t*>(W32(remote));
  return WNetAddConnection2W(&resource, W32(password), W32(user), 0);
}

WString SystemErrorText(uint32_t error) {
  wchar_t* buffer = nullptr;
  const DWORD n =
      FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                     nullptr, error, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
  WString text = n && buffer ? WString(U16(buffer), n) : WString();
  if (buffer) LocalFree(buffer);
  while (!text.empty() && (text.back() == u'\r' || text.back() == u'\n' || text.back() == u' ')) text.pop_back();
  if (text.empty()) text = WFromUtf8("Unknown error " + std::to_string(error) + ".");
  return text;
}

}  // namespace platform
