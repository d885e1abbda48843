// The one question about the download server that decides whether a mirror run may start: is the
// server's tree being updated just now? The server says so by a Stop.txt of an agreed size, the
// size written in UpdateIndicatorFile.txt of the working location.
#pragma once

#include <cstdint>
#include <memory>

#include "base/WString.h"

class DLParameters;
class DLUtils;
class DownloadLocation;
class IUpdateModule;

class DLWebServer {
 public:
  static constexpr uint32_t kWaitLimitSecs = 7200;
  static constexpr uint32_t kPauseSecs = 120;

  DLWebServer(IUpdateModule* module, DLParameters* params, DownloadLocation* location);
  virtual ~DLWebServer();
  DLWebServer(const DLWebServer&) = delete;
  DLWebServer& operator=(const DLWebServer&) = delete;

  // Looks at <RemoteLocation>[/<subdir>]/Stop.txt. 0 with `isActive` set, or -1 when the
  // indicator file cannot be read or the fetched file cannot be measured.
  int IsUpdateActive(const WString& subdir, int& isActive);
  // Waits in pauses of 120 s while the server's update runs; -1 after 2 hours or on an error.
  int WaitOnUpdateFinished(const WString& subdir);

  int32_t IndicatorFileSize() const { return m_updateIndicatorFileSize; }
  const WString& IndicatorFileName() const { return m_updateIndicatorFileName; }

 private:
  int ReadIndicatorFile();

  DownloadLocation* m_location;
  DLParameters* m_params;
  std::unique_ptr<DLUtils> m_utils;
  int32_t m_updateIndicatorFileSize = -1;
  WString m_updateIndicatorFileName;  // at most 99 characters
  IUpdateModule* m_module;
};
