// A manual-reset event, created unnamed and not signalled. Waits go through the clock service.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/Event.h"

class CEvent {
 public:
  CEvent();
  ~CEvent() = default;
  CEvent(const CEvent&) = delete;
  CEvent& operator=(const CEvent&) = delete;

  bool IsValid() const { return m_handle && m_handle->Valid(); }
  // The system's last error right after creation.
  uint32_t LastError() const { return m_lastError; }
  bool Set();
  bool Reset();
  bool IsSet();
  // True when signalled within `ms` (platform::kInfinite waits without limit).
  bool Wait(uint32_t ms);
  platform::NativeEvent* Handle() { return m_handle.get(); }

 private:
  std::unique_ptr<platform::NativeEvent> m_handle;
  uint32_t m_lastError = 0;
};
