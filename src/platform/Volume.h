// Volumes, their labels and their mount paths, in the shape of the system's volume calls: a
// volume has a name "\\?\<device name>\", a device name maps to a device, a volume has zero or
// more mount paths (each ending with a path separator), and the volume mounted at a path has a
// label. Results are 0 or the system's error number in Windows terms.
//
// POSIX: a volume is a block device ("/dev/...") that is mounted, as /proc/self/mountinfo lists
// it; its device name is "Volume{<major>:<minor>}"; its mount paths are the mount points that
// show the device's root; its label is the name of the link in /dev/disk/by-label that leads to
// the device. EM_MENDER_MOUNTINFO and EM_MENDER_DISK_BY_LABEL name other sources for the two.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/WString.h"

namespace platform {

constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorNoMoreFiles = 18;
constexpr uint32_t kErrorMoreData = 234;

// One pass over the volumes of the system.
class VolumeSearch {
 public:
  VolumeSearch();
  ~VolumeSearch();
  VolumeSearch(const VolumeSearch&) = delete;
  VolumeSearch& operator=(const VolumeSearch&) = delete;

  // The first volume's name, or the error that prevents the list.
  uint32_t First(WString& name);
  // The next volume's name; kErrorNoMoreFiles at the end of the list.
  uint32_t Next(WString& name);

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

// The device behind a device name (a volume's name without "\\?\" and the final separator).
uint32_t QueryVolumeDevice(const WString& deviceName, WString& device);

// The mount paths of a volume. `capacity` is the size in characters of the caller's list, which
// holds each path with a terminator and one terminator more; when the paths don't fit the result
// is kErrorMoreData and `needed` tells the size that does.
uint32_t VolumeMountPaths(const WString& volumeName, uint32_t capacity, std::vector<WString>& paths, uint32_t& needed);

// The label of the volume mounted at `mountPath` (empty for a volume without one).
uint32_t VolumeLabelAt(const WString& mountPath, WString& label);

}  // namespace platform
