// A self-extracting archive as a download server could send it, on any bytes: unpacking must not
// fail, and nothing may appear outside the target directory, whatever the entries say.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "platform/Archive.h"
#include "platform/FileIo.h"
#include "platform/FileTree.h"

namespace {

size_t Count(const WString& dir) {
  std::vector<platform::DirEntry> entries;
  platform::ListDirectory(dir, entries);
  return entries.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const WString top = platform::TempDirectory() + u"/em_archive_fuzz";
  const WString outer = top + u"/outer", target = outer + u"/target";
  WString error;
  platform::RemoveTree(top, error);
  platform::CreateDirectoryPath(top);
  platform::CreateDirectoryPath(outer);
  platform::CreateDirectoryPath(target);
  if (!platform::WriteWholeFile(target + u"/in.exe", data, size)) std::abort();
  platform::UnpackSelfExtractingArchive(target, u"in.exe", top + u"/out.txt", top + u"/err.txt");
  // top holds outer and at most the two output files; outer holds target alone.
  if (Count(outer) != 1 || Count(top) > 3) std::abort();
  return 0;
}
