// A child of known behaviour for the process tests. Its arguments are commands, run in order:
//   exit N        ends with exit code N
//   sleep-ms N    sleeps N milliseconds of real time
//   hang          sleeps until it is killed
//   stdout TEXT   writes TEXT and a line end to standard output
//   stderr TEXT   writes TEXT and a line end to standard error
//   args          writes every argument after it as "[argument]", one per line, and ends the list
//   cwd           writes the current directory
//   pid           writes its process id
//   lock PATH     holds the byte lock of an existing file's first byte until it ends, as another
//                 downloader does (writes "locked" or "not locked")
//   fds           writes "fds:" and the open descriptors above the standard three (POSIX)
// Output goes out unbuffered and without text-mode translation, so files hold exactly what was
// written even when the child is killed. An unknown command ends it with exit code 64.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <string>
#include <thread>

#include "platform/FileLock.h"

#ifdef _WIN32
#include <direct.h>
#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <windows.h>
#else
#include <dirent.h>
#include <unistd.h>
#endif

namespace {

void Put(FILE* f, const std::string& text) {
  fwrite(text.data(), 1, text.size(), f);
  fflush(f);
}

std::string CurrentDirectory() {
#ifdef _WIN32
  wchar_t buf[4096];
  if (!_wgetcwd(buf, 4096)) return std::string();
  char utf8[16384];
  int n = WideCharToMultiByte(CP_UTF8, 0, buf, -1, utf8, sizeof utf8, nullptr, nullptr);
  return n > 0 ? std::string(utf8) : std::string();
#else
  char buf[4096];
  return getcwd(buf, sizeof buf) ? std::string(buf) : std::string();
#endif
}

long ProcessId() {
#ifdef _WIN32
  return static_cast<long>(_getpid());
#else
  return static_cast<long>(getpid());
#endif
}

std::string OpenDescriptors() {
  std::string out = "fds:";
#ifndef _WIN32
  DIR* d = opendir("/proc/self/fd");
  if (!d) return out + " unknown";
  const int own = dirfd(d);
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    int fd = atoi(e->d_name);
    if (fd > 2 && fd != own) out += std::string(" ") + e->d_name;
  }
  closedir(d);
#endif
  return out;
}

}  // namespace

int main(int argc, char** argv) {
#ifdef _WIN32
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
#endif
  for (int i = 1; i < argc; ++i) {
    const char* cmd = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (strcmp(cmd, "exit") == 0 && value) {
      return atoi(argv[++i]);
    } else if (strcmp(cmd, "sleep-ms") == 0 && value) {
      std::this_thread::sleep_for(std::chrono::milliseconds(atol(argv[++i])));
    } else if (strcmp(cmd, "hang") == 0) {
      for (;;) std::this_thread::sleep_for(std::chrono::seconds(60));
    } else if (strcmp(cmd, "stdout") == 0 && value) {
      Put(stdout, std::string(argv[++i]) + "\n");
    } else if (strcmp(cmd, "stderr") == 0 && value) {
      Put(stderr, std::string(argv[++i]) + "\n");
    } else if (strcmp(cmd, "args") == 0) {
      for (++i; i < argc; ++i) Put(stdout, std::string("[") + argv[i] + "]\n");
    } else if (strcmp(cmd, "cwd") == 0) {
      Put(stdout, CurrentDirectory() + "\n");
    } else if (strcmp(cmd, "fds") == 0) {
      Put(stdout, OpenDescriptors() + "\n");
    } else if (strcmp(cmd, "lock") == 0 && value) {
      static platform::ByteLockFile held;
      bool locked = held.Open(WFromUtf8(argv[++i])) == platform::ByteLockFile::OpenResult::kOpened &&
                    held.TryLock() == platform::ByteLockFile::LockResult::kLocked;
      Put(stdout, locked ? "locked\n" : "not locked\n");
    } else if (strcmp(cmd, "pid") == 0) {
      Put(stdout, std::to_string(ProcessId()) + "\n");
    } else {
      Put(stderr, std::string("unknown command: ") + cmd + "\n");
      return 64;
    }
  }
  return 0;
}
