// Child processes: command-line splitting, exit codes, working directory, output files, waiting
// through the clock service and ending by force. The child is em_test_child (EM_TEST_CHILD).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Environment.h"
#include "platform/FileIo.h"
#include "platform/FileTree.h"
#include "platform/Process.h"

#ifndef _WIN32
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#endif

using namespace platform;

namespace {

// The test child's path as this build's processes name it (under Wine the variable holds a Unix
// path, reached through drive Z:).
WString TestChild() {
  WString path;
  if (!GetEnv(u"EM_TEST_CHILD", path) || path.empty()) return WString();
#ifdef _WIN32
  if (path[0] == u'/') path = u"Z:" + path;
  for (char16_t& c : path)
    if (c == u'/') c = u'\\';
#endif
  return path;
}

WString Quoted(const WString& s) {
  return u"\"" + s + u"\"";
}

class ProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_child = TestChild();
    if (m_child.empty()) GTEST_SKIP() << "EM_TEST_CHILD is not set";
    m_dir = TempDirectory() + kPathSeparator + u"em_process_test";
    WString error;
    RemoveTree(m_dir, error);
    ASSERT_TRUE(CreateDirectoryPath(m_dir));
  }
  void TearDown() override {
    WString error;
    if (!m_dir.empty()) RemoveTree(m_dir, error);
  }
  WString File(const char16_t* name) const { return m_dir + kPathSeparator + name; }
  std::string Read(const char16_t* name) const {
    std::string bytes;
    ReadWholeFile(File(name), bytes);
    return bytes;
  }
  // What the child wrote to the file once it holds a whole line (the child writes at once; the
  // loop only waits for it to get there).
  std::string FirstLine(const char16_t* name) const {
    std::string text;
    for (int i = 0; i < 2000 && text.find('\n') == std::string::npos; ++i) {
      SleepRealMicros(5000);
      text = Read(name);
    }
    return text.substr(0, text.find('\n'));
  }
  // Runs the child with `args` to its end; its exit code, or -1 when it did not start.
  int64_t Run(const WString& args, ProcessOptions options = {}) {
    options.commandLine = Quoted(m_child) + u" " + args;
    if (options.stdoutFile.empty()) options.stdoutFile = File(u"out.txt");
    ChildProcess child;
    if (!child.Start(options)) return -1;
    EXPECT_TRUE(child.WaitRealMicros(kInfiniteMicros));
    uint32_t code = kStillActive;
    EXPECT_TRUE(child.ExitCode(code));
    return code;
  }

  WString m_child;
  WString m_dir;
};

}  // namespace

TEST(SplitCommandLine, FollowsTheRulesOfTheWindowsRuntime) {
  using Words = std::vector<WString>;
  EXPECT_EQ(SplitCommandLine(u""), Words{});
  EXPECT_EQ(SplitCommandLine(u"  \t "), Words{});
  EXPECT_EQ(SplitCommandLine(u"  prog\ta  b\t"), (Words{u"prog", u"a", u"b"}));
  // The program name: quotes group, backslashes stay as they are, even before a quote.
  EXPECT_EQ(SplitCommandLine(uR"("C:\Program Files\x.exe" "a b" c)"),
            (Words{uR"(C:\Program Files\x.exe)", u"a b", u"c"}));
  EXPECT_EQ(SplitCommandLine(uR"("C:\dir\" a)"), (Words{uR"(C:\dir\)", u"a"}));
  EXPECT_EQ(SplitCommandLine(uR"(p"r o"g x)"), (Words{u"pr og", u"x"}));
  // Empty quoted arguments, anywhere.
  EXPECT_EQ(SplitCommandLine(uR"(p "" x "")"), (Words{u"p", u"", u"x", u""}));
  EXPECT_EQ(SplitCommandLine(uR"(p x ")"), (Words{u"p", u"x", u""}));
  // Backslashes: literal unless they precede a quote; 2n give n and a grouping quote, 2n+1 give n
  // and a literal quote.
  EXPECT_EQ(SplitCommandLine(uR"(p a\b c\\d e\)"), (Words{u"p", uR"(a\b)", uR"(c\\d)", uR"(e\)"}));
  EXPECT_EQ(SplitCommandLine(uR"(p a\"b)"), (Words{u"p", uR"(a"b)"}));
  EXPECT_EQ(SplitCommandLine(uR"(p a\\"b c")"), (Words{u"p", uR"(a\b c)"}));
  EXPECT_EQ(SplitCommandLine(uR"(p a\\\"b "c\\")"), (Words{u"p", uR"(a\"b)", uR"(c\)"}));
  // Quotes inside quotes: "" is one literal quote and the quoted part goes on.
  EXPECT_EQ(SplitCommandLine(uR"(p "in""side out" x)"), (Words{u"p", uR"(in"side out)", u"x"}));
  EXPECT_EQ(SplitCommandLine(uR"(p """" "a"b"c d")"), (Words{u"p", u"\"", u"abc d"}));
  EXPECT_EQ(SplitCommandLine(uR"(p "open to the end)"), (Words{u"p", u"open to the end"}));
}

TEST_F(ProcessTest, ExitCodesOutputFilesAndWorkingDirectory) {
  EXPECT_EQ(Run(u"exit 0"), 0);
  EXPECT_EQ(Run(u"exit 3"), 3);
  EXPECT_EQ(Run(u"exit 255"), 255);
  EXPECT_EQ(Run(u"stdout x"), 0);
  EXPECT_EQ(Run(u"unknown"), 64);

  // The files are appended to, never truncated; the child runs in its own directory while the
  // parent's stays where it was.
  WString work = File(u"work dir");
  ASSERT_TRUE(CreateDirectoryPath(work));
  ASSERT_TRUE(WriteWholeFile(File(u"o.txt"), "before\n", 7));
  ASSERT_TRUE(WriteWholeFile(File(u"e.txt"), "old\n", 4));
  const WString parentDir = CurrentDirectory();
  ProcessOptions options;
  options.currentDirectory = work;
  options.stdoutFile = File(u"o.txt");
  options.stderrFile = File(u"e.txt");
  EXPECT_EQ(Run(u"stdout hi stderr oops cwd exit 7", options), 7);
  EXPECT_EQ(CurrentDirectory(), parentDir);
  std::string out = Read(u"o.txt");
  ASSERT_EQ(out.rfind("before\nhi\n", 0), 0u) << out;
  std::string cwd = out.substr(10);
  ASSERT_FALSE(cwd.empty());
  EXPECT_EQ(cwd.back(), '\n');
  cwd.pop_back();
#ifdef _WIN32
  // The system may name the directory in another case or with other separators.
  EXPECT_TRUE(WEqualsNoCase(WReplaceAll(WFromUtf8(cwd), u"/", u"\\"), WReplaceAll(work, u"/", u"\\"))) << cwd;
#else
  char real[4096];
  ASSERT_NE(realpath(WToUtf8(work).c_str(), real), nullptr);
  EXPECT_EQ(cwd, real);
#endif
  EXPECT_EQ(Read(u"e.txt"), "old\noops\n");
  EXPECT_EQ(Run(u"stdout again", options), 0);
  EXPECT_EQ(Read(u"o.txt"), out + "again\n");
}

TEST_F(ProcessTest, ArgumentsReachTheChildAsSplit) {
  // What every runtime splits alike (quotes inside quotes are left to SplitCommandLine's own test:
  // the C runtimes of Windows differ there).
  const WString args = uR"(args plain "two words" "" x\y "q\"uote" a\\"b c" end\\ "")";
  ASSERT_EQ(Run(args), 0);
  EXPECT_EQ(Read(u"out.txt"), "[plain]\n[two words]\n[]\n[x\\y]\n[q\"uote]\n[a\\b c]\n[end\\\\]\n[]\n");
#ifndef _WIN32
  WString error;
  RemoveTree(File(u"out.txt"), error);
  ASSERT_EQ(Run(uR"(args "in""side" """")"), 0);
  EXPECT_EQ(Read(u"out.txt"), "[in\"side]\n[\"]\n");
#endif
}

TEST_F(ProcessTest, ProgramFoundThroughPathOrGivenApartFromTheCommandLine) {
  // A bare name is looked up through PATH.
  WString dir = m_child.substr(0, m_child.find_last_of(u"/\\"));
  WString name = m_child.substr(dir.size() + 1);
  WString savedPath;
  bool hadPath = GetEnv(u"PATH", savedPath);
#ifdef _WIN32
  const char16_t* separator = u";";
#else
  const char16_t* separator = u":";
#endif
  ASSERT_TRUE(SetEnv(u"PATH", dir + separator + savedPath));
  ProcessOptions options;
  options.commandLine = name + u" exit 5";
  ChildProcess found;
  bool started = found.Start(options);
  if (hadPath) {
    SetEnv(u"PATH", savedPath);
  } else {
    UnsetEnv(u"PATH");
  }
  ASSERT_TRUE(started) << found.StartError();
  uint32_t code = 0;
  ASSERT_TRUE(found.WaitRealMicros(kInfiniteMicros));
  ASSERT_TRUE(found.ExitCode(code));
  EXPECT_EQ(code, 5u);

  // The application names the program; the command line's first word is only its argv[0].
  options.application = m_child;
  options.commandLine = u"no-such-program args x";
  options.stdoutFile = File(u"app.txt");
  ChildProcess given;
  ASSERT_TRUE(given.Start(options)) << given.StartError();
  ASSERT_TRUE(given.WaitRealMicros(kInfiniteMicros));
  ASSERT_TRUE(given.ExitCode(code));
  EXPECT_EQ(code, 0u);
  EXPECT_EQ(Read(u"app.txt"), "[x]\n");
}

TEST_F(ProcessTest, StartFailuresReportTheSystemError) {
  ChildProcess child;
  uint32_t code = 0;
  EXPECT_FALSE(child.ExitCode(code));  // nothing started yet

  ProcessOptions missing;
  missing.commandLine = Quoted(File(u"no-such-program")) + u" x";
  EXPECT_FALSE(child.Start(missing));
  EXPECT_NE(child.StartError(), 0u);
  EXPECT_FALSE(child.ExitCode(code));
  EXPECT_TRUE(child.WaitRealMicros(0));  // nothing to wait for

  ProcessOptions badDir;
  badDir.commandLine = Quoted(m_child) + u" exit 0";
  badDir.currentDirectory = File(u"no-such-dir");
  EXPECT_FALSE(child.Start(badDir));
  EXPECT_NE(child.StartError(), 0u);

  ProcessOptions badOutput;
  badOutput.commandLine = Quoted(m_child) + u" exit 0";
  badOutput.stdoutFile = File(u"no-such-dir") + kPathSeparator + u"out.txt";
  EXPECT_FALSE(child.Start(badOutput));
  EXPECT_NE(child.StartError(), 0u);

  // The object starts the next child after a failure.
  ASSERT_TRUE(child.Start(ProcessOptions{u"", Quoted(m_child) + u" exit 9", u"", u"", u""}));
  ASSERT_TRUE(child.WaitRealMicros(kInfiniteMicros));
  ASSERT_TRUE(child.ExitCode(code));
  EXPECT_EQ(code, 9u);
}

TEST_F(ProcessTest, ClockWaitsEndWithTheChildAndTerminateEndsAHangingOne) {
  // A generous grace period: the wait must come back when the child ends, long before it.
  VirtualClock clock(1700000000u, 600000);
  SetClock(&clock);
  ChildProcess quick;
  ASSERT_TRUE(quick.Start(ProcessOptions{u"", Quoted(m_child) + u" sleep-ms 50 exit 4", u"", u"", u""}));
  EXPECT_TRUE(GetClock().Wait(quick, 600000));
  EXPECT_EQ(clock.ElapsedMs(), 0u);
  uint32_t code = 0;
  ASSERT_TRUE(quick.ExitCode(code));
  EXPECT_EQ(code, 4u);
  SetClock(nullptr);

  // A child that does not end: each wait runs out and moves virtual time.
  VirtualClock shortGrace;
  SetClock(&shortGrace);
  ChildProcess hanging;
  ProcessOptions options{u"", Quoted(m_child) + u" pid hang", u"", File(u"pid.txt"), u""};
  ASSERT_TRUE(hanging.Start(options));
  const std::string pid = FirstLine(u"pid.txt");
  EXPECT_FALSE(GetClock().Wait(hanging, 1000));
  EXPECT_FALSE(GetClock().Wait(hanging, 1000));
  EXPECT_GE(shortGrace.ElapsedMs(), 2000u);
  ASSERT_TRUE(hanging.ExitCode(code));
  EXPECT_EQ(code, kStillActive);
  ASSERT_TRUE(hanging.Terminate(0));
  EXPECT_TRUE(GetClock().Wait(hanging, 1000));
  ASSERT_TRUE(hanging.ExitCode(code));
  EXPECT_EQ(code, 0u);
  EXPECT_FALSE(hanging.Terminate(1));  // already ended: the code stays
  ASSERT_TRUE(hanging.ExitCode(code));
  EXPECT_EQ(code, 0u);
  SetClock(nullptr);
#ifndef _WIN32
  // Gone and reaped: no zombie keeps the id.
  ASSERT_FALSE(pid.empty());
  errno = 0;
  EXPECT_EQ(::kill(static_cast<pid_t>(std::stol(pid)), 0), -1);
  EXPECT_EQ(errno, ESRCH);
#endif
}

#ifndef _WIN32
TEST_F(ProcessTest, ChildEndedBySignalReadsAs128PlusTheSignal) {
  ChildProcess child;
  ASSERT_TRUE(child.Start(ProcessOptions{u"", Quoted(m_child) + u" pid hang", u"", File(u"pid.txt"), u""}));
  const std::string pid = FirstLine(u"pid.txt");
  ASSERT_FALSE(pid.empty());
  ASSERT_EQ(::kill(static_cast<pid_t>(std::stol(pid)), SIGTERM), 0);
  ASSERT_TRUE(child.WaitRealMicros(kInfiniteMicros));
  uint32_t code = 0;
  ASSERT_TRUE(child.ExitCode(code));
  EXPECT_EQ(code, 128u + SIGTERM);
}

TEST_F(ProcessTest, NoDescriptorOfTheParentReachesTheChild) {
  // Opened the careless way, as a library of the host might.
  const int leaky = ::open(WToUtf8(File(u"leaky.txt")).c_str(), O_WRONLY | O_CREAT, 0666);
  ASSERT_GE(leaky, 3);
  ProcessOptions options;
  options.stdoutFile = File(u"fds.txt");
  EXPECT_EQ(Run(u"fds", options), 0);
  ::close(leaky);
  EXPECT_EQ(Read(u"fds.txt"), "fds:\n");
}
#endif
