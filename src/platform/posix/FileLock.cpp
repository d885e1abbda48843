#include "platform/FileLock.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

namespace platform {

// Open-file-description locks: held by this open file alone, seen by every other process, and
// not lost when some other descriptor of the same file in this process is closed.
struct ByteLockFile::Impl {
  int fd = -1;
  bool locked = false;
};

namespace {
bool SetLock(int fd, short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 1;
  return ::fcntl(fd, F_OFD_SETLK, &lock) == 0;
}
}  // namespace

ByteLockFile::ByteLockFile() : m_impl(std::make_unique<Impl>()) {}

ByteLockFile::~ByteLockFile() {
  Close();
}

ByteLockFile::OpenResult ByteLockFile::Open(const WString& path) {
  Close();
  m_impl->fd = ::open(WToUtf8(path).c_str(), O_RDWR | O_CLOEXEC);
  if (m_impl->fd >= 0) return OpenResult::kOpened;
  m_lastError = static_cast<uint32_t>(errno);
  return errno == ENOENT ? OpenResult::kMissing : OpenResult::kFailed;
}

ByteLockFile::LockResult ByteLockFile::TryLock() {
  if (m_impl->fd < 0) return LockResult::kFailed;
  if (SetLock(m_impl->fd, F_WRLCK)) {
    m_impl->locked = true;
    return LockResult::kLocked;
  }
  m_lastError = static_cast<uint32_t>(errno);
  return (errno == EACCES || errno == EAGAIN) ? LockResult::kRefused : LockResult::kFailed;
}

bool ByteLockFile::ReadFromStart(void* buffer, size_t count, size_t& got) {
  got = 0;
  while (got < count) {
    ssize_t n = ::pread(m_impl->fd, static_cast<char*>(buffer) + got, count - got, static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      m_lastError = static_cast<uint32_t>(errno);
      return false;
    }
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return true;
}

bool ByteLockFile::WriteAtStart(const void* data, size_t count) {
  size_t done = 0;
  while (done < count) {
    ssize_t n = ::pwrite(m_impl->fd, static_cast<const char*>(data) + done, count - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      m_lastError = static_cast<uint32_t>(errno);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

void ByteLockFile::Unlock() {
  if (m_impl->fd >= 0 && m_impl->locked) SetLock(m_impl->fd, F_UNLCK);
  m_impl->locked = false;
}

void ByteLockFile::Close() {
  Unlock();
  if (m_impl->fd >= 0) ::close(m_impl->fd);
  m_impl->fd = -1;
}

}  // namespace platform
