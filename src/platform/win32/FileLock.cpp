#include "platform/FileLock.h"

#include "platform/win32/Win32Util.h"

namespace platform {

struct ByteLockFile::Impl {
  HANDLE file = INVALID_HANDLE_VALUE;
  bool locked = false;
};

ByteLockFile::ByteLockFile() : m_impl(std::make_unique<Impl>()) {}

ByteLockFile::~ByteLockFile() {
  Close();
}

ByteLockFile::OpenResult ByteLockFile::Open(const WString& path) {
  Close();
  m_impl->file = CreateFileW(W32(Backslashes(path)), GENERIC_READ | GENERIC_WRITE,
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                             FILE_ATTRIBUTE_NORMAL, nullptr);
  if (m_impl->file != INVALID_HANDLE_VALUE) return OpenResult::kOpened;
  m_lastError = GetLastError();
  return (m_lastError == ERROR_FILE_NOT_FOUND || m_lastError == ERROR_PATH_NOT_FOUND) ? OpenResult::kMissing
                                                                                      : OpenResult::kFailed;
}

ByteLockFile::LockResult ByteLockFile::TryLock() {
  if (m_impl->file == INVALID_HANDLE_VALUE) return LockResult::kFailed;
  OVERLAPPED at{};
  if (LockFileEx(m_impl->file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &at)) {
    m_impl->locked = true;
    return LockResult::kLocked;
  }
  m_lastError = GetLastError();
  return (m_lastError == ERROR_LOCK_VIOLATION || m_lastError == ERROR_ACCESS_DENIED) ? LockResult::kRefused
                                                                                     : LockResult::kFailed;
}

bool ByteLockFile::ReadFromStart(void* buffer, size_t count, size_t& got) {
  got = 0;
  OVERLAPPED at{};
  DWORD n = 0;
  if (!ReadFile(m_impl->file, buffer, static_cast<DWORD>(count), &n, &at)) {
    m_lastError = GetLastError();
    if (m_lastError == ERROR_HANDLE_EOF) return true;
    return false;
  }
  got = n;
  return true;
}

bool ByteLockFile::WriteAtStart(const void* data, size_t count) {
  OVERLAPPED at{};
  DWORD n = 0;
  if (!WriteFile(m_impl->file, data, static_cast<DWORD>(count), &n, &at) || n != count) {
    m_lastError = GetLastError();
    return false;
  }
  return true;
}

void ByteLockFile::Unlock() {
  if (m_impl->file != INVALID_HANDLE_VALUE && m_impl->locked) UnlockFile(m_impl->file, 0, 0, 1, 0);
  m_impl->locked = false;
}

void ByteLockFile::Close() {
  Unlock();
  if (m_impl->file != INVALID_HANDLE_VALUE) CloseHandle(m_impl->file);
  m_impl->file = INVALID_HANDLE_VALUE;
}

}  // namespace platform
