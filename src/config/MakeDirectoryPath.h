// Creates a directory together with its missing parents.
#pragma once

#include "base/WString.h"

// Nonzero when the directory exists afterwards. A parent that can never be made ends the call
// after a bounded number of attempts.
int MakeDirectoryPath(const WString& path);
