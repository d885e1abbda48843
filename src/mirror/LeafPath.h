// Leaf paths come from the server's files, from requesters and from the exported functions; none
// of them may lead outside the repository.
#pragma once

#include "base/WString.h"

namespace leafpath {

// True for a relative path of one or more elements separated by "/" or "\", none of them ending in
// a dot or a blank (so never "." or ".."), with no drive, no leading separator and no NUL: a path
// that stays below the root on every system.
bool IsSafe(const WString& relPath);

}  // namespace leafpath
