// Console and debugger output of the process. On POSIX the console is standard error, and the
// debugger output reaches standard error only while a debugger is attached.
#pragma once

#include "base/WString.h"

namespace platform {

// Opens (or attaches to) a console; true when a console handle is available.
bool ConsoleOpen();
void ConsoleWrite(WStringView text);
// One line for the debugger.
void DebuggerWrite(const char16_t* text);

}  // namespace platform
