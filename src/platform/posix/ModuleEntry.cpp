// Load and unload of the shared object stand in for the process attach and detach of a DLL.
#include "platform/ModuleEntry.h"

namespace {

__attribute__((constructor)) void OnLoad() {
  EmOnProcessAttach();
}
__attribute__((destructor)) void OnUnload() {
  EmOnProcessDetach();
}

}  // namespace
