#include "platform/FileTree.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace platform {

namespace {

std::string Why(int error) {
  char buf[256];
  return ::strerror_r(error, buf, sizeof buf);  // the GNU variant: returns the text
}

void Problem(WString& error, const std::string& what, const std::string& path, const std::string& why) {
  if (!error.empty()) error += u'\n';
  error += WFromUtf8(what + " '" + path + "': " + why);
}
void Problem(WString& error, const std::string& what, const std::string& path, int errnum) {
  Problem(error, what, path, Why(errnum));
}

// A path without trailing slashes: "link/" would name the link's target, not the link.
std::string Plain(const WString& path) {
  std::string p = WToUtf8(path);
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

bool ListNames(const std::string& dir, std::vector<std::string>& names) {
  DIR* d = ::opendir(dir.c_str());
  if (!d) return false;
  while (dirent* e = ::readdir(d)) {
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.emplace_back(e->d_name);
  }
  ::closedir(d);
  return true;
}

// Creates the directory and every missing level above it.
bool MakeDirectories(const std::string& path, WString& error) {
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
  for (size_t pos = path.find('/', 1);; pos = path.find('/', pos + 1)) {
    std::string level = path.substr(0, pos);
    if (::mkdir(level.c_str(), 0777) != 0 && errno != EEXIST) {
      Problem(error, "cannot create the directory", level, errno);
      return false;
    }
    if (pos == std::string::npos) break;
  }
  if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    Problem(error, "cannot create the directory", path, ENOTDIR);
    return false;
  }
  return true;
}

bool WriteAll(int fd, const char* p, size_t count) {
  while (count) {
    ssize_t n = ::write(fd, p, count);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    count -= static_cast<size_t>(n);
  }
  return true;
}

// The target is written in place; a link standing there is replaced, never written through, and a
// file the copy may not open for writing is replaced too (the directory decides, as on Windows).
void CopyFile(const std::string& from, const std::string& to, const struct stat& st, WString& error) {
  int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (in < 0) {
    Problem(error, "cannot read", from, errno);
    return;
  }
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW;
  const mode_t mode = st.st_mode & 0777;
  int out = ::open(to.c_str(), flags, mode);
  if (out < 0 && (errno == ELOOP || errno == EACCES || errno == EPERM) && ::unlink(to.c_str()) == 0) {
    out = ::open(to.c_str(), flags, mode);
  }
  if (out < 0) {
    Problem(error, "cannot write", to, errno);
    ::close(in);
    return;
  }
  static constexpr size_t kChunk = 1 << 16;
  std::vector<char> buf(kChunk);
  int failure = 0;
  for (;;) {
    ssize_t n = ::read(in, buf.data(), kChunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      Problem(error, "cannot read", from, errno);
      failure = -1;
      break;
    }
    if (n == 0) break;
    if (!WriteAll(out, buf.data(), static_cast<size_t>(n))) {
      Problem(error, "cannot write", to, errno ? errno : EIO);
      failure = -1;
      break;
    }
  }
  // The copy keeps the source's times, as the system's copy does on Windows.
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  if (failure == 0) ::futimens(out, times);
  if (::close(out) != 0 && failure == 0) Problem(error, "cannot write", to, errno);
  ::close(in);
}

void CopyLink(const std::string& from, const std::string& to, WString& error) {
  std::vector<char> target(PATH_MAX + 1);
  ssize_t n = ::readlink(from.c_str(), target.data(), target.size() - 1);
  if (n < 0) {
    Problem(error, "cannot read the link", from, errno);
    return;
  }
  target[static_cast<size_t>(n)] = 0;
  struct stat st {};
  if (::lstat(to.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) ::unlink(to.c_str());
  if (::symlink(target.data(), to.c_str()) != 0) Problem(error, "cannot create the link", to, errno);
}

void CopyDirectory(const std::string& from, const std::string& to, WString& error) {
  std::vector<std::string> names;
  if (!ListNames(from, names)) {
    Problem(error, "cannot read the directory", from, errno);
    return;
  }
  for (const std::string& name : names) {
    const std::string src = from + "/" + name;
    const std::string dst = to + "/" + name;
    struct stat st {};
    if (::lstat(src.c_str(), &st) != 0) {
      Problem(error, "cannot read", src, errno);
    } else if (S_ISDIR(st.st_mode)) {
      struct stat existing {};
      if (::lstat(dst.c_str(), &existing) == 0 && !S_ISDIR(existing.st_mode)) ::unlink(dst.c_str());
      if (::mkdir(dst.c_str(), 0777) != 0 && errno != EEXIST) {
        Problem(error, "cannot create the directory", dst, errno);
      } else {
        CopyDirectory(src, dst, error);
      }
    } else if (S_ISREG(st.st_mode)) {
      CopyFile(src, dst, st, error);
    } else if (S_ISLNK(st.st_mode)) {
      CopyLink(src, dst, error);
    } else {
      Problem(error, "not copied", src, "neither a file, a directory nor a link");
    }
  }
}

// Removes `name` below the directory `parent` (a descriptor, or AT_FDCWD) without following
// links: every step is relative to a descriptor of a directory already opened without following.
void RemoveAt(int parent, const std::string& name, const std::string& shown, WString& error) {
  struct stat st {};
  if (::fstatat(parent, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT) Problem(error, "cannot remove", shown, errno);
    return;
  }
  if (!S_ISDIR(st.st_mode)) {
    if (::unlinkat(parent, name.c_str(), 0) != 0 && errno != ENOENT) Problem(error, "cannot remove", shown, errno);
    return;
  }
  // A directory closed to its owner is opened up first, or nothing below it could go.
  if ((st.st_mode & S_IRWXU) != S_IRWXU) ::fchmodat(parent, name.c_str(), (st.st_mode & 07777) | S_IRWXU, 0);
  int fd = ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    Problem(error, "cannot open the directory", shown, errno);
    return;
  }
  DIR* d = ::fdopendir(fd);
  if (!d) {
    Problem(error, "cannot read the directory", shown, errno);
    ::close(fd);
    return;
  }
  std::vector<std::string> names;
  while (dirent* e = ::readdir(d)) {
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.emplace_back(e->d_name);
  }
  for (const std::string& child : names) RemoveAt(::dirfd(d), child, shown + "/" + child, error);
  ::closedir(d);
  if (::unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
    Problem(error, "cannot remove the directory", shown, errno);
  }
}

}  // namespace

bool CopyTree(const WString& from, const WString& to, WString& error) {
  const std::string source = Plain(from);
  const std::string target = Plain(to);
  struct stat st {};
  if (::stat(source.c_str(), &st) != 0) {
    Problem(error, "cannot copy", source, errno);
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    Problem(error, "cannot copy", source, ENOTDIR);
    return false;
  }
  if (!MakeDirectories(target, error)) return false;
  // A target inside the source (or the source itself) would copy without end or truncate the
  // files it reads.
  char realFrom[PATH_MAX], realTo[PATH_MAX];
  if (::realpath(source.c_str(), realFrom) && ::realpath(target.c_str(), realTo)) {
    std::string f = realFrom, t = realTo;
    if (t == f || (t.size() > f.size() && t.compare(0, f.size(), f) == 0 && (f == "/" || t[f.size()] == '/'))) {
      Problem(error, "cannot copy", source, "the target '" + target + "' lies inside it");
      return false;
    }
  }
  const size_t before = error.size();
  CopyDirectory(source, target, error);
  return error.size() == before;
}

bool RemoveTree(const WString& path, WString& error) {
  const std::string p = Plain(path);
  if (p.empty()) return false;
  RemoveAt(AT_FDCWD, p, p, error);
  struct stat st {};
  return ::lstat(p.c_str(), &st) != 0 && errno == ENOENT;
}

bool FreeBytesForCaller(const WString& path, uint64_t& bytes) {
  std::string p = Plain(path);
  if (p.empty()) p = ".";
  for (;;) {
    struct statvfs vfs {};
    if (::statvfs(p.c_str(), &vfs) == 0) {
      bytes = static_cast<uint64_t>(vfs.f_bavail) * static_cast<uint64_t>(vfs.f_frsize);
      return true;
    }
    if ((errno != ENOENT && errno != ENOTDIR) || p == "/" || p == ".") return false;
    // The nearest existing ancestor: a directory yet to be made lies on the volume of its parent.
    size_t slash = p.find_last_of('/');
    p = slash == std::string::npos ? std::string(".") : slash == 0 ? std::string("/") : p.substr(0, slash);
  }
}

bool GrantFullAccess(const WString& path, const WString& /*accountName*/) {
  return ::chmod(WToUtf8(path).c_str(), 0777) == 0;
}

}  // namespace platform
