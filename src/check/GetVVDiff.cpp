#include "check/GetVVDiff.h"

#include <climits>
#include <new>

#include "base/WFormat.h"
#include "check/DiffAlert.h"
#include "check/DiffData.h"
#include "check/InstalledData.h"
#include "foundation/CDebug.h"
#include "foundation/IUpdateModule.h"
#include "foundation/RootPaths.h"
#include "foundation/TextLineReader.h"
#include "foundation/UM_Util.h"
#include "foundation/VersionLine.h"
#include "platform/Clock.h"
#include "platform/FileIo.h"

namespace {

const char16_t* Text(const char16_t* text) {
  return text ? text : u"";
}

const char16_t* YesNo(bool value) {
  return value ? u"yes" : u"no";
}

bool CanOpenForReading(const WString& path) {
  char probe;
  size_t got = 0;
  return platform::ReadFilePrefix(path, &probe, 0, got);
}

}  // namespace

GetVVDiff::GetVVDiff(UM_Util* util, IUpdateModule* module, EngineFactory factory)
    : factory(std::move(factory)), util(util), module(module) {
  TRACE(3, u"\nGetVVDiff::GetVVDiff()\t: START");
  if (util) {
    workDir = util->umGetWorkDir();
    dataDir = util->umGetDataDir();
    // The call that creates the data directory answers an empty text; the files must not land in
    // the root of the drive.
    if (dataDir.empty()) dataDir = util->umGetDataDir();
  }
  initORMUX();
  ztNewFile = dataDir + kSep + u"ztNew.txt";
  ztNewFileNew = dataDir + kSep + u"new_ztNew.txt";
  updateFile = workDir + kSep + u"ztUpdate.txt";
  installedFile = workDir + kSep + u"ztInstalled.txt";
  updateFileNew = workDir + kSep + u"new_ztUpdate.txt";
  installedFileNew = workDir + kSep + u"new_ztInstalled.txt";
  TRACE(3, u"\nGetVVDiff::GetVVDiff()\t: END, workDir=%s, dataDir=%s", workDir.c_str(), dataDir.c_str());
}

GetVVDiff::~GetVVDiff() {
  TRACE(3, u"\nGetVVDiff::~GetVVDiff()\t: CLASS DESTROYED");
}

void GetVVDiff::log(const WString& text) {
  if (util) util->umLogWrite(text, false);
}

void GetVVDiff::setSeverity(uint8_t number, const char16_t* text) {
  serverSeverity = number;
  serverSeverityText = text;
}

bool GetVVDiff::initORMUX() {
  TRACE(3, u"\nGetVVDiff::initORMUX()\t: START");
  pORMUX.reset();
  EngineArgs args;
  args.hostName = u"NO_HOST";
  args.port = 0;
  args.serviceType = ZTI_SERV_Normal;
  ReadBinRoot(args.installDir);
  args.tempDir = workDir;
  args.dataDir = dataDir + kSep + u"UpdateJob";
  args.module = module;
  if (factory) pORMUX = factory(args, util);

  int32_t ret = -1;
  if (pORMUX) {
    try {
      if (platform::FileExists(workDir + kSep + u"ORMUX_TRACE")) {
        WString traceFile = workDir + kSep + u"ORMUX_UpdTrace.txt";
        TRACE(2, u"\nGetVVDiff::initORMUX()\t: ORMUX_TRACE found, engine trace into %s", traceFile.c_str());
        platform::RemoveFilePath(traceFile);
        pORMUX->SetTrace(10, traceFile);
      }
      ret = static_cast<int32_t>(pORMUX->UseLocalInventory());
    } catch (const ZTException& e) {
      TRACE(1, u"\nGetVVDiff::initORMUX()\t: >>>ERROR: engine exception: %s", e.getText().c_str());
    } catch (...) {
      TRACE(1, u"\nGetVVDiff::initORMUX()\t: >>>ERROR: unexpected exception");
    }
  }
  if (ret != 0) {
    inventoryError = kInventoryEmpty;
    if (util)
      util->umEventLogWrite(1, WFormat(u"Cannot create update data -  ORMUX->UseLocalInventory failed,ret =%d", ret));
    TRACE(1, u"\nGetVVDiff::initORMUX()\t: >>>ERROR: UseLocalInventory failed, ret=%d", ret);
    return false;
  }
  TRACE(3, u"\nGetVVDiff::initORMUX()\t: END");
  return true;
}

bool GetVVDiff::initGetVVDiff(const WString& path) {
  logPath = path;
  setSeverity(kSeverityUnknown, u"unknown");
  checkError = 0;
  inventoryError = 0;
  errMsg.clear();
  componentCounter = 0;
  // Results of the last check must not pass for this one's when a step does not run.
  tableEntries = -1;
  newComponents.clear();
  checkAlertNecessary = 0;
  return true;
}

int GetVVDiff::callKordUpTool() {
  TRACE(2, u"\nGetVVDiff::callKordUpTool()\t: start the engine's scan");
  if (!pORMUX) return 0;
  try {
    pORMUX->DoKordUpScan();
  } catch (const ZTException& e) {
    TRACE(1, u"\nGetVVDiff::callKordUpTool()\t: >>>ERROR: engine exception: %s", e.getText().c_str());
  } catch (...) {
    TRACE(1, u"\nGetVVDiff::callKordUpTool()\t: >>>ERROR: unexpected exception");
  }
  return 0;
}

void GetVVDiff::setORMUX_InventoryModified() {
  TRACE(2, u"\nGetVVDiff::setORMUX_InventoryModified()\t: inventory modified");
  if (!pORMUX) return;
  try {
    pORMUX->InventoryModifiedEvent();
  } catch (...) {
    TRACE(1, u"\nGetVVDiff::setORMUX_InventoryModified()\t: >>>ERROR: exception from the engine");
  }
}

std::unique_ptr<DiffData> GetVVDiff::createDiffData(const WString& path) {
  TRACE(3, u"\nGetVVDiff::createDiffData()\t: START, repository=%s", path.c_str());
  if (path.empty() || !platform::DirectoryExists(path)) {
    setSeverity(kSeverityUnknown, u"unknown");
    checkError = kCheckRepositoryMissing;
    if (util) util->umLogError(u"Missing repository '" + path + u"'. Please, modify repository path.\n");
    return nullptr;
  }
  checkError = 0;
  repository = path;
  std::unique_ptr<DiffData> table(new (std::nothrow) DiffData(util, path));
  if (!table) {
    setSeverity(kSeverityUnknown, u"unknown");
    checkError = kCheckComparisonFailed;
    return nullptr;
  }
  pDiffData = table.get();
  int result = GetZTUpdateList(path);
  pDiffData = nullptr;
  tableEntries = table->getNumberEntries();
  if (result != 0) {
    setSeverity(kSeverityUnknown, u"unknown");
    checkError = kCheckComparisonFailed;
    TRACE(1, u"\nGetVVDiff::createDiffData()\t: >>>ERROR: comparison failed, result=%d", result);
    return nullptr;
  }
  TRACE(3, u"\nGetVVDiff::createDiffData()\t: END, entries=%d", tableEntries);
  return table;
}

int GetVVDiff::GetZTUpdateList(const WString& repo) {
  int result = 0;
  bool addFailed = false;
  newComponents.clear();
  checkAlertNecessary = 0;
  try {
    DiffAlert alert(&ztNewFile, ztNewFileNew);
    if (!updateStream.Open(updateFileNew, false))
      TRACE(1, u"\nGetVVDiff::GetZTUpdateList()\t: >>>ERROR: cannot open %s", updateFileNew.c_str());
    UpdateInventoryIterator* it = nullptr;
    uint32_t r = pORMUX ? pORMUX->GetUpdateInventoryIterator(repo, it) : kEngineUnavailable;
    if (r != 0) {
      result = -1;
      const char16_t* text = pORMUX ? Text(pORMUX->GetErrorString(static_cast<int32_t>(r))) : u"no engine";
      errMsg = WFormat(u"UpdateCheck failed with ORMUX error=%d, %s\n", static_cast<int>(r), text);
      if (util) util->umLogError(errMsg);
    } else {
      log(u"Creating list of update packages:\n");
      const UpdateElement* e = it ? it->GetFirst() : nullptr;
      if (e)
        setSeverity(kSeverityOk, u"ok");
      else if (util)
        util->umLogError(u"No updatable product reported.");
      for (int line = 1; e; e = it->GetNext(), ++line) {
        int32_t valid = e->Valid;
        TRACE(4, u"\nGetVVDiff::GetZTUpdateList()\t: line %d: %s, valid=%d, mandatory=%d", line, Text(e->FwPath),
              static_cast<int>(valid), static_cast<int>(e->Mandatory));
        if (valid != 0 && valid != 58 && valid != 61 && valid != 66) {
          log(WFormat(u"\tskip invalid entry: %s, %s", Text(e->FwPath), Text(pORMUX->GetErrorString(valid))));
          continue;
        }
        bool installable = valid == 0;
        WString errorText;
        if (installable) {
          log(WFormat(u"\tadd entry: %s", Text(e->FwPath)));
        } else {
          errorText = Text(pORMUX->GetErrorString(valid));
          log(WFormat(u"\tadd not installable entry: %s, %s", Text(e->FwPath), errorText.c_str()));
        }
        alert.addNewComp2File(e);
        if (!createUpdInfo(e, installable, checkBinary, errorText)) addFailed = true;
      }
      result = 0;
      diffDate = platform::LocalClockSeconds();
    }
    newComponents = alert.getMailList();
    if (alert.getNumberNewComponents() > 0) checkAlertNecessary = 1;
  } catch (const ZTException& ex) {
    result = -1;
    errMsg = WFormat(u"UpdateCheck failed with ORMUX exception: %s\n", ex.getText().c_str());
    if (util) {
      util->umLogError(errMsg);
      if (!(module && module->GetSwitchShutDownFlag())) util->umEventLogWrite(1, errMsg);
    }
  } catch (...) {
    result = -1;
    errMsg = u"UpdateCheck failed with unexpected exception\n";
    if (util) {
      util->umLogError(errMsg);
      if (!(module && module->GetSwitchShutDownFlag())) util->umEventLogWrite(1, errMsg);
    }
  }
  updateStream.Close();
  if (addFailed) result = -2;
  if (result == 0) log(u"List of update packages created successfully.\n");
  return result;
}

bool GetVVDiff::createUpdInfo(const UpdateElement* e, bool installable, uint8_t checkBin, const WString& errorText) {
  if (!e) return false;
  bool binaryLoaded = false;
  if (checkBin && e->ZBPFileName && e->ZBPFileName[0])
    binaryLoaded = CanOpenForReading(repository + kSep + Text(e->ComponentDir) + kSep + WString(Text(e->ZBPFileName)));
  int32_t size = 0;
  if (!binaryLoaded) getDLSizeFromVersionFile(Text(e->FwPath), size);
  if ((e->Upgrade && e->VersionRanking == 0) || e->VersionRanking == 1) increaseServerSeverity(Text(e->severity));
  if (updateStream.IsOpen()) writeUpdateLine(*e, installable, binaryLoaded, errorText, size);
  ++componentCounter;
  return pDiffData && pDiffData->add_um_component(e, installable, binaryLoaded, errorText.c_str(), size);
}

void GetVVDiff::writeUpdateLine(const UpdateElement& e, bool installable, bool binaryLoaded, const WString& errorText,
                                int32_t size) {
  WString line = WFormat(
      u"ComponentIndex=%d|\tComponentPath=%s|\tComponentType=%s|\tComponentSubType=%s|\tComponentId=%s|\t"
      u"RepositoryVersion=%s|\tInstalledversion=%s|\tIsHighestUpgradeVersion=%d|\tIsHighestDowngradeVersion=%d|\t"
      u"Repos2InstRanking=%d|\tMandatoryComponent=%d|\tPrerequire=%s|\t",
      componentCounter, Text(e.FwPath), Text(e.ComponentType), Text(e.ObjectTypeName), Text(e.PCI_Id),
      Text(e.NewVersion), Text(e.InstVersion), static_cast<int>(e.Upgrade), static_cast<int>(e.Downgrade),
      static_cast<int>(e.VersionRanking), static_cast<int>(e.Mandatory), Text(e.Prerequire));
  line += WFormat(
      u"ORMUXError=%d|\tORMUXErrText=%s|\tMinStepVersion=%s|\tZBPVersion=%s|\tZBPFileName=%s|\tOS=%s|\t"
      u"KPKPackageVersion=%s|\tVendorSeverity=%s|\tReBoot=%s|\tInstallTime=%u|\tinstallable=%s|\t"
      u"binaryLoaded=%s|\tDownloadSize=%ld|\t\n",
      static_cast<int>(e.Valid), errorText.c_str(), Text(e.stepVersion), Text(e.ZBPVersion), Text(e.ZBPFileName),
      Text(e.OS), Text(e.KPKPackageVersion), Text(e.severity), Text(e.ReBoot), static_cast<unsigned>(e.InstallTime),
      YesNo(installable), YesNo(binaryLoaded), static_cast<long>(size));
  updateStream.Write(line);
}

void GetVVDiff::increaseServerSeverity(const WString& componentSeverity) {
  if (serverSeverity == kSeverityCritical) return;
  if (componentSeverity == u"mandatory") {
    setSeverity(kSeverityCritical, u"critical");
    return;
  }
  if (serverSeverity == kSeverityWarning) return;
  if (componentSeverity == u"recommended") {
    setSeverity(kSeverityWarning, u"warning");
    return;
  }
  setSeverity(kSeverityOk, u"ok");
}

int GetVVDiff::getDLSizeFromVersionFile(const WString& relPath, int32_t& size) {
  size = -1;
  WString file = WFormat(u"%s/%s/%s", repository.c_str(), relPath.c_str(), u"versionLeaf.txt");
  TextLineReader reader;
  WString line;
  if (!reader.Open(file)) return -1;
  if (!reader.ReadLine(line, versionline::kVersionLineChars)) return -1;
  VersionLineInfo info;
  int rc = UM_Util::InterpreteLineFromVersionInfo(line, info);
  if (rc != versionline::kFull && rc != versionline::kFourFields) {
    TRACE(2, u"\nGetVVDiff::getDLSizeFromVersionFile()\t: %s unreadable, code=%d", file.c_str(), rc);
    return rc;
  }
  if (info.leafExeFileSize > 0) {
    // A server may claim any size; the column holds what fits.
    int64_t mb = info.leafExeFileSize / 1048576;
    size = mb < 1 ? 1 : (mb > INT32_MAX ? INT32_MAX : static_cast<int32_t>(mb));
  }
  return 0;
}

std::unique_ptr<InstalledData> GetVVDiff::createInstalledData() {
  TRACE(3, u"\nGetVVDiff::createInstalledData()\t: START");
  inventoryCounter = 0;
  inventoryError = 0;
  std::unique_ptr<InstalledData> table(new (std::nothrow) InstalledData());
  log(u"Creating inventorylist of update packages:");
  PeopleTextFile file;
  try {
    InventoryIterator* it = pORMUX && table ? pORMUX->GetInventoryIterator() : nullptr;
    if (it) {
      if (!file.Open(installedFileNew, false))
        TRACE(1, u"\nGetVVDiff::createInstalledData()\t: >>>ERROR: cannot open %s", installedFileNew.c_str());
      for (const InventoryElement* e = it->GetFirst(); e; e = it->GetNext()) {
        if (file.IsOpen())
          file.Write(
              WFormat(u"ComponentIndex=%d\t|Version=%s\t|CompType=%s\t|CompSubType=%s\t|CompId=%s\t|ProdDesc=%s\n",
                      inventoryCounter, Text(e->Version), Text(e->CompType), Text(e->CompSubType), Text(e->CompId),
                      Text(e->ProdDesc)));
        table->add_component(e);
        ++inventoryCounter;
        log(WFormat(u"\t%s/%s, version=%s ", Text(e->CompType), Text(e->CompSubType), Text(e->Version)));
      }
    }
    file.Close();
  } catch (const ZTException& ex) {
    errMsg = WFormat(u"InventoryCheck failed with ORMUX exception: %s\n", ex.getText().c_str());
    table.reset();
    file.Close();
    if (util) util->umEventLogWrite(1, errMsg);
    inventoryError = kInventoryEngineException;
  } catch (...) {
    errMsg = u"InventoryCheck failed with unexpected exception\n";
    table.reset();
    file.Close();
    if (util) util->umEventLogWrite(1, errMsg);
    inventoryError = kInventoryOtherException;
  }
  if (inventoryCounter < 1) {
    log(u"Creating inventorylist of update packages failed.");
    if (util) util->umLogError(errMsg);
    if (inventoryError == 0) inventoryError = kInventoryEmpty;
    return nullptr;
  }
  log(u"Creating inventorylist of update packages ok.");
  TRACE(3, u"\nGetVVDiff::createInstalledData()\t: END, elements=%d", inventoryCounter);
  return table;
}

bool GetVVDiff::createGlobalInfo() {
  TRACE(3, u"\nGetVVDiff::createGlobalInfo()\t: START");
  if (!updateStream.IsOpen() && !updateStream.Open(updateFileNew, true))
    TRACE(1, u"\nGetVVDiff::createGlobalInfo()\t: >>>ERROR: cannot open %s", updateFileNew.c_str());
  WString summary = WFormat(u"\nCheckResult\nserverSeverity=%s |\t", serverSeverityText.c_str());
  summary += WFormat(u"diffDate=%u |\t", static_cast<unsigned>(diffDate));
  if (tableEntries >= 0) summary += WFormat(u"numberUpdateElements=%d\n", tableEntries);
  summary += WFormat(u"checkError=%d | errMsg=%s\n", checkError, errMsg.c_str());
  summary += WFormat(u"inventoryError=%d\n", inventoryError);
  updateStream.Write(summary);
  updateStream.Close();

  log(WFormat(u"check summary:\tserverSeverity=%s", serverSeverityText.c_str()));
  if (tableEntries >= 0)
    log(WFormat(u"\tnumberUpdateElements=%d,checkError=%d", tableEntries, checkError));
  else
    log(WFormat(u"\tnumberUpdateElements=0,checkError=%d", checkError));
  log(WFormat(u"\tnumberInventoryElements=%d,inventoryError=%d\n", inventoryCounter, inventoryError));
  if (checkError || inventoryError) log(u"\terror message=" + errMsg + u"\n");
  saveFiles();
  return true;
}

int GetVVDiff::saveFiles() {
  // A rename replaces the final file in one step, so that a reader or a crash sees the old file
  // or the new one. A final file without a "new_" file goes: it would describe an older check.
  const WString* pairs[][2] = {
      {&updateFile, &updateFileNew}, {&ztNewFile, &ztNewFileNew}, {&installedFile, &installedFileNew}};
  for (const auto& pair : pairs) {
    const WString& final = *pair[0];
    const WString& fresh = *pair[1];
    if (!platform::FileExists(fresh)) {
      platform::RemoveFilePath(final);
      continue;
    }
    if (!platform::RenamePath(fresh, final)) {
      platform::RemoveFilePath(final);
      platform::RemoveFilePath(fresh);
      TRACE(1, u"\nGetVVDiff::saveFiles()\t: >>>ERROR: cannot rename %s to %s", fresh.c_str(), final.c_str());
    }
  }
  return 0;
}
