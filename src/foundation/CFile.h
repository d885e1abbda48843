// Recursive directory removal.
#pragma once

#include "base/WString.h"

class CFile {
 public:
  // Removes everything below `path`; with removeItself also the directory. A failure does not
  // stop the walk. Result: with removeItself that of the directory's own removal, otherwise
  // that of the last entry handled (0 when there was none). 0 for an empty path.
  static int RemoveDirectoryTree(const WString& path, bool removeItself);
};
