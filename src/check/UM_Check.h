// The update check as the module sees it: the result of the last check, published for requesters,
// and the run of a new check (repository update from the web server, comparison by the engine,
// inventory), whose tables are swapped in while requests keep reading the old ones.
//
// Three locks, never nested: the creation lock (the test and set of `creating`), the data lock
// (the swap, and the copy of one row for a job), the counter lock (`requestActive` and the test of
// `dataLocked` that lets a request in).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "base/WString.h"
#include "engine/EngineFactory.h"
#include "foundation/CCriticalSection.h"

class DiffData;
class GetVVDiff;
class InstalledData;
class IUpdateModule;
class UM_Config;
class UM_Download;
class UM_Util;
struct DiffComponentInfo;
struct RequestMessage;

class UM_Check {
 public:
  // checkStatus
  static constexpr uint8_t done_ok = 0;
  static constexpr uint8_t done_error = 1;
  static constexpr uint8_t updating = 2;
  static constexpr uint8_t checking = 3;
  // checkError
  static constexpr int32_t kErrorNone = 0;
  static constexpr int32_t kErrorInventory = 1;
  static constexpr int32_t kErrorRepositoryMissing = 2;
  static constexpr int32_t kErrorComparison = 3;
  static constexpr int32_t kErrorRemoteConnect = 4;
  static constexpr int32_t kErrorWebUpdate = 5;
  // configCheckResult while a check of the settings runs.
  static constexpr uint8_t kConfigCheckRunning = 100;

  // Without settings the repository and work directory are fixed fall-backs. The engine comes from
  // `factory` (tests hand in their own).
  UM_Check(UM_Config* config, UM_Util* util, IUpdateModule* module, EngineFactory factory = MakeEngine);
  virtual ~UM_Check();
  UM_Check(const UM_Check&) = delete;
  UM_Check& operator=(const UM_Check&) = delete;

  // One whole check; true when it succeeded and its data was taken. Virtual so that the
  // scheduler's tests can count the checks it starts.
  virtual bool createData();
  // The check's data requests; 1 handled, 0 an unknown opcode or a lock time-out.
  int request(RequestMessage& message);
  // The settings' own check, then the web server's connection test: 0 to 6.
  // Virtual so that tests can hold a request inside the data, as a slow web server would.
  virtual int checkConfig();
  // A copy of the published row with this path, owned by the caller (its errNumber says whether
  // one was found); null when no memory.
  DiffComponentInfo* getDiffComponent(const WString& path);
  // The host's inventory scan state: true when the caller should start a check at once.
  bool setInventoryModifiedEvent(uint8_t scanState);

  // Published values, for the host program's tests and the module's traces.
  uint8_t CheckStatus() const { return checkStatus.load(); }
  uint32_t DiffDate() const { return diffDate.load(); }
  // The download front end, so that hosts can point it at their transfer tool.
  UM_Download* Download() { return umDownload.get(); }

 private:
  // The result of one createData, published in the swap.
  struct ServerRecord {
    uint8_t serverSeverity = 3;
    uint32_t date = 0;
    uint8_t checkStatus = done_error;
    int32_t checkError = kErrorNone;
    int32_t inventoryError = -1;
    WString errMsg;
    WString logFileName;
  };

  bool ShuttingDown();
  void LogLine(const WString& text, bool withDate);
  // The swap: waits for running requests and publishes. False when the data was dropped;
  // `shutdown` tells whether the module's end was the reason.
  bool TakeData(ServerRecord& record, std::unique_ptr<DiffData>& newDiff, std::unique_ptr<InstalledData>& newInstalled,
                bool reachable, bool ok, bool& shutdown);
  void SendDataChanged(uint8_t changed);

  // Request side: the data phase's way in and out, and the answers.
  bool EnterData();
  void LeaveData();
  int AnswerRequest(RequestMessage& message, uint32_t oc, uint32_t oi);
  int AnswerDiffRow(RequestMessage& message, uint32_t oc, uint32_t oi);
  int AnswerInstalledRow(RequestMessage& message, uint32_t oc, uint32_t oi);

  IUpdateModule* module;
  UM_Util* util;
  UM_Config* config;
  std::unique_ptr<GetVVDiff> getVVDiff;
  std::unique_ptr<DiffData> pDiffData;
  std::unique_ptr<InstalledData> pInstalledData;
  // Fields that requests read while a check runs are atomic; the ones published in the swap are
  // written only while no request is inside the data.
  std::atomic<uint8_t> serverSeverity{3};
  std::atomic<uint32_t> diffDate{0};
  std::atomic<uint8_t> checkStatus{done_ok};
  std::atomic<int32_t> checkError{kErrorNone};
  int32_t inventoryError = -1;
  WString errMsg;
  WString logFileName;
  std::unique_ptr<UM_Download> umDownload;
  std::atomic<uint8_t> creating{0};
  std::atomic<uint8_t> dataLocked{0};
  std::atomic<int32_t> requestActive{0};
  std::atomic<uint32_t> lastInventoryUpdate{0};
  CCriticalSection creationLock;
  CCriticalSection dataLock;
  CCriticalSection counterLock;
  WString workDir;
  WString repositoryPath;
  WString logDir;
  WString checkLogFile;
  WString checkLogFileNew;
  std::atomic<uint8_t> configCheckResult{0};
};
