// "repotool inventory": the simulated engine's inventory of a sample machine, made from a leaves
// folder so that the machine and the server built from the same folder disagree in known ways
// (docs/repository.md, "The inventory of a sample machine").
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "repotool/Leaf.h"

namespace inventory {

// What the machine has of the k-th leaf with a package (0-based, in leafRelPath order): k % 5.
enum class State { kOlder = 0, kSame = 1, kNewer = 2, kMissing = 3, kUnknownVersion = 4 };
State StateOf(size_t k);

// A dotted version that is strictly newer under the engine's comparison (elements split at '.',
// each compared by its leading number, then the rest as text; missing elements count as 0): the
// first element's leading number plus one ("1.3.5" -> "2.3.5", "beta" -> "1beta").
std::string NewerVersion(const std::string& version);
// A strictly older one: the first element whose leading number is not 0, that number minus one
// ("1.3.5" -> "0.3.5", "0.0.7" -> "0.0.6"); none when every leading number is 0 ("0.0", "beta").
std::optional<std::string> OlderVersion(const std::string& version);

struct Result {
  std::string text;        // UTF-8, lines ending in CR LF
  int64_t components = 0;  // [component] sections written, the support pack included
};

// The inventory file: [system] with `os`, the support pack, then the leaves with a package,
// at most `maxComponents` component sections in all (at least 1). Throws std::runtime_error for a
// leaf whose description cannot be written: a value that is no UTF-8, an empty type, the support
// pack's type, a pciId that is not `vendor:device` of four hex digits each.
Result Text(const std::vector<Leaf>& leaves, const std::string& os, int64_t maxComponents);

}  // namespace inventory
