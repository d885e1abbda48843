// Loading a module file and finding its entry points (used by the host, never by the module).
#pragma once

#include "base/WString.h"

namespace platform {

void* LoadModuleFile(const WString& path, WString& error);
void* FindModuleSymbol(void* module, const char* name);
void UnloadModuleFile(void* module);

}  // namespace platform
