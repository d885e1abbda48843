// The codes a check derives from an update's texts and numbers, for requesters that want a
// number rather than the engine's words.
#pragma once

#include <cstdint>

#include "base/WString.h"

namespace diffcodes {

// 2 "mandatory", 1 "recommended", 0 any other text; compared exactly.
uint8_t SeverityCode(WStringView severity);
// From the engine's ranking and the two flags: 0 nothing to compare with, 1 highest upgrade,
// 2 other upgrade, 3 same version, 4 highest downgrade, 5 other downgrade. A ranking outside 0..3
// is traced and gives 0.
uint8_t RankingCode(uint32_t versionRanking, uint8_t isHighestUpgrade, uint8_t isHighestDowngrade);
// "no" 0, "immediately" 1, "yes" 2, any other text 3; compared exactly.
uint8_t RebootCode(WStringView reboot);

}  // namespace diffcodes
