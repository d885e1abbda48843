#include "platform/NamedMutex.h"

#include "platform/win32/Win32Util.h"

namespace platform {

struct NativeNamedMutex::Impl {
  HANDLE handle = nullptr;
  DWORD owner = 0;
  int depth = 0;
};

NativeNamedMutex::NativeNamedMutex() : m_impl(std::make_unique<Impl>()) {}
NativeNamedMutex::~NativeNamedMutex() {
  Close();
}

bool NativeNamedMutex::Create(WStringView name) {
  Close();
  WString n(name);
  m_impl->handle = CreateMutexW(nullptr, FALSE, W32(n));
  return m_impl->handle != nullptr;
}

bool NativeNamedMutex::Valid() const {
  return m_impl->handle != nullptr;
}
bool NativeNamedMutex::HeldByCurrentThread() const {
  return m_impl->handle && m_impl->owner == GetCurrentThreadId();
}

bool NativeNamedMutex::Acquire(uint32_t realMs) {
  if (!m_impl->handle) return false;
  DWORD rc = WaitForSingleObject(m_impl->handle, realMs);
  if (rc != WAIT_OBJECT_0 && rc != WAIT_ABANDONED) return false;
  m_impl->owner = GetCurrentThreadId();
  ++m_impl->depth;
  return true;
}

void NativeNamedMutex::Release() {
  if (!HeldByCurrentThread()) return;
  if (--m_impl->depth == 0) m_impl->owner = 0;
  ReleaseMutex(m_impl->handle);
}

void NativeNamedMutex::ReleaseInProcess() {}

void NativeNamedMutex::Close() {
  while (HeldByCurrentThread()) Release();
  if (m_impl->handle) CloseHandle(m_impl->handle);
  m_impl->handle = nullptr;
}

}  // namespace platform
