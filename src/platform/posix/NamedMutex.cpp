#include "platform/NamedMutex.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "platform/Clock.h"
#include "platform/FileIo.h"
#include "platform/Thread.h"

namespace platform {

namespace {

// One in-process lock per name, so that two objects of the same name in one process exclude each
// other as the system's named mutexes do.
struct NameLock {
  std::mutex mutex;
  std::condition_variable released;
  bool held = false;
  int fd = -1;
};

std::mutex g_namesMutex;
std::map<WString, std::shared_ptr<NameLock>>& Names() {
  static std::map<WString, std::shared_ptr<NameLock>> names;
  return names;
}

}  // namespace

struct NativeNamedMutex::Impl {
  std::shared_ptr<NameLock> lock;
  WString lockFile;
  std::atomic<uint32_t> owner{0};
  int depth = 0;
};

NativeNamedMutex::NativeNamedMutex() : m_impl(std::make_unique<Impl>()) {}
NativeNamedMutex::~NativeNamedMutex() {
  Close();
}

bool NativeNamedMutex::Create(WStringView name) {
  Close();
  WString file = TempDirectory() + u"/" + WString(name) + u".lock";
  for (size_t i = TempDirectory().size() + 1; i < file.size(); ++i)
    if (file[i] == u'/') file[i] = u'_';
  std::lock_guard<std::mutex> guard(g_namesMutex);
  auto& slot = Names()[file];
  if (!slot) {
    slot = std::make_shared<NameLock>();
    slot->fd = ::open(WToUtf8(file).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (slot->fd >= 0) ::fchmod(slot->fd, 0666);
  }
  m_impl->lock = slot;
  m_impl->lockFile = file;
  return true;
}

bool NativeNamedMutex::Valid() const {
  return m_impl->lock != nullptr;
}

bool NativeNamedMutex::HeldByCurrentThread() const {
  return m_impl->lock && m_impl->owner.load() == CurrentThreadId();
}

bool NativeNamedMutex::Acquire(uint32_t realMs) {
  if (!m_impl->lock) return false;
  if (HeldByCurrentThread()) {
    ++m_impl->depth;
    return true;
  }
  NameLock& lock = *m_impl->lock;
  const auto deadline = std::chrono::system_clock::now() + std::chrono::milliseconds(realMs);
  {
    std::unique_lock<std::mutex> guard(lock.mutex);
    if (!lock.released.wait_until(guard, deadline, [&] { return !lock.held; })) return false;
    lock.held = true;
  }
  if (lock.fd >= 0) {
    while (::flock(lock.fd, LOCK_EX | LOCK_NB) != 0) {
      if (std::chrono::system_clock::now() >= deadline) {
        ReleaseInProcess();
        return false;
      }
      SleepRealMicros(1000);
    }
  }
  m_impl->owner = CurrentThreadId();
  m_impl->depth = 1;
  return true;
}

void NativeNamedMutex::Release() {
  if (!HeldByCurrentThread()) return;
  if (--m_impl->depth > 0) return;
  m_impl->owner = 0;
  if (m_impl->lock->fd >= 0) ::flock(m_impl->lock->fd, LOCK_UN);
  ReleaseInProcess();
}

void NativeNamedMutex::ReleaseInProcess() {
  {
    std::lock_guard<std::mutex> guard(m_impl->lock->mutex);
    m_impl->lock->held = false;
  }
  m_impl->lock->released.notify_one();
}

void NativeNamedMutex::Close() {
  while (HeldByCurrentThread()) Release();
  m_impl->lock.reset();
}

}  // namespace platform
