// One operating-system thread with a name, a start, a bounded wait and a last-resort kill.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/WString.h"
#include "platform/Thread.h"

class CThread {
 public:
  CThread() = default;
  // Waits 10 ms, then up to 5000 ms for the thread, and kills it when `m_bTerminateThread` is set.
  // Returns only when the thread has ended: it runs in the object that owns this wrapper.
  ~CThread();
  CThread(const CThread&) = delete;
  CThread& operator=(const CThread&) = delete;

  // Starts the thread suspended, sets its priority and resumes it unless asked not to; then gives
  // up the time slice once. 0 on failure (the error is kept).
  int CreateThreadObject(platform::ThreadEntry entry, void* argument, int priority, bool createSuspended,
                         size_t stackSize);
  // True when there is no thread, its state cannot be asked, it has ended, or it ends within `ms`.
  bool WaitForThread(uint32_t ms);
  // Waits up to `ms` of real time, whatever the clock; true when the thread has ended.
  bool WaitRealMs(uint32_t ms) { return !m_thread.HasHandle() || m_thread.WaitRealMicros(uint64_t{ms} * 1000); }
  // Ends the thread by force and joins it: when this returns the thread no longer runs.
  int KillThread(uint32_t exitCode);
  int SetThreadName(const char16_t* name, const char16_t* suffix);
  // The exit-code query says the thread still runs.
  bool IsActive() { return m_thread.IsActive(); }
  bool HasHandle() const { return m_thread.HasHandle(); }
  // Waits without limit for the thread to end and releases it. A thread is never left running
  // on its own: nothing it uses could be freed safely.
  void Join();
  bool Resume() { return m_thread.Resume(); }

  const char16_t* Name() const { return m_name.empty() ? u"" : m_name.c_str(); }
  uint32_t ThreadId() const { return m_thread.Id(); }
  uint32_t LastError() const { return m_lastError; }

  uint32_t m_bTerminateThread = 0;

 private:
  platform::NativeThread m_thread;
  WString m_name;
  uint32_t m_lastError = 0;
};
