#include "platform/NamedMutex.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "platform/Thread.h"

namespace platform {

namespace {

// One in-process lock per name, so that two objects of the same name in one process exclude each
// other as the system's named mutexes do. Across processes the holder binds the name as an
// abstract unix socket address: the kernel refuses a second bind while the holder keeps its
// socket, and frees the name when the socket is closed or its process ends, so nothing is left
// behind in the file system and a crashed holder never blocks the others.
struct NameLock {
  std::mutex mutex;
  std::condition_variable released;
  bool held = false;
  std::string address;  // abstract: begins with a zero byte
  int fd = -1;          // the bound socket while held
};

std::mutex g_namesMutex;
std::map<WString, std::shared_ptr<NameLock>>& Names() {
  static std::map<WString, std::shared_ptr<NameLock>> names;
  return names;
}

// The abstract address of a name: a fixed prefix and a 64-bit hash of the name, which keeps any
// name within the address's size.
std::string AbstractAddress(WStringView name) {
  uint64_t hash = 1469598103934665603ull;
  for (char c : WToUtf8(name)) {
    hash ^= static_cast<uint8_t>(c);
    hash *= 1099511628211ull;
  }
  static const char kHex[] = "0123456789abcdef";
  std::string address("\0EM_MENDER.mutex.", 17);
  for (int shift = 60; shift >= 0; shift -= 4) address.push_back(kHex[(hash >> shift) & 0xF]);
  return address;
}

// Binds the address; 1 when bound (the name is ours), 0 when another holder has it, -1 when the
// system offers no such sockets (then only the in-process lock excludes).
int TryBind(NameLock& lock) {
  int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, lock.address.data(), lock.address.size());
  const socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + lock.address.size());
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), length) == 0) {
    lock.fd = fd;
    return 1;
  }
  const int error = errno;
  ::close(fd);
  return error == EADDRINUSE ? 0 : -1;
}

}  // namespace

struct NativeNamedMutex::Impl {
  std::shared_ptr<NameLock> lock;
  std::atomic<uint32_t> owner{0};
  int depth = 0;
};

NativeNamedMutex::NativeNamedMutex() : m_impl(std::make_unique<Impl>()) {}
NativeNamedMutex::~NativeNamedMutex() {
  Close();
}

bool NativeNamedMutex::Create(WStringView name) {
  Close();
  std::lock_guard<std::mutex> guard(g_namesMutex);
  auto& slot = Names()[WString(name)];
  if (!slot) {
    slot = std::make_shared<NameLock>();
    slot->address = AbstractAddress(name);
  }
  m_impl->lock = slot;
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
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(realMs);
  {
    std::unique_lock<std::mutex> guard(lock.mutex);
    if (!lock.released.wait_until(guard, deadline, [&] { return !lock.held; })) return false;
    lock.held = true;
  }
  // The pauses between tries are plain sleeps, not the clock service's: a thread ended by force
  // must not leave here with the in-process lock held; it leaves at its next wait instead.
  while (TryBind(lock) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) {
      ReleaseInProcess();
      return false;
    }
    timespec pause{0, 1000000};
    ::nanosleep(&pause, nullptr);
  }
  m_impl->owner = CurrentThreadId();
  m_impl->depth = 1;
  return true;
}

void NativeNamedMutex::Release() {
  if (!HeldByCurrentThread()) return;
  if (--m_impl->depth > 0) return;
  m_impl->owner = 0;
  if (m_impl->lock->fd >= 0) {
    ::close(m_impl->lock->fd);
    m_impl->lock->fd = -1;
  }
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
