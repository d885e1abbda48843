#include "platform/FileIo.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace platform {

namespace {
std::string N(const WString& p) {
  return WToUtf8(p);
}

bool WriteAll(int fd, const void* data, size_t count) {
  const char* p = static_cast<const char*>(data);
  while (count) {
    ssize_t n = ::write(fd, p, count);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    count -= static_cast<size_t>(n);
  }
  return true;
}
}  // namespace

bool FileExists(const WString& path) {
  struct stat st {};
  return ::stat(N(path).c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool DirectoryExists(const WString& path) {
  struct stat st {};
  return ::stat(N(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool FileLength(const WString& path, uint64_t& length) {
  struct stat st {};
  if (::stat(N(path).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  length = static_cast<uint64_t>(st.st_size);
  return true;
}

bool ReadFilePrefix(const WString& path, void* buffer, size_t count, size_t& got) {
  got = 0;
  int fd = ::open(N(path).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  while (got < count) {
    ssize_t n = ::read(fd, static_cast<char*>(buffer) + got, count - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  ::close(fd);
  return true;
}

bool ReadWholeFile(const WString& path, std::string& bytes) {
  bytes.clear();
  int fd = ::open(N(path).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[65536];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      return false;
    }
    if (n == 0) break;
    bytes.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  return true;
}

bool WriteWholeFile(const WString& path, const void* data, size_t count) {
  int fd = ::open(N(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  bool ok = WriteAll(fd, data, count);
  return (::close(fd) == 0) && ok;
}

bool AppendToFile(const WString& path, const void* data, size_t count) {
  int fd = ::open(N(path).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  bool ok = WriteAll(fd, data, count);
  return (::close(fd) == 0) && ok;
}

bool RemoveFilePath(const WString& path) {
  return ::unlink(N(path).c_str()) == 0;
}

bool RenamePath(const WString& from, const WString& to) {
  return ::rename(N(from).c_str(), N(to).c_str()) == 0;
}

uint32_t CreateDirectoryError(const WString& path) {
  if (::mkdir(N(path).c_str(), 0777) == 0) return 0;
  switch (errno) {
    case EACCES:
    case EPERM:
    case EROFS:
      return 5;
    case EEXIST:
      return 183;
    case ENOENT:
      return 3;
    default:
      return 1000u + static_cast<uint32_t>(errno);
  }
}

bool CreateDirectoryPath(const WString& path) {
  // Something that exists under the name counts only when it is a directory: a plain file there
  // must make the caller take its fall-back.
  return ::mkdir(N(path).c_str(), 0777) == 0 || (errno == EEXIST && DirectoryExists(path));
}

bool RemoveDirectoryPath(const WString& path) {
  return ::rmdir(N(path).c_str()) == 0;
}

bool ListDirectory(const WString& path, std::vector<DirEntry>& entries) {
  entries.clear();
  DIR* d = ::opendir(N(path).c_str());
  if (!d) return false;
  while (dirent* e = ::readdir(d)) {
    std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    struct stat st {};
    bool dir = ::lstat((N(path) + "/" + name).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    entries.push_back(DirEntry{WFromUtf8(name), dir});
  }
  ::closedir(d);
  return true;
}

WString CurrentDirectory() {
  char buf[4096];
  if (!::getcwd(buf, sizeof buf)) return WString();
  return WFromUtf8(buf);
}

WString TempDirectory() {
  const char* t = std::getenv("TMPDIR");
  return WFromUtf8(t && *t ? t : "/tmp");
}

}  // namespace platform
