#include "platform/NetworkShare.h"

#include <dirent.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "platform/posix/MountTable.h"

namespace platform {

namespace {

// A POSIX error without a Windows counterpart travels in the range that Windows leaves to
// applications (bit 29), so that its own text can be given.
constexpr uint32_t kErrnoFlag = 0x20000000u;

uint32_t FromErrno(int e) {
  switch (e) {
    case ENOENT:
    case ENOTDIR:
      return kErrorBadNetPath;
    case EACCES:
    case EPERM:
      return kErrorAccessDenied;
    case ENAMETOOLONG:
    case ELOOP:
      return kErrorInvalidName;
    default:
      return kErrnoFlag | static_cast<uint32_t>(e);
  }
}

char ToLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool SameUser(std::string a, std::string b) {
  // "DOMAIN\user" names the same user as the mount's "username=user".
  const size_t cut = a.find_last_of('\\');
  if (cut != std::string::npos) a = a.substr(cut + 1);
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (ToLower(a[i]) != ToLower(b[i])) return false;
  return true;
}

// The user a mount was made for, when its options name one.
bool MountUser(const std::string& options, std::string& user) {
  size_t start = 0;
  while (start <= options.size()) {
    size_t end = options.find(',', start);
    if (end == std::string::npos) end = options.size();
    const std::string option = options.substr(start, end - start);
    for (const char* key : {"username=", "user="}) {
      const std::string k = key;
      if (option.compare(0, k.size(), k) == 0) {
        user = option.substr(k.size());
        return true;
      }
    }
    start = end + 1;
  }
  return false;
}

}  // namespace

uint32_t ConnectShare(const WString& share, const WString& user, const WString& password) {
  (void)password;  // the mount carries its own credentials
  char* resolved = ::realpath(WToUtf8(share).c_str(), nullptr);
  if (!resolved) return FromErrno(errno);
  const std::string path = resolved;
  std::free(resolved);

  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return FromErrno(errno);
  if (!S_ISDIR(st.st_mode)) return kErrorDirectory;

  std::vector<mounts::MountEntry> entries;
  errno = 0;
  if (!mounts::ReadMountTable(entries)) return kErrnoFlag | static_cast<uint32_t>(errno ? errno : ENOENT);
  // The mount that holds the path: the longest mount point above it, the later one of equal ones.
  const mounts::MountEntry* holder = nullptr;
  for (const auto& e : entries) {
    const std::string& m = e.mountPoint;
    const bool above =
        m == "/" || path == m || (path.size() > m.size() && path.compare(0, m.size(), m) == 0 && path[m.size()] == '/');
    if (above && (!holder || m.size() >= holder->mountPoint.size())) holder = &e;
  }
  if (!holder || holder->mountPoint == "/") return kErrorNotConnected;

  std::string mountUser;
  if (!user.empty() && MountUser(holder->superOptions, mountUser) && !SameUser(WToUtf8(user), mountUser))
    return kErrorSessionCredentialConflict;

  DIR* dir = ::opendir(path.c_str());
  if (!dir) return FromErrno(errno);
  errno = 0;
  ::readdir(dir);
  const int readError = errno;
  ::closedir(dir);
  if (readError) return FromErrno(readError);
  return 0;
}

WString SystemErrorText(uint32_t error) {
  switch (error) {
    case 0:
      return u"The operation completed successfully.";
    case kErrorAccessDenied:
      return u"Permission denied: the share path cannot be read.";
    case kErrorBadNetPath:
      return u"The share path does not exist.";
    case kErrorAlreadyAssigned:
      return u"The share is already connected.";
    case kErrorInvalidName:
      return u"The share path is not a valid path (too long, or a loop of links).";
    case kErrorDirectory:
      return u"The share path is not a directory.";
    case kErrorSessionCredentialConflict:
      return u"The share is mounted for another user.";
    case kErrorNotConnected:
      return u"The share is not mounted: the path lies on the root file system.";
    default:
      break;
  }
  if (error & kErrnoFlag) {
    char buffer[256];
    const char* text = ::strerror_r(static_cast<int>(error & ~kErrnoFlag), buffer, sizeof buffer);
    return WFromUtf8(text);
  }
  return WFromUtf8("Unknown error " + std::to_string(error) + ".");
}

}  // namespace platform
