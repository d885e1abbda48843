// The program's own command line. Kept apart from the environment so that the module file, which
// never reads a command line, does not import the Windows shell library.
#pragma once

#include <string>
#include <vector>

namespace platform {

// The program's arguments in UTF-8, argv[0] first. On Windows they come from the wide command line,
// since `argv` there holds the ANSI code page and loses every character outside it.
std::vector<std::string> ProgramArguments(int argc, char** argv);

}  // namespace platform
