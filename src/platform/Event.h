// A manual-reset event: set stays set until reset; every waiter wakes.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/Clock.h"

namespace platform {

class NativeEvent final : public Waitable {
 public:
  NativeEvent();  // unnamed, manual-reset, not signalled
  ~NativeEvent();
  NativeEvent(const NativeEvent&) = delete;
  NativeEvent& operator=(const NativeEvent&) = delete;

  bool Valid() const;
  // The system's last error right after creation (0 on success).
  uint32_t CreationError() const { return m_creationError; }
  bool Set();
  bool Reset();
  bool IsSet();
  bool WaitRealMicros(uint64_t micros) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
  uint32_t m_creationError = 0;
};

}  // namespace platform
