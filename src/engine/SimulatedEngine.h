// The simulated update engine: the stand-in for the closed engine, data-driven and deterministic.
// It compares the installed components of its inventory file with the component descriptions of
// a repository's leaves, the way the closed engine compares the machine with the repository.
//
// Its folder is <dataDir>/SimulatedEngine/: inventory.txt (the installed components, see
// SimInventory.h) and faults.txt (faults a test plants, see FaultPlan.h). Nothing is created
// there until something is written.
//
// One thread uses an engine object; InventoryModifiedEvent alone may come from another thread
// while a comparison runs. The job side is not built yet: every job operation answers 1002.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "base/WString.h"
#include "engine/EngineFactory.h"
#include "engine/FaultPlan.h"
#include "engine/ORMUX.h"
#include "engine/SimInventory.h"

namespace engine {
class SimInventoryIterator;
class SimUpdateIterator;

// Error numbers of the simulated engine (texts in GetErrorString).
constexpr uint32_t kInventoryMalformed = 40;
constexpr uint32_t kRepositoryNotADirectory = 41;
constexpr int32_t kWrongOperatingSystem = 58;
constexpr int32_t kPrerequisiteMissing = 61;
constexpr int32_t kStepVersionMissing = 66;
constexpr uint32_t kJobSideNotBuilt = 1002;
// Directories nested deeper than this below the repository are not looked into (a guard against
// loops through links).
constexpr int kMaxLeafDepth = 64;
}  // namespace engine

class SimulatedEngine : public ORMUX {
 public:
  explicit SimulatedEngine(const EngineArgs& args);
  ~SimulatedEngine() override;
  SimulatedEngine(const SimulatedEngine&) = delete;
  SimulatedEngine& operator=(const SimulatedEngine&) = delete;

  void SetTrace(uint32_t level, const WString& fileName) override;
  uint32_t UseLocalInventory() override;
  void DoKordUpScan() override;
  void InventoryModifiedEvent() override;
  uint32_t GetUpdateInventoryIterator(const WString& repository, UpdateInventoryIterator*& iterator) override;
  InventoryIterator* GetInventoryIterator() override;
  const char16_t* GetErrorString(int32_t error) override;
  void GetExecPath(WString& path) override;

  uint32_t AddNewJob(const WString& objTypeName, const WString& objName, const WString& componentDir,
                     uint32_t& componentCount, ZTI_CHECK_MODE mode) override;
  uint32_t StartUpdate() override;
  uint32_t DoFlashBoot(B_TYPE bootType, uint32_t reserved) override;
  uint32_t GetFlashBootStatus(B_TYPE& bootType, uint32_t& detail) override;
  uint32_t ResumeJob() override;
  uint32_t CleanupUpdate() override;
  const tJobElement* GetFirstJobStatus(const void* reserved1, const void* reserved2) override;
  const tJobElement* GetNextJobStatus() override;
  const char16_t* GetJobCompletionStateString(uint32_t completionCode) override;
  int WriteqXL_LogEntry(bool isError, const WString& deviceName, const WString& componentName,
                        const WString& installedVersion, const WString& repositoryVersion,
                        const WString& message) override;

  // <dataDir>/SimulatedEngine and its files.
  const WString& Folder() const { return m_folder; }
  WString InventoryPath() const;
  WString FaultsPath() const;
  // The inventory in memory (what the last successful read gave).
  const engine::SimInventory& Inventory() const { return m_inventory; }
  // Replaces the inventory file atomically (creating the folder) and the inventory in memory; what
  // the job side does after a flash. False, with file and memory unchanged, when it cannot.
  bool SaveInventory(const engine::SimInventory& inventory);

 private:
  // Reads inventory.txt: 0, or kInventoryMalformed with the memory unchanged.
  uint32_t ReadInventory(const char16_t* operation);
  // Before an iterator: the first read, or a reread after InventoryModifiedEvent.
  uint32_t RefreshInventory(const char16_t* operation);
  engine::FaultPlan LoadFaults();
  void Trace(const char16_t* format, ...);
  bool TraceDetail();

  WString m_folder;
  engine::SimInventory m_inventory;
  bool m_loaded = false;
  std::atomic<bool> m_inventoryModified{false};

  std::unique_ptr<engine::SimUpdateIterator> m_updateIterator;
  std::unique_ptr<engine::SimInventoryIterator> m_inventoryIterator;

  std::mutex m_traceLock;  // the trace may be written from the thread of InventoryModifiedEvent
  uint32_t m_traceLevel = 0;
  WString m_traceFile;

  std::mutex m_textLock;
  std::map<int32_t, WString> m_errorTexts;
  std::map<uint32_t, WString> m_completionTexts;
};
