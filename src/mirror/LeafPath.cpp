#include "mirror/LeafPath.h"

namespace leafpath {

bool IsSafe(const WString& relPath) {
  if (relPath.empty() || relPath[0] == u'/' || relPath[0] == u'\\') return false;
  if (relPath.find(u':') != WString::npos || relPath.find(u'\0') != WString::npos) return false;
  size_t start = 0;
  for (;;) {
    size_t end = relPath.find_first_of(u"/\\", start);
    WString element = relPath.substr(start, end == WString::npos ? WString::npos : end - start);
    if (element == u".." || element == u".") return false;
    if (end == WString::npos) return true;
    start = end + 1;
  }
}

}  // namespace leafpath
