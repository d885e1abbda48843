// The exported entry points and the load and unload of the module file.
#include "module/ModuleExports.h"

#include <memory>

#include "base/WFormat.h"
#include "config/UM_Config.h"
#include "foundation/CDebug.h"
#include "foundation/CFile.h"
#include "foundation/RootPaths.h"
#include "mirror/UM_Download.h"
#include "module/CUpdateExtensionModule.h"
#include "platform/Clock.h"
#include "platform/FileIo.h"
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
    case 0:
      TRACE(1, u"\n        OS platform : x86");
      break;
    case 6:
      TRACE(1, u"\n        OS platform : iA64");
      break;
    case 9:
      TRACE(1, u"\n        OS platform : x64");
      break;
    default:
      TRACE(1, u"\n        OS platform : << Unknown!! >>");
      break;
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

EM_EXPORT const char16_t* EM_GetModuleName() {
  return u"EM_MENDER";
}

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

namespace {

// Removes a directory with everything in it; one more try after a second, since a file may still
// be held open for a moment at uninstall.
int RemoveWithRetry(const WString& dir) {
  int rc = CFile::RemoveDirectoryTree(dir, true);
  if (rc) return rc;
  TRACE(1, u"\nEM_MENDER           : removing \"%s\" failed (first time)", dir.c_str());
  platform::SleepMs(1000);
  rc = CFile::RemoveDirectoryTree(dir, true);
  if (!rc) TRACE(1, u"\nEM_MENDER           : removing \"%s\" failed (second time)", dir.c_str());
  return rc;
}

}  // namespace

EM_EXPORT int EM_SetupAction(int action, ...) {
  if (action != kSetupActionUninstall) return 1;
  // Uninstall: the module's work area below the temp root, then its repository and jobs below the
  // data root when that is another place.
  WString tempRoot, dataRoot;
  ReadTempRoot(tempRoot);
  const WString workDir = tempRoot + kSep + u"EM_MENDER";
  TRACE(1, u"\nEM_MENDER           : Remove work directory \"%s\"", workDir.c_str());
  int result = RemoveWithRetry(workDir);
  ReadDataRoot(dataRoot);
  if (dataRoot == tempRoot) return result;
  const WString dataDir = dataRoot + kSep + u"EM_MENDER";
  if (platform::DirectoryExists(dataDir)) {
    TRACE(1, u"\nEM_MENDER           : Remove Update Repository and Update Jobs at \"%s\"", dataDir.c_str());
    if (!RemoveWithRetry(dataDir)) result = 0;
  }
  return result;
}

// The repository functions for outside programs. Each runs one mirror operation with no module
// object: the working location is the caller's current directory, the check log goes to the
// installation's work directory, and there is no shutdown to watch.
namespace {

// A string field of the record: up to its first NUL, at most the field's width.
WString RecordText(const char16_t (&field)[260]) {
  size_t n = 0;
  while (n < 260 && field[n] != 0) ++n;
  return WString(field, n);
}

std::unique_ptr<webParam> FromRecord(const WebParamRecord& record) {
  auto params = std::make_unique<webParam>();
  params->proxyMode = record.proxyMode;
  params->server = RecordText(record.server);
  params->path = RecordText(record.path);
  params->protocol = record.protocol;
  params->port = static_cast<uint32_t>(record.proxyPort);
  params->proxyServer = RecordText(record.proxyServer);
  params->proxyUser = RecordText(record.proxyUser);
  params->proxyPasswd = RecordText(record.proxyPassword);
  return params;
}

}  // namespace

EM_EXPORT int updateTree(const WebParamRecord* record, const char16_t* localRepository, const char16_t* logFile,
                         int dnlFlags) {
  if (!record || !localRepository) return -1;
  std::unique_ptr<webParam> params = FromRecord(*record);
  UM_Download mirror;
  return mirror.updateTree(params.get(), localRepository, logFile ? WString(logFile) : WString(), dnlFlags);
}

EM_EXPORT int download(const WebParamRecord* record, const char16_t* localRepository, const char16_t* componentPath,
                       const char16_t* logFile, int dnlFlags) {
  if (!record || !localRepository || !componentPath) return -1;
  std::unique_ptr<webParam> params = FromRecord(*record);
  UM_Download mirror;
  return mirror.download(params.get(), localRepository, componentPath, logFile ? WString(logFile) : WString(),
                         dnlFlags);
}

EM_EXPORT int checkWebConnection(const WebParamRecord* record) {
  if (!record) return -1;
  std::unique_ptr<webParam> params = FromRecord(*record);
  UM_Download mirror;
  return mirror.checkWebConnection(params.get());
}

EM_EXPORT int deleteBinary(const char16_t* localRepository, const char16_t* componentPath) {
  if (!localRepository || !componentPath) return -1;
  UM_Download mirror;
  return mirror.deleteBinary(localRepository, componentPath);
}
