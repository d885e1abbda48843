// Loading a module file and finding its entry points: the host loads the module file, and the
// module's engine factory loads a configured update engine library.
#pragma once

#include "base/WString.h"

namespace platform {

void* LoadModuleFile(const WString& path, WString& error);
void* FindModuleSymbol(void* module, const char* name);
void UnloadModuleFile(void* module);

}  // namespace platform
