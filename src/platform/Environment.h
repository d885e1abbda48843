// Environment variables of the process.
#pragma once

#include <string>
#include <vector>

#include "foundation/WString.h"

namespace platform {

// True when the variable exists (its value may be empty).
bool GetEnv(WStringView name, WString& value);
bool SetEnv(WStringView name, WStringView value);
bool UnsetEnv(WStringView name);

// Expands %NAME% references from the environment as the system does for expandable registry
// strings: an unknown name stays as written, "%%" is not special.
WString ExpandEnvironment(WStringView text);

// The program's arguments in UTF-8, argv[0] first. On Windows they come from the wide command line,
// since `argv` there holds the ANSI code page and loses every character outside it.
std::vector<std::string> ProgramArguments(int argc, char** argv);

}  // namespace platform
