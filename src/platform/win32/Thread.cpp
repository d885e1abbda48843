#include "platform/Thread.h"

#include <process.h>

#include "platform/win32/Win32Util.h"

namespace platform {

struct NativeThread::Impl {
  HANDLE handle = nullptr;
  unsigned id = 0;
};

NativeThread::NativeThread() : m_impl(std::make_unique<Impl>()) {}
NativeThread::~NativeThread() {
  Join();
}

bool NativeThread::Start(ThreadEntry entry, void* argument, int priority, bool suspended, size_t stackSize) {
  Join();
  uintptr_t h =
      _beginthreadex(nullptr, static_cast<unsigned>(stackSize), reinterpret_cast<_beginthreadex_proc_type>(entry),
                     argument, CREATE_SUSPENDED, &m_impl->id);
  if (!h) {
    m_lastError = GetLastError();
    return false;
  }
  m_impl->handle = reinterpret_cast<HANDLE>(h);
  SetThreadPriority(m_impl->handle, priority);
  if (!suspended && ResumeThread(m_impl->handle) == static_cast<DWORD>(-1)) {
    m_lastError = GetLastError();
    return false;
  }
  return true;
}

bool NativeThread::Resume() {
  return m_impl->handle && ResumeThread(m_impl->handle) != static_cast<DWORD>(-1);
}

bool NativeThread::HasHandle() const {
  return m_impl->handle != nullptr;
}

bool NativeThread::IsActive(bool* queryFailed) {
  if (queryFailed) *queryFailed = false;
  if (!m_impl->handle) {
    if (queryFailed) *queryFailed = true;
    return false;
  }
  DWORD code = 0;
  if (!GetExitCodeThread(m_impl->handle, &code)) {
    m_lastError = GetLastError();
    if (queryFailed) *queryFailed = true;
    return false;
  }
  return code == STILL_ACTIVE;
}

bool NativeThread::WaitRealMicros(uint64_t micros) {
  if (!m_impl->handle) return true;
  DWORD ms = micros == kInfiniteMicros        ? INFINITE
             : micros / 1000 >= 0xFFFFFFFEull ? 0xFFFFFFFEu
                                              : static_cast<DWORD>((micros + 999) / 1000);
  return WaitForSingleObject(m_impl->handle, ms) == WAIT_OBJECT_0;
}

bool NativeThread::Terminate(uint32_t exitCode) {
  if (!m_impl->handle) return true;
  if (!TerminateThread(m_impl->handle, exitCode)) {
    m_lastError = GetLastError();
    return false;
  }
  return true;
}

void NativeThread::Join() {
  if (!m_impl->handle) return;
  // TerminateThread only starts the end of a thread; the wait sees it through.
  WaitForSingleObject(m_impl->handle, INFINITE);
  CloseHandle(m_impl->handle);
  m_impl->handle = nullptr;
}

uint32_t NativeThread::Id() const {
  return m_impl->id;
}

// Windows ends threads by force with the system's own call; nothing is thrown here.
void ThrowIfKilled() {}

uint32_t CurrentThreadId() {
  return GetCurrentThreadId();
}
void YieldThread() {
  Sleep(0);
}
uint32_t GetLastErrorCode() {
  return GetLastError();
}
void SetLastErrorCode(uint32_t code) {
  SetLastError(code);
}

}  // namespace platform
