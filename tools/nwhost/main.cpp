// nwhost: the host program. It loads the EM_MENDER module file and drives it as the agent does.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

#include "nwhost/Verbs.h"
#include "platform/CommandLine.h"

namespace {

int Usage() {
  std::fprintf(stderr,
               "usage:\n"
               "  nwhost demo [--module PATH]      load the module and show what it answers\n"
               "  nwhost script [--module PATH] [--cabinet N | --no-cabinet] [--registry FILE]\n"
               "                                   drive the module with JSON lines on standard input\n"
               "  nwhost config [--module PATH] [--cabinet N] [--registry FILE] [--reveal]\n"
               "               list | get NAME | set NAME VALUE\n"
               "                                   the update settings, through the configuration requests\n"
               "  nwhost mirror [--module PATH] [--registry FILE] [options]\n"
               "               update | download LEAF | delete-binary LEAF | check-connection\n"
               "                                   one call of the repository functions of the module file\n"
               "                                   (nwhost mirror --help lists the options)\n"
               "  nwhost check [--module PATH] [--cabinet N] [--registry FILE] [--json] [--timeout SECONDS]\n"
               "                                   run an update check and show the updates it found\n"
               "  nwhost updates [options of check] [--no-check]\n"
               "  nwhost installed [options of check] [--no-check]\n"
               "                                   the table of updates or of installed components after a check\n"
               "                                   (nwhost check --help lists the options)\n"
               "  nwhost xml FILE                  read an XML file as the module reads it\n");
  return 2;
}

}  // namespace

int main(int argc, char** rawArgv) {
  // Every verb reads its arguments as UTF-8, on Windows too.
  std::vector<std::string> args = platform::ProgramArguments(argc, rawArgv);
  std::vector<char*> pointers;
  for (std::string& arg : args) pointers.push_back(arg.data());
  pointers.push_back(nullptr);
  argc = static_cast<int>(args.size());
  char** argv = pointers.data();
  if (argc < 2) return Usage();
#ifdef _WIN32
  // Lines end in a plain line feed on every platform, so that programs can compare them exactly.
  _setmode(_fileno(stdout), _O_BINARY);
#endif
  // Each verb sees its own name as argv[0] and its arguments after it.
  if (std::strcmp(argv[1], "script") == 0) return NwhostScriptVerb(argc - 1, argv + 1);
  if (std::strcmp(argv[1], "xml") == 0) return NwhostXmlVerb(argc - 1, argv + 1);
  if (std::strcmp(argv[1], "config") == 0) return NwhostConfigVerb(argc - 1, argv + 1);
  if (std::strcmp(argv[1], "demo") == 0) return NwhostDemoVerb(argc - 1, argv + 1);
  if (std::strcmp(argv[1], "mirror") == 0) return NwhostMirrorVerb(argc - 1, argv + 1);
  if (std::strcmp(argv[1], "check") == 0) return NwhostCheckVerb(argc - 1, argv + 1);
  if (std::strcmp(argv[1], "updates") == 0) return NwhostUpdatesVerb(argc - 1, argv + 1);
  if (std::strcmp(argv[1], "installed") == 0) return NwhostInstalledVerb(argc - 1, argv + 1);
  return Usage();
}
