// Repository access of the settings: the remote share, and the volume that the management
// controller hands in for one check (found by its label, forgotten again afterwards).
#include <new>

#include "config/UM_Config.h"
#include "foundation/CDebug.h"
#include "foundation/Opcodes.h"
#include "foundation/RequestMessage.h"
#include "foundation/UM_Util.h"
#include "platform/Clock.h"
#include "platform/NetworkShare.h"
#include "platform/Volume.h"

namespace {

constexpr uint32_t kOeRepositoryPath = 6720;
constexpr uint32_t kOeRepositoryAccess = 6721;

// The directory of a volume that holds the repository.
constexpr const char16_t* kVolumeRepositoryDir = u"zentrove";
// The label looked for when the request carries no data, and when its data is of another kind.
constexpr const char16_t* kLabelNoData = u"WS2012R2SE";
constexpr const char16_t* kLabelOtherData = u"ZenTrove";
// A label handed in as bytes is a NUL-terminated text that fits this buffer, terminator included.
constexpr size_t kLabelBufferBytes = 128;

constexpr int kSearchRounds = 3;
constexpr uint32_t kSearchPauseMs = 2000;

// The size of the first mount-path list asked for, in characters.
constexpr uint32_t kMountPathCapacity = 261;

bool WriteSucceeded(uint32_t st) {
  return st == 0 || st == 12 || st == 21 || st == 255;
}

}  // namespace

int UM_Config::uncConnect() {
  WString share, user, password;
  {
    CCriticalSectionLock lock(m_lock);
    share = repositoryPath;
    user = remoteUserId;
    password = remotePasswd;
  }
  return uncConnect(share, user, password);
}

int UM_Config::uncConnect(const WString& share, const WString& user, const WString& password) {
  TRACE(3, u"\nUM_Config::uncConnect()\t: START share '%s', user '%s'", share.c_str(), user.c_str());
  if (share.empty()) {
    TRACE(1, u"\nUM_Config::uncConnect()\t: END share undefined, ret -1");
    return -1;
  }
  const uint32_t error = platform::ConnectShare(share, user, password);
  if (error == 0 || error == platform::kErrorAlreadyAssigned) {
    TRACE(3, u"\nUM_Config::uncConnect()\t: END connected (%d), ret 0", static_cast<int>(error));
    return 0;
  }
  const WString text = platform::SystemErrorText(error);
  if (util)
    util->umLogError(u"connect to remote repository '" + share + u"' for user '" + user + u"' failed:\n" + text);
  const int rc = error == platform::kErrorSessionCredentialConflict ? -2 : -1;
  TRACE(1, u"\nUM_Config::uncConnect()\t: END error %d, ret %d", static_cast<int>(error), rc);
  return rc;
}

int UM_Config::IsMyVolumeLabel(const WString& volumeName, const WString& label, WString& mountPoint) {
  try {
    mountPoint.clear();
    std::vector<WString> paths;
    uint32_t capacity = kMountPathCapacity;
    uint32_t needed = 0;
    uint32_t error = platform::VolumeMountPaths(volumeName, capacity, paths, needed);
    // The list may grow between the two calls; a few more tries with the size reported.
    for (int retry = 0; error == platform::kErrorMoreData && retry < 3; ++retry) {
      capacity = needed;
      error = platform::VolumeMountPaths(volumeName, capacity, paths, needed);
    }
    if (error != 0) {
      TRACE(2, u"\nUM_Config::IsMyVolumeLabel()\t: no mount paths for %s, error %d", volumeName.c_str(),
            static_cast<int>(error));
      return 2;
    }
    for (const WString& path : paths) {
      WString found;
      if (platform::VolumeLabelAt(path, found) != 0) continue;
      TRACE(3, u"\nUM_Config::IsMyVolumeLabel()\t: %s has label '%s'", path.c_str(), found.c_str());
      if (!found.empty() && found == label) {
        mountPoint = path;
        break;
      }
    }
    return 0;
  } catch (const std::bad_alloc&) {
    return 1;
  }
}

int UM_Config::GetMountPoint(const WString& label, WString& mountPoint) {
  mountPoint.clear();
  platform::VolumeSearch search;
  WString name;
  if (search.First(name) != 0) {
    TRACE(1, u"\nUM_Config::GetMountPoint()\t: no volume list");
    return 1;
  }
  const WString prefix = u"\\\\?\\";
  for (;;) {
    if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0 || name.back() != u'\\') {
      TRACE(1, u"\nUM_Config::GetMountPoint()\t: bad volume name %s", name.c_str());
      return 2;
    }
    WString device;
    if (platform::QueryVolumeDevice(name.substr(prefix.size(), name.size() - prefix.size() - 1), device) != 0) {
      TRACE(1, u"\nUM_Config::GetMountPoint()\t: device query failed for %s", name.c_str());
      return 3;
    }
    TRACE(3, u"\nUM_Config::GetMountPoint()\t: volume %s, device %s", name.c_str(), device.c_str());
    IsMyVolumeLabel(name, label, mountPoint);
    if (!mountPoint.empty()) return 0;
    if (search.Next(name) != 0) return 4;  // the normal end of the list is "no more files"
  }
}

bool UM_Config::WriteOwnSetting(uint32_t oe, const WString* text, uint8_t byte, const char16_t* caller) {
  RequestMessage m;
  ConstructRequest(m, CM_WriteConfigurationSpace, oe, 0, cabinetNumber, ST_OK);
  MessageValue& command = GetCurrentCommand(m);
  if (text) {
    if (!text->empty()) SetDataString(m, command, *text);
    configSpace.WriteText(m, nullptr);
  } else {
    SetDataNumber(m, command, byte, 1);
    configSpace.WriteNumber(m, nullptr);
  }
  const uint32_t st = GetCommandValue(m, 0, kKeyST, ST_ABSENT);
  if (WriteSucceeded(st)) return true;
  TRACE(1, u"\nUM_Config::%s()\t: >>>>ERROR: writing OE %d failed, ST %d", caller, static_cast<int>(oe),
        static_cast<int>(st));
  return false;
}

bool UM_Config::SetRepositoryPathqLTX(const WString& label) {
  TRACE(3, u"\nUM_Config::SetRepositoryPathqLTX()\t: START label '%s'", label.c_str());
  WString mountPoint;
  for (int loopCnt = 1; loopCnt <= kSearchRounds; ++loopCnt) {
    const int rc = GetMountPoint(label, mountPoint);
    if (!mountPoint.empty()) break;
    TRACE(2, u"\nUM_Config::SetRepositoryPathqLTX()\t: GetMountPoint returns %d", rc);
    TRACE(2, u"\nUM_Config::SetRepositoryPathqLTX()\t: not found - loopCnt=%d => Sleep for 2 secs ...", loopCnt);
    // Also after the last round: the controller may still be attaching the volume.
    platform::SleepMs(kSearchPauseMs);
  }
  if (mountPoint.empty()) {
    TRACE(1, u"\nUM_Config::SetRepositoryPathqLTX()\t: END volume '%s' not found", label.c_str());
    return false;
  }
  // The mount point ends with a separator.
  const WString path = mountPoint + kVolumeRepositoryDir;
  // The wait above holds no lock; each write with its field holds it briefly, so that a check
  // reading the path sees the old or the new one.
  {
    CCriticalSectionLock lock(m_lock);
    if (!WriteOwnSetting(kOeRepositoryPath, &path, 0, u"SetRepositoryPathqLTX")) return false;
    repositoryPath = path;
  }
  {
    CCriticalSectionLock lock(m_lock);
    // The path has changed already when this write fails; the mode stays as it was.
    if (!WriteOwnSetting(kOeRepositoryAccess, nullptr, CQVV_UpdRepositoryVolume, u"SetRepositoryPathqLTX"))
      return false;
    repositoryAccessMode = CQVV_UpdRepositoryVolume;
  }
  TRACE(3, u"\nUM_Config::SetRepositoryPathqLTX()\t: END repositoryPath=%s", path.c_str());
  return true;
}

bool UM_Config::resetRepositoryAccess() {
  TRACE(3, u"\nUM_Config::resetRepositoryAccess()\t: START");
  CCriticalSectionLock lock(m_lock);
  if (!WriteOwnSetting(kOeRepositoryAccess, nullptr, CQVV_UpdRepositoryLocalRW, u"resetRepositoryAccess")) return false;
  repositoryAccessMode = CQVV_UpdRepositoryLocalRW;
  // An empty text removes the stored path; the next check finds no repository path until a new
  // path or label comes.
  const WString empty;
  WriteOwnSetting(kOeRepositoryPath, &empty, 0, u"resetRepositoryAccess");
  repositoryPath.clear();
  TRACE(3, u"\nUM_Config::resetRepositoryAccess()\t: END");
  return true;
}

int UM_Config::SetRepositoryAccessqLTX(RequestMessage& m) {
  const int32_t i = m.commandIndex;
  const int64_t length = GetDataLength(m, i);
  WString label;
  bool taken = true;
  if (length == 0) {
    label = kLabelNoData;
  } else if (GetDataType(m, i) == kMessageTypeString) {
    taken = GetDataString(m, i, label, 0) != 0;
  } else if (HasRawData(m)) {
    std::vector<uint8_t> bytes;
    taken = GetDataStream(m, i, bytes) != 0;
    // The text must end inside the label buffer, with its terminator as the stream's last byte.
    if (bytes.empty() || bytes.size() >= kLabelBufferBytes || bytes.back() != 0) {
      taken = false;
    } else {
      const char* text = reinterpret_cast<const char*>(bytes.data());
      label = WFromUtf8(text);
    }
  } else {
    label = kLabelOtherData;
  }
  TRACE(3, u"\nUM_Config::request()\t: CM_UmSetRepositoryAccessqLTX, len=%d label '%s'", static_cast<int>(length),
        label.c_str());
  if (!taken || label.empty()) {
    TRACE(1, u"\nUM_Config::request()\t: wrong parameter, no label");
    ReplyString(m, u"no label", ST_FAILED);
    return 1;
  }
  if (!SetRepositoryPathqLTX(label)) {
    ReplyString(m, u"Can't find volume", ST_FAILED);
    return 1;
  }
  ReplyString(m, kVolumeRepositoryDir, ST_OK);
  return 1;
}
