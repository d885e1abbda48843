#include "platform/Process.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>
#include <string>

#include "platform/Environment.h"
#include "platform/FileIo.h"

extern char** environ;

namespace platform {

// --- child processes -----------------------------------------------------------------------------
// The child is reaped by whoever asks after it first (WaitRealMicros, ExitCode, Terminate); no
// thread watches it, since no thread may outlive the object that started it. A child still running
// when its object goes away is left running and unreaped: it stays a zombie after its end until the
// host process ends. Callers wait for their children or end them before letting go.

namespace {

// Exit code of a child whose status the system did not keep (the host set SIGCHLD to SIG_IGN).
constexpr uint32_t kStatusLost = 255;

int PidfdOpen(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));  // close-on-exec by definition
#else
  (void)pid;
  errno = ENOSYS;
  return -1;
#endif
}

int PidfdKill(int pidfd) {
#ifdef SYS_pidfd_send_signal
  return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, SIGKILL, nullptr, 0));
#else
  (void)pidfd;
  errno = ENOSYS;
  return -1;
#endif
}

std::string Absolute(const std::string& path) {
  if (!path.empty() && path[0] == '/') return path;
  std::string cwd = WToUtf8(CurrentDirectory());
  if (cwd.empty()) return path;
  return cwd + "/" + path;
}

// The program file as the parent sees it: a name with a slash relative to the parent's current
// directory (not the child's, which the child enters before the program is loaded), a bare name
// through PATH. 0 or the errno of the failure.
int FindProgram(const std::string& name, std::string& program) {
  if (name.empty()) return ENOENT;
  if (name.find('/') != std::string::npos) {
    program = Absolute(name);
    return 0;
  }
  WString pathVar;
  std::string path = GetEnv(u"PATH", pathVar) ? WToUtf8(pathVar) : std::string("/usr/local/bin:/usr/bin:/bin");
  int error = ENOENT;
  size_t start = 0;
  for (;;) {
    size_t end = path.find(':', start);
    std::string dir = path.substr(start, end == std::string::npos ? std::string::npos : end - start);
    std::string candidate = Absolute((dir.empty() ? std::string(".") : dir) + "/" + name);
    struct stat st {};
    if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
      if (::access(candidate.c_str(), X_OK) == 0) {
        program = candidate;
        return 0;
      }
      error = EACCES;
    }
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return error;
}

// A descriptor above the standard three, so that placing it on 1 or 2 cannot clobber the other
// (a host started with closed standard descriptors hands out 0..2 first).
int AboveStandard(int fd) {
  if (fd < 0 || fd > 2) return fd;
  int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
  ::close(fd);
  return moved;
}

int OpenForAppend(const WString& path) {
  return AboveStandard(::open(WToUtf8(path).c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
}

class SpawnSetup {
 public:
  SpawnSetup() {
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawnattr_init(&attr);
  }
  ~SpawnSetup() {
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attr);
    if (out >= 0) ::close(out);
    if (err >= 0) ::close(err);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  int out = -1;
  int err = -1;
};

}  // namespace

struct ChildProcess::Impl {
  pid_t pid = -1;
  int pidfd = -1;
  std::mutex mutex;
  bool ended = false;
  bool killed = false;  // Terminate sent SIGKILL
  uint32_t killCode = 0;
  uint32_t exitCode = kStillActive;

  ~Impl() {
    if (pidfd >= 0) ::close(pidfd);
  }

  // Collects the child's status if it has ended. True once it has.
  bool Reap() {
    std::lock_guard<std::mutex> lock(mutex);
    return ReapLocked();
  }
  bool ReapLocked() {
    if (ended) return true;
    int status = 0;
    pid_t r = ::waitpid(pid, &status, WNOHANG);
    if (r == 0 || (r < 0 && errno == EINTR)) return false;
    ended = true;
    if (r < 0) {
      exitCode = killed ? killCode : kStatusLost;
    } else if (WIFEXITED(status)) {
      exitCode = static_cast<uint32_t>(WEXITSTATUS(status));
    } else if (WIFSIGNALED(status)) {
      exitCode = (killed && WTERMSIG(status) == SIGKILL) ? killCode : 128u + static_cast<uint32_t>(WTERMSIG(status));
    } else {
      exitCode = kStatusLost;
    }
    return true;
  }
};

ChildProcess::ChildProcess() = default;

ChildProcess::~ChildProcess() {
  if (m_impl) m_impl->Reap();  // an ended child leaves no zombie; a running one is left alone
}

bool ChildProcess::Start(const ProcessOptions& options) {
  if (m_impl) m_impl->Reap();
  m_impl.reset();
  m_startError = 0;

  std::vector<std::string> args;
  for (const WString& w : SplitCommandLine(options.commandLine)) args.push_back(WToUtf8(w));
  std::string program;
  if (options.application.empty()) {
    int error = args.empty() ? EINVAL : FindProgram(args[0], program);
    if (error != 0) {
      m_startError = static_cast<uint32_t>(error);
      return false;
    }
  } else {
    program = Absolute(WToUtf8(options.application));
    if (args.empty()) args.push_back(WToUtf8(options.application));
  }
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  SpawnSetup setup;
  if (!options.stdoutFile.empty() && (setup.out = OpenForAppend(options.stdoutFile)) < 0) {
    m_startError = static_cast<uint32_t>(errno);
    return false;
  }
  if (!options.stderrFile.empty() && (setup.err = OpenForAppend(options.stderrFile)) < 0) {
    m_startError = static_cast<uint32_t>(errno);
    return false;
  }
  // Standard input reads nothing; an output without a file goes nowhere rather than staying
  // closed (a closed 1 or 2 would become the next file the child opens).
  ::posix_spawn_file_actions_addopen(&setup.actions, 0, "/dev/null", O_RDONLY, 0);
  if (setup.out >= 0) {
    ::posix_spawn_file_actions_adddup2(&setup.actions, setup.out, 1);
  } else {
    ::posix_spawn_file_actions_addopen(&setup.actions, 1, "/dev/null", O_WRONLY, 0);
  }
  if (setup.err >= 0) {
    ::posix_spawn_file_actions_adddup2(&setup.actions, setup.err, 2);
  } else {
    ::posix_spawn_file_actions_addopen(&setup.actions, 2, "/dev/null", O_WRONLY, 0);
  }
  // The child enters its directory itself: the parent's current directory belongs to every thread
  // of the host.
  std::string cwd = WToUtf8(options.currentDirectory);
  if (!cwd.empty()) ::posix_spawn_file_actions_addchdir_np(&setup.actions, cwd.c_str());
  // Our own descriptors are close-on-exec; this also keeps out those a library of the host opened
  // without the flag.
  ::posix_spawn_file_actions_addclosefrom_np(&setup.actions, 3);

  // A clean signal state: the starting thread may block signals, the host may ignore some.
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  sigdelset(&all, SIGKILL);
  sigdelset(&all, SIGSTOP);
  ::posix_spawnattr_setsigmask(&setup.attr, &none);
  ::posix_spawnattr_setsigdefault(&setup.attr, &all);
  ::posix_spawnattr_setflags(&setup.attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  pid_t pid = -1;
  int error = ::posix_spawn(&pid, program.c_str(), &setup.actions, &setup.attr, argv.data(), environ);
  if (error != 0) {
    m_startError = static_cast<uint32_t>(error);
    return false;
  }
  m_impl = std::make_unique<Impl>();
  m_impl->pid = pid;
  m_impl->pidfd = PidfdOpen(pid);  // -1 on kernels before 5.3: waits then poll waitpid
  return true;
}

bool ChildProcess::WaitRealMicros(uint64_t micros) {
  if (!m_impl) return true;
  Impl& p = *m_impl;
  if (p.Reap()) return true;
  const uint64_t start = MonotonicMicros();
  for (;;) {
    const uint64_t elapsed = MonotonicMicros() - start;
    if (micros != kInfiniteMicros && elapsed >= micros) return p.Reap();
    const uint64_t left = micros == kInfiniteMicros ? kInfiniteMicros : micros - elapsed;
    bool polled = false;
    if (p.pidfd >= 0) {
      // The descriptor turns readable when the child ends.
      const uint64_t ms = left >= 3600000000ull ? 3600000ull : (left + 999) / 1000;
      pollfd fd{p.pidfd, POLLIN, 0};
      polled = ::poll(&fd, 1, static_cast<int>(ms)) >= 0 || errno == EINTR;
    }
    if (!polled) SleepRealMicros(left < 2000 ? left : 2000);
    if (p.Reap()) return true;
  }
}

bool ChildProcess::ExitCode(uint32_t& code) {
  if (!m_impl) return false;
  code = m_impl->Reap() ? m_impl->exitCode : kStillActive;
  return true;
}

bool ChildProcess::Terminate(uint32_t exitCode) {
  if (!m_impl) return false;
  Impl& p = *m_impl;
  {
    // Under the lock the child is not yet reaped, so its pid cannot have passed to another
    // process; the pidfd is exact even when the host lets the system reap its children.
    std::lock_guard<std::mutex> lock(p.mutex);
    if (p.ReapLocked()) return false;  // ended on its own: its exit code stays
    int r = p.pidfd >= 0 ? PidfdKill(p.pidfd) : -1;
    if (r != 0 && (p.pidfd < 0 || errno == ENOSYS)) r = ::kill(p.pid, SIGKILL);
    if (r != 0) return false;
    p.killed = true;
    p.killCode = exitCode;
  }
  // SIGKILL ends a process within moments; the bound only guards against one stuck in the kernel,
  // which a later wait then reaps.
  WaitRealMicros(5000000);
  return true;
}

}  // namespace platform
