#include "config/UM_Config.h"

#include "base/WFormat.h"
#include "config/MakeDirectoryPath.h"
#include "foundation/CDebug.h"
#include "foundation/IUpdateModule.h"
#include "foundation/Opcodes.h"
#include "foundation/RequestMessage.h"
#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "platform/FileIo.h"
#include "platform/SystemInfo.h"

namespace {

constexpr uint32_t kOeRepositoryPath = 6720;
constexpr uint32_t kOeRepositoryAccess = 6721;
constexpr uint32_t kOeUnassigned = 6735;  // inside the accepted range, but no setting
constexpr uint32_t kOeScheduleDate = 6730;
constexpr uint32_t kOeServerAddress = 522;
constexpr uint32_t kOeMailAlertEnabled = 1040;

bool IsDirectory(const WString& path) {
  return !path.empty() && platform::DirectoryExists(path);
}

}  // namespace

const std::vector<UM_Config::Setting>& UM_Config::Settings() {
  static const std::vector<Setting> settings = {
      {6720, u"RepositoryPath", Kind::Text},
      {6721, u"RepositoryAccess", Kind::Byte},
      {6724, u"UpdateCheckMode", Kind::Byte},
      {6725, u"UpdAutomaticDownload", Kind::Byte},
      {6722, u"RepositoryUserId", Kind::Text},
      {6723, u"RepositoryPasswd", Kind::Password},
      {6727, u"DownloadServerAddress", Kind::Text},
      {6728, u"downloadRepositoryPath", Kind::Text},
      {6733, u"ConfUpdAlertMailMewUpdates", Kind::Byte},
      {6734, u"ConfUpdAlertMailJobFinished", Kind::Byte},
      {1050, u"mailSubject", Kind::Text},
      {1051, u"mailBody", Kind::MultiText},
      {6800, u"HttpProxyServerUsage", Kind::Byte},
      {6802, u"HttpProxyServerPort", Kind::Number},
      {6801, u"HttpProxyServerAddress", Kind::Text},
      {6803, u"HttpProxyServerUserId", Kind::Text},
      {6804, u"HttpProxyServerPasswd", Kind::Password},
      {6726, u"UpdAutomaticInstall", Kind::Byte},
      {6729, u"UpdDeleteBinaryAfterUpdate", Kind::Byte},
      {6730, u"UpdScheduleDate", Kind::Number},
      {6731, u"UpdScheduleFrequency", Kind::Number},
      {6732, u"UpdDownloadprotocol", Kind::Byte},
      {522, u"serverIPAddress", Kind::Address},
  };
  return settings;
}

const UM_Config::Setting* UM_Config::FindSetting(uint32_t oe) {
  for (const auto& s : Settings())
    if (s.oe == oe) return &s;
  return nullptr;
}

const UM_Config::Setting* UM_Config::FindSetting(WStringView name) {
  for (const auto& s : Settings())
    if (WEqualsNoCase(s.name, name)) return &s;
  return nullptr;
}

uint8_t* UM_Config::ByteField(uint32_t oe) {
  switch (oe) {
    case 6721:
      return &repositoryAccessMode;
    case 6724:
      return &checkMode;
    case 6725:
      return &downloadMode;
    case 6733:
      return &alertNewUpdates;
    case 6734:
      return &alertJobFinished;
    case 6800:
      return &proxyMode;
    case 6726:
      return &installMode;
    case 6729:
      return &deleteBinaryAfterUpdate;
    case 6732:
      return &downloadProtocol;
    default:
      return nullptr;
  }
}

uint32_t* UM_Config::NumberField(uint32_t oe) {
  switch (oe) {
    case 6802:
      return &proxyServerPort;
    case 6730:
      return &scheduleDate;
    case 6731:
      return &scheduleFrequency;
    default:
      return nullptr;
  }
}

WString* UM_Config::TextField(uint32_t oe) {
  switch (oe) {
    case 6720:
      return &repositoryPath;
    case 6722:
      return &remoteUserId;
    case 6723:
      return &remotePasswd;
    case 6727:
      return &downloadServer;
    case 6728:
      return &downloadRepositoryPath;
    case 1050:
      return &mailSubject;
    case 1051:
      return &mailBody;
    case 6801:
      return &proxyServerAddress;
    case 6803:
      return &proxyServerUserId;
    case 6804:
      return &proxyServerPasswd;
    default:
      return nullptr;
  }
}

UM_Config::UM_Config(IUpdateModule* module_, UM_Util* util_) : util(util_), module(module_) {
  TRACE(3, u"\nUM_Config::UM_Config()\t: START");
  WString work = util ? util->umGetWorkDir() : WString();
  if (IsDirectory(work) || (!work.empty() && MakeDirectoryPath(work))) {
    workDir = work;
  } else {
    workDir = UM_Util::FallbackDirectory();
    TRACE(1, u"\nUM_Config::UM_Config()\t: >>>ERROR: cannot use workdir=%s, using %s", work.c_str(), workDir.c_str());
  }
  WString data = util ? util->umGetDataDir() : WString();
  defaultRepositoryPath = WFormat(u"%s%sUpdateRepository", data.c_str(), WString(1, kSep).c_str());
  uint32_t cabinet = 0;
  if (module && module->GetCabinetNumber(&cabinet)) {
    cabinetNumber = cabinet;
    configRead = Start() ? 1 : 0;
  }
  if (configRead) CheckRepositoryAtStart();
  TRACE(3, u"\nUM_Config::UM_Config()\t: END, configRead=%d", static_cast<int>(configRead));
}

UM_Config::~UM_Config() {
  stop();
}

void UM_Config::CheckRepositoryAtStart() {
  switch (repositoryAccessMode) {
    case CQVV_UpdRepositoryLocalRW:
      if (repositoryPath.empty()) {
        repositoryPath = defaultRepositoryPath;
        TRACE(2, u"\nUM_Config::UM_Config()\t: no repositoryPath, using default %s", repositoryPath.c_str());
        return;
      }
      if (IsDirectory(repositoryPath)) return;
      if (!downloadMode) {
        if (util)
          util->umEventLogWrite(4,
                                WFormat(u"Cannot access configured repositoryPath=%s;\n Please, set path to existing "
                                        u"repository or enable download mode",
                                        repositoryPath.c_str()));
        return;
      }
      if (!MakeDirectoryPath(repositoryPath)) {
        if (util)
          util->umEventLogWrite(4, WFormat(u"Cannot access/create repositoryPath=%s, \n instead using %s",
                                           repositoryPath.c_str(), defaultRepositoryPath.c_str()));
        repositoryPath = defaultRepositoryPath;
      }
      return;
    case CQVV_UpdRepositoryRemote: {
      const int rc = uncConnect();
      if (rc != 0)
        TRACE(1, u"\nUM_Config::UM_Config()\t: >>>>ERROR: uncConnect(%s) returns %d", repositoryPath.c_str(), rc);
      return;
    }
    case CQVV_UpdRepositoryLocalRO:
    case CQVV_UpdRepositoryVolume:
      if (!IsDirectory(repositoryPath))
        TRACE(1, u"\nUM_Config::UM_Config()\t: >>>>ERROR: cannot access readonly repositoryPath=%s",
              repositoryPath.c_str());
      return;
    default:
      TRACE(1, u"\nUM_Config::UM_Config()\t: illegal value of repositoryAccessMode=%d, reset to %d",
            static_cast<int>(repositoryAccessMode), 0);
      repositoryAccessMode = CQVV_UpdRepositoryLocalRO;
      return;
  }
}

void UM_Config::ReadSetting(const Setting& s) {
  RequestMessage m;
  ConstructRequest(m, 0, s.oe, 0, cabinetNumber, ST_NONE);
  if (s.kind == Kind::Password)
    configSpace.ReadPassword(m, 1, nullptr);
  else if (s.kind == Kind::MultiText)
    configSpace.ReadTextValue(m, 1, nullptr);
  else
    configSpace.ReadValue(m, 1, nullptr);
  if (GetDataLength(m, 0) == 0) return;  // not found: the start value stays

  if (s.kind == Kind::Address) {
    std::vector<uint8_t> bytes;
    GetDataStream(m, 0, bytes);
    if (bytes.size() == 4) {
      serverIPAddress = WFormat(u"%u.%u.%u.%u", bytes[0], bytes[1], bytes[2], bytes[3]);
    } else if (bytes.size() == 16) {
      if (!platform::FormatIpv6Address(bytes.data(), serverIPAddress))
        serverIPAddress = FormatIpv6Fallback(bytes.data());
    } else {
      serverIPAddress.clear();
    }
    return;
  }
  if (WString* text = TextField(s.oe)) {
    WString value;
    if (GetDataString(m, 0, value, 0))
      *text = value;
    else
      TRACE(2, u"\nUM_Config::Start()\t: %s is stored as a number, kept as it was", s.name);
    return;
  }
  uint32_t value = 0;
  if (!GetDataValue(m, 0, value)) return;
  if (uint8_t* b = ByteField(s.oe)) *b = static_cast<uint8_t>(value);
  if (uint32_t* n = NumberField(s.oe)) *n = value;
}

bool UM_Config::Start() {
  TRACE(3, u"\nUM_Config::Start()\t: START, cabinet=%d", static_cast<int>(cabinetNumber));
  configSpace.SetOwnCabinet(cabinetNumber);
  configSpace.ReadActiveSection();
  configSpace.Open();
  for (const auto& s : Settings()) ReadSetting(s);
  TRACE(3, u"\nUM_Config::Start()\t: END, repositoryAccessMode=%d repositoryPath=%s checkMode=%d downloadMode=%d",
        static_cast<int>(repositoryAccessMode), repositoryPath.c_str(), static_cast<int>(checkMode),
        static_cast<int>(downloadMode));
  return true;
}

bool UM_Config::stop() {
  configSpace.Close();
  m_lock.Leave();  // harmless without a matching Enter
  return true;
}

bool UM_Config::isMyRequest(uint32_t oe) {
  return (oe >= 6720 && oe <= 6735) || (oe >= 6800 && oe <= 6804) || oe == 1050 || oe == 1051;
}

void UM_Config::AnswerSetting(RequestMessage& m, const Setting& s) {
  MessageValue& command = GetCurrentCommand(m);
  if (const uint8_t* b = ByteField(s.oe))
    SetDataNumber(m, command, *b, 1);
  else if (const uint32_t* n = NumberField(s.oe))
    SetDataNumber(m, command, *n, 4);
  else if (const WString* t = TextField(s.oe))
    SetDataString(m, command, *t);
}

bool UM_Config::WriteSetting(RequestMessage& m, const Setting& s) {
  const int32_t i = m.commandIndex;
  const int64_t length = GetDataLength(m, i);
  CCriticalSectionLock lock(m_lock);
  if (uint8_t* b = ByteField(s.oe)) {
    configSpace.WriteNumber(m, nullptr);
    uint32_t v = 0;
    if (s.oe == kOeRepositoryAccess && length == 0) {
      // The reset: the shipped default comes back to the requester and into the field.
      configSpace.ReadSingleValue(configSpace.DefaultFile(), m, CConfigSpace::kDefaultSection, true);
    }
    if (GetDataValue(m, i, v)) *b = static_cast<uint8_t>(v);
  } else if (uint32_t* n = NumberField(s.oe)) {
    configSpace.WriteNumber(m, nullptr);
    uint32_t v = 0;
    if (GetDataValue(m, i, v)) *n = v;
  } else if (WString* t = TextField(s.oe)) {
    bool refused = false;
    if (s.kind == Kind::Password)
      configSpace.WritePassword(m, nullptr, &refused);
    else
      configSpace.WriteText(m, nullptr, &refused);
    // A text the store cannot keep whole would be answered now and be gone (or cut) after the
    // next start: the setting keeps its value and the requester learns of the refusal.
    if (refused) return false;
    WString v;
    if (GetDataString(m, i, v, 0)) *t = v;
    if (s.oe == kOeRepositoryPath && length == 0) {
      // The reset: the requester sees the shipped default; without one the module's own default
      // repository is used.
      bool found = configSpace.ReadSingleValue(configSpace.DefaultFile(), m, CConfigSpace::kDefaultSection, true) &&
                   GetDataLength(m, i) > 0;
      if (!found) repositoryPath = defaultRepositoryPath;
    }
  }
  return true;
}

int UM_Config::request(RequestMessage& m) {
  const int32_t i = m.commandIndex;
  const uint32_t oc = GetCommandValue(m, i, kKeyOC, 0);
  const uint32_t oe = GetCommandValue(m, i, kKeyOE, 0);
  TRACE(3, u"\nUM_Config::request()\t: START, OC=0x%04X OE=%d len=%d", oc, static_cast<int>(oe),
        static_cast<int>(GetDataLength(m, i)));
  if (!configRead) {
    // The host did not know the cabinet at construction: the first request loads the settings.
    uint32_t cabinet = 0;
    if (module) module->GetCabinetNumber(&cabinet);
    cabinetNumber = cabinet;
    configRead = Start() ? 1 : 0;
  }
  if (oc == CM_UmSetRepositoryAccessqLTX) return SetRepositoryAccessqLTX(m);
  MessageValue& command = GetCurrentCommand(m);
  if (oc != CM_ReadConfigurationSpace && oc != CM_WriteConfigurationSpace) {
    SetDataNumber(m, command, 1, 1);
    SetCommandValue(m, command, kKeyST, ST_DENIED, false);
    return 0;
  }
  const Setting* s = FindSetting(oe);
  if (!isMyRequest(oe) || oe == kOeUnassigned || !s) {
    TRACE(2, u"\nUM_Config::request()\t: OE %d is not a setting of update management", static_cast<int>(oe));
    SetCommandValue(m, command, kKeyST, ST_DENIED, false);
    return 0;
  }
  if (oc == CM_ReadConfigurationSpace) {
    AnswerSetting(m, *s);
  } else if (!WriteSetting(m, *s)) {
    // Refused, not failed: the data goes, "ST" 6 says why nothing changed.
    ClearData(m, ST_FAILED);
    TRACE(2, u"\nUM_Config::request()\t: END, %s refused", s->name);
    return 1;
  }
  // A failed ini write is not the requester's concern: the field holds the new value.
  SetCommandValue(m, GetCurrentCommand(m), kKeyST, ST_OK, false);
  TRACE(3, u"\nUM_Config::request()\t: END, %s", s->name);
  return 1;
}

int UM_Config::check() {
  CCriticalSectionLock lock(m_lock);
  switch (repositoryAccessMode) {
    case CQVV_UpdRepositoryLocalRW:
      if (IsDirectory(repositoryPath)) return 0;
      if (!downloadMode) return 2;
      if (!MakeDirectoryPath(repositoryPath)) return 3;
      return 0;
    case CQVV_UpdRepositoryRemote:
      if (deleteBinaryAfterUpdate) return 4;
      if (downloadMode) return 5;
      if (!IsDirectory(repositoryPath)) return 1;
      return 0;
    case CQVV_UpdRepositoryLocalRO:
    case CQVV_UpdRepositoryVolume:
      if (!IsDirectory(repositoryPath)) return 2;
      if (deleteBinaryAfterUpdate) return 4;
      if (downloadMode) return 5;
      return 0;
    default:
      return 1;
  }
}

std::unique_ptr<webParam> UM_Config::getWebParams() {
  CCriticalSectionLock lock(m_lock);
  if (repositoryAccessMode != CQVV_UpdRepositoryLocalRW || !downloadMode) return nullptr;
  auto p = std::make_unique<webParam>();
  p->proxyMode = proxyMode;
  p->server = downloadServer;
  p->path = downloadRepositoryPath;
  p->protocol = downloadProtocol;
  p->port = proxyServerPort;
  p->proxyServer = proxyServerAddress;
  p->proxyUser = proxyServerUserId;
  p->proxyPasswd = proxyServerPasswd;
  return p;
}

WString UM_Config::getRepositoryPath() {
  CCriticalSectionLock lock(m_lock);
  return repositoryPath;
}

int UM_Config::setScheduleDate(uint32_t newTime) {
  // Sent without data on purpose: the stored key goes and its size becomes 0, so the new time
  // lives in memory only and the next start finds no schedule date.
  RequestMessage m;
  ConstructRequest(m, CM_WriteConfigurationSpace, kOeScheduleDate, 0, cabinetNumber, ST_NONE);
  int rc = configSpace.WriteNumber(m, nullptr);
  if (rc == 1) {
    CCriticalSectionLock lock(m_lock);
    scheduleDate = newTime;
  }
  return rc;
}

uint32_t UM_Config::getScheduleDate() {
  CCriticalSectionLock lock(m_lock);
  return scheduleDate;
}

uint32_t UM_Config::getScheduleFrequency() {
  CCriticalSectionLock lock(m_lock);
  return scheduleFrequency;
}

uint8_t UM_Config::getCheckMode() {
  CCriticalSectionLock lock(m_lock);
  return checkMode;
}

uint8_t UM_Config::getDownloadMode() {
  CCriticalSectionLock lock(m_lock);
  return downloadMode;
}

uint8_t UM_Config::getRepositoryAccessMode() {
  CCriticalSectionLock lock(m_lock);
  return repositoryAccessMode;
}

int UM_Config::getMailAlertEnabledFlag() {
  RequestMessage m;
  ConstructRequest(m, CM_ReadConfigurationSpace, kOeMailAlertEnabled, 0, cabinetNumber, ST_NONE);
  configSpace.ReadValue(m, 1, nullptr);
  uint32_t v = 0;
  if (GetDataLength(m, 0) > 0 && GetDataValue(m, 0, v) && (v & 0xFF))
    return (alertJobFinished || alertNewUpdates) ? 4 : 0;
  return 0;
}

WString UM_Config::FormatIpv6Fallback(const uint8_t bytes[16]) {
  WString out;
  for (int i = 0; i < 16; ++i) {
    if (i % 2 == 0) {
      if (bytes[i] == 0)
        out += i == 0 ? u"" : u":";
      else
        out += WFormat(i == 0 ? u"%x" : u":%x", bytes[i]);
    } else {
      out += WFormat(bytes[i] && bytes[i - 1] ? u"%02x" : u"%x", bytes[i]);
    }
  }
  out = WReplaceAll(out, u"0:0:0:0:0:0:0:0", u"::");
  out = WReplaceAll(out, u"0:0:0:0:0:0:0:1", u"::1");
  return out;
}
