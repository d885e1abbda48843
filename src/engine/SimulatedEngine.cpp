#include "engine/SimulatedEngine.h"

#include <algorithm>
#include <cstdarg>
#include <string>
#include <vector>

#include "base/WFormat.h"
#include "engine/ComponentDescription.h"
#include "engine/VersionCompare.h"
#include "platform/Clock.h"
#include "platform/FileIo.h"

namespace engine {

// One update element with the texts it points to. Held by pointer so that the texts never move
// once the element points to them.
struct UpdateRecord {
  WString prodName, prodDescr, instVersion, newVersion, fwPath, objectName, stepVersion, componentType, componentDir,
      objectTypeName, zbpFileName, zbpVersion, severity, reBoot, prerequire, os, pciId, kpkPackageVersion;
  const WString empty;
  UpdateElement element;

  void Bind() {
    UpdateElement& e = element;
    e.ProdName = prodName.c_str();
    e.ProdDescr = prodDescr.c_str();
    e.InstVersion = instVersion.c_str();
    e.SerialNo = empty.c_str();
    e.NewVersion = newVersion.c_str();
    e.FwPath = fwPath.c_str();
    e.ObjectName = objectName.c_str();
    e.VersionViewId = empty.c_str();
    e.stepVersion = stepVersion.c_str();
    e.ComponentType = componentType.c_str();
    e.ComponentDir = componentDir.c_str();
    e.ObjectTypeName = objectTypeName.c_str();
    e.ZBPFileName = zbpFileName.c_str();
    e.ZBPVersion = zbpVersion.c_str();
    e.severity = severity.c_str();
    e.ReBoot = reBoot.c_str();
    e.Prerequire = prerequire.c_str();
    e.OS = os.c_str();
    e.PCI_Id = pciId.c_str();
    e.KPKPackageVersion = kpkPackageVersion.c_str();
    e.cKPKnewVersions = empty.c_str();
  }
};

// Counts the element fetches for a planned throw: GetFirst is fetch 1.
class FetchCounter {
 public:
  explicit FetchCounter(PlannedFetchThrow plan) : m_plan(std::move(plan)) {}
  void First() { Check(m_fetch = 1); }
  void Next() { Check(++m_fetch); }

 private:
  void Check(uint32_t fetch) const {
    if (m_plan.fetch != 0 && fetch == m_plan.fetch) m_plan.what.Throw();
  }
  PlannedFetchThrow m_plan;
  uint32_t m_fetch = 0;
};

class SimUpdateIterator : public UpdateInventoryIterator {
 public:
  SimUpdateIterator(std::vector<std::unique_ptr<UpdateRecord>> records, PlannedFetchThrow fault)
      : m_records(std::move(records)), m_counter(std::move(fault)) {}
  const UpdateElement* GetFirst() override {
    m_counter.First();
    m_next = 0;
    return Take();
  }
  const UpdateElement* GetNext() override {
    m_counter.Next();
    return Take();
  }

 private:
  const UpdateElement* Take() {
    if (m_next >= m_records.size()) return nullptr;
    return &m_records[m_next++]->element;
  }
  std::vector<std::unique_ptr<UpdateRecord>> m_records;
  FetchCounter m_counter;
  size_t m_next = 0;
};

class SimInventoryIterator : public InventoryIterator {
 public:
  SimInventoryIterator(std::vector<SimComponent> components, PlannedFetchThrow fault)
      : m_components(std::move(components)), m_counter(std::move(fault)) {
    m_elements.resize(m_components.size());
    for (size_t i = 0; i < m_components.size(); ++i) {
      const SimComponent& c = m_components[i];
      InventoryElement& e = m_elements[i];
      e.CompType = c.type.c_str();
      e.CompSubType = c.subtype.c_str();
      e.ProdDesc = c.description.c_str();
      e.Version = c.version.c_str();
      e.CompId = c.compId.c_str();
    }
  }
  const InventoryElement* GetFirst() override {
    m_counter.First();
    m_next = 0;
    return Take();
  }
  const InventoryElement* GetNext() override {
    m_counter.Next();
    return Take();
  }

 private:
  const InventoryElement* Take() { return m_next < m_elements.size() ? &m_elements[m_next++] : nullptr; }
  const std::vector<SimComponent> m_components;
  std::vector<InventoryElement> m_elements;
  FetchCounter m_counter;
  size_t m_next = 0;
};

namespace {

const char16_t kDescriptionFile[] = u"zt.par";
const char16_t kLinkDescriptionFile[] = u"ztlink.par";

bool EndsWith(WStringView text, WStringView end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// The mirror's work and repair directories hold no leaves of the repository.
bool IsSkippedDirectory(WStringView name) {
  return name == u"temp_par_tree" || EndsWith(name, u"_bk") || EndsWith(name, u"~del");
}

struct Leaf {
  WString relPath;      // '/'-joined below the repository
  WString description;  // the file system path of its zt.par or ztlink.par
};

// Collects the leaves below `dir`: a directory with a description is a leaf and is not entered.
void CollectLeaves(const WString& dir, const WString& relPath, int depth, std::vector<Leaf>& leaves,
                   std::vector<WString>& problems) {
  std::vector<platform::DirEntry> entries;
  if (!platform::ListDirectory(dir, entries)) {
    problems.push_back(u"directory '" + dir + u"' cannot be listed");
    return;
  }
  for (const platform::DirEntry& entry : entries) {
    if (!entry.isDirectory || IsSkippedDirectory(entry.name)) continue;
    const WString path = dir + platform::kPathSeparator + entry.name;
    const WString rel = relPath.empty() ? entry.name : relPath + u"/" + entry.name;
    const WString zt = path + platform::kPathSeparator + kDescriptionFile;
    const WString link = path + platform::kPathSeparator + kLinkDescriptionFile;
    if (platform::FileExists(zt)) {
      leaves.push_back(Leaf{rel, zt});
    } else if (platform::FileExists(link)) {
      leaves.push_back(Leaf{rel, link});
    } else if (depth + 1 < kMaxLeafDepth) {
      CollectLeaves(path, rel, depth + 1, leaves, problems);
    } else {
      problems.push_back(u"directory '" + rel + u"' lies deeper than the leaf depth limit");
    }
  }
}

// "name" or "name>=version"; false when the text follows neither form.
bool ParsePrerequisite(WStringView text, WString& name, WString& version, bool& hasVersion) {
  size_t ge = text.find(u">=");
  WStringView n = text.substr(0, ge);
  hasVersion = ge != WStringView::npos;
  WStringView v = hasVersion ? text.substr(ge + 2) : WStringView();
  if (n.empty() || (hasVersion && v.empty())) return false;
  for (char16_t c : n)
    if (c == u'<' || c == u'>' || c == u'=' || c == u',' || c == u';' || c == u' ' || c == u'\t') return false;
  for (char16_t c : v)
    if (c == u'<' || c == u'>' || c == u'=' || c == u',' || c == u';' || c == u' ' || c == u'\t') return false;
  name = WString(n);
  version = WString(v);
  return true;
}

bool PrerequisiteFulfilled(const WString& prerequisite, const SimInventory& inventory) {
  if (prerequisite.empty()) return true;
  WString name, version;
  bool hasVersion = false;
  if (!ParsePrerequisite(prerequisite, name, version, hasVersion)) return false;
  for (const SimComponent& c : inventory.Components()) {
    if (c.objectName != name && c.subtype != name) continue;
    if (!hasVersion) return true;
    // A component whose version is unknown does not meet a minimum.
    if (!c.version.empty() && CompareVersions(c.version, version) >= 0) return true;
  }
  return false;
}

uint32_t Ranking(const WString& installed, const WString& offered) {
  if (installed.empty()) return 0;
  int c = CompareVersions(offered, installed);
  return c > 0 ? 1 : (c == 0 ? 2 : 3);
}

}  // namespace
}  // namespace engine

using namespace engine;

SimulatedEngine::SimulatedEngine(const EngineArgs& args)
    : m_folder(args.dataDir + platform::kPathSeparator + u"SimulatedEngine") {}

SimulatedEngine::~SimulatedEngine() = default;

WString SimulatedEngine::InventoryPath() const {
  return m_folder + platform::kPathSeparator + u"inventory.txt";
}

WString SimulatedEngine::FaultsPath() const {
  return m_folder + platform::kPathSeparator + u"faults.txt";
}

// --- trace ---------------------------------------------------------------------------------

void SimulatedEngine::SetTrace(uint32_t level, const WString& fileName) {
  {
    std::lock_guard<std::mutex> lock(m_traceLock);
    m_traceLevel = level;
    m_traceFile = fileName;
  }
  if (level > 0) Trace(u"SetTrace: level %u into '%s'", level, fileName.c_str());
}

bool SimulatedEngine::TraceDetail() {
  std::lock_guard<std::mutex> lock(m_traceLock);
  return m_traceLevel >= 5;
}

void SimulatedEngine::Trace(const char16_t* format, ...) {
  std::lock_guard<std::mutex> lock(m_traceLock);
  if (m_traceLevel == 0 || m_traceFile.empty()) return;
  va_list args;
  va_start(args, format);
  WString text = WFormatV(format, args);
  va_end(args);
  std::string line = WToUtf8(WDateText(platform::LocalClockSeconds()) + u" SimulatedEngine " + text) + "\n";
  platform::AppendToFile(m_traceFile, line.data(), line.size());
}

FaultPlan SimulatedEngine::LoadFaults() {
  std::vector<WString> problems;
  FaultPlan plan = FaultPlan::Load(FaultsPath(), problems);
  for (const WString& p : problems) Trace(u"%s", p.c_str());
  return plan;
}

// --- inventory -----------------------------------------------------------------------------

uint32_t SimulatedEngine::ReadInventory(const char16_t* operation) {
  const WString path = InventoryPath();
  SimInventory inventory;
  if (platform::FileExists(path)) {
    std::string bytes;
    WString error;
    if (!platform::ReadWholeFile(path, bytes)) {
      Trace(u"%s: '%s' cannot be read: error %u", operation, path.c_str(), kInventoryMalformed);
      return kInventoryMalformed;
    }
    if (!inventory.Parse(bytes, error)) {
      Trace(u"%s: '%s' is malformed, %s: error %u", operation, path.c_str(), error.c_str(), kInventoryMalformed);
      return kInventoryMalformed;
    }
  } else {
    Trace(u"%s: no '%s', the inventory is empty", operation, path.c_str());
  }
  m_inventory = std::move(inventory);
  m_loaded = true;
  const SimComponent* pack = m_inventory.SupportPack();
  Trace(u"%s: %u components, os '%s', support pack %s", operation,
        static_cast<unsigned>(m_inventory.Components().size()), m_inventory.Os().c_str(),
        pack ? pack->version.c_str() : u"none");
  return 0;
}

uint32_t SimulatedEngine::RefreshInventory(const char16_t* operation) {
  // Cleared before the read: an event that comes during the read makes the next call read again.
  const bool modified = m_inventoryModified.exchange(false);
  if (m_loaded && !modified) return 0;
  if (modified) Trace(u"%s: the inventory has changed, reading it again", operation);
  return ReadInventory(operation);
}

uint32_t SimulatedEngine::UseLocalInventory() {
  FaultPlan faults = LoadFaults();
  faults.ThrowFor(FaultOp::kUseLocalInventory);
  if (faults.useLocalInventoryResult) {
    Trace(u"UseLocalInventory: planned result %u", *faults.useLocalInventoryResult);
    return *faults.useLocalInventoryResult;
  }
  m_inventoryModified.store(false);
  return ReadInventory(u"UseLocalInventory");
}

void SimulatedEngine::DoKordUpScan() {
  FaultPlan faults = LoadFaults();
  faults.ThrowFor(FaultOp::kDoKordUpScan);
  // The scan of the machine: what the inventory file says now. A file that has gone bad leaves
  // the last good reading in place.
  m_inventoryModified.store(false);
  ReadInventory(u"DoKordUpScan");
}

void SimulatedEngine::InventoryModifiedEvent() {
  m_inventoryModified.store(true);
  Trace(u"InventoryModifiedEvent: the inventory is read again at the next iterator call");
}

bool SimulatedEngine::SaveInventory(const SimInventory& inventory) {
  platform::CreateDirectoryPath(m_folder);
  if (!inventory.Save(InventoryPath())) {
    Trace(u"SaveInventory: '%s' could not be written, the old inventory stays", InventoryPath().c_str());
    return false;
  }
  m_inventory = inventory;
  m_loaded = true;
  Trace(u"SaveInventory: %u components written", static_cast<unsigned>(inventory.Components().size()));
  return true;
}

InventoryIterator* SimulatedEngine::GetInventoryIterator() {
  FaultPlan faults = LoadFaults();
  faults.ThrowFor(FaultOp::kGetInventoryIterator);
  if (faults.inventoryIteratorNull) {
    Trace(u"GetInventoryIterator: planned null");
    return nullptr;
  }
  // Without a new reading the iterator shows the last good one.
  RefreshInventory(u"GetInventoryIterator");
  m_inventoryIterator = std::make_unique<SimInventoryIterator>(m_inventory.Components(), faults.inventoryFetch);
  Trace(u"GetInventoryIterator: %u components", static_cast<unsigned>(m_inventory.Components().size()));
  return m_inventoryIterator.get();
}

// --- the comparison ------------------------------------------------------------------------

uint32_t SimulatedEngine::GetUpdateInventoryIterator(const WString& repository, UpdateInventoryIterator*& iterator) {
  iterator = nullptr;
  FaultPlan faults = LoadFaults();
  faults.ThrowFor(FaultOp::kGetUpdateInventoryIterator);
  // The elements of the last comparison end here, as the interface allows.
  m_updateIterator.reset();
  if (faults.updateIteratorResult) {
    Trace(u"GetUpdateInventoryIterator: planned result %u", *faults.updateIteratorResult);
    return *faults.updateIteratorResult;
  }
  if (uint32_t rc = RefreshInventory(u"GetUpdateInventoryIterator")) return rc;
  if (repository.empty() || !platform::DirectoryExists(repository)) {
    Trace(u"GetUpdateInventoryIterator: '%s' is not a directory: error %u", repository.c_str(),
          kRepositoryNotADirectory);
    return kRepositoryNotADirectory;
  }

  std::vector<Leaf> leaves;
  std::vector<WString> problems;
  CollectLeaves(repository, WString(), 0, leaves, problems);
  for (const WString& p : problems) Trace(u"GetUpdateInventoryIterator: %s", p.c_str());
  std::sort(leaves.begin(), leaves.end(), [](const Leaf& a, const Leaf& b) { return a.relPath < b.relPath; });

  const std::vector<SimComponent>& components = m_inventory.Components();
  const SimComponent* pack = m_inventory.SupportPack();
  const WString kpkVersion = pack ? pack->version : WString();
  const bool detail = TraceDetail();

  std::vector<std::unique_ptr<UpdateRecord>> records;
  std::vector<size_t> componentOf;  // per record: the index of its component, or npos
  size_t invalid = 0;
  for (const Leaf& leaf : leaves) {
    ComponentDescription d;
    WString reason;
    std::string bytes;
    int32_t valid = platform::ReadWholeFile(leaf.description, bytes) ? d.Parse(bytes, reason) : kBrokenDescription;
    if (reason.empty() && valid != 0) reason = u"the description cannot be read";

    size_t owner = WString::npos;
    if (valid == 0) {
      for (size_t i = 0; i < components.size(); ++i) {
        if (components[i].type != kSupportPackType && components[i].objectName == d.objectName) {
          owner = i;
          break;
        }
      }
      if (owner == WString::npos) {
        if (detail)
          Trace(u"  %s: %s %s applies to nothing installed", leaf.relPath.c_str(), d.objectName.c_str(),
                d.version.c_str());
        continue;
      }
    }

    auto r = std::make_unique<UpdateRecord>();
    r->fwPath = leaf.relPath;
    r->componentDir = leaf.relPath;
    r->zbpFileName = d.packageFile;
    r->zbpVersion = d.formatVersion;
    r->objectName = d.objectName;
    r->prodName = d.objectName;
    r->objectTypeName = d.subtype;
    r->componentType = d.type;
    r->pciId = d.pciId;
    r->newVersion = d.version;
    r->severity = d.severity;
    r->reBoot = d.reboot;
    r->prerequire = d.prerequisite;
    r->os = d.os;
    r->stepVersion = d.minStepVersion;
    r->kpkPackageVersion = kpkVersion;
    UpdateElement& e = r->element;
    if (valid != 0) {
      // The engine cannot tell whether a broken package applies: it is always reported.
      e.Valid = valid;
      ++invalid;
      Trace(u"  %s: invalid (%d): %s", leaf.relPath.c_str(), valid, reason.c_str());
    } else {
      const SimComponent& c = components[owner];
      r->instVersion = c.version;
      r->prodDescr = c.description;
      e.CompId = static_cast<int32_t>(owner);
      e.InstallTime = d.installTimeValue;
      e.Mandatory = d.mandatoryValue;
      e.VersionRanking = Ranking(c.version, d.version);
      if (!d.os.empty() && !WEqualsNoCase(d.os, u"any") && !WEqualsNoCase(d.os, m_inventory.Os()))
        e.Valid = kWrongOperatingSystem;
      else if (!PrerequisiteFulfilled(d.prerequisite, m_inventory))
        e.Valid = kPrerequisiteMissing;
      else if (!d.minStepVersion.empty() && e.VersionRanking == 1 && CompareVersions(c.version, d.minStepVersion) < 0)
        e.Valid = kStepVersionMissing;
      if (detail)
        Trace(u"  %s: %s %s over '%s': ranking %u, valid %d", leaf.relPath.c_str(), d.objectName.c_str(),
              d.version.c_str(), c.version.c_str(), e.VersionRanking, e.Valid);
    }
    r->Bind();
    records.push_back(std::move(r));
    componentOf.push_back(owner);
  }

  // Per installed component: the highest upgrade and the highest downgrade among its packages,
  // the first in leaf order when versions are equal.
  for (size_t ci = 0; ci < components.size(); ++ci) {
    UpdateElement* up = nullptr;
    UpdateElement* down = nullptr;
    for (size_t k = 0; k < records.size(); ++k) {
      if (componentOf[k] != ci) continue;
      UpdateElement& e = records[k]->element;
      if (e.VersionRanking == 2) continue;
      UpdateElement*& best = e.VersionRanking == 3 ? down : up;
      if (!best || CompareVersions(e.NewVersion, best->NewVersion) > 0) best = &e;
    }
    if (up) up->Upgrade = 1;
    if (down) down->Downgrade = 1;
    if (detail && (up || down))
      Trace(u"  component %u (%s): upgrade %s, downgrade %s", static_cast<unsigned>(ci),
            components[ci].objectName.c_str(), up ? up->FwPath : u"none", down ? down->FwPath : u"none");
  }

  const size_t applicable = records.size() - invalid;
  Trace(u"GetUpdateInventoryIterator: '%s': %u leaves, %u applicable, %u invalid", repository.c_str(),
        static_cast<unsigned>(leaves.size()), static_cast<unsigned>(applicable), static_cast<unsigned>(invalid));
  m_updateIterator = std::make_unique<SimUpdateIterator>(std::move(records), faults.updateFetch);
  iterator = m_updateIterator.get();
  return 0;
}

// --- texts ---------------------------------------------------------------------------------

const char16_t* SimulatedEngine::GetErrorString(int32_t error) {
  std::lock_guard<std::mutex> lock(m_textLock);
  auto it = m_errorTexts.find(error);
  if (it != m_errorTexts.end()) return it->second.c_str();
  const char16_t* text = nullptr;
  switch (error) {
    case kBrokenDescription:
      text =
          u"The component description of the package is broken (unreadable, without objectName or version, "
          u"or installTime or mandatory not a number)";
      break;
    case kUnknownFormatVersion:
      text = u"The component description has a format version the engine does not know";
      break;
    case static_cast<int32_t>(kInventoryMalformed):
      text = u"The inventory of the simulated engine (inventory.txt) is malformed or cannot be read";
      break;
    case static_cast<int32_t>(kRepositoryNotADirectory):
      text = u"The repository is not a directory";
      break;
    case kWrongOperatingSystem:
      text = u"The package is not meant for the operating system of this server";
      break;
    case kPrerequisiteMissing:
      text = u"A prerequisite of the package is not fulfilled";
      break;
    case kStepVersionMissing:
      text =
          u"The installed version is older than the package's minimum step version: an intermediate version "
          u"must be installed first";
      break;
    case static_cast<int32_t>(kEngineUnavailable):
      text = u"The update engine is not available";
      break;
    case static_cast<int32_t>(kJobSideNotBuilt):
      text = u"Job operations of the simulated engine are not built yet";
      break;
    default:
      break;
  }
  WString& slot = m_errorTexts[error];
  slot = text ? WString(text) : WFormat(u"Unknown engine error %d", error);
  return slot.c_str();
}

void SimulatedEngine::GetExecPath(WString& path) {
  path = m_folder + platform::kPathSeparator + u"exec";
}

// --- the job side (not built yet) ------------------------------------------------------------

uint32_t SimulatedEngine::AddNewJob(const WString& objTypeName, const WString& objName, const WString&, uint32_t&,
                                    ZTI_CHECK_MODE) {
  Trace(u"AddNewJob: %s %s: error %u (the job side is not built)", objTypeName.c_str(), objName.c_str(),
        kJobSideNotBuilt);
  return kJobSideNotBuilt;
}

uint32_t SimulatedEngine::StartUpdate() {
  Trace(u"StartUpdate: error %u (the job side is not built)", kJobSideNotBuilt);
  return kJobSideNotBuilt;
}

uint32_t SimulatedEngine::DoFlashBoot(B_TYPE bootType, uint32_t) {
  Trace(u"DoFlashBoot: boot type %u: error %u (the job side is not built)", static_cast<unsigned>(bootType),
        kJobSideNotBuilt);
  return kJobSideNotBuilt;
}

uint32_t SimulatedEngine::GetFlashBootStatus(B_TYPE&, uint32_t&) {
  Trace(u"GetFlashBootStatus: error %u (the job side is not built)", kJobSideNotBuilt);
  return kJobSideNotBuilt;
}

uint32_t SimulatedEngine::ResumeJob() {
  Trace(u"ResumeJob: error %u (the job side is not built)", kJobSideNotBuilt);
  return kJobSideNotBuilt;
}

uint32_t SimulatedEngine::CleanupUpdate() {
  Trace(u"CleanupUpdate: error %u (the job side is not built)", kJobSideNotBuilt);
  return kJobSideNotBuilt;
}

const tJobElement* SimulatedEngine::GetFirstJobStatus(const void*, const void*) {
  return nullptr;
}

const tJobElement* SimulatedEngine::GetNextJobStatus() {
  return nullptr;
}

const char16_t* SimulatedEngine::GetJobCompletionStateString(uint32_t completionCode) {
  std::lock_guard<std::mutex> lock(m_textLock);
  WString& slot = m_completionTexts[completionCode];
  if (slot.empty())
    slot = completionCode == 0 ? WString(u"Completed without error")
                               : WFormat(u"Completion code %u of the simulated engine", completionCode);
  return slot.c_str();
}

int SimulatedEngine::WriteqXL_LogEntry(bool, const WString&, const WString&, const WString&, const WString&,
                                       const WString&) {
  return 0;
}
