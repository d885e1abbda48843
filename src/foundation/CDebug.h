// The one tracing service of the system. Settings come from the registry below
// SOFTWARE\Debug\<application name>, so that support can switch a trace on on a running server.
// Up to three sinks: a rolling text file, the console, the debugger output.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <memory>
#include <mutex>

#include "base/WString.h"

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
  uint32_t FileLevel() const { return Current()->fileLevel; }
  uint32_t ConsoleLevel() const { return Current()->conLevel; }
  uint32_t DebuggerLevel() const { return Current()->winLevel; }
  uint32_t FileLimit() const { return Current()->fileLimit; }
  WString FilePath() const;

 private:
  struct FileSink;
  // One loaded set of settings. It is never changed once published: a reload publishes a new one
  // and threads that are tracing go on with the one they took, so that changing the trace file
  // on a running agent cannot pull a sink from under a writer.
  struct Settings {
    uint32_t fileLevel = 0, conLevel = 0, winLevel = 0, fileLimit = 0;
    uint32_t timeStampOn = 0, dateStampOn = 0, threadIdOn = 0, cpuIdOn = 0, appNameOn = 0, memUsageOn = 0,
             handleCountOn = 0;
    uint32_t dynamicUpdate = 0;
    bool consoleOpen = false;
    std::shared_ptr<FileSink> file;  // kept while the file level is 0, as the path is
  };

  std::shared_ptr<const Settings> Current() const;
  void LoadSettingsLocked();
  static bool Takes(const Settings& s, uint32_t level);
  void Emit(const Settings& s, uint32_t level, const char16_t* text, size_t length);
  static void WriteFile(const Settings& s, const char16_t* text, size_t length);

  mutable std::mutex m_settingsLock;  // guards the pointer only, for a copy or a swap
  std::shared_ptr<const Settings> m_settings;
  std::mutex m_loadLock;  // one load at a time
  char16_t m_appName[32] = {0};
  std::atomic<uint64_t> m_lastReading{0};
  std::atomic<uint32_t> m_active{0};
};

// The module's instance, built before anything else of the module runs.
extern CDebug g_Debug;

// Traces through the module's instance; the arguments are evaluated only while it is active.
#define TRACE(level, ...)                                        \
  do {                                                           \
    if (g_Debug.IsActive()) g_Debug.Trace((level), __VA_ARGS__); \
  } while (0)
