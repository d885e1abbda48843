#include "platform/EventLog.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/Environment.h"

namespace platform {

namespace {

// Names a unix datagram socket that takes the entries in place of the system's syslog.
constexpr char16_t kSocketVariable[] = u"NODEWARDEN_SYSLOG_SOCKET";

struct EventSource {
  std::string ident;  // openlog keeps the pointer, so the text lives as long as the source
  int fd = -1;        // the socket of our own, or -1 when syslog(3) carries the entries
  sockaddr_un address{};
  socklen_t addressLength = 0;
};

int Level(uint16_t type) {
  switch (type) {
    case kEventTypeError:
      return LOG_ERR;
    case kEventTypeWarning:
      return LOG_WARNING;
    default:
      return LOG_INFO;
  }
}

// "<PRI>Mmm dd hh:mm:ss ident[pid]: ", as syslog(3) writes it to the local socket. The month is
// spelt out here: strftime's %b would follow whatever locale the host has set.
std::string Rfc3164Header(int priority, const std::string& ident) {
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char header[64];
  std::snprintf(header, sizeof header, "<%d>%s %2d %02d:%02d:%02d ", priority, kMonths[local.tm_mon % 12],
                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  return header + ident + "[" + std::to_string(getpid()) + "]: ";
}

}  // namespace

EventSourceHandle OpenEventSource(const WString& source) {
  auto* s = new EventSource;
  s->ident = WToUtf8(WStringView(source.c_str()));
  WString socketPath;
  if (GetEnv(kSocketVariable, socketPath) && !socketPath.empty()) {
    const std::string path = WToUtf8(socketPath);
    if (path.size() >= sizeof s->address.sun_path) {
      delete s;
      return nullptr;
    }
    s->fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s->fd < 0) {
      delete s;
      return nullptr;
    }
    s->address.sun_family = AF_UNIX;
    std::memcpy(s->address.sun_path, path.c_str(), path.size() + 1);
    s->addressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  } else {
    openlog(s->ident.c_str(), LOG_PID, LOG_DAEMON);
  }
  return s;
}

bool CloseEventSource(EventSourceHandle handle, uint32_t& error) {
  error = 0;
  auto* s = static_cast<EventSource*>(handle);
  if (!s) return true;
  bool ok = true;
  if (s->fd >= 0) {
    if (::close(s->fd) != 0) {
      ok = false;
      error = static_cast<uint32_t>(errno);
    }
  } else {
    closelog();
  }
  delete s;
  return ok;
}

// syslog has no message identifiers; the entry's text stands alone.
int ReportEventEntry(EventSourceHandle handle, uint16_t type, uint32_t /*eventId*/, const WString& text) {
  auto* s = static_cast<EventSource*>(handle);
  if (!s) return 0;
  // The entry ends at the first terminator, as the one string of a Windows event does.
  const std::string utf8 = WToUtf8(WStringView(text.c_str()));
  if (s->fd < 0) {
    syslog(LOG_DAEMON | Level(type), "%s", utf8.c_str());
    return 1;
  }
  const std::string datagram = Rfc3164Header(LOG_DAEMON | Level(type), s->ident) + utf8;
  // The module never waits for a slow receiver: an entry it has no room for is lost.
  const ssize_t sent = ::sendto(s->fd, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&s->address), s->addressLength);
  return sent == static_cast<ssize_t>(datagram.size()) ? 1 : 0;
}

}  // namespace platform
