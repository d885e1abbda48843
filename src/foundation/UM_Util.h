// The module's directories (work, data, log) and the check log, the file meant for a person that
// says in plain sentences what a check or a download did.
#pragma once

#include <cstdint>
#include <mutex>

#include "base/WString.h"
#include "foundation/VersionLine.h"

class IUpdateModule;

class UM_Util {
 public:
  explicit UM_Util(IUpdateModule* module);
  virtual ~UM_Util();
  UM_Util(const UM_Util&) = delete;
  UM_Util& operator=(const UM_Util&) = delete;

  // <TempRoot>\EM_MENDER, created if missing, else the fixed fall-back; kept after the first call.
  WString umGetWorkDir();
  // <DataRoot>\EM_MENDER, not kept. The call that creates the directory answers an empty text.
  WString umGetDataDir();
  // The work directory as log directory; the call that creates it answers an empty text.
  WString umGetLogDir();
  // The path of UM_Check.log in the log directory.
  WString umGetCheckLogDir();

  bool umStartLogging(const WString& fileName, const WString& prefix);
  void umLogWrite(const WString& text, bool withDate);
  void umLogError(const WString& text);
  void umEndLogging();
  bool umLoggingActive();

  // To the system's event log: 1 error, 2 warning, anything else information.
  // Virtual so that tests can see the entries without the system's log.
  virtual void umEventLogWrite(int severity, const WString& text);
  // The whole file as one text (ANSI, line ends as line feeds); empty when it cannot be read.
  WString umReadFile2String(const WString& fileName);

  // 0 all eight fields, -1 a missing or malformed field, -2 a comment, -3 a short line (no third
  // field), -4 no fifth field.
  static int InterpreteLineFromVersionInfo(const WString& line, VersionLineInfo& info);

  // The directory that every getter falls back to when it cannot create its own.
  static WString FallbackDirectory();

 private:
  void WriteLogLine(const WString& line);

  std::mutex m_logLock;  // guards the stream state only; lines of different threads may interleave
  bool m_logOpen = false;
  WString m_logPath;
  WString workDir;
  WString logDir;
  WString checkLogFile;
  WString m_logPrefix;
  IUpdateModule* m_module;
};
