#include "platform/CriticalSection.h"

#include "platform/win32/Win32Util.h"

namespace platform {

struct NativeCriticalSection::Impl {
  CRITICAL_SECTION cs;
};

NativeCriticalSection::NativeCriticalSection() : m_impl(std::make_unique<Impl>()) {
  InitializeCriticalSection(&m_impl->cs);
}
NativeCriticalSection::~NativeCriticalSection() {
  DeleteCriticalSection(&m_impl->cs);
}
void NativeCriticalSection::Enter() {
  EnterCriticalSection(&m_impl->cs);
}
bool NativeCriticalSection::TryEnter() {
  return TryEnterCriticalSection(&m_impl->cs) != 0;
}
void NativeCriticalSection::Leave() {
  LeaveCriticalSection(&m_impl->cs);
}

}  // namespace platform
