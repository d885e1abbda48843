#include "platform/DynamicLibrary.h"

#include <string>

#include "platform/win32/Win32Util.h"

namespace platform {

void* LoadModuleFile(const WString& path, WString& error) {
  HMODULE h = LoadLibraryW(W32(path));
  if (!h) error = u"LoadLibraryW failed (error " + WFromAscii(std::to_string(GetLastError())) + u")";
  return reinterpret_cast<void*>(h);
}

void* FindModuleSymbol(void* module, const char* name) {
  return module ? reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name)) : nullptr;
}

void UnloadModuleFile(void* module) {
  if (module) FreeLibrary(static_cast<HMODULE>(module));
}

}  // namespace platform
