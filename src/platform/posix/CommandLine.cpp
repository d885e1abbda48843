#include "platform/CommandLine.h"

namespace platform {

std::vector<std::string> ProgramArguments(int argc, char** argv) {
  // File names and texts on the command line are UTF-8 here already.
  return std::vector<std::string>(argv, argv + argc);
}

}  // namespace platform
