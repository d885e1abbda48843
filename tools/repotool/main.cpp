// repotool: builds and changes a download server's tree of update packages for tests, demos and
// samples, and writes the inventory of a sample machine that disagrees with such a tree in known
// ways (docs/repository.md describes the tree, the input and every command).
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "platform/CommandLine.h"
#include "repotool/Commands.h"

namespace {

int Usage() {
  std::fprintf(
      stderr,
      "usage:\n"
      "  repotool sample    --leaves DIR [--count N]\n"
      "  repotool build     --leaves DIR --out SERVERDIR --stub sfx.exe [--tree-version N] [--client WORKDIR]\n"
      "  repotool bump      --out SERVERDIR --leaf REL [--version V] [--component-version X.Y.Z]\n"
      "                     [--package NAME.exe] [--files DIR] [--stub sfx.exe]\n"
      "  repotool withdraw  --out SERVERDIR --leaf REL\n"
      "  repotool backtrack --out SERVERDIR --leaf REL [--leaf REL...] [--os TEXT]\n"
      "  repotool stop      --out SERVERDIR on|off\n"
      "  repotool break     --out SERVERDIR --what wrong-size|bad-twin|corrupt-line|short-version-leaf|\n"
      "                     short-package|corrupt-package|missing-package|comment-only [--leaf REL]\n"
      "  repotool break     --out SERVERDIR --what hostile-lines [--leaf PATH...] [--version V]\n"
      "  repotool break     --out SERVERDIR --what hostile-backtrack [--leaf PATH...] [--os TEXT]\n"
      "  repotool evil      --out FILE --stub sfx.exe --entry NAME|symlink:TARGET [--name NAME]\n"
      "  repotool inventory --leaves DIR --out FILE [--max N] [--os TEXT]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args = platform::ProgramArguments(argc, argv);
  if (args.size() < 2) return Usage();
  std::string command = args[1];
  try {
    Options o(std::vector<std::string>(args.begin() + 2, args.end()));
    if (command == "sample") return commands::Sample(o);
    if (command == "build") return commands::Build(o);
    if (command == "bump") return commands::Bump(o);
    if (command == "withdraw") return commands::Withdraw(o);
    if (command == "backtrack") return commands::Backtrack(o);
    if (command == "stop") return commands::Stop(o);
    if (command == "break") return commands::Break(o);
    if (command == "evil") return commands::Evil(o);
    if (command == "inventory") return commands::Inventory(o);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "repotool %s: %s\n", command.c_str(), e.what());
    return 1;
  }
  return Usage();
}
