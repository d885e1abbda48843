#include "platform/Event.h"

#include "platform/win32/Win32Util.h"

namespace platform {

struct NativeEvent::Impl {
  HANDLE handle = nullptr;
};

NativeEvent::NativeEvent() : m_impl(std::make_unique<Impl>()) {
  m_impl->handle = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  m_creationError = GetLastError();
}

NativeEvent::~NativeEvent() {
  if (m_impl->handle) CloseHandle(m_impl->handle);
}

bool NativeEvent::Valid() const {
  return m_impl->handle != nullptr;
}
bool NativeEvent::Set() {
  return m_impl->handle && SetEvent(m_impl->handle);
}
bool NativeEvent::Reset() {
  return m_impl->handle && ResetEvent(m_impl->handle);
}
bool NativeEvent::IsSet() {
  return m_impl->handle && WaitForSingleObject(m_impl->handle, 0) == WAIT_OBJECT_0;
}

bool NativeEvent::WaitRealMicros(uint64_t micros) {
  if (!m_impl->handle) return false;
  DWORD ms = micros == kInfiniteMicros        ? INFINITE
             : micros / 1000 >= 0xFFFFFFFEull ? 0xFFFFFFFEu
                                              : static_cast<DWORD>((micros + 999) / 1000);
  return WaitForSingleObject(m_impl->handle, ms) == WAIT_OBJECT_0;
}

}  // namespace platform
