#include "check/UM_Check.h"

#include <new>

#include "base/WFormat.h"
#include "check/DiffComponentInfo.h"
#include "check/DiffData.h"
#include "check/GetVVDiff.h"
#include "check/InstalledData.h"
#include "config/UM_Config.h"
#include "foundation/CDebug.h"
#include "foundation/CEvent.h"
#include "foundation/IUpdateModule.h"
#include "foundation/Opcodes.h"
#include "foundation/RequestMessage.h"
#include "foundation/UM_Util.h"
#include "mirror/UM_Download.h"
#include "platform/Clock.h"
#include "platform/FileIo.h"

namespace {

constexpr char16_t kFallbackRepository[] = u"C:/tmp/QV_UpdateManagement/UpdateRepository";
constexpr char16_t kFallbackWorkDir[] = u"C:/tmp/QV_UpdateManagement";
constexpr char16_t kCheckLogNewName[] = u"UM_Checknew.log";
constexpr char16_t kCheckLogHeading[] = u"UpdateCheck";
// How long the swap waits for running requests: rounds of one second.
constexpr int kSwapWaitRounds = 10;
constexpr uint32_t kSwapWaitRoundMs = 1000;
// The tree update of a check fetches packages into the tree (the mirror's normal mode).
constexpr int kCheckDnlFlags = 0;
constexpr uint32_t kAlertNewComponents = 0x290000;
constexpr uint32_t kAlertWebUpdateFailed = 0x290001;

}  // namespace

UM_Check::UM_Check(UM_Config* config_, UM_Util* util_, IUpdateModule* module_, EngineFactory factory)
    : module(module_), util(util_), config(config_) {
  TRACE(3, u"\nUM_Check::UM_Check()\t: START");
  if (config) {
    repositoryPath = config->getRepositoryPath();
    workDir = config->WorkDir();
    if (util) {
      // The call that creates the directory answers empty; the second one finds it.
      logDir = util->umGetLogDir();
      if (logDir.empty()) logDir = util->umGetLogDir();
    }
  } else {
    repositoryPath = kFallbackRepository;
    workDir = kFallbackWorkDir;
    logDir = workDir;
  }
  if (util) checkLogFile = util->umGetCheckLogDir();
  checkLogFileNew = logDir + platform::kPathSeparator + kCheckLogNewName;
  getVVDiff = std::make_unique<GetVVDiff>(util, module, std::move(factory));
  umDownload = std::make_unique<UM_Download>(module, workDir);
  TRACE(3, u"\nUM_Check::UM_Check()\t: END, repository=%s workDir=%s logDir=%s", repositoryPath.c_str(),
        workDir.c_str(), logDir.c_str());
}

UM_Check::~UM_Check() {
  TRACE(3, u"\nUM_Check::~UM_Check()\t: delete data");
}

bool UM_Check::ShuttingDown() {
  return module && module->GetSwitchShutDownFlag() != 0;
}

void UM_Check::LogLine(const WString& text, bool withDate) {
  if (util) util->umLogWrite(text, withDate);
}

bool UM_Check::createData() {
  const uint32_t now = platform::LocalClockSeconds();
  // Where a check's time goes, for support and for the benchmarks: tree update, comparison and
  // inventory, swap.
  const uint64_t startTick = platform::TickMs();
  uint64_t treeDoneTick = startTick, compareDoneTick = startTick;
  TRACE(2, u"\nUM_Check::createData()\t: START");
  bool ok = true;
  uint8_t treeChanged = 1;
  bool reachable = false;
  const uint32_t savedDiffDate = diffDate.load();
  const uint8_t savedCheckStatus = checkStatus.load();
  std::unique_ptr<DiffData> newDiff;
  std::unique_ptr<InstalledData> newInstalled;

  // 1. The record of this check's result; published in the swap.
  std::unique_ptr<ServerRecord> record(new (std::nothrow) ServerRecord);
  if (!record) return false;
  record->date = now;
  record->logFileName = checkLogFile;

  // 2. One check at a time.
  {
    CCriticalSectionLock lock(creationLock);
    if (creating.load()) {
      TRACE(1, u"\nUM_Check::createData()\t: >>>ERROR: another thread is creating update data - return false");
      if (util)
        util->umEventLogWrite(4,
                              u"Creation of update data stopped, because another thread is creating update data "
                              u"at the same time.");
      return false;
    }
    creating = 1;
  }
  // 3. `creating` stays set on the way out: nothing starts again while the module goes down.
  if (ShuttingDown()) return false;

  // 4.
  if (platform::FileExists(checkLogFileNew)) platform::RemoveFilePath(checkLogFileNew);
  diffDate = now;
  if (config) repositoryPath = config->getRepositoryPath();
  checkStatus = checking;
  const uint8_t downloadMode = config ? config->getDownloadMode() : 0;
  const uint8_t accessMode = config ? config->getRepositoryAccessMode() : 0;

  // 5.
  if (util) util->umStartLogging(kCheckLogNewName, kCheckLogHeading);
  LogLine(u"Start creation of new update management data, repository='" + repositoryPath + u"'\n", true);
  if (util) util->umEndLogging();

  // 6. The repository follows the web server first; a failed update leaves the check running on
  // the repository as it is.
  if (downloadMode != 0 && !repositoryPath.empty() && accessMode == CQVV_UpdRepositoryLocalRW && config) {
    if (std::unique_ptr<webParam> web = config->getWebParams()) {
      checkStatus = updating;
      TRACE(2, u"\nUM_Check::createData()\t: update repository from web server %s", web->server.c_str());
      const int rc = umDownload->updateTree(web.get(), repositoryPath, checkLogFileNew, kCheckDnlFlags);
      if (util) util->umStartLogging(kCheckLogNewName, kCheckLogHeading);
      if (rc == 0) {
        LogLine(u"update of repository from web server ok.", true);
      } else if (rc == 99) {
        LogLine(u"update of repository from web server not necessary.", true);
        treeChanged = 0;
      } else {
        TRACE(1, u"\nUM_Check::createData()\t: >>>ERROR: updateTree returned %d", rc);
        record->checkStatus = done_error;
        record->checkError = kErrorWebUpdate;
        record->errMsg =
            u"Updating repository from web server failed. Please, check configuration parameters for access of web "
            u"server.";
        record->serverSeverity = GetVVDiff::kSeverityUnknown;
        record->date = platform::LocalClockSeconds();
        ok = false;
        LogLine(u"update of repository from web server failed.", true);
        if (util)
          util->umEventLogWrite(
              1, WFormat(u"Update of repository (%s) from web server failed, ret=%d\n", repositoryPath.c_str(), rc));
        if (module) module->sendAlert(kAlertWebUpdateFailed, 0, nullptr);
      }
      if (util) util->umEndLogging();
    }
  }

  // 7.
  if (ShuttingDown()) return false;

  // 8.
  treeDoneTick = platform::TickMs();
  checkStatus = checking;
  diffDate = now;
  getVVDiff->callKordUpTool();
  if (util) util->umStartLogging(kCheckLogNewName, kCheckLogHeading);

  // 9.
  reachable = true;
  if (repositoryPath.empty()) {
    LogLine(u"Repository path undefined.", true);
    reachable = false;
  } else {
    LogLine(u"Start checking for available update packages.\n", true);
  }

  // 10.
  getVVDiff->initGetVVDiff(checkLogFileNew);

  // 11. A remote share may need connecting first; anything else that is no directory is missing.
  if (reachable && !platform::DirectoryExists(repositoryPath)) {
    if (accessMode == CQVV_UpdRepositoryRemote) {
      const int rc = config ? config->uncConnect() : -1;
      if (rc != 0) {
        TRACE(1, u"\nUM_Check::createData()\t: >>>ERROR: uncConnect returned %d", rc);
        record->checkError = kErrorRemoteConnect;
        reachable = false;
      }
    } else {
      record->checkError = kErrorRepositoryMissing;
      reachable = false;
    }
  }

  // 12.
  if (reachable) {
    newDiff = getVVDiff->createDiffData(repositoryPath);
    if (!newDiff) {
      ok = false;
      if (record->checkError == kErrorNone) record->checkError = getVVDiff->getDiffErrorCode();
    }
  }

  // 13.
  if (!reachable) {
    if (util) util->umLogError(u"Cannot access repository '" + repositoryPath + u"'.");
    if (downloadMode == 0 && accessMode != CQVV_UpdRepositoryRemote) {
      LogLine(u"Please, switch on download mode or set repository path to existing local repository.", false);
      record->checkError = kErrorRepositoryMissing;
    }
  }

  // 14.
  if (ShuttingDown()) {
    if (util) util->umEndLogging();
    return false;
  }

  // 15.
  newInstalled = getVVDiff->createInstalledData();
  if (!newInstalled) {
    if (util) util->umEndLogging();
    ok = false;
    if (record->checkError == kErrorNone) record->checkError = kErrorInventory;
  }

  // 16.
  if (ShuttingDown()) {
    if (util) util->umEndLogging();
    return false;
  }

  // 17.
  record->inventoryError = getVVDiff->getInstalledErrorCode();
  record->serverSeverity = getVVDiff->getServerSeverity();
  LogLine(newInstalled ? u"Creation of new inventory data ok." : u"Creation of new inventory data failed.", false);

  // 18.
  if (record->checkError != kErrorNone) {
    LogLine(u"Creation of new update management data failed.\n", false);
  } else {
    LogLine(u"Creation of new update management data ok.\n", false);
    if (getVVDiff->isCheckAlertNecessary() && module) {
      const WString list = getVVDiff->getNewComponentst();
      module->sendAlert(kAlertNewComponents, 1, &list);
    }
  }

  // 19.
  getVVDiff->createGlobalInfo();

  // 20.–24.
  compareDoneTick = platform::TickMs();
  bool shutdown = false;
  const bool taken = TakeData(*record, newDiff, newInstalled, reachable, ok, shutdown);
  if (shutdown) {
    if (util) util->umEndLogging();
    return false;
  }

  // 25.
  if (ShuttingDown()) {
    if (util) util->umEndLogging();
    creating = 0;
    return false;
  }

  TRACE(2, u"\nUM_Check::createData()\t: times (ms): tree update %lu, comparison %lu, swap %lu",
        static_cast<unsigned long>(treeDoneTick - startTick),
        static_cast<unsigned long>(compareDoneTick - treeDoneTick),
        static_cast<unsigned long>(platform::TickMs() - compareDoneTick));

  // 26. "Nothing new" only when the tree stayed as it was, no inventory event came since the last
  // check began, and that check was clean.
  const uint8_t changed =
      (treeChanged == 0 && savedDiffDate >= lastInventoryUpdate.load() && savedCheckStatus == done_ok) ? 0 : 1;
  SendDataChanged(changed);

  // 27.
  if (module) module->PollingLoopCheckDone().Set();
  creating = 0;

  // 28. A volume handed in for this check serves this check only.
  if (accessMode == CQVV_UpdRepositoryVolume && config) config->resetRepositoryAccess();
  TRACE(2, u"\nUM_Check::createData()\t: END, result=%d checkStatus=%d checkError=%d", taken ? 1 : 0,
        static_cast<int>(checkStatus.load()), static_cast<int>(checkError.load()));
  return taken;
}

bool UM_Check::TakeData(ServerRecord& record, std::unique_ptr<DiffData>& newDiff,
                        std::unique_ptr<InstalledData>& newInstalled, bool reachable, bool ok, bool& shutdown) {
  shutdown = false;
  // From here no request enters the data; the ones inside are waited for. The flag is set under
  // the counter lock so that no request can slip in between its test and its count.
  {
    CCriticalSectionLock counter(counterLock);
    dataLocked = 1;
  }
  CCriticalSectionLock lock(dataLock);
  for (int round = 0; round < kSwapWaitRounds && requestActive.load() > 0; ++round) {
    platform::SleepMs(kSwapWaitRoundMs);
    if (ShuttingDown()) {
      // `dataLocked` stays set: the module is going down.
      TRACE(1, u"\nUM_Check::createData()\t: module is going down while waiting for requests - return false");
      newDiff.reset();
      newInstalled.reset();
      shutdown = true;
      return false;
    }
  }
  if (requestActive.load() > 0) {
    dataLocked = 0;
    // The wait is ten seconds; the text has said sixty since it was first written.
    TRACE(1,
          u"\nUM_Check::createData()\t: ###ERROR: cannot take new data for next requests, because requests are "
          u"still active after 60 seconds, #requestActive=%d",
          static_cast<int>(requestActive.load()));
    // The old data, its error and its status stay published; checkStatus keeps telling that the
    // check did not come to its end.
    newDiff.reset();
    newInstalled.reset();
    return false;
  }

  const bool freshDiff = newDiff != nullptr;
  const bool freshInventory = newInstalled != nullptr;
  if (freshDiff) {
    pDiffData = std::move(newDiff);
  } else if (!reachable) {
    // No repository: the old table no longer describes anything that could be installed.
    pDiffData.reset();
  }
  if (freshInventory) pInstalledData = std::move(newInstalled);
  checkError = record.checkError;
  inventoryError = record.inventoryError;
  errMsg = record.errMsg;
  // The severity describes the published table: it moves only with a new one.
  if (freshDiff) serverSeverity = record.serverSeverity;

  LogLine(u"End creation of new update management data.", true);
  if (util) util->umEndLogging();

  if (platform::FileExists(checkLogFile)) platform::RemoveFilePath(checkLogFile);
  if (platform::FileExists(checkLogFileNew) && platform::RenamePath(checkLogFileNew, checkLogFile)) {
    logFileName = checkLogFile;
  } else {
    logFileName.clear();
  }
  const bool clean = freshDiff && freshInventory && record.inventoryError == 0 && record.checkError == kErrorNone && ok;
  checkStatus = clean ? done_ok : done_error;
  dataLocked = 0;
  return ok;
}

void UM_Check::SendDataChanged(uint8_t changed) {
  TRACE(2, u"\nUM_Check::createData()\t: send CM_UmDataChanged, data=%d", static_cast<int>(changed));
  if (!module) return;
  RequestMessage message;
  ConstructRequest(message, CM_UmDataChanged, 0, 0, 0, ST_NONE);
  MessageValue& command = GetCurrentCommand(message);
  SetDataNumber(message, command, changed, 1);
  SetCommandValue(message, command, kKeyST, ST_OK, false);
  module->SendEvent(&message);
}

int UM_Check::checkConfig() {
  TRACE(3, u"\nUM_Check::checkConfig()\t: START");
  if (!config) return 1;
  int result = config->check();
  if (result == 0) {
    if (std::unique_ptr<webParam> web = config->getWebParams()) {
      if (umDownload->checkWebConnection(web.get()) != 0) result = 6;
    }
  }
  TRACE(3, u"\nUM_Check::checkConfig()\t: END, result=%d", result);
  return result;
}

DiffComponentInfo* UM_Check::getDiffComponent(const WString& path) {
  DiffComponentInfo* info = new (std::nothrow) DiffComponentInfo;
  if (!info) return nullptr;
  if (path.empty()) {
    info->errNumber = DiffComponentInfo::kIllegalParameter;
    return info;
  }
  CCriticalSectionLock lock(dataLock);
  if (!pDiffData) {
    info->errNumber = DiffComponentInfo::kNoDiffData;
    return info;
  }
  info->errNumber = DiffComponentInfo::kNoSuchComponent;
  for (int32_t i = 0; i < pDiffData->getNumberEntries(); ++i) {
    const um_component* row = pDiffData->getComponent(i);
    if (row && row->path == path) {
      info->CopyFrom(*row);
      break;
    }
  }
  TRACE(3, u"\nUM_Check::getDiffComponent()\t: path=%s errNumber=%d", path.c_str(), static_cast<int>(info->errNumber));
  return info;
}

bool UM_Check::setInventoryModifiedEvent(uint8_t scanState) {
  const uint32_t now = platform::LocalClockSeconds();
  TRACE(3, u"\nUM_Check::setInventoryModifiedEvent()\t: scanState=%d lastInventoryUpdate=%lu",
        static_cast<int>(scanState), static_cast<unsigned long>(lastInventoryUpdate.load()));
  if (scanState == 3 || (scanState == 2 && lastInventoryUpdate.load() == 0)) {
    getVVDiff->setORMUX_InventoryModified();
    lastInventoryUpdate = now;
    return true;
  }
  // Nothing changed; whoever waits for the end of a check is let go all the same.
  if (module) module->PollingLoopCheckDone().Set();
  return false;
}
