#include "mirror/DLWebServer.h"

#include "base/WFormat.h"
#include "foundation/CDebug.h"
#include "mirror/DLParameters.h"
#include "mirror/DLUtils.h"
#include "mirror/DownloadLocation.h"
#include "platform/Clock.h"
#include "platform/FileIo.h"

DLWebServer::DLWebServer(IUpdateModule* module, DLParameters* params, DownloadLocation* location)
    : m_location(location),
      m_params(params),
      m_utils(std::make_unique<DLUtils>(module, params, location->GetTempDir())),
      m_module(module) {}

DLWebServer::~DLWebServer() = default;

int DLWebServer::ReadIndicatorFile() {
  WString file = WFormat(u"%s/UpdateIndicatorFile.txt", m_params->GetWorkingLocation().c_str());
  WString name;
  size_t room = 99;
  if (DLUtils::GetStringFromFile(file, u"NAME", name, room) == -1) {
    TRACE(1, u"DLWebServer::IsUpdateActive()\t: NAME not found in '%s'\n", file.c_str());
    return -1;
  }
  int32_t size = -1;
  if (DLUtils::GetIntFromFile(file, u"SIZE", size) == -1) {
    TRACE(1, u"DLWebServer::IsUpdateActive()\t: SIZE not found in '%s'\n", file.c_str());
    return -1;
  }
  m_updateIndicatorFileName = name;
  m_updateIndicatorFileSize = size;
  return 0;
}

int DLWebServer::IsUpdateActive(const WString& subdir, int& isActive) {
  if (m_updateIndicatorFileSize == -1 && ReadIndicatorFile() == -1) return -1;
  const WString& remoteLocation = m_params->GetRemoteLocation();
  WString remote = subdir.empty() ? WFormat(u"%s/Stop.txt", remoteLocation.c_str())
                                  : WFormat(u"%s/%s/Stop.txt", remoteLocation.c_str(), subdir.c_str());
  WString local = WFormat(u"%s/%s_%s", m_location->GetTempDir().c_str(), m_params->GetServerTag().c_str(), u"Stop.txt");
  platform::RemoveFilePath(local);
  int rc = m_utils->Download(m_params->GetRemoteServer(), remote, local, 2);
  if (rc == -1) {
    // A server that cannot be reached is no server being updated: the tree update that follows
    // finds that out by itself.
    isActive = 0;
    platform::RemoveFilePath(local);
    return 0;
  }
  int64_t length = DLUtils::GetFileLength(local);
  if (length == -1) {
    TRACE(1, u"DLWebServer::IsUpdateActive()\t: '%s' not fetched (rc=%d)\n", remote.c_str(), rc);
    isActive = 0;
    platform::RemoveFilePath(local);
    return -1;
  }
  isActive = length == m_updateIndicatorFileSize ? 1 : 0;
  TRACE(3, u"DLWebServer::IsUpdateActive()\t: '%s' has %ld bytes, update active: %d\n", remote.c_str(),
        static_cast<long>(length), isActive);
  platform::RemoveFilePath(local);
  return 0;
}

int DLWebServer::WaitOnUpdateFinished(const WString& subdir) {
  uint64_t startMs = platform::TickMs();
  int isActive = 1;
  for (;;) {
    if (IsUpdateActive(subdir, isActive) == -1) return -1;
    if (isActive != 1) return 0;
    if (platform::TickMs() - startMs > static_cast<uint64_t>(kWaitLimitSecs) * 1000) {
      TRACE(1, u"Update of webserver has not been completed after 2 hours.\n");
      return -1;
    }
    // Without a module there is no event to wait on; the pause is kept all the same, or the
    // loop would fetch Stop.txt without a break for two hours.
    if (m_module)
      m_utils->DoWait(kPauseSecs);
    else
      platform::SleepMs(kPauseSecs * 1000);
  }
}
