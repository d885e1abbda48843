// The table of installed components that a check publishes, read by requesters by index.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "base/WString.h"

struct InventoryElement;

struct InstalledComponent {
  WString compId;
  WString type;
  WString subType;
  WString version;
  WString pciId;       // the component id when it begins "PCI", else empty
  WString kpkVersion;  // the support pack entry's component id, else empty
};

class InstalledData {
 public:
  // 100 row places, the last always empty: at most 99 rows.
  static constexpr int kRowPlaces = 100;
  static constexpr int kMaxRows = kRowPlaces - 1;

  InstalledData();
  ~InstalledData();
  InstalledData(const InstalledData&) = delete;
  InstalledData& operator=(const InstalledData&) = delete;

  int32_t getNumberEntries() const { return numberEntries; }
  // True if added; a full table or a null element is not.
  bool add_component(const InventoryElement* element);
  const InstalledComponent* getComponent(int32_t index) const;

 private:
  std::array<std::unique_ptr<InstalledComponent>, kRowPlaces> components;
  int32_t numberEntries = 0;
};
