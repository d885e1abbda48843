// "repotool sample": a leaves folder of varied leaves for tests and the demo.
#pragma once

#include <filesystem>

namespace sampleleaves {

// Writes `count` leaves into `dir` (missing or empty): full, common and link leaves, nested
// paths, several component kinds, release notes on some, payloads of a few KB (text that deflates,
// random bytes that are stored, an empty file, nested directories, a name outside ASCII).
// The same count gives the same folder.
void Write(const std::filesystem::path& dir, int count);

}  // namespace sampleleaves
