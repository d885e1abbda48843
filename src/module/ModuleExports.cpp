// The exported entry points and the load and unload of the module file.
#include "module/ModuleExports.h"

#include "foundation/CDebug.h"
#include "foundation/WFormat.h"
#include "module/CUpdateExtensionModule.h"
#include "platform/ModuleEntry.h"
#include "platform/SystemInfo.h"

namespace {

// The single module object of the process.
CUpdateExtensionModule* g_module = nullptr;

void WriteBanner() {
  if (!g_Debug.IsActive()) return;
  TRACE(1, u"\n\n *** NodeWarden module %s loaded ***\n", g_moduleTraceName);
  TRACE(1, u"\n      Computer name : %s", platform::ComputerName().c_str());
  TRACE(1, u"\n   Operating system : %s", platform::OsProductName().c_str());
  uint16_t arch = 0;
  if (!platform::NativeProcessorArchitecture(arch)) arch = 0;
  switch (arch) {
    case 0: TRACE(1, u"\n        OS platform : x86"); break;
    case 6: TRACE(1, u"\n        OS platform : iA64"); break;
    case 9: TRACE(1, u"\n        OS platform : x64"); break;
    default: TRACE(1, u"\n        OS platform : << Unknown!! >>"); break;
  }
  const WString path = platform::ModuleFilePath();
  platform::ModuleVersionInfo version;
  if (platform::ReadModuleVersion(path, version)) {
    TRACE(1, u"\n Module description : %s", version.fileDescription.c_str());
    TRACE(2, u"\n       Company name : %s", version.companyName.c_str());
    TRACE(1, u"\n     Module version : %s", version.productVersion.c_str());
    WString fileVersion = WFormat(u"%d.%d.%d.%d", version.fileVersion[0], version.fileVersion[1],
                                  version.fileVersion[2], version.fileVersion[3]);
    TRACE(1, u"\n       File version : %s", fileVersion.c_str());
  }
  TRACE(1, u"\n    Build date/time : %hs %hs", __DATE__, __TIME__);
  TRACE(2, u"\n        Module path : %s", path.c_str());
  TRACE(2, u"\n");
  TRACE(4, u"\nEM DLL (%-10s) : DLL_PROCESS_ATTACH", g_moduleTraceName);
}

}  // namespace

bool EmOnProcessAttach() {
  g_moduleTraceName = u"EM_MENDER";
  WriteBanner();
  return true;
}

void EmOnProcessDetach() {
  TRACE(2, u"\nEM DLL (%-10s) : DLL_PROCESS_DETACH", g_moduleTraceName);
  TRACE(2, u"\n");
  if (g_module) {
    TRACE(4, u"\nEM DLL (%-10s) : DLL_PROCESS_DETACH - deleting module...", g_moduleTraceName);
    // The host left its object behind: delete it as the host would have.
    EM_Delete();
    TRACE(4, u"\nEM DLL (%-10s) : DLL_PROCESS_DETACH - module deleted", g_moduleTraceName);
  }
  TRACE(5, u"\nEM DLL (%-10s) : DLL_PROCESS_DETACH finished", g_moduleTraceName);
}

EM_EXPORT const char16_t* EM_GetModuleName() { return u"EM_MENDER"; }

EM_EXPORT int EM_Create(IExtensionModule** out, void* /*reserved*/) {
  if (g_module) {
    TRACE(1, u"\nEM DLL (%-10s) : ## ERROR: Module already existing!\n", g_moduleTraceName);
    if (out) *out = g_module;
    return 1;
  }
  TRACE(2, u"\nEM DLL (%-10s) : Create module", g_moduleTraceName);
  g_module = new (std::nothrow) CUpdateExtensionModule();
  if (!g_module) TRACE(1, u"\nEM DLL (%-10s) : ## ERROR: Module could not be created!\n", g_moduleTraceName);
  if (out) *out = g_module;
  return g_module ? 1 : 0;
}

EM_EXPORT int EM_Delete() {
  if (!g_module) {
    TRACE(2, u"\nEM DLL (%-10s) : Module already destroyed!", g_moduleTraceName);
    return 0;
  }
  TRACE(2, u"\nEM DLL (%-10s) : Destroy module...", g_moduleTraceName);
  try {
    IExtensionModule* object = g_module;
    delete object;
  } catch (...) {
    TRACE(1, u"\nEM DLL (%-10s) : ## ERROR! Exception while destroying module!", g_moduleTraceName);
    return 0;
  }
  g_module = nullptr;
  // The server cabinet number lives as long as the module file; a new object in the same load
  // keeps it, as the host sets it once per load.
  TRACE(2, u"\nEM DLL (%-10s) : .. Module destroyed successfully!", g_moduleTraceName);
  return 1;
}

EM_EXPORT int EM_SetupAction(int action, ...) {
  if (action != kSetupActionUninstall) return 1;
  // Removing the module's data at uninstall needs the host's directory roots, which this build
  // does not read yet: the action reports failure and removes nothing.
  TRACE(1, u"\nEM_MENDER           : EM_SetupAction(%d) not available in this build", action);
  return 0;
}

// The repository functions for outside programs. The repository mirror is not part of this build:
// each checks its arguments as designed and reports failure (-1).
EM_EXPORT int updateTree(const WebParamRecord* /*record*/, const char16_t* /*localRepository*/,
                         const char16_t* /*logFile*/, int /*dnlFlags*/) {
  return -1;
}

EM_EXPORT int download(const WebParamRecord* /*record*/, const char16_t* /*localRepository*/,
                       const char16_t* /*componentPath*/, const char16_t* /*logFile*/, int /*dnlFlags*/) {
  return -1;
}

EM_EXPORT int checkWebConnection(const WebParamRecord* /*record*/) { return -1; }

EM_EXPORT int deleteBinary(const char16_t* /*localRepository*/, const char16_t* /*componentPath*/) { return -1; }
