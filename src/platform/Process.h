// Child processes: a command line started with its own working directory and its standard output
// and error appended to files, polled through the clock service, ended by force.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/WString.h"
#include "platform/Clock.h"

namespace platform {

// The exit code that a process reports while it still runs (the system's "still active").
constexpr uint32_t kStillActive = 259;

struct ProcessOptions {
  // The program file. Empty: the first word of the command line names it, found as the system
  // finds it (on POSIX through PATH).
  WString application;
  // A command line in the system's quoting: words are split as Windows splits them (blanks and
  // tabs separate, "..." groups, \" is a quote, "" inside quotes is an empty word). On POSIX the
  // words become the argument vector.
  WString commandLine;
  WString currentDirectory;  // empty: the caller's
  WString stdoutFile;        // empty: none; else opened for appending, created if missing
  WString stderrFile;        // empty: none
};

class ChildProcess final : public Waitable {
 public:
  ChildProcess();
  ~ChildProcess();  // leaves a running child running; releases the handle
  // POSIX: no thread watches the child; the first WaitRealMicros, ExitCode or Terminate that finds
  // it ended reaps it. A child still running when its object goes away is not reaped by anyone and
  // stays a zombie after its end until the host ends: wait for children or end them first.
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // False when the process could not be created; StartError() then holds the system's error.
  bool Start(const ProcessOptions& options);
  uint32_t StartError() const { return m_startError; }
  // True once the child has ended.
  bool WaitRealMicros(uint64_t micros) override;
  // kStillActive while it runs; its exit code once ended (a child ended by a signal on POSIX
  // reads as 128 plus the signal's number, unless it was ended by Terminate). False when there is
  // no process.
  bool ExitCode(uint32_t& code);
  // Ends the child by force; its exit code becomes `exitCode`.
  bool Terminate(uint32_t exitCode);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
  uint32_t m_startError = 0;
};

// Splits a command line as Windows' CommandLineToArgvW does (exposed for tests and the POSIX side).
// In detail, the rules of the C runtime since 2008: "" standing alone is an empty word, "" inside a
// quoted part is one literal quote and the part goes on; 2n backslashes before a quote give n and
// the quote groups, 2n+1 give n and a literal quote, other backslashes stay. The first word (the
// program) takes quotes as grouping only and backslashes as they are. Blanks before it are skipped.
std::vector<WString> SplitCommandLine(WStringView commandLine);

}  // namespace platform
