// A byte lock on the first byte of an existing file, that other processes see, taken without
// waiting: how two downloaders on one machine tell each other that a leaf is being worked on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/WString.h"

namespace platform {

class ByteLockFile final {
 public:
  enum class OpenResult { kOpened, kMissing, kFailed };
  enum class LockResult { kLocked, kRefused, kFailed };

  ByteLockFile();
  ~ByteLockFile();  // releases a lock it holds and closes the file
  ByteLockFile(const ByteLockFile&) = delete;
  ByteLockFile& operator=(const ByteLockFile&) = delete;

  // Opens an existing file for reading and writing, sharing everything, never creating it.
  OpenResult Open(const WString& path);
  // Locks the first byte exclusively without waiting. kRefused: another holder has it.
  LockResult TryLock();
  // Reads from the file's start.
  bool ReadFromStart(void* buffer, size_t count, size_t& got);
  // Writes at the file's start (for the tests' other downloader).
  bool WriteAtStart(const void* data, size_t count);
  void Unlock();
  void Close();
  // The system's error of the last failed step (errno on POSIX, GetLastError on Windows).
  uint32_t LastError() const { return m_lastError; }

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
  uint32_t m_lastError = 0;
};

}  // namespace platform
