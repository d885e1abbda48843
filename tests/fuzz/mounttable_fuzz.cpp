// The mount-table reader on any text in the format of /proc/self/mountinfo: it must not fail on
// it, and every entry it gives has a mount point in the normal form that the volume service
// compares with.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/posix/MountTable.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  size_t lines = 0;
  for (char c : text) lines += c == '\n';
  const auto entries = platform::mounts::ParseMountTable(text);
  if (entries.size() > lines + 1) std::abort();
  for (const auto& e : entries) {
    if (e.mountPoint.empty() || e.fsType.empty() || e.root.empty()) std::abort();
    if (e.mountPoint.size() > 1 && e.mountPoint.back() == '/') std::abort();
  }
  return 0;
}
