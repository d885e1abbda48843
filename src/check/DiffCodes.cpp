#include "check/DiffCodes.h"

#include "foundation/CDebug.h"

namespace diffcodes {

uint8_t SeverityCode(WStringView severity) {
  if (severity == u"mandatory") return 2;
  if (severity == u"recommended") return 1;
  return 0;
}

uint8_t RankingCode(uint32_t versionRanking, uint8_t isHighestUpgrade, uint8_t isHighestDowngrade) {
  switch (versionRanking) {
    case 0:
      return 0;
    case 1:
      return isHighestUpgrade ? 1 : 2;
    case 2:
      return 3;
    case 3:
      return isHighestDowngrade ? 4 : 5;
    default:
      TRACE(1, u"\nDiffData::add_um_component()\t: >>>ERROR: illegal value of ORMUX.uVersionRanking=%d",
            static_cast<int>(versionRanking));
      return 0;
  }
}

uint8_t RebootCode(WStringView reboot) {
  if (reboot == u"no") return 0;
  if (reboot == u"immediately") return 1;
  if (reboot == u"yes") return 2;
  return 3;
}

}  // namespace diffcodes
