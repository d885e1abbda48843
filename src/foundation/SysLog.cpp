#include "foundation/SysLog.h"

#include "foundation/CDebug.h"
#include "foundation/WFormat.h"

SysLog& SysLog::Instance() {
  static SysLog instance;
  return instance;
}

SysLog::~SysLog() { DeregisterSource(); }

int SysLog::RegisterSource(const char16_t* source, const char16_t* module, uint32_t msgIdPlainText) {
  CCriticalSectionLock lock(m_lock);
  if (m_source) {
    TRACE(1, u"\nSWITCH (SysLog)     : RegisterSource(): WARNING!! Eventlog source already registered - registration "
             u"ignored!");
    return 1;
  }
  m_messageId = msgIdPlainText | 0x40000000u;
  if (source) {
    if (module) m_module = module;
    m_sourceName = source;
    // The connection to the system's event log is not part of this build yet: the names are kept
    // and reports answer 0, as they do for a source that could not be registered.
  }
  return m_source != nullptr;
}

int SysLog::DeregisterSource() {
  CCriticalSectionLock lock(m_lock);
  m_source = nullptr;
  return 1;
}

int SysLog::Report(uint16_t /*type*/, const char16_t* /*format*/, va_list /*args*/) {
  if (!m_source) return 0;
  return 0;
}

int SysLog::ReportInformation(const char16_t* format, ...) {
  va_list args;
  va_start(args, format);
  int rc = Report(4, format, args);
  va_end(args);
  return rc;
}

int SysLog::ReportWarning(const char16_t* format, ...) {
  va_list args;
  va_start(args, format);
  int rc = Report(2, format, args);
  va_end(args);
  return rc;
}

int SysLog::ReportError(const char16_t* format, ...) {
  va_list args;
  va_start(args, format);
  int rc = Report(1, format, args);
  va_end(args);
  return rc;
}
