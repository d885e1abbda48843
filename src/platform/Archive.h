// Self-extracting archives of the repository: a program stub with a zip appended.
#pragma once

#include "base/WString.h"

namespace platform {

// Unpacks `<dir>/<exeName>` into `dir`, overwriting, quietly. Returns the exit code: 0 on success.
// Windows: runs the archive through the command interpreter in `dir` as
//   <exeName> -oq > "<outFile>" 2>"<errFile>"
// and waits for it. POSIX: downloaded content never runs; the zip is unpacked in-process and a
// failure's reason is written to `errFile` (the result is then not 0).
// An archive with an entry that is absolute, has a drive, contains a ".." element, or is a link
// leading out of `dir` is refused as a whole before anything is written.
int UnpackSelfExtractingArchive(const WString& dir, const WString& exeName, const WString& outFile,
                                const WString& errFile);

}  // namespace platform
