#include "check/DiffComponentInfo.h"

#include "check/DiffData.h"

DiffComponentInfo::DiffComponentInfo() = default;
DiffComponentInfo::~DiffComponentInfo() = default;

void DiffComponentInfo::CopyFrom(const um_component& row) {
  path = row.path;
  type = row.type;
  subType = row.subType;
  objectName = row.objectName;
  componentId = row.componentId;
  repositoryVersion = row.repositoryVersion;
  installedVersion = row.installedVersion;
  isHighestUpgrade = row.isHighestUpgrade;
  isHighestDowngrade = row.isHighestDowngrade;
  versionRanking = row.versionRanking;
  mandatory = row.mandatory;
  prerequire = row.prerequire;
  engineError = row.engineError;
  engineErrorText = row.engineErrorText;
  minStepVersion = row.minStepVersion;
  zbpVersion = row.zbpVersion;
  zbpFileName = row.zbpFileName;
  os = row.os;
  kpkPackageVersion = row.kpkPackageVersion;
  severityCode = row.severityCode;
  severity = row.severity;
  reboot = row.reboot;
  installTime = row.installTime;
  downloadSize = row.downloadSize;
  installable = row.installable;
  binaryLoaded = row.binaryLoaded;
  vendor = row.vendor ? WString(row.vendor) : WString();
  rankingCode = row.rankingCode;
  rebootCode = row.rebootCode;
  releaseNote = row.releaseNote;
  errNumber = kFilled;
}
