#include "foundation/SysLog.h"

#include "base/WFormat.h"
#include "foundation/CDebug.h"
#include "platform/EventLog.h"

SysLog& SysLog::Instance() {
  static SysLog instance;
  return instance;
}

SysLog::~SysLog() {
  DeregisterSource();
}

int SysLog::RegisterSource(const char16_t* source, const char16_t* module, uint32_t msgIdPlainText) {
  CCriticalSectionLock lock(m_lock);
  if (m_source) {
    TRACE(1,
          u"\nSWITCH (SysLog)     : RegisterSource(): WARNING!! Eventlog source already registered - registration "
          u"ignored!");
    return 1;
  }
  m_messageId = msgIdPlainText | 0x40000000u;
  if (source) {
    if (module) m_module = module;
    m_sourceName = source;
    m_source = platform::OpenEventSource(m_sourceName);
  }
  return m_source != nullptr;
}

int SysLog::DeregisterSource() {
  CCriticalSectionLock lock(m_lock);
  if (void* handle = m_source.exchange(nullptr)) {
    uint32_t error = 0;
    if (!platform::CloseEventSource(handle, error))
      TRACE(1, u"\nSWITCH (SysLog)     : ## ERROR! DeregisterSource() failed (0x%08X)", error);
  }
  return 1;
}

int SysLog::Report(uint16_t type, const char16_t* format, va_list args) {
  // Reports do not take the lock: the source is registered at the module's start and stays.
  void* handle = m_source.load();
  if (!handle) return 0;
  WString text;
  if (!m_module.empty()) text = m_module + u": ";
  text += WFormatV(format, args);
  return platform::ReportEventEntry(handle, type, m_messageId, text);
}

int SysLog::ReportInformation(const char16_t* format, ...) {
  va_list args;
  va_start(args, format);
  int rc = Report(platform::kEventTypeInformation, format, args);
  va_end(args);
  return rc;
}

int SysLog::ReportWarning(const char16_t* format, ...) {
  va_list args;
  va_start(args, format);
  int rc = Report(platform::kEventTypeWarning, format, args);
  va_end(args);
  return rc;
}

int SysLog::ReportError(const char16_t* format, ...) {
  va_list args;
  va_start(args, format);
  int rc = Report(platform::kEventTypeError, format, args);
  va_end(args);
  return rc;
}
