// One operating-system thread: start (possibly suspended), bounded wait, forced end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/Clock.h"

// Thread entries catch everything, except the unwinding by which a killed POSIX thread ends: it
// must pass on. Use as: try { ... } EM_CATCH_THREAD_CANCEL catch (...) { ... }
#if !defined(_WIN32)
#include <cxxabi.h>
#define EM_CATCH_THREAD_CANCEL \
  catch (abi::__forced_unwind&) { throw; }
#else
#define EM_CATCH_THREAD_CANCEL
#endif

namespace platform {

using ThreadEntry = unsigned (*)(void* argument);

class NativeThread : public Waitable {
 public:
  NativeThread();
  ~NativeThread();  // closes the handle; a running thread goes on
  NativeThread(const NativeThread&) = delete;
  NativeThread& operator=(const NativeThread&) = delete;

  // Priority: -2..2 as the system's relative priorities (2 = highest below time-critical).
  bool Start(ThreadEntry entry, void* argument, int priority, bool suspended, size_t stackSize);
  bool Resume();
  bool HasHandle() const;
  // True while the thread runs (the exit-code query says "still active"); false when there is no
  // thread or it has ended. `queryFailed` is set when the state could not be asked.
  bool IsActive(bool* queryFailed = nullptr);
  bool WaitRealMicros(uint64_t micros) override;
  // Ends the thread by force. On POSIX a thread is cancelled at its next wait or sleep.
  bool Terminate(uint32_t exitCode);
  // Releases the handle; a thread still running goes on on its own.
  void Close();
  uint32_t Id() const;
  uint32_t LastError() const { return m_lastError; }

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
  uint32_t m_lastError = 0;
};

uint32_t CurrentThreadId();
void YieldThread();
// The system's last error of the calling thread (errno on POSIX, GetLastError on Windows).
uint32_t GetLastErrorCode();
void SetLastErrorCode(uint32_t code);

}  // namespace platform
