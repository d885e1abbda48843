#include "platform/Volume.h"

#include <errno.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "platform/posix/MountTable.h"

namespace platform {

namespace {

using mounts::MountEntry;

constexpr uint32_t kErrorPathNotFound = 3;
constexpr uint32_t kErrorInvalidName = 123;

struct DeviceNumber {
  unsigned major = 0;
  unsigned minor = 0;
  bool operator==(const DeviceNumber&) const = default;
};

bool IsVolume(const MountEntry& e) {
  return e.source.rfind("/dev/", 0) == 0;
}

WString DeviceName(const DeviceNumber& d) {
  return WFromUtf8("Volume{" + std::to_string(d.major) + ":" + std::to_string(d.minor) + "}");
}

bool ParseDeviceName(const WString& name, DeviceNumber& d) {
  const std::string text = WToUtf8(name);
  char close = 0;
  int used = 0;
  return std::sscanf(text.c_str(), "Volume{%u:%u%c%n", &d.major, &d.minor, &close, &used) == 3 && close == '}' &&
         static_cast<size_t>(used) == text.size();
}

uint32_t ReadTable(std::vector<MountEntry>& entries) {
  errno = 0;
  if (mounts::ReadMountTable(entries)) return 0;
  return errno == EACCES ? 5 : kErrorFileNotFound;
}

}  // namespace

struct VolumeSearch::State {
  std::vector<DeviceNumber> volumes;
  size_t next = 0;
};

VolumeSearch::VolumeSearch() : m_state(std::make_unique<State>()) {}
VolumeSearch::~VolumeSearch() = default;

uint32_t VolumeSearch::First(WString& name) {
  std::vector<MountEntry> entries;
  if (uint32_t error = ReadTable(entries)) return error;
  m_state->volumes.clear();
  m_state->next = 0;
  for (const MountEntry& e : entries) {
    const DeviceNumber d{e.major, e.minor};
    if (IsVolume(e) && std::find(m_state->volumes.begin(), m_state->volumes.end(), d) == m_state->volumes.end())
      m_state->volumes.push_back(d);
  }
  // The system always has at least the volume it runs from; a table without one is no list.
  if (m_state->volumes.empty()) return kErrorFileNotFound;
  return Next(name);
}

uint32_t VolumeSearch::Next(WString& name) {
  if (m_state->next >= m_state->volumes.size()) return kErrorNoMoreFiles;
  name = u"\\\\?\\" + DeviceName(m_state->volumes[m_state->next++]) + u"\\";
  return 0;
}

uint32_t QueryVolumeDevice(const WString& deviceName, WString& device) {
  DeviceNumber d;
  if (!ParseDeviceName(deviceName, d)) return kErrorFileNotFound;
  std::vector<MountEntry> entries;
  if (uint32_t error = ReadTable(entries)) return error;
  for (const MountEntry& e : entries) {
    if (IsVolume(e) && DeviceNumber{e.major, e.minor} == d) {
      device = WFromUtf8(e.source);
      return 0;
    }
  }
  return kErrorFileNotFound;
}

uint32_t VolumeMountPaths(const WString& volumeName, uint32_t capacity, std::vector<WString>& paths, uint32_t& needed) {
  paths.clear();
  needed = 0;
  const WString prefix = u"\\\\?\\";
  DeviceNumber d;
  if (volumeName.size() <= prefix.size() + 1 || volumeName.compare(0, prefix.size(), prefix) != 0 ||
      volumeName.back() != u'\\' ||
      !ParseDeviceName(volumeName.substr(prefix.size(), volumeName.size() - prefix.size() - 1), d))
    return kErrorInvalidName;
  std::vector<MountEntry> entries;
  if (uint32_t error = ReadTable(entries)) return error;
  std::vector<WString> found;
  for (const MountEntry& e : entries) {
    // Only mounts of the whole file system; a bind mount of a subdirectory is not the volume.
    if (!IsVolume(e) || DeviceNumber{e.major, e.minor} != d || e.root != "/") continue;
    WString path = WFromUtf8(e.mountPoint);
    if (path.empty() || path.back() != u'/') path += u'/';
    if (std::find(found.begin(), found.end(), path) == found.end()) found.push_back(path);
  }
  // Each path with its terminator, and one terminator that ends the list.
  uint32_t size = 1;
  for (const WString& p : found) size += static_cast<uint32_t>(p.size()) + 1;
  needed = size;
  if (size > capacity) return kErrorMoreData;
  paths = std::move(found);
  return 0;
}

uint32_t VolumeLabelAt(const WString& mountPath, WString& label) {
  label.clear();
  std::string path = WToUtf8(mountPath);
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  std::vector<MountEntry> entries;
  if (uint32_t error = ReadTable(entries)) return error;
  // A later mount at the same place hides the earlier ones.
  const MountEntry* found = nullptr;
  for (const MountEntry& e : entries)
    if (e.mountPoint == path) found = &e;
  if (!found) return kErrorPathNotFound;
  label = WFromUtf8(mounts::LabelOf(*found));
  return 0;
}

}  // namespace platform
