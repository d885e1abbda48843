#include "engine/EngineFactory.h"

#include <map>
#include <mutex>

#include "base/WFormat.h"
#include "engine/SimulatedEngine.h"
#include "foundation/CDebug.h"
#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "platform/DynamicLibrary.h"
#include "platform/Environment.h"

namespace {

// What the module gets when the configured engine library cannot be used: every call fails, and
// the error text of kEngineUnavailable says which library and why. The module must never compare
// against the simulation in place of the engine an administrator configured.
class UnavailableEngine : public ORMUX {
 public:
  UnavailableEngine(const WString& path, const WString& reason)
      : m_unavailable(u"The update engine library '" + path + u"' could not be used: " + reason) {}

  void SetTrace(uint32_t, const WString&) override {}
  uint32_t UseLocalInventory() override { return kEngineUnavailable; }
  void DoKordUpScan() override {}
  void InventoryModifiedEvent() override {}
  uint32_t GetUpdateInventoryIterator(const WString&, UpdateInventoryIterator*& iterator) override {
    iterator = nullptr;
    return kEngineUnavailable;
  }
  InventoryIterator* GetInventoryIterator() override { return nullptr; }
  const char16_t* GetErrorString(int32_t error) override {
    if (error == static_cast<int32_t>(kEngineUnavailable)) return m_unavailable.c_str();
    std::lock_guard<std::mutex> lock(m_lock);
    WString& slot = m_texts[error];
    if (slot.empty()) slot = WFormat(u"Unknown engine error %d", error);
    return slot.c_str();
  }
  void GetExecPath(WString& path) override { path.clear(); }

  uint32_t AddNewJob(const WString&, const WString&, const WString&, uint32_t&, ZTI_CHECK_MODE) override {
    return kEngineUnavailable;
  }
  uint32_t StartUpdate() override { return kEngineUnavailable; }
  uint32_t DoFlashBoot(B_TYPE, uint32_t) override { return kEngineUnavailable; }
  uint32_t GetFlashBootStatus(B_TYPE&, uint32_t&) override { return kEngineUnavailable; }
  uint32_t ResumeJob() override { return kEngineUnavailable; }
  uint32_t CleanupUpdate() override { return kEngineUnavailable; }
  const tJobElement* GetFirstJobStatus(const void*, const void*) override { return nullptr; }
  const tJobElement* GetNextJobStatus() override { return nullptr; }
  const char16_t* GetJobCompletionStateString(uint32_t) override { return m_unavailable.c_str(); }
  int WriteqXL_LogEntry(bool, const WString&, const WString&, const WString&, const WString&, const WString&) override {
    return 0;
  }

 private:
  const WString m_unavailable;
  std::mutex m_lock;
  std::map<int32_t, WString> m_texts;
};

EnginePtr Unavailable(const WString& path, const WString& reason, UM_Util* util) {
  const WString text = u"The update engine library '" + path + u"' cannot be used (" + reason +
                       u"); checks and jobs fail until it is repaired or the setting is removed";
  if (util) util->umEventLogWrite(1, text);
  TRACE(1, u"MakeEngine()\t: >>>ERROR: %s\n", text.c_str());
  return EnginePtr(new UnavailableEngine(path, reason), EngineDeleter{});
}

}  // namespace

void EngineDeleter::operator()(ORMUX* engine) const {
  // The engine's code lives in the library: it goes first.
  delete engine;
  if (library) platform::UnloadModuleFile(library);
}

WString ConfiguredEngineLibrary() {
  WString value;
  if (platform::GetEnv(kEngineLibraryEnvName, value)) return value;
  if (ReadRegistryString(ReadHostBaseKeyPath() + u"\\EM_MENDER", kEngineLibraryValueName, value)) return value;
  return WString();
}

EnginePtr MakeEngine(const EngineArgs& args, UM_Util* util) {
  const WString path = ConfiguredEngineLibrary();
  if (path.empty()) return EnginePtr(new SimulatedEngine(args), EngineDeleter{});

  WString error;
  void* library = platform::LoadModuleFile(path, error);
  if (!library) return Unavailable(path, u"it cannot be loaded: " + error, util);
  auto entry = reinterpret_cast<EngineLibraryEntry>(platform::FindModuleSymbol(library, kEngineLibraryEntryName));
  if (!entry) {
    platform::UnloadModuleFile(library);
    return Unavailable(path, WFromAscii(kEngineLibraryEntryName) + u" is not exported", util);
  }
  const EngineLibraryArgs plain{kEngineInterfaceVersion,
                                args.hostName.c_str(),
                                args.port,
                                static_cast<uint32_t>(args.serviceType),
                                args.installDir.c_str(),
                                args.tempDir.c_str(),
                                args.dataDir.c_str(),
                                args.module};
  ORMUX* engine = nullptr;
  WString failure;
  try {
    engine = entry(&plain);
    if (!engine)
      failure =
          WFormat(u"%hs returned no engine (interface version %u)", kEngineLibraryEntryName, kEngineInterfaceVersion);
  } catch (...) {
    failure = WFromAscii(kEngineLibraryEntryName) + u" threw an exception";
  }
  if (!engine) {
    platform::UnloadModuleFile(library);
    return Unavailable(path, failure, util);
  }
  TRACE(3, u"MakeEngine()\t: engine from library '%s'\n", path.c_str());
  return EnginePtr(engine, EngineDeleter{library});
}
