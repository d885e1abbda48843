// One comparison of the installed components with the repository, driven through the update
// engine: the new table of updates with the server's severity, the new table of installed
// components, and the text files ztUpdate.txt, ztInstalled.txt and ztNew.txt. The check owns one
// object for the module's life and calls it step by step at each check, in this order:
// callKordUpTool, initGetVVDiff, createDiffData (if the repository is reachable),
// createInstalledData, the getters, createGlobalInfo.
//
// The text files are written under "new_" names and renamed only at the end (saveFiles), so that
// a crash in between leaves the files of the last check.
#pragma once

#include <cstdint>
#include <memory>

#include "base/WString.h"
#include "engine/EngineFactory.h"
#include "foundation/PeopleTextFile.h"

class DiffData;
class InstalledData;
class IUpdateModule;
class UM_Util;
struct UpdateElement;

class GetVVDiff {
 public:
  // Server severity numbers.
  static constexpr uint8_t kSeverityOk = 0;
  static constexpr uint8_t kSeverityWarning = 1;
  static constexpr uint8_t kSeverityCritical = 2;
  static constexpr uint8_t kSeverityUnknown = 3;
  // checkError
  static constexpr int32_t kCheckRepositoryMissing = 2;
  static constexpr int32_t kCheckComparisonFailed = 3;
  // inventoryError
  static constexpr int32_t kInventoryEmpty = 9;
  static constexpr int32_t kInventoryEngineException = 10;
  static constexpr int32_t kInventoryOtherException = 11;

  // Makes the engine through the factory (MakeEngine unless a test hands in its own) and runs
  // initORMUX.
  GetVVDiff(UM_Util* util, IUpdateModule* module, EngineFactory factory = MakeEngine);
  ~GetVVDiff();
  GetVVDiff(const GetVVDiff&) = delete;
  GetVVDiff& operator=(const GetVVDiff&) = delete;

  // A fresh engine object; false when its inventory cannot be used (inventoryError 9 and an
  // event-log entry; the object stays).
  bool initORMUX();
  // Resets the results for a new check; always true.
  bool initGetVVDiff(const WString& logPath);
  // The engine's scan before the comparison; 0.
  int callKordUpTool();
  // May come from another thread while a comparison runs.
  void setORMUX_InventoryModified();
  // The table of updates for the repository, or null (checkError says why). The caller owns it.
  std::unique_ptr<DiffData> createDiffData(const WString& repository);
  // The table of installed components, or null (inventoryError says why). The caller owns it.
  std::unique_ptr<InstalledData> createInstalledData();
  // The summary into the update file, the summary lines of the check log, and saveFiles; true.
  bool createGlobalInfo();
  // Replaces the result files by their "new_" files; 0.
  int saveFiles();

  uint8_t getServerSeverity() const { return serverSeverity; }
  const WString& getServerSeverityText() const { return serverSeverityText; }
  int32_t getDiffErrorCode() const { return checkError; }
  int32_t getInstalledErrorCode() const { return inventoryError; }
  uint8_t isCheckAlertNecessary() const { return checkAlertNecessary; }
  const WString& getNewComponentst() const { return newComponents; }
  uint32_t getDiffDate() const { return diffDate; }
  const WString& getErrorMessage() const { return errMsg; }

  // The result files, for the check and for diagnostics.
  const WString& getUpdateFile() const { return updateFile; }
  const WString& getInstalledFile() const { return installedFile; }
  const WString& getZtNewFile() const { return ztNewFile; }

 private:
  int GetZTUpdateList(const WString& repository);
  bool createUpdInfo(const UpdateElement* element, bool installable, uint8_t checkBin, const WString& errorText);
  void increaseServerSeverity(const WString& componentSeverity);
  int getDLSizeFromVersionFile(const WString& relPath, int32_t& size);
  void setSeverity(uint8_t number, const char16_t* text);
  void writeUpdateLine(const UpdateElement& e, bool installable, bool binaryLoaded, const WString& errorText,
                       int32_t size);
  void log(const WString& text);

  EngineFactory factory;
  EnginePtr pORMUX;
  UM_Util* util;
  IUpdateModule* module;
  DiffData* pDiffData = nullptr;  // the table being built; owned by createDiffData's result
  // The number of rows of this check's table, for the summary: -1 when there is none.
  int32_t tableEntries = -1;
  uint8_t checkBinary = 1;
  WString workDir;
  WString dataDir;
  WString logPath;
  WString repository;
  WString ztNewFile, ztNewFileNew, updateFile, installedFile, updateFileNew, installedFileNew;
  uint8_t checkAlertNecessary = 0;
  WString newComponents;
  WString serverSeverityText = u"unknown";
  uint8_t serverSeverity = kSeverityUnknown;
  uint32_t diffDate = 0;
  int32_t checkError = 0;
  int32_t inventoryError = 0;
  WString errMsg;
  PeopleTextFile updateStream;
  int32_t componentCounter = 0;
  int32_t inventoryCounter = 0;
};
