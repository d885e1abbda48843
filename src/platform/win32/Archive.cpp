// The repository's self-extracting archives on Windows: the archive is a program (the stub with
// the zip behind it) and unpacks itself into its own directory. It runs through the command
// interpreter so that its output lands in the two files by the interpreter's redirections; the
// stub refuses hostile entries itself.
#include "platform/Archive.h"

#include "platform/Environment.h"
#include "platform/Process.h"
#include "platform/win32/Win32Util.h"

namespace platform {

namespace {

// The interpreter the system names in ComSpec, else the one in the system directory. The program
// is given apart from the command line, which is never searched for.
WString CommandInterpreter() {
  WString comSpec;
  if (GetEnv(u"ComSpec", comSpec) && !comSpec.empty()) return comSpec;
  wchar_t system[MAX_PATH];
  UINT n = GetSystemDirectoryW(system, MAX_PATH);
  if (n > 0 && n < MAX_PATH) return WString(U16(system), n) + u"\\cmd.exe";
  return u"cmd.exe";
}

}  // namespace

int UnpackSelfExtractingArchive(const WString& dir, const WString& exeName, const WString& outFile,
                                const WString& errFile) {
  const WString interpreter = CommandInterpreter();
  // /c strips the first and the last quote of what follows when it holds more than one pair, so
  // the whole command gets an extra pair around it and every name inside keeps its own.
  const WString command =
      u"\"" + Backslashes(exeName) + u"\" -oq > \"" + Backslashes(outFile) + u"\" 2>\"" + Backslashes(errFile) + u"\"";
  ProcessOptions options;
  options.application = interpreter;
  options.commandLine = u"\"" + interpreter + u"\" /c \"" + command + u"\"";
  options.currentDirectory = Backslashes(dir);
  ChildProcess child;
  if (!child.Start(options)) return -1;
  child.WaitRealMicros(kInfiniteMicros);
  uint32_t code = 0;
  if (!child.ExitCode(code)) return -1;
  return static_cast<int>(code);
}

}  // namespace platform
