// The run of the tool, the same on every platform: read the command line, fetch the file into its
// temporary name, put it in place, and report on standard output (verbose) and standard error
// (one line per failure).
#pragma once

#include <string>
#include <vector>

namespace filedownload {

// `args` are the arguments after the program name, in UTF-8. Returns the exit code (ExitCode.h).
int RunFileDownLoad(const std::vector<std::string>& args);

}  // namespace filedownload
