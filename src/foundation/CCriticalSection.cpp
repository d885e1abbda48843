#include "foundation/CCriticalSection.h"

#include "platform/Thread.h"

CCriticalSection::~CCriticalSection() {
  while (IsLockedByCurrentThread()) Leave();
}

void CCriticalSection::Enter() {
  m_section.Enter();
  m_owner = platform::CurrentThreadId();
  ++m_depth;
}

void CCriticalSection::Leave() {
  if (!IsLockedByCurrentThread()) return;
  if (--m_depth == 0) m_owner = 0;
  m_section.Leave();
}

bool CCriticalSection::IsLockedByCurrentThread() const {
  return m_owner.load() == platform::CurrentThreadId();
}
