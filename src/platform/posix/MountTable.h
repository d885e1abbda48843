// The kernel's table of mounts and udev's directory of labelled devices, read for the volume and
// share services. Both sources can be replaced for tests: EM_MENDER_MOUNTINFO names another file
// in the format of /proc/self/mountinfo, EM_MENDER_DISK_BY_LABEL another directory of links.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace platform::mounts {

struct MountEntry {
  unsigned major = 0;
  unsigned minor = 0;
  std::string root;        // the directory of the file system that is mounted
  std::string mountPoint;  // without escapes, without a final "/" (except the root "/")
  std::string fsType;
  std::string source;
  std::string superOptions;
};

// The entries in the table's order; false with errno set when the table cannot be read.
bool ReadMountTable(std::vector<MountEntry>& entries);

// The entries of a text in the table's format, in its order; lines that cannot be read are skipped.
std::vector<MountEntry> ParseMountTable(std::string_view text);

// The label whose link leads to the file system's device; empty when none does.
std::string LabelOf(const MountEntry& entry);

}  // namespace platform::mounts
