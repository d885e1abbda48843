#include "check/InstalledData.h"

#include <new>

#include "engine/ORMUX.h"
#include "foundation/CDebug.h"

namespace {

WString Copy(const char16_t* text) {
  return text ? WString(text) : WString();
}

}  // namespace

InstalledData::InstalledData() {
  TRACE(3, u"\nInstalledData::InstalledData()\t: CLASS CREATED");
}

InstalledData::~InstalledData() {
  TRACE(3, u"\nInstalledData::~InstalledData()\t: CLASS DESTROYED, entries=%d", numberEntries);
}

bool InstalledData::add_component(const InventoryElement* element) {
  if (numberEntries >= kMaxRows) {
    TRACE(1, u"\nInstalledData::add_component()\t: >>>ERROR: number of installed updates exceeds buffer size (%d)",
          kRowPlaces);
    return false;
  }
  if (!element) return false;
  std::unique_ptr<InstalledComponent> row(new (std::nothrow) InstalledComponent());
  if (!row) return false;
  row->compId = Copy(element->CompId);
  row->type = Copy(element->CompType);
  row->subType = Copy(element->CompSubType);
  row->version = Copy(element->Version);
  // The support pack names its version in its component id; other components with a PCI id
  // show it as such.
  if (row->type == u"KordSupportPack-Win")
    row->kpkVersion = row->compId;
  else if (row->compId.compare(0, 3, u"PCI") == 0)
    row->pciId = row->compId;
  components[static_cast<size_t>(numberEntries)] = std::move(row);
  ++numberEntries;
  return true;
}

const InstalledComponent* InstalledData::getComponent(int32_t index) const {
  if (index < 0 || index >= numberEntries) return nullptr;
  return components[static_cast<size_t>(index)].get();
}
