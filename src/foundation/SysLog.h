// The client of the system's event log: one static object per module. The source is registered
// at start with the host type's source name and removed when the object goes at unload; every
// entry reads "<module>: <text>".
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>

#include "base/WString.h"
#include "foundation/CCriticalSection.h"

class SysLog {
 public:
  static SysLog& Instance();

  // Nonzero when a source handle exists afterwards.
  int RegisterSource(const char16_t* source, const char16_t* module, uint32_t msgIdPlainText);
  // Nonzero when no handle remains.
  int DeregisterSource();
  int ReportInformation(const char16_t* format, ...);
  int ReportWarning(const char16_t* format, ...);
  int ReportError(const char16_t* format, ...);

  bool IsRegistered() const { return m_source != nullptr; }
  const WString& SourceName() const { return m_sourceName; }
  uint32_t MessageId() const { return m_messageId; }

 private:
  SysLog() = default;
  ~SysLog();
  int Report(uint16_t type, const char16_t* format, va_list args);

  CCriticalSection m_lock;
  WString m_module;
  std::atomic<void*> m_source{nullptr};  // the system's event source; null until registered
  WString m_sourceName;
  uint32_t m_messageId = 0;
};
