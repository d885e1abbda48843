// The system's event log. Windows: an event source of the local computer (RegisterEventSourceW,
// ReportEventW). POSIX: syslog with the source name as ident and the facility daemon; when
// NODEWARDEN_SYSLOG_SOCKET names a unix datagram socket at registration, the entries go there
// as RFC 3164 datagrams instead (see docs/design.md, "Event log").
#pragma once

#include <cstdint>

#include "base/WString.h"

namespace platform {

// Event types as the system's event log numbers them.
constexpr uint16_t kEventTypeError = 1;
constexpr uint16_t kEventTypeWarning = 2;
constexpr uint16_t kEventTypeInformation = 4;

// An open event source; null means none.
using EventSourceHandle = void*;

// Opens the source on the local computer; null on failure.
EventSourceHandle OpenEventSource(const WString& source);
// Closes the source; the handle is gone in any case. False on failure, with the system's error
// code in `error`.
bool CloseEventSource(EventSourceHandle handle, uint32_t& error);
// One entry of the given type with one text: category 0, no user, no raw data. Nonzero when the
// system took the entry.
int ReportEventEntry(EventSourceHandle handle, uint16_t type, uint32_t eventId, const WString& text);

}  // namespace platform
