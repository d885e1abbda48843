// An update engine library as one comes from outside: built against the engine's header alone,
// exporting the one C factory function. The factory tests load it by its path (EM_TEST_ENGINE).
// Its engine knows one installed component and one update element (FwPath "TESTLIB/Only"); its
// exec path is the data directory it was given, so that a test sees the arguments arrive. It
// refuses (null) another interface version, and a data directory "refuse", which is how a test
// reaches the factory's answer to a library that makes no engine.
#include "engine/EngineFactory.h"
#include "engine/ORMUX.h"

#ifdef _WIN32
#define EM_TEST_ENGINE_EXPORT extern "C" __declspec(dllexport)
#else
#define EM_TEST_ENGINE_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace {

class OneElementInventory : public InventoryIterator {
 public:
  OneElementInventory() {
    m_element.CompType = u"BIOS";
    m_element.CompSubType = u"SystemBoard";
    m_element.ProdDesc = u"BIOS of the test library";
    m_element.Version = u"1.0";
    m_element.CompId = u"TESTLIB";
  }
  const InventoryElement* GetFirst() override { return &m_element; }
  const InventoryElement* GetNext() override { return nullptr; }

 private:
  InventoryElement m_element;
};

class OneElementUpdates : public UpdateInventoryIterator {
 public:
  OneElementUpdates() {
    UpdateElement& e = m_element;
    e.ProdName = e.ObjectName = u"TESTLIB";
    e.ProdDescr = u"BIOS of the test library";
    e.InstVersion = u"1.0";
    e.NewVersion = u"2.0";
    e.FwPath = e.ComponentDir = u"TESTLIB/Only";
    e.SerialNo = e.VersionViewId = e.stepVersion = e.PCI_Id = e.KPKPackageVersion = e.cKPKnewVersions = u"";
    e.ComponentType = u"BIOS";
    e.ObjectTypeName = u"SystemBoard";
    e.ZBPFileName = u"Only.exe";
    e.ZBPVersion = u"1";
    e.severity = u"recommended";
    e.ReBoot = u"0";
    e.Prerequire = u"";
    e.OS = u"any";
    e.VersionRanking = 1;
    e.Upgrade = 1;
    e.InstallTime = 60;
  }
  const UpdateElement* GetFirst() override { return &m_element; }
  const UpdateElement* GetNext() override { return nullptr; }

 private:
  UpdateElement m_element;
};

class TestLibraryEngine : public ORMUX {
 public:
  explicit TestLibraryEngine(const char16_t* dataDir) : m_dataDir(dataDir ? dataDir : u"") {}

  void SetTrace(uint32_t, const WString&) override {}
  uint32_t UseLocalInventory() override { return 0; }
  void DoKordUpScan() override {}
  void InventoryModifiedEvent() override {}
  uint32_t GetUpdateInventoryIterator(const WString&, UpdateInventoryIterator*& iterator) override {
    iterator = &m_updates;
    return 0;
  }
  InventoryIterator* GetInventoryIterator() override { return &m_inventory; }
  const char16_t* GetErrorString(int32_t) override { return u"test library error"; }
  void GetExecPath(WString& path) override { path = m_dataDir; }

  uint32_t AddNewJob(const WString&, const WString&, const WString&, uint32_t& count, ZTI_CHECK_MODE) override {
    count = 1;
    return 0;
  }
  uint32_t StartUpdate() override { return 0; }
  uint32_t DoFlashBoot(B_TYPE, uint32_t) override { return 0; }
  uint32_t GetFlashBootStatus(B_TYPE& bootType, uint32_t& detail) override {
    bootType = BOOTTYPE_Finished;
    detail = 0;
    return 0;
  }
  uint32_t ResumeJob() override { return 0; }
  uint32_t CleanupUpdate() override { return 0; }
  const tJobElement* GetFirstJobStatus(const void*, const void*) override { return nullptr; }
  const tJobElement* GetNextJobStatus() override { return nullptr; }
  const char16_t* GetJobCompletionStateString(uint32_t) override { return u"done"; }
  int WriteqXL_LogEntry(bool, const WString&, const WString&, const WString&, const WString&, const WString&) override {
    return 1;
  }

 private:
  WString m_dataDir;
  OneElementInventory m_inventory;
  OneElementUpdates m_updates;
};

}  // namespace

EM_TEST_ENGINE_EXPORT ORMUX* EM_CreateUpdateEngine(const EngineLibraryArgs* args) {
  if (!args || args->interfaceVersion != kEngineInterfaceVersion) return nullptr;
  if (args->dataDir && WString(args->dataDir) == u"refuse") return nullptr;
  return new TestLibraryEngine(args->dataDir);
}
