#include "platform/DynamicLibrary.h"

#include "foundation/WFormat.h"
#include "platform/win32/Win32Util.h"

namespace platform {

void* LoadModuleFile(const WString& path, WString& error) {
  HMODULE h = LoadLibraryW(W32(path));
  if (!h) error = WFormat(u"LoadLibraryW failed (error %lu)", static_cast<unsigned long>(GetLastError()));
  return reinterpret_cast<void*>(h);
}

void* FindModuleSymbol(void* module, const char* name) {
  return module ? reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name)) : nullptr;
}

void UnloadModuleFile(void* module) {
  if (module) FreeLibrary(static_cast<HMODULE>(module));
}

}  // namespace platform
