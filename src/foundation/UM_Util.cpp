#include "foundation/UM_Util.h"

#include "base/WFormat.h"
#include "foundation/CDebug.h"
#include "foundation/RootPaths.h"
#include "foundation/SysLog.h"
#include "foundation/VersionLine.h"
#include "platform/Clock.h"
#include "platform/CodePage.h"
#include "platform/FileIo.h"

namespace {

const char16_t kModuleDirName[] = u"EM_MENDER";

bool PathIsDirectory(const WString& path) {
  return !path.empty() && platform::DirectoryExists(path);
}

// Calendar fields of a LocalClockSeconds value, with no further zone arithmetic.
struct Fields {
  int year, month, day, hour, minute, second;
};
Fields Split(uint32_t seconds) {
  int64_t days = seconds / 86400;
  int64_t rem = seconds % 86400;
  int64_t z = days + 719468, era = z / 146097, doe = z - era * 146097;
  int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100), mp = (5 * doy + 2) / 153;
  int d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  int m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  int y = static_cast<int>(yoe + era * 400 + (m <= 2 ? 1 : 0));
  return Fields{y, m, d, static_cast<int>(rem / 3600), static_cast<int>(rem / 60 % 60), static_cast<int>(rem % 60)};
}

}  // namespace

UM_Util::UM_Util(IUpdateModule* module) : m_module(module) {
  TRACE(3, u"\nUM_Util::UM_Util()\t: CLASS CREATED");
}

UM_Util::~UM_Util() {
  umEndLogging();
  TRACE(3, u"\nUM_Util::~UM_Util()\t: CLASS DESTROYED");
}

WString UM_Util::FallbackDirectory() {
#ifdef _WIN32
  return u"C:/tmp/QV_UpdateManagement";
#else
  return u"/tmp/QV_UpdateManagement";
#endif
}

WString UM_Util::umGetWorkDir() {
  if (!workDir.empty()) return workDir;
  WString root;
  ReadTempRoot(root);
  workDir = root + kSep + kModuleDirName;
  if (PathIsDirectory(workDir)) return workDir;
  if (!platform::CreateDirectoryPath(workDir)) {
    WString wanted = workDir;
    workDir = FallbackDirectory();
    platform::CreateDirectoryPath(workDir);
    TRACE(1, u"\nUM_Util::umGetWorkDir\t: >>>ERROR: cannot create workdir=%s, using %s\n", wanted.c_str(),
          workDir.c_str());
  }
  return workDir;
}

WString UM_Util::umGetDataDir() {
  WString root;
  ReadDataRoot(root);
  WString dir = root + kSep + kModuleDirName;
  if (PathIsDirectory(dir)) return dir;
  if (!platform::CreateDirectoryPath(dir)) {
    WString fallback = FallbackDirectory();
    platform::CreateDirectoryPath(fallback);
    TRACE(1, u"\nUM_Util::umGetDataDir\t: >>>ERROR: cannot create datadir=%s, using %s\n", dir.c_str(),
          fallback.c_str());
    return fallback;
  }
  // The call that creates the directory answers an empty text; the next one answers the path.
  return WString();
}

WString UM_Util::umGetLogDir() {
  if (!logDir.empty()) return logDir;
  WString dir = umGetWorkDir();
  if (PathIsDirectory(dir)) {
    logDir = dir;
  } else if (!platform::CreateDirectoryPath(dir)) {
    logDir = FallbackDirectory();
    TRACE(1, u"\nUM_Util::umGetLogDir\t: >>>ERROR: cannot create logdir=%s, using %s\n", dir.c_str(), logDir.c_str());
  }
  return logDir;
}

WString UM_Util::umGetCheckLogDir() {
  if (logDir.empty()) umGetLogDir();
  checkLogFile = logDir + kSep + u"UM_Check.log";
  return checkLogFile;
}

bool UM_Util::umStartLogging(const WString& fileName, const WString& prefix) {
  if (logDir.empty()) {
    umGetLogDir();
    if (logDir.empty()) {
      TRACE(1, u"UM_Util::umStartLogging\t: %slogging directory undefined\n", u">>>>ERROR\t");
      return false;
    }
  }
  std::lock_guard<std::mutex> lock(m_logLock);
  if (m_logOpen) return true;  // a nested start keeps the file that is open
  WString path = logDir + kSep + fileName;
  if (!platform::AppendToFile(path, "", 0)) {
    TRACE(1, u"UM_Util::umStartLogging\t: %s creating loggingfile '%s' failed\n", prefix.c_str(), path.c_str());
    return false;
  }
  m_logPath = path;
  m_logOpen = true;
  m_logPrefix.clear();  // the prefix names the unit of work in the trace only
  TRACE(3, u"UM_Util::umStartLogging\t: %s logging to '%s'\n", prefix.c_str(), path.c_str());
  return true;
}

void UM_Util::WriteLogLine(const WString& line) {
  // Text mode in the ANSI code page: every line feed is written as CR LF.
  std::string bytes;
  platform::WideToCodePage(platform::kCodePageAnsi, line, bytes);
  std::string out;
  out.reserve(bytes.size() + 8);
  for (char c : bytes) {
    if (c == '\n') out.push_back('\r');
    out.push_back(c);
  }
  std::lock_guard<std::mutex> lock(m_logLock);
  if (m_logOpen) platform::AppendToFile(m_logPath, out.data(), out.size());
}

void UM_Util::umLogWrite(const WString& text, bool withDate) {
  if (!umLoggingActive()) return;
  Fields f = Split(platform::LocalClockSeconds());
  if (withDate)
    WriteLogLine(WFormat(u"%d/%d/%02d  %02d:%02d:%02d\t%s: %s\n", f.year, f.month, f.day, f.hour, f.minute, f.second,
                         m_logPrefix.c_str(), text.c_str()));
  else
    WriteLogLine(WFormat(u"%02d:%02d:%02d\t%s: %s\n", f.hour, f.minute, f.second, m_logPrefix.c_str(), text.c_str()));
}

void UM_Util::umLogError(const WString& text) {
  if (!umLoggingActive()) return;
  platform::LocalTime t = platform::NowLocalTime();
  WriteLogLine(WFormat(u"%2d:%2d:%2d\t%s: %s%s\n", t.hour, t.minute, t.second, m_logPrefix.c_str(), u">>>>ERROR\t",
                       text.c_str()));
}

void UM_Util::umEndLogging() {
  std::lock_guard<std::mutex> lock(m_logLock);
  m_logOpen = false;
  m_logPath.clear();
}

bool UM_Util::umLoggingActive() {
  std::lock_guard<std::mutex> lock(m_logLock);
  return m_logOpen;
}

void UM_Util::umEventLogWrite(int severity, const WString& text) {
  WString message = WFormat(u"%s %s", u"Tessaly Update Management:", text.c_str());
  if (severity == 1)
    SysLog::Instance().ReportError(u"%s", message.c_str());
  else if (severity == 2)
    SysLog::Instance().ReportWarning(u"%s", message.c_str());
  else
    SysLog::Instance().ReportInformation(u"%s", message.c_str());
}

WString UM_Util::umReadFile2String(const WString& fileName) {
  std::string bytes;
  if (!platform::ReadWholeFile(fileName, bytes)) {
    TRACE(1, u"UM_Util::umReadFile2String()\t:  >>>>>>>ERROR opening  fileName=%s failed\n", fileName.c_str());
    return WString();
  }
  std::string text;
  text.reserve(bytes.size());
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n') continue;
    text.push_back(bytes[i]);
  }
  WString wide;
  platform::CodePageToWide(platform::kCodePageAnsi, text.data(), text.size(), wide);
  return wide;
}

int UM_Util::InterpreteLineFromVersionInfo(const WString& line, VersionLineInfo& info) {
  return versionline::Parse(line, info);
}
