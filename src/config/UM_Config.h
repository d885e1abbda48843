// The settings of update management: held in memory, loaded from the configuration space at
// start, answered and changed through the host's configuration requests.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/WString.h"
#include "config/CConfigSpace.h"
#include "foundation/CCriticalSection.h"

class IUpdateModule;
class UM_Util;
struct RequestMessage;

// Web-server and proxy settings for the mirror, made per call and owned by the caller.
struct webParam {
  uint8_t proxyMode = 0;
  WString server;
  WString path;
  uint8_t protocol = 0;
  uint32_t port = 0;
  WString proxyServer;
  WString proxyUser;
  WString proxyPasswd;
};

// Values of RepositoryAccess.
enum : uint8_t {
  CQVV_UpdRepositoryLocalRO = 0,
  CQVV_UpdRepositoryLocalRW = 1,
  CQVV_UpdRepositoryRemote = 2,
  CQVV_UpdRepositoryVolume = 3,
};
constexpr uint8_t UPDATECHECK_VIA_SCHEDULER = 2;

class UM_Config {
 public:
  enum class Kind { Byte, Number, Text, MultiText, Password, Address };
  // One setting: its OE, its name as requesters and people use it, its kind.
  struct Setting {
    uint32_t oe;
    const char16_t* name;
    Kind kind;
  };
  // The settings in the order Start reads them.
  static const std::vector<Setting>& Settings();
  static const Setting* FindSetting(uint32_t oe);
  static const Setting* FindSetting(WStringView name);

  UM_Config(IUpdateModule* module, UM_Util* util);
  virtual ~UM_Config();
  UM_Config(const UM_Config&) = delete;
  UM_Config& operator=(const UM_Config&) = delete;

  bool Start();
  bool stop();
  int request(RequestMessage& message);
  static bool isMyRequest(uint32_t oe);
  int check();
  std::unique_ptr<webParam> getWebParams();
  WString getRepositoryPath();
  // The schedule and the modes, each read under the lock: the host's threads may write them while
  // the scheduler and a check read them.
  uint32_t getScheduleDate();
  uint32_t getScheduleFrequency();
  uint8_t getCheckMode();
  uint8_t getDownloadMode();
  uint8_t getRepositoryAccessMode();
  int setScheduleDate(uint32_t newTime);
  int getMailAlertEnabledFlag();

  // Repository access: a remote share connected with the stored credentials, or a volume handed
  // in by the management controller, found by its label and used for one check.
  //
  // Connects repositoryPath with remoteUserId and remotePasswd.
  int uncConnect();
  // 0 connected or already assigned, -1 failure, -2 conflicting credentials. Failures go to the
  // check log.
  int uncConnect(const WString& share, const WString& user, const WString& password);
  // Whether a mount path of the volume carries the label: 0 done (mountPoint empty unless found),
  // 1 out of memory, 2 the system could not list the volume's mount paths.
  static int IsMyVolumeLabel(const WString& volumeName, const WString& label, WString& mountPoint);
  // The mount point of the volume with the label: 0 found, 1 no volume list, 2 bad volume name,
  // 3 device query failed, 4 list ended without a match.
  static int GetMountPoint(const WString& label, WString& mountPoint);
  // Looks for the volume in three rounds of two seconds and points the repository at its
  // "zentrove" directory with access mode 3. True if the repository now points there.
  bool SetRepositoryPathqLTX(const WString& label);
  // Back to a local repository (mode 1) without a path, after a check from a volume.
  bool resetRepositoryAccess();

  // The fall-back text form of a 16-byte address, for systems without their own formatter.
  static WString FormatIpv6Fallback(const uint8_t bytes[16]);

  bool ConfigRead() const { return configRead != 0; }
  const WString& WorkDir() const { return workDir; }
  const WString& DefaultRepositoryPath() const { return defaultRepositoryPath; }
  const WString& ServerIPAddress() const { return serverIPAddress; }
  CConfigSpace& ConfigSpace() { return configSpace; }

  // Byte settings that other classes read directly; a byte read is atomic enough for them.
  uint8_t repositoryAccessMode = 0;
  uint8_t checkMode = 0;
  uint8_t downloadMode = 0;
  uint8_t installMode = 0;
  uint8_t deleteBinaryAfterUpdate = 0;
  uint8_t alertNewUpdates = 0;
  uint8_t alertJobFinished = 0;

 private:
  void CheckRepositoryAtStart();
  int SetRepositoryAccessqLTX(RequestMessage& message);
  bool WriteOwnSetting(uint32_t oe, const WString* text, uint8_t byte, const char16_t* caller);
  void ReadSetting(const Setting& s);
  void AnswerSetting(RequestMessage& message, const Setting& s);
  // False when the value is refused (nothing stored, the field unchanged).
  bool WriteSetting(RequestMessage& message, const Setting& s);
  uint8_t* ByteField(uint32_t oe);
  uint32_t* NumberField(uint32_t oe);
  WString* TextField(uint32_t oe);

  WString workDir;
  WString serverIPAddress;
  WString mailSubject;
  WString mailBody;
  CConfigSpace configSpace;
  UM_Util* util;
  IUpdateModule* module;
  uint32_t cabinetNumber = 0;
  uint8_t configRead = 0;
  WString repositoryPath;
  WString defaultRepositoryPath;
  WString remoteUserId;
  WString remotePasswd;
  uint8_t proxyMode = 0;
  uint8_t downloadProtocol = 0;
  WString downloadServer;
  WString downloadRepositoryPath;
  uint32_t proxyServerPort = 0;
  WString proxyServerAddress;
  WString proxyServerUserId;
  WString proxyServerPasswd;
  uint32_t scheduleDate = 0;
  uint32_t scheduleFrequency = 0;
  CCriticalSection m_lock;
};
