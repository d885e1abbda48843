#include "check/DiffData.h"

#include <new>

#include "base/WFormat.h"
#include "check/DiffCodes.h"
#include "engine/ORMUX.h"
#include "foundation/CDebug.h"
#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "platform/FileIo.h"

namespace {

WString Copy(const char16_t* text) {
  return text ? WString(text) : WString();
}

bool CanOpenForReading(const WString& path) {
  char probe;
  size_t got = 0;
  return platform::ReadFilePrefix(path, &probe, 0, got);
}

}  // namespace

DiffData::DiffData(UM_Util* util, const WString& repository) : repository(repository), util(util) {
  TRACE(3, u"\nDiffData::DiffData()\t: CLASS CREATED, repository=%s", repository.c_str());
}

DiffData::~DiffData() {
  TRACE(3, u"\nDiffData::~DiffData()\t: CLASS DESTROYED, entries=%d", numberEntries);
}

bool DiffData::add_um_component(const UpdateElement* element, bool installable, bool binaryLoaded,
                                const char16_t* errorText, int32_t downloadSize) {
  if (numberEntries >= kMaxRows) {
    TRACE(1, u"\nDiffData::add_um_component()\t: >>>ERROR: number of updates exceeds buffer size (%d)", kRowPlaces);
    return false;
  }
  std::unique_ptr<um_component> row(new (std::nothrow) um_component());
  if (!row) {
    TRACE(1, u"\nDiffData::add_um_component()\t: >>>ERROR: no memory for a row");
    return false;
  }
  if (!element) {
    TRACE(1, u"\nDiffData::add_um_component()\t: >>>ERROR: no update element");
    return false;
  }
  const UpdateElement& e = *element;
  row->path = Copy(e.FwPath);
  row->type = Copy(e.ComponentType);
  row->subType = Copy(e.ObjectTypeName);
  row->objectName = Copy(e.ObjectName);
  row->componentId = Copy(e.PCI_Id);
  row->repositoryVersion = Copy(e.NewVersion);
  row->installedVersion = Copy(e.InstVersion);
  row->isHighestUpgrade = e.Upgrade;
  row->isHighestDowngrade = e.Downgrade;
  row->versionRanking = e.VersionRanking;
  row->mandatory = e.Mandatory;
  row->prerequire = Copy(e.Prerequire);
  row->engineError = e.Valid;
  row->engineErrorText = Copy(errorText);
  row->minStepVersion = Copy(e.stepVersion);
  row->zbpVersion = Copy(e.ZBPVersion);
  row->zbpFileName = Copy(e.ZBPFileName);
  row->os = Copy(e.OS);
  row->kpkPackageVersion = Copy(e.KPKPackageVersion);
  row->severity = Copy(e.severity);
  row->reboot = Copy(e.ReBoot);
  row->installTime = e.InstallTime;
  row->downloadSize = downloadSize;
  row->installable = installable ? 1 : 0;
  row->binaryLoaded = binaryLoaded ? 1 : 0;

  row->severityCode = diffcodes::SeverityCode(row->severity);
  row->rankingCode = diffcodes::RankingCode(row->versionRanking, row->isHighestUpgrade, row->isHighestDowngrade);
  row->rebootCode = diffcodes::RebootCode(row->reboot);

  WString note = repository + kSep + row->path + kSep + u"rel_note.txt";
  if (CanOpenForReading(note)) {
    row->releaseNote = note;
  } else if (util) {
    util->umLogError(WFormat(u"DiffData::add_umComponent\t missing release note file '%s'", note.c_str()));
  }
  TRACE(4, u"\nDiffData::add_um_component()\t: [%d] %s, ranking=%d, severity=%s", numberEntries, row->path.c_str(),
        static_cast<int>(row->rankingCode), row->severity.c_str());
  components[static_cast<size_t>(numberEntries)] = std::move(row);
  ++numberEntries;
  return true;
}

const um_component* DiffData::getComponent(int32_t index) const {
  if (index < 0 || index >= numberEntries) return nullptr;
  return components[static_cast<size_t>(index)].get();
}
