// The table of applicable updates that a check publishes: one row per package of the repository
// that the engine reports for this server, read by requesters by index. Built once by the
// comparison and immutable once published.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "base/WString.h"

struct UpdateElement;
class UM_Util;

// One row. Texts are copies owned by the row.
struct um_component {
  WString path;  // the component's identity: its package's path below the repository root
  WString type;
  WString subType;
  WString objectName;
  WString componentId;
  WString repositoryVersion;
  WString installedVersion;
  uint8_t isHighestUpgrade = 0;
  uint8_t isHighestDowngrade = 0;
  uint32_t versionRanking = 0;
  uint32_t mandatory = 0;
  WString prerequire;
  int32_t engineError = 0;
  WString engineErrorText;
  WString minStepVersion;
  WString zbpVersion;
  WString zbpFileName;
  WString os;
  WString kpkPackageVersion;
  uint8_t severityCode = 0;
  WString severity;
  WString reboot;
  uint32_t installTime = 0;
  int32_t downloadSize = 0;  // MB, -1 unknown, 0 the binary is here
  uint8_t installable = 0;
  uint8_t binaryLoaded = 0;
  const char16_t* vendor = kVendor;  // a static text
  uint8_t rankingCode = 0;
  uint8_t rebootCode = 0;
  WString releaseNote;  // path of the release note, or empty

  static constexpr const char16_t* kVendor = u"Corvane Works";
};

class DiffData {
 public:
  // The table holds 200 row places, the last always empty: at most 199 rows.
  static constexpr int kRowPlaces = 200;
  static constexpr int kMaxRows = kRowPlaces - 1;

  DiffData(UM_Util* util, const WString& repository);
  ~DiffData();
  DiffData(const DiffData&) = delete;
  DiffData& operator=(const DiffData&) = delete;

  int32_t getNumberEntries() const { return numberEntries; }
  // True if added. A full table or a null element is not added; a missing release note is logged
  // to the check log and the row is added all the same. A null error text is taken as empty.
  bool add_um_component(const UpdateElement* element, bool installable, bool binaryLoaded, const char16_t* errorText,
                        int32_t downloadSize);
  // The row of an object id, null outside 0 .. getNumberEntries()-1.
  const um_component* getComponent(int32_t index) const;
  const WString& getRepository() const { return repository; }

 private:
  std::array<std::unique_ptr<um_component>, kRowPlaces> components;
  int32_t numberEntries = 0;
  WString repository;
  UM_Util* util;
};
