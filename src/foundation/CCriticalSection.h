// The critical-section wrapper: a recursive lock for short steps. A section still held by the
// destroying thread is left before it is deleted.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/CriticalSection.h"

class CCriticalSection {
 public:
  CCriticalSection() = default;
  ~CCriticalSection();
  CCriticalSection(const CCriticalSection&) = delete;
  CCriticalSection& operator=(const CCriticalSection&) = delete;

  void Enter();
  void Leave();
  bool IsLockedByCurrentThread() const;

 private:
  platform::NativeCriticalSection m_section;
  std::atomic<uint32_t> m_owner{0};
  int m_depth = 0;
};

// Holds a section for one scope.
class CCriticalSectionLock {
 public:
  explicit CCriticalSectionLock(CCriticalSection& section) : m_section(section) { m_section.Enter(); }
  ~CCriticalSectionLock() { m_section.Leave(); }
  CCriticalSectionLock(const CCriticalSectionLock&) = delete;
  CCriticalSectionLock& operator=(const CCriticalSectionLock&) = delete;

 private:
  CCriticalSection& m_section;
};
