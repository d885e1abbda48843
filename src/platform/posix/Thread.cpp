#include "platform/Thread.h"

#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "platform/Event.h"

namespace platform {

// Shared between the handle and the running thread, so that a closed handle leaves the thread
// its state.
struct ThreadState {
  ThreadEntry entry = nullptr;
  void* argument = nullptr;
  std::mutex gateMutex;
  std::condition_variable gate;
  bool released = false;
  NativeEvent done;
  std::atomic<uint32_t> tid{0};
  std::atomic<bool> killed{false};
};

namespace {
thread_local ThreadState* t_self = nullptr;
}

void ThrowIfKilled() {
  if (t_self && t_self->killed.load(std::memory_order_relaxed)) throw ThreadKilled{};
}

struct NativeThread::Impl {
  std::shared_ptr<ThreadState> state;
  pthread_t thread{};
  bool joinable = false;
};

namespace {

void* Trampoline(void* p) {
  auto* holder = static_cast<std::shared_ptr<ThreadState>*>(p);
  std::shared_ptr<ThreadState> state = *holder;
  delete holder;
  state->tid = static_cast<uint32_t>(::syscall(SYS_gettid));
  {
    std::unique_lock<std::mutex> lock(state->gateMutex);
    state->gate.wait(lock, [&] { return state->released; });
  }
  t_self = state.get();
  try {
    if (!state->killed) state->entry(state->argument);
  } catch (ThreadKilled&) {
    // ended by force: the stack has been unwound up to here
  }
  t_self = nullptr;
  state->done.Set();
  return nullptr;
}

}  // namespace

NativeThread::NativeThread() : m_impl(std::make_unique<Impl>()) {}

NativeThread::~NativeThread() {
  Join();
}

bool NativeThread::Start(ThreadEntry entry, void* argument, int /*priority*/, bool suspended, size_t stackSize) {
  Join();
  auto state = std::make_shared<ThreadState>();
  state->entry = entry;
  state->argument = argument;
  state->released = !suspended;
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  if (stackSize) pthread_attr_setstacksize(&attr, stackSize < 65536 ? 65536 : stackSize);
  auto* holder = new std::shared_ptr<ThreadState>(state);
  int rc = pthread_create(&m_impl->thread, &attr, Trampoline, holder);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    delete holder;
    m_lastError = static_cast<uint32_t>(rc);
    return false;
  }
  // Relative priorities need privileges on POSIX; every thread runs at the process's priority.
  m_impl->state = state;
  m_impl->joinable = true;
  return true;
}

bool NativeThread::Resume() {
  if (!m_impl->state) return false;
  {
    std::lock_guard<std::mutex> lock(m_impl->state->gateMutex);
    m_impl->state->released = true;
  }
  m_impl->state->gate.notify_all();
  return true;
}

bool NativeThread::HasHandle() const {
  return m_impl->joinable;
}

bool NativeThread::IsActive(bool* queryFailed) {
  if (queryFailed) *queryFailed = false;
  if (!m_impl->joinable) {
    if (queryFailed) *queryFailed = true;
    return false;
  }
  return !m_impl->state->done.IsSet();
}

bool NativeThread::WaitRealMicros(uint64_t micros) {
  if (!m_impl->joinable) return true;
  return m_impl->state->done.WaitRealMicros(micros);
}

bool NativeThread::Terminate(uint32_t /*exitCode*/) {
  if (!m_impl->joinable) return true;
  m_impl->state->killed = true;
  Resume();  // a suspended thread must run to end
  // The thread leaves at its next wait or sleep, which run in slices of 50 ms; a thread that does
  // not end within a second is busy elsewhere and could not be killed.
  if (m_impl->state->done.WaitRealMicros(1000000)) return true;
  m_lastError = ETIMEDOUT;
  return false;
}

void NativeThread::Join() {
  if (!m_impl->joinable) return;
  pthread_join(m_impl->thread, nullptr);
  m_impl->joinable = false;
}

uint32_t NativeThread::Id() const {
  return m_impl->state ? m_impl->state->tid.load() : 0;
}

uint32_t CurrentThreadId() {
  return static_cast<uint32_t>(::syscall(SYS_gettid));
}
void YieldThread() {
  sched_yield();
}
uint32_t GetLastErrorCode() {
  return static_cast<uint32_t>(errno);
}
void SetLastErrorCode(uint32_t code) {
  errno = static_cast<int>(code);
}

}  // namespace platform
