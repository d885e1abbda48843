#include "platform/DebugOutput.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace platform {

namespace {

bool DebuggerAttached() {
  FILE* f = fopen("/proc/self/status", "r");
  if (!f) return false;
  char line[256];
  bool attached = false;
  while (fgets(line, sizeof line, f)) {
    if (strncmp(line, "TracerPid:", 10) == 0) {
      attached = atoi(line + 10) != 0;
      break;
    }
  }
  fclose(f);
  return attached;
}

}  // namespace

bool ConsoleOpen() {
  return true;
}

void ConsoleWrite(WStringView text) {
  std::string bytes = WToUtf8(text);
  ssize_t rc = ::write(STDERR_FILENO, bytes.data(), bytes.size());
  (void)rc;
}

void DebuggerWrite(const char16_t* text) {
  static const bool attached = DebuggerAttached();
  if (attached) ConsoleWrite(text);
}

}  // namespace platform
