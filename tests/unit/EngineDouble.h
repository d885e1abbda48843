// A scripted update engine for the check's tests: the engine's calls through GoogleMock, so that
// a test states their exact order, and iterators over packages and components that the test
// writes as plain rows, with an exception at a chosen fetch.
#pragma once

#include <gmock/gmock.h>

#include <deque>
#include <stdexcept>
#include <vector>

#include "engine/EngineFactory.h"
#include "engine/ORMUX.h"

class MockEngine : public ORMUX {
 public:
  MOCK_METHOD(void, SetTrace, (uint32_t, const WString&), (override));
  MOCK_METHOD(uint32_t, UseLocalInventory, (), (override));
  MOCK_METHOD(void, DoKordUpScan, (), (override));
  MOCK_METHOD(void, InventoryModifiedEvent, (), (override));
  MOCK_METHOD(uint32_t, GetUpdateInventoryIterator, (const WString&, UpdateInventoryIterator*&), (override));
  MOCK_METHOD(InventoryIterator*, GetInventoryIterator, (), (override));
  MOCK_METHOD(const char16_t*, GetErrorString, (int32_t), (override));
  MOCK_METHOD(void, GetExecPath, (WString&), (override));
  MOCK_METHOD(uint32_t, AddNewJob, (const WString&, const WString&, const WString&, uint32_t&, ZTI_CHECK_MODE),
              (override));
  MOCK_METHOD(uint32_t, StartUpdate, (), (override));
  MOCK_METHOD(uint32_t, DoFlashBoot, (B_TYPE, uint32_t), (override));
  MOCK_METHOD(uint32_t, GetFlashBootStatus, (B_TYPE&, uint32_t&), (override));
  MOCK_METHOD(uint32_t, ResumeJob, (), (override));
  MOCK_METHOD(uint32_t, CleanupUpdate, (), (override));
  MOCK_METHOD(const tJobElement*, GetFirstJobStatus, (const void*, const void*), (override));
  MOCK_METHOD(const tJobElement*, GetNextJobStatus, (), (override));
  MOCK_METHOD(const char16_t*, GetJobCompletionStateString, (uint32_t), (override));
  MOCK_METHOD(int, WriteqXL_LogEntry,
              (bool, const WString&, const WString&, const WString&, const WString&, const WString&), (override));
};

// One package as the engine reports it; the element points into the row.
struct PackageRow {
  WString path, type = u"FIRMWARE", subType = u"NIC", objectName = u"X1", pciId = u"8086:1572";
  WString newVersion = u"2.0", instVersion = u"1.0", stepVersion, dir, fileName, zbpVersion = u"1";
  WString severity = u"recommended", reboot = u"no", prerequire, os = u"any", kpk;
  uint32_t ranking = 1;
  uint8_t upgrade = 1, downgrade = 0, mandatory = 0;
  int32_t valid = 0;
  uint32_t installTime = 60;

  UpdateElement Element() const {
    UpdateElement e;
    e.ProdName = objectName.c_str();
    e.ProdDescr = u"";
    e.InstVersion = instVersion.c_str();
    e.SerialNo = u"";
    e.NewVersion = newVersion.c_str();
    e.FwPath = path.c_str();
    e.ObjectName = objectName.c_str();
    e.VersionViewId = u"";
    e.stepVersion = stepVersion.c_str();
    e.ComponentType = type.c_str();
    e.ComponentDir = dir.empty() ? path.c_str() : dir.c_str();
    e.ObjectTypeName = subType.c_str();
    e.VersionRanking = ranking;
    e.Upgrade = upgrade;
    e.Downgrade = downgrade;
    e.Valid = valid;
    e.ZBPFileName = fileName.c_str();
    e.ZBPVersion = zbpVersion.c_str();
    e.severity = severity.c_str();
    e.InstallTime = installTime;
    e.ReBoot = reboot.c_str();
    e.Prerequire = prerequire.c_str();
    e.OS = os.c_str();
    e.Mandatory = mandatory;
    e.PCI_Id = pciId.c_str();
    e.KPKPackageVersion = kpk.c_str();
    e.cKPKnewVersions = u"";
    return e;
  }
};

// Throws at the fetch numbered throwAt (GetFirst is fetch 1): a ZTException, or with throwOther
// another exception.
template <typename Element>
class ScriptedFetches {
 public:
  int throwAt = 0;
  bool throwOther = false;
  int fetches = 0;

 protected:
  const Element* Fetch(const std::vector<Element>& elements, size_t& pos) {
    if (++fetches == throwAt) {
      if (throwOther) throw std::runtime_error("engine fell over");
      throw ZTException(u"engine lost its place", 77);
    }
    return pos < elements.size() ? &elements[pos++] : nullptr;
  }
};

class ScriptedUpdates : public UpdateInventoryIterator, public ScriptedFetches<UpdateElement> {
 public:
  // Rows are kept where they are, so that the elements' texts stay valid.
  PackageRow& Add(const PackageRow& row) {
    rows.push_back(row);
    elements.push_back(rows.back().Element());
    return rows.back();
  }
  const UpdateElement* GetFirst() override {
    pos = 0;
    return Fetch(elements, pos);
  }
  const UpdateElement* GetNext() override { return Fetch(elements, pos); }

  std::deque<PackageRow> rows;
  std::vector<UpdateElement> elements;

 private:
  size_t pos = 0;
};

struct ComponentRow {
  WString subType, type, desc, version, compId;
};

class ScriptedInventory : public InventoryIterator, public ScriptedFetches<InventoryElement> {
 public:
  void Add(const ComponentRow& row) {
    rows.push_back(row);
    const ComponentRow& r = rows.back();
    elements.push_back(
        InventoryElement{r.subType.c_str(), r.type.c_str(), r.desc.c_str(), r.version.c_str(), r.compId.c_str()});
  }
  const InventoryElement* GetFirst() override {
    pos = 0;
    return Fetch(elements, pos);
  }
  const InventoryElement* GetNext() override { return Fetch(elements, pos); }

  std::deque<ComponentRow> rows;
  std::vector<InventoryElement> elements;

 private:
  size_t pos = 0;
};

// A factory that hands out the given mock once; the test keeps a plain pointer to it.
inline EngineFactory FactoryOf(MockEngine* engine) {
  return [engine](const EngineArgs&, UM_Util*) { return EnginePtr(engine); };
}
