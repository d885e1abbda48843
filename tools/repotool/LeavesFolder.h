// The input of "repotool build": a folder of leaves, each a directory with a leaf.ini, an
// optional rel_note.txt and an optional files/ (docs/repository.md describes it).
#pragma once

#include <filesystem>
#include <vector>

#include "repotool/Leaf.h"

namespace leavesfolder {

// Every leaf below `dir`, checked and sorted by leafRelPath; the payload is not read yet.
// Throws std::runtime_error naming the first fault, before anything is written.
std::vector<Leaf> Read(const std::filesystem::path& dir);

// A leaf's component description from its leaf.ini section: known keys in their order with
// defaults for the missing ones, packageFile set, unknown keys behind them as written.
void CompleteComponent(Leaf& leaf, const std::vector<std::pair<std::string, std::string>>& given);

}  // namespace leavesfolder
