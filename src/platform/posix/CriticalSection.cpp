#include "platform/CriticalSection.h"

#include <mutex>

namespace platform {

struct NativeCriticalSection::Impl {
  std::recursive_mutex mutex;
};

NativeCriticalSection::NativeCriticalSection() : m_impl(std::make_unique<Impl>()) {}
NativeCriticalSection::~NativeCriticalSection() = default;
void NativeCriticalSection::Enter() {
  m_impl->mutex.lock();
}
bool NativeCriticalSection::TryEnter() {
  return m_impl->mutex.try_lock();
}
void NativeCriticalSection::Leave() {
  m_impl->mutex.unlock();
}

}  // namespace platform
