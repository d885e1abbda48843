// The files a comparison reads that others write: a leaf's component description (from the
// download server), the simulated engine's inventory and fault plan, and ztNew.txt (read back from
// disk, where anything may have happened to it). The first byte picks the reader; on any bytes
// the readers must not fail, an accepted inventory must write back to the same inventory, and the
// memory of announced components never holds more than its 200 entries.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "check/DiffAlert.h"
#include "engine/ComponentDescription.h"
#include "engine/FaultPlan.h"
#include "engine/SimInventory.h"
#include "platform/FileIo.h"

namespace {

WString FuzzDir() {
  static const WString dir = [] {
    WString d = platform::TempDirectory() + u"/em_checkfiles_fuzz";
    platform::CreateDirectoryPath(d);
    return d;
  }();
  return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 4) {
    case 0: {
      engine::ComponentDescription description;
      WString reason;
      int32_t valid = description.Parse(bytes, reason);
      if (valid != 0 && valid != engine::kBrokenDescription && valid != engine::kUnknownFormatVersion) std::abort();
      if (valid == 0 && (description.objectName.empty() || description.version.empty())) std::abort();
      break;
    }
    case 1: {
      engine::SimInventory inventory;
      WString error;
      if (!inventory.Parse(bytes, error)) {
        if (!inventory.Components().empty() || error.empty()) std::abort();  // never half-loaded
        break;
      }
      for (const engine::SimComponent& c : inventory.Components())
        if (c.type.empty()) std::abort();
      engine::SimInventory again;
      if (!again.Parse(inventory.Format(), error) || !(again == inventory)) std::abort();
      break;
    }
    case 2: {
      std::vector<WString> problems;
      engine::FaultPlan::Parse(bytes, problems);
      break;
    }
    default: {
      const WString oldFile = FuzzDir() + u"/ztNew.txt";
      platform::WriteWholeFile(oldFile, bytes.data(), bytes.size());
      DiffAlert alert(&oldFile, FuzzDir() + u"/new_ztNew.txt");
      if (alert.readZtNewFile(oldFile) > DiffAlert::kMaxOldEntries) std::abort();
      break;
    }
  }
  return 0;
}
