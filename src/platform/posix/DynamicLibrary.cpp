#include "platform/DynamicLibrary.h"

#include <dlfcn.h>

namespace platform {

void* LoadModuleFile(const WString& path, WString& error) {
  void* h = ::dlopen(WToUtf8(path).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!h) {
    const char* e = ::dlerror();
    error = WFromUtf8(e ? e : "dlopen failed");
  }
  return h;
}

void* FindModuleSymbol(void* module, const char* name) {
  return module ? ::dlsym(module, name) : nullptr;
}

void UnloadModuleFile(void* module) {
  if (module) ::dlclose(module);
}

}  // namespace platform
