#include "foundation/CEvent.h"

#include "platform/Clock.h"

CEvent::CEvent() : m_handle(std::make_unique<platform::NativeEvent>()) {
  m_lastError = m_handle->CreationError();
  if (!m_handle->Valid()) m_handle.reset();
}

bool CEvent::Set() {
  return m_handle && m_handle->Set();
}
bool CEvent::Reset() {
  return m_handle && m_handle->Reset();
}
bool CEvent::IsSet() {
  return m_handle && m_handle->IsSet();
}
bool CEvent::Wait(uint32_t ms) {
  return m_handle && platform::WaitFor(*m_handle, ms);
}
