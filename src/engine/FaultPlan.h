// The faults a test plants in the simulated engine: <engine folder>/faults.txt, key=value lines,
// read afresh at every operation (so a test can change it between two calls). A missing file
// plants nothing; a line the plan does not understand is ignored and named in `problems`.
//
//   UseLocalInventory=<n>                 UseLocalInventory returns n
//   GetUpdateInventoryIterator=<n>        GetUpdateInventoryIterator returns n and no iterator
//   GetInventoryIterator=null             GetInventoryIterator returns null
//   UpdateIteratorThrow=<N>[,<code>[,<text>]]     the N-th element fetch of an update iterator
//                                         (GetFirst being 1) throws ZTException
//   UpdateIteratorThrowOther=<N>          ... throws std::runtime_error
//   InventoryIteratorThrow=<N>[,<code>[,<text>]]  the same for the inventory iterator
//   InventoryIteratorThrowOther=<N>
//   <Operation>Throw=<code>[,<text>]      the operation throws ZTException; Operation is one of
//                                         UseLocalInventory, DoKordUpScan,
//                                         GetUpdateInventoryIterator, GetInventoryIterator
//   <Operation>ThrowOther=<text>          the operation throws std::runtime_error
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/WString.h"

namespace engine {

// An exception to throw: a ZTException with code and text, or (other) a std::runtime_error.
struct PlannedThrow {
  bool other = false;
  uint32_t code = 0;
  WString text;
  [[noreturn]] void Throw() const;
};

// A throw at the N-th element fetch of an iterator (1 = GetFirst).
struct PlannedFetchThrow {
  uint32_t fetch = 0;  // 0: none
  PlannedThrow what;
};

// The operations that can be made to throw as a whole.
enum class FaultOp { kUseLocalInventory, kDoKordUpScan, kGetUpdateInventoryIterator, kGetInventoryIterator, kCount };

struct FaultPlan {
  std::optional<uint32_t> useLocalInventoryResult;
  std::optional<uint32_t> updateIteratorResult;
  bool inventoryIteratorNull = false;
  PlannedFetchThrow updateFetch;
  PlannedFetchThrow inventoryFetch;
  std::optional<PlannedThrow> opThrow[static_cast<int>(FaultOp::kCount)];

  // Throws what is planned for the operation, if anything.
  void ThrowFor(FaultOp op) const;

  // Reads the file's bytes (UTF-8). Every ignored line adds one text to `problems`.
  static FaultPlan Parse(const std::string& bytes, std::vector<WString>& problems);
  // Reads the file; a missing or unreadable file is no fault at all.
  static FaultPlan Load(const WString& path, std::vector<WString>& problems);
};

}  // namespace engine
