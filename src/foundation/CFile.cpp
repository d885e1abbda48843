#include "foundation/CFile.h"

#include "foundation/CDebug.h"
#include "foundation/RootPaths.h"
#include "platform/FileIo.h"
#include "platform/Thread.h"

int CFile::RemoveDirectoryTree(const WString& path, bool removeItself) {
  if (path.empty()) return 0;
  int result = 0;
  std::vector<platform::DirEntry> entries;
  platform::ListDirectory(path, entries);
  for (const auto& e : entries) {
    WString child = path + kSep + e.name;
    if (e.isDirectory) {
      result = RemoveDirectoryTree(child, true);
    } else if (platform::RemoveFilePath(child)) {
      TRACE(3, u"\nCFile               : file \"%s\" removed", child.c_str());
      result = 1;
    } else {
      TRACE(1, u"\nCFile               : ERROR 0x%X! FAILED to remove file \"%s\"", platform::GetLastErrorCode(),
            child.c_str());
      result = 0;
    }
  }
  if (!removeItself) return result;
  if (platform::RemoveDirectoryPath(path)) {
    TRACE(3, u"\nCFile               : directory \"%s\" removed", path.c_str());
    return 1;
  }
  TRACE(1, u"\nCFile               : ERROR 0x%X! FAILED to remove directory parent \"%s\"",
        platform::GetLastErrorCode(), path.c_str());
  return 0;
}
