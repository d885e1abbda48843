// A recursive lock for short steps, owned by one thread at a time.
#pragma once

#include <memory>

namespace platform {

class NativeCriticalSection {
 public:
  NativeCriticalSection();
  ~NativeCriticalSection();
  NativeCriticalSection(const NativeCriticalSection&) = delete;
  NativeCriticalSection& operator=(const NativeCriticalSection&) = delete;
  void Enter();
  bool TryEnter();
  void Leave();

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace platform
