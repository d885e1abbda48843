#include "mirror/LeafPath.h"

namespace leafpath {

bool IsSafe(const WString& relPath) {
  if (relPath.empty() || relPath[0] == u'/' || relPath[0] == u'\\') return false;
  if (relPath.find(u':') != WString::npos || relPath.find(u'\0') != WString::npos) return false;
  size_t start = 0;
  for (;;) {
    size_t end = relPath.find_first_of(u"/\\", start);
    WString element = relPath.substr(start, end == WString::npos ? WString::npos : end - start);
    // Windows drops the dots and blanks at the end of a name, so ".. " or "..." would reach the
    // parent there: no element may end in either, on any system.
    if (!element.empty() && (element.back() == u'.' || element.back() == u' ')) return false;
    if (end == WString::npos) return true;
    start = end + 1;
  }
}

}  // namespace leafpath
