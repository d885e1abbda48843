// A mutex shared between processes by name. On POSIX it is an in-process lock plus an abstract unix
// socket address bound while held, so that threads and processes exclude each other alike and no
// file is left behind.
#pragma once

#include <cstdint>
#include <memory>

#include "base/WString.h"

namespace platform {

class NativeNamedMutex {
 public:
  NativeNamedMutex();
  ~NativeNamedMutex();
  NativeNamedMutex(const NativeNamedMutex&) = delete;
  NativeNamedMutex& operator=(const NativeNamedMutex&) = delete;

  bool Create(WStringView name);
  bool Valid() const;
  // Waits up to `realMs` real milliseconds; true when the calling thread now holds the mutex.
  bool Acquire(uint32_t realMs);
  void Release();
  bool HeldByCurrentThread() const;
  void Close();

 private:
  void ReleaseInProcess();
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace platform
