#include "platform/Event.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace platform {

struct NativeEvent::Impl {
  std::mutex mutex;
  std::condition_variable cond;
  bool signalled = false;
};

NativeEvent::NativeEvent() : m_impl(std::make_unique<Impl>()) {}
NativeEvent::~NativeEvent() = default;

bool NativeEvent::Valid() const { return m_impl != nullptr; }

bool NativeEvent::Set() {
  {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->signalled = true;
  }
  m_impl->cond.notify_all();
  return true;
}

bool NativeEvent::Reset() {
  std::lock_guard<std::mutex> lock(m_impl->mutex);
  m_impl->signalled = false;
  return true;
}

bool NativeEvent::IsSet() {
  std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->signalled;
}

bool NativeEvent::WaitRealMicros(uint64_t micros) {
  std::unique_lock<std::mutex> lock(m_impl->mutex);
  if (micros == kInfiniteMicros) {
    m_impl->cond.wait(lock, [this] { return m_impl->signalled; });
    return true;
  }
  return m_impl->cond.wait_for(lock, std::chrono::microseconds(micros), [this] { return m_impl->signalled; });
}

}  // namespace platform
