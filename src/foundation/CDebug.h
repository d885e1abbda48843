// The one tracing service of the system. Settings come from the registry below
// SOFTWARE\Debug\<application name>, so that support can switch a trace on on a running server.
// Up to three sinks: a rolling text file, the console, the debugger output.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <memory>

#include "base/WString.h"

namespace platform {
class NativeNamedMutex;
}

class CDebug {
 public:
  static constexpr size_t kLineChars = 4196;
  static constexpr size_t kPathChars = 260;

  CDebug(const char16_t* applicationName, bool banner);
  ~CDebug();
  CDebug(const CDebug&) = delete;
  CDebug& operator=(const CDebug&) = delete;

  // Clears everything, takes the name (at most 31 characters) and loads the settings.
  void Initialise(const char16_t* applicationName, bool banner);
  void Trace(uint32_t level, const char16_t* format, ...);
  void TraceV(uint32_t level, const char16_t* format, va_list args);
  void LoadSettings();

  // Read at every call site before any argument is evaluated.
  bool IsActive() const { return m_active.load(std::memory_order_relaxed) != 0; }
  const char16_t* ApplicationName() const { return m_appName; }

  // Settings as loaded, for the tests and the banner.
  uint32_t FileLevel() const { return m_fileLevel; }
  uint32_t ConsoleLevel() const { return m_conLevel; }
  uint32_t DebuggerLevel() const { return m_winLevel; }
  uint32_t FileLimit() const { return m_fileLimit; }
  WString FilePath() const { return WString(m_filePath); }

 private:
  bool Takes(uint32_t level) const;
  void Emit(uint32_t level, const char16_t* text, size_t length);
  void WriteFile(const char16_t* text, size_t length);
  void CloseFileMutex();

  std::unique_ptr<platform::NativeNamedMutex> m_fileMutex;
  char16_t m_filePath[kPathChars] = {0};
  uint32_t m_fileLimit = 0;
  uint32_t m_fileLevel = 0;
  uint32_t m_conLevel = 0;
  bool m_consoleOpen = false;
  uint32_t m_winLevel = 0;
  char16_t m_appName[32] = {0};
  uint32_t m_timeStampOn = 0, m_dateStampOn = 0, m_threadIdOn = 0, m_cpuIdOn = 0, m_appNameOn = 0, m_memUsageOn = 0,
           m_handleCountOn = 0;
  uint32_t m_dynamicUpdate = 0;
  uint64_t m_lastReading = 0;
  std::atomic<uint32_t> m_active{0};
};

// The module's instance, built before anything else of the module runs.
extern CDebug g_Debug;

// Traces through the module's instance; the arguments are evaluated only while it is active.
#define TRACE(level, ...)                                        \
  do {                                                           \
    if (g_Debug.IsActive()) g_Debug.Trace((level), __VA_ARGS__); \
  } while (0)
