#include "foundation/CDebug.h"

#include <cstring>
#include <string>

#include "base/WFormat.h"
#include "platform/Clock.h"
#include "platform/CodePage.h"
#include "platform/DebugOutput.h"
#include "platform/FileIo.h"
#include "platform/NamedMutex.h"
#include "platform/Registry.h"
#include "platform/SystemInfo.h"
#include "platform/Thread.h"

// Built before the module's other statics, so that their constructors may trace.
#if defined(__GNUC__)
__attribute__((init_priority(101)))
#endif
CDebug g_Debug(u"EM_MENDER", false);

namespace {

constexpr uint32_t kFileMutexWaitMs = 20;  // tracing must not stall the system
constexpr size_t kStampLimit = 3172;
const char16_t kTooSmall[] = u"################# CDebug::Trace() - BUFFER TOO SMALL - FIXME! #################";
const char16_t kException[] = u"\n\n################# EXCEPTION in CDebug::Trace() #################\n";

uint64_t TickUnits() {
  return platform::TickMs() >> 10;
}

void CopyCut(char16_t* dst, size_t cap, WStringView src) {
  size_t n = src.size() < cap - 1 ? src.size() : cap - 1;
  std::memcpy(dst, src.data(), n * sizeof(char16_t));
  dst[n] = 0;
}

}  // namespace

// The file sink of one trace path: the path and the named mutex that writers of every process
// take around one write.
struct CDebug::FileSink {
  explicit FileSink(const WString& p) : path(p) {
    WString name = u"CFileDebug_" + path;
    for (auto& c : name)
      if (c == u'\\' || c == u':' || c == u'/') c = u'_';
    mutex.Create(name);
  }
  WString path;
  platform::NativeNamedMutex mutex;
};

CDebug::CDebug(const char16_t* applicationName, bool banner) : m_settings(std::make_shared<Settings>()) {
  Initialise(applicationName, banner);
}

CDebug::~CDebug() = default;

std::shared_ptr<const CDebug::Settings> CDebug::Current() const {
  std::lock_guard<std::mutex> lock(m_settingsLock);
  return m_settings;
}

WString CDebug::FilePath() const {
  auto s = Current();
  return s->file ? s->file->path : WString();
}

void CDebug::Initialise(const char16_t* applicationName, bool banner) {
  m_active = 0;
  {
    std::lock_guard<std::mutex> load(m_loadLock);
    {
      std::lock_guard<std::mutex> lock(m_settingsLock);
      m_settings = std::make_shared<Settings>();
    }
    CopyCut(m_appName, 32, applicationName ? WStringView(applicationName) : WStringView());
    LoadSettingsLocked();
  }
  if (IsActive() && banner) {
    platform::LocalTime t = platform::NowLocalTime();
    Trace(1, u"\n\n----- Application [%s] started at %02d:%02d:%02d %02d/%02d/%02d -----\n", m_appName, t.hour,
          t.minute, t.second, t.month, t.day, t.year);
  }
}

void CDebug::LoadSettings() {
  std::lock_guard<std::mutex> load(m_loadLock);
  LoadSettingsLocked();
}

void CDebug::LoadSettingsLocked() {
  const std::shared_ptr<const Settings> old = Current();
  auto next = std::make_shared<Settings>(*old);
  Settings& s = *next;
  uint32_t active = 0;
  s.timeStampOn = s.dateStampOn = s.threadIdOn = s.cpuIdOn = s.appNameOn = s.memUsageOn = s.handleCountOn = 0;
  s.dynamicUpdate = 0;

  if (auto global = platform::RegistryKey::OpenLocalMachine(u"SOFTWARE\\Debug")) {
    global->ReadDword(u"DynamicUpdate", s.dynamicUpdate);
    if (s.dynamicUpdate) active = 1;
  }

  WString keyPath = WString(u"SOFTWARE\\Debug\\") + m_appName;
  if (auto key = platform::RegistryKey::OpenLocalMachine(keyPath)) {
    key->ReadDword(u"TimeStampOn", s.timeStampOn);
    key->ReadDword(u"DateStampOn", s.dateStampOn);
    key->ReadDword(u"ThreadIdOn", s.threadIdOn);
    key->ReadDword(u"CpuIdOn", s.cpuIdOn);
    key->ReadDword(u"AppNameOn", s.appNameOn);
    key->ReadDword(u"MemUsageOn", s.memUsageOn);
    key->ReadDword(u"HandleCountOn", s.handleCountOn);
    uint32_t conLevel = 0, winLevel = 0, fileLevel = 0;
    key->ReadDword(u"ConDebugLevel", conLevel);
    key->ReadDword(u"WinDebugLevel", winLevel);
    key->ReadDword(u"FileDebugLevel", fileLevel);
    uint32_t limitMb = 10;
    WString path;
    if (fileLevel) {
      key->ReadDword(u"TraceFileLimit", limitMb);
      if (key->ReadString(u"TraceFile", path) && path.size() >= kPathChars) path.resize(kPathChars - 1);
    }

    // File sink: a new path gets a sink of its own; writers still on the old one finish there.
    s.fileLevel = fileLevel;
    s.fileLimit = limitMb << 20;
    if (fileLevel && path != (old->file ? WStringView(old->file->path) : WStringView()))
      s.file = path.empty() ? nullptr : std::make_shared<FileSink>(path);
    if (s.fileLevel > 0 && s.file) active = 1;

    // Console sink.
    s.conLevel = conLevel;
    if (conLevel) {
      if (!s.consoleOpen) s.consoleOpen = platform::ConsoleOpen();
      active = 1;
    }

    // Debugger sink.
    s.winLevel = winLevel;
    if (winLevel) active = 1;
  }
  m_lastReading = TickUnits();
  {
    std::lock_guard<std::mutex> lock(m_settingsLock);
    m_settings = std::move(next);
  }
  m_active = active;
}

bool CDebug::Takes(const Settings& s, uint32_t level) {
  return (s.fileLevel >= level && s.file) || (s.conLevel >= level && s.consoleOpen) || s.winLevel >= level;
}

void CDebug::Trace(uint32_t level, const char16_t* format, ...) {
  va_list args;
  va_start(args, format);
  TraceV(level, format, args);
  va_end(args);
}

void CDebug::TraceV(uint32_t level, const char16_t* format, va_list args) {
  const uint32_t savedError = platform::GetLastErrorCode();
  if (level == 0) level = 1;
  std::shared_ptr<const Settings> settings;
  try {
    settings = Current();
    if (settings->dynamicUpdate) {
      uint64_t now = TickUnits();
      uint64_t last = m_lastReading;
      if (now >= last + settings->dynamicUpdate || now < last) {
        // One thread reloads; the others trace on with the settings they have.
        std::unique_lock<std::mutex> load(m_loadLock, std::try_to_lock);
        if (load.owns_lock()) {
          LoadSettingsLocked();
          settings = Current();
        }
      }
    }
    const Settings& s = *settings;
    if (!Takes(s, level)) {
      platform::SetLastErrorCode(savedError);
      return;
    }

    char16_t line[kLineChars];
    size_t n = 0;
    const char16_t* f = format ? format : u"";
    // Stamps stand behind the leading line feeds of the message.
    while (*f == u'\n' && n < kLineChars - 1) {
      line[n++] = u'\n';
      ++f;
    }
    const size_t stampStart = n;
    auto stamp = [&](const char16_t* fmt, auto... values) { n += WFormatTo(line + n, kLineChars - n, fmt, values...); };
    if (s.dateStampOn || s.timeStampOn) {
      platform::LocalTime t = platform::NowLocalTime();
      if (s.dateStampOn) stamp(u"[%02d-%02d-%02d] ", t.year, t.month, t.day);
      if (s.timeStampOn) stamp(u"[%02d:%02d:%02d.%03d] ", t.hour, t.minute, t.second, t.millisecond);
    }
    if (s.threadIdOn) stamp(u"(%06d) ", static_cast<int>(platform::CurrentThreadId()));
    uint32_t cpu = 0;
    if (s.cpuIdOn && platform::CurrentProcessorNumber(cpu)) stamp(u"#%02d ", static_cast<int>(cpu));
    uint64_t pb = 0, mu = 0;
    if (s.memUsageOn && platform::ProcessMemory(pb, mu))
      stamp(u"{PB %05dkB, MU %05dkB} ", static_cast<int>(pb >> 10), static_cast<int>(mu >> 10));
    uint32_t handles = 0;
    if (s.handleCountOn && platform::ProcessHandleCount(handles)) stamp(u"{%03d H} ", static_cast<int>(handles));
    if (s.appNameOn) {
      size_t at = n;
      stamp(u"%-13s  ", m_appName);
      size_t nameLen = WLength(m_appName);
      if (at + nameLen < n) line[at + nameLen] = u':';
    }
    if (n - stampStart >= kStampLimit) {
      n = WFormatTo(line, kLineChars, u"%s", kTooSmall);
    }
    n += WFormatToV(line + n, kLineChars - n, f, args);
    Emit(s, level, line, n);
  }
  EM_CATCH_THREAD_CANCEL catch (...) {
    if (settings) Emit(*settings, level, kException, sizeof kException / sizeof kException[0] - 1);
  }
  platform::SetLastErrorCode(savedError);
}

void CDebug::Emit(const Settings& s, uint32_t level, const char16_t* text, size_t length) {
  if (s.fileLevel >= level && s.file) WriteFile(s, text, length);
  if (s.conLevel >= level && s.consoleOpen) platform::ConsoleWrite(WStringView(text, length));
  if (s.winLevel >= level) {
    // The debugger gets whole lines; the first line feed only ends the line before.
    size_t i = (length && text[0] == u'\n') ? 1 : 0;
    while (i < length) {
      size_t end = i;
      while (end < length && text[end] != u'\n') ++end;
      char16_t out[kLineChars];
      size_t cut = end - i < kLineChars - 2 ? end - i : kLineChars - 2;
      std::memcpy(out, text + i, cut * sizeof(char16_t));
      out[cut] = u'\n';
      out[cut + 1] = 0;
      platform::DebuggerWrite(out);
      i = end + 1;
    }
  }
}

void CDebug::WriteFile(const Settings& s, const char16_t* text, size_t length) {
  FileSink& sink = *s.file;
  const WString& path = sink.path;
  // The write goes on whatever the wait gave; only a mutex that was taken is released, also when
  // the thread is ended by force in the middle of the write.
  struct Held {
    platform::NativeNamedMutex& mutex;
    bool locked;
    ~Held() {
      if (locked) mutex.Release();
    }
  } held{sink.mutex, sink.mutex.Acquire(kFileMutexWaitMs)};

  bool utf16 = true;
  uint64_t size = 0;
  bool sizeKnown = false;
  if (platform::FileLength(path, size)) {
    sizeKnown = true;
    unsigned char mark[2] = {0, 0};
    size_t got = 0;
    if (size >= 2 && platform::ReadFilePrefix(path, mark, 2, got) && got == 2)
      utf16 = mark[0] == 0xFF && mark[1] == 0xFE;
    else if (size != 0)
      utf16 = false;
  }
  if (s.fileLimit && sizeKnown && size >= s.fileLimit) {
    WString rolled = path + u".txt";
    platform::RemoveFilePath(rolled);
    platform::RenamePath(path, rolled);
    size = 0;
  }

  std::string bytes;
  bytes.reserve(length * 2 + 8);
  if (size == 0 && utf16) bytes.append("\xFF\xFE", 2);
  auto appendSegment = [&](size_t from, size_t to, bool lineEnd) {
    if (utf16) {
      for (size_t i = from; i < to; ++i) {
        bytes.push_back(static_cast<char>(text[i] & 0xFF));
        bytes.push_back(static_cast<char>(text[i] >> 8));
      }
      if (lineEnd) bytes.append("\r\0\n\0", 4);
    } else {
      std::string converted;
      platform::WideToCodePage(platform::kCodePageAnsi, WStringView(text + from, to - from), converted);
      if (converted.size() != to - from || converted.size() > kLineChars)
        bytes += "### UNICODE-to-MBCS conversion failed ###\n";
      else
        bytes += converted;
      if (lineEnd) bytes += "\r\n";
    }
  };
  size_t start = 0;
  for (size_t i = 0; i < length; ++i) {
    if (text[i] == u'\n') {
      appendSegment(start, i, true);
      start = i + 1;
    }
  }
  if (start < length) appendSegment(start, length, false);
  platform::AppendToFile(path, bytes.data(), bytes.size());
}
