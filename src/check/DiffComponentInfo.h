// A by-value copy of one update of the published table, for the job side, which keeps it beyond
// the life of the table it came from.
#pragma once

#include <cstdint>

#include "base/WString.h"

struct um_component;

struct DiffComponentInfo {
  // What a lookup came to.
  static constexpr int32_t kFilled = 0;
  static constexpr int32_t kNothingFilled = 1;
  static constexpr int32_t kIllegalParameter = 2;  // an empty path
  static constexpr int32_t kNoDiffData = 3;
  static constexpr int32_t kNoSuchComponent = 4;

  DiffComponentInfo();
  ~DiffComponentInfo();

  // Takes every field of the row; errNumber becomes kFilled.
  void CopyFrom(const um_component& row);

  WString path;
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
  int32_t downloadSize = 0;
  uint8_t installable = 0;
  uint8_t binaryLoaded = 0;
  WString vendor;
  uint8_t rankingCode = 0;
  uint8_t rebootCode = 0;
  WString releaseNote;
  int32_t errNumber = kNothingFilled;
};
