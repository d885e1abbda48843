// The entry point of the module DLL.
#include "platform/ModuleEntry.h"

#include "platform/win32/Win32Util.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID /*reserved*/) {
  switch (reason) {
    case DLL_PROCESS_ATTACH:
      DisableThreadLibraryCalls(instance);
      return EmOnProcessAttach() ? TRUE : FALSE;
    case DLL_PROCESS_DETACH:
      EmOnProcessDetach();
      return TRUE;
    case DLL_THREAD_ATTACH:
    case DLL_THREAD_DETACH:
      return TRUE;
    default:
      return FALSE;
  }
}
