// Reading a symbolic link's target in the POSIX tests of the tree and archive services.
#pragma once

#ifndef _WIN32
#include <unistd.h>

#include <string>

#include "base/WString.h"

// True when `path` is a symbolic link; `target` then holds where it points.
inline bool IsLink(const WString& path, std::string& target) {
  char buf[4096];
  ssize_t n = ::readlink(WToUtf8(path).c_str(), buf, sizeof buf);
  if (n < 0) return false;
  target.assign(buf, static_cast<size_t>(n));
  return true;
}
#endif
