// A leaf's component description (zt.par, or ztlink.par for a link leaf) as the update engine
// reads it: key=value lines, keys without regard to ASCII case, values as they stand.
#pragma once

#include <cstdint>
#include <string>

#include "base/WString.h"

namespace engine {

// Validity numbers of a description the engine cannot use.
constexpr int32_t kBrokenDescription = 31;     // unreadable, or a required field missing or not a number
constexpr int32_t kUnknownFormatVersion = 32;  // formatVersion other than 1

struct ComponentDescription {
  // Missing keys take the defaults that the repository's writer documents, except objectName and
  // version, which a description must give.
  WString type = u"FIRMWARE";
  WString subtype;
  WString objectName;
  WString pciId;
  WString version;
  WString severity = u"recommended";
  WString reboot = u"no";
  WString installTime = u"60";
  WString prerequisite;
  WString os = u"any";
  WString mandatory = u"0";
  WString packageFile;
  WString formatVersion = u"1";
  WString minStepVersion;

  // Filled by Parse from the texts above when they are numbers.
  uint32_t installTimeValue = 60;
  uint8_t mandatoryValue = 0;

  // 0 when the description is usable, else kBrokenDescription or kUnknownFormatVersion, with
  // `reason` saying why. The texts hold what was read either way.
  int32_t Parse(const std::string& bytes, WString& reason);
};

// The bytes of a description as text: UTF-8 when they are valid UTF-8 (a byte-order mark
// dropped), else Windows-1252, the 8-bit text the repository's writer produces.
WString DecodeDescriptionText(const std::string& bytes);

}  // namespace engine
