// One operating-system thread: start (possibly suspended), bounded wait, forced end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/Clock.h"

// Thread entries catch everything, except the unwinding by which a killed thread ends: it must
// pass on. Use as: try { ... } EM_CATCH_THREAD_CANCEL catch (...) { ... }
#define EM_CATCH_THREAD_CANCEL      \
  catch (platform::ThreadKilled&) { \
    throw;                          \
  }

namespace platform {

// Thrown inside a thread that was ended by force, at its next wait or sleep (POSIX has no safe
// way to stop a thread from outside, so a killed thread ends at its next wait of the clock
// service); it unwinds the thread's stack to its entry.
struct ThreadKilled {};
// Throws ThreadKilled when the calling thread has been ended by force.
void ThrowIfKilled();

using ThreadEntry = unsigned (*)(void* argument);

class NativeThread final : public Waitable {
 public:
  NativeThread();
  ~NativeThread();  // joins the thread
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
  // Ends the thread by force. On POSIX the thread ends at its next wait or sleep.
  bool Terminate(uint32_t exitCode);
  // Waits, in real time and without limit, until the thread has ended, then releases the handle.
  // Nothing that the thread uses may be freed before this returns.
  void Join();
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
