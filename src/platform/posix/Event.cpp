#include "platform/Event.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/Thread.h"

namespace platform {

struct NativeEvent::Impl {
  std::mutex mutex;
  std::condition_variable cond;
  bool signalled = false;
};

NativeEvent::NativeEvent() : m_impl(std::make_unique<Impl>()) {}
NativeEvent::~NativeEvent() = default;

bool NativeEvent::Valid() const {
  return m_impl != nullptr;
}

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
  // Waits in slices, so that a thread ended by force leaves its wait within one slice.
  constexpr uint64_t kSlice = 50000;
  const auto deadline = micros == kInfiniteMicros
                            ? std::chrono::steady_clock::time_point::max()
                            : std::chrono::steady_clock::now() + std::chrono::microseconds(micros);
  std::unique_lock<std::mutex> lock(m_impl->mutex);
  for (;;) {
    if (m_impl->signalled) return true;
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return false;
    auto slice = std::chrono::microseconds(kSlice);
    if (deadline - now < slice) slice = std::chrono::duration_cast<std::chrono::microseconds>(deadline - now);
    // A slice on the system clock: its wait is the plain timed wait of the thread library.
    m_impl->cond.wait_until(lock, std::chrono::system_clock::now() + slice);
    if (!m_impl->signalled) {
      lock.unlock();
      ThrowIfKilled();
      lock.lock();
    }
  }
}

}  // namespace platform
