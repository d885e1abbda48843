// The update engine as the module sees it: one abstract class with the inventory operations that
// the check uses and the job operations that the jobs use, the records the engine hands out, and
// its exception. The engine owns every text and record it hands out; a text stays valid until the
// iterator moves or the engine object is deleted, so callers copy what they keep.
//
// An engine library is built against this header alone (see EngineFactory.h for its one C entry
// point); the simulated engine of this folder implements the same class.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <utility>

#include "base/WString.h"

// One installed component, read from an InventoryIterator.
struct InventoryElement {
  const char16_t* CompSubType = nullptr;
  const char16_t* CompType = nullptr;  // "KordSupportPack-Win" marks the support pack entry
  const char16_t* ProdDesc = nullptr;
  const char16_t* Version = nullptr;
  const char16_t* CompId = nullptr;  // a text that begins "PCI" is a PCI id
};

// One installable package of the repository that applies to this server, read from an
// UpdateInventoryIterator. The fields in the order of the engine's record.
struct UpdateElement {
  int32_t CompId = 0;    // traced only
  int32_t CompType = 0;  // traced only
  const char16_t* ProdName = nullptr;
  const char16_t* ProdDescr = nullptr;
  const char16_t* InstVersion = nullptr;
  const char16_t* SerialNo = nullptr;
  const char16_t* NewVersion = nullptr;
  const char16_t* FwPath = nullptr;  // the package's path below the repository root: its identity
  const char16_t* ObjectName = nullptr;
  const char16_t* VersionViewId = nullptr;
  const char16_t* stepVersion = nullptr;
  const char16_t* ComponentType = nullptr;
  int32_t Offline = 0;
  const char16_t* ComponentDir = nullptr;  // directory below the root that holds ZBPFileName
  const char16_t* ObjectTypeName = nullptr;
  // 0 nothing installed to compare with, 1 the repository's version is newer, 2 the same,
  // 3 the repository's version is older.
  uint32_t VersionRanking = 0;
  uint8_t Upgrade = 0;                    // nonzero: the highest upgrade version of its component
  uint8_t Downgrade = 0;                  // nonzero: the highest downgrade version of its component
  int32_t Valid = 0;                      // 0 valid, else an error number for GetErrorString
  const char16_t* ZBPFileName = nullptr;  // may be null or empty
  const char16_t* ZBPVersion = nullptr;
  const char16_t* severity = nullptr;  // "mandatory", "recommended" or another text
  uint32_t InstallTime = 0;
  const char16_t* ReBoot = nullptr;  // "no", "immediately", "yes" or another text
  const char16_t* Prerequire = nullptr;
  const char16_t* OS = nullptr;
  uint8_t Mandatory = 0;
  const char16_t* PCI_Id = nullptr;
  const char16_t* KPKPackageVersion = nullptr;
  int32_t nKPKnewVersions = 0;  // traced only
  const char16_t* cKPKnewVersions = nullptr;
};

// The job record that GetFirstJobStatus and GetNextJobStatus point to. Its layout is the
// engine's; the module reads only the named fields.
struct tJobElement {
  const char16_t* cObjTypeName;
  const char16_t* cObjName;
  void* reserved;
  uint32_t uStatus;            // 0 Parked, 1 Waiting, 2 Prepared, 3 Working, 4 Reboot, 5 Ready
  uint32_t uError;             // completion code, 0 no error
  const char16_t* cErrorText;  // the engine's text of uError, or null
};
static_assert(offsetof(tJobElement, cObjName) == 8 && offsetof(tJobElement, uStatus) == 24 &&
                  offsetof(tJobElement, uError) == 28 && offsetof(tJobElement, cErrorText) == 32,
              "the job record's layout is the engine's");

// Boot types as the module uses them.
enum B_TYPE : uint32_t {
  BOOTTYPE_Flash = 0,
  BOOTTYPE_NoCleanup = 1,
  BOOTTYPE_RebootWanted = 2,
  BOOTTYPE_Finished = 3,
  BOOTTYPE_AgentDown = 5,
  BOOTTYPE_NewPoweroff = 6,
};

enum ZTI_CHECK_MODE : uint32_t { ZTI_CHECK_Normal = 0 };
enum ZTI_SERVICETYPE : uint32_t { ZTI_SERV_Normal = 0 };

// What the engine throws: a wide text and a numeric code.
class ZTException : public std::exception {
 public:
  ZTException(WString text, uint32_t code) : m_text(std::move(text)), m_code(code) {}
  const char* what() const noexcept override { return "ZTException"; }
  const WString& getText() const { return m_text; }
  uint32_t getCode() const { return m_code; }

 private:
  WString m_text;
  uint32_t m_code;
};

class InventoryIterator {
 public:
  virtual ~InventoryIterator() = default;
  // The first and the next element, or null at the end.
  virtual const InventoryElement* GetFirst() = 0;
  virtual const InventoryElement* GetNext() = 0;
};

class UpdateInventoryIterator {
 public:
  virtual ~UpdateInventoryIterator() = default;
  virtual const UpdateElement* GetFirst() = 0;
  virtual const UpdateElement* GetNext() = 0;
};

// The engine. Every operation may throw ZTException or something else. Results are 0 for success
// and an error number otherwise, unless said otherwise.
class ORMUX {
 public:
  virtual ~ORMUX() = default;

  // --- inventory side (the check) ---
  virtual void SetTrace(uint32_t level, const WString& fileName) = 0;
  // Called once after construction, before any iterator.
  virtual uint32_t UseLocalInventory() = 0;
  // The engine's registry initialisation scan, before each comparison.
  virtual void DoKordUpScan() = 0;
  // The inventory has changed; may come from another thread while a comparison runs.
  virtual void InventoryModifiedEvent() = 0;
  // Compares the inventory with the repository below `repository`. The engine owns the iterator.
  virtual uint32_t GetUpdateInventoryIterator(const WString& repository, UpdateInventoryIterator*& iterator) = 0;
  // Null when there is none. The engine owns the iterator.
  virtual InventoryIterator* GetInventoryIterator() = 0;
  // The text of an error number; never null.
  virtual const char16_t* GetErrorString(int32_t error) = 0;
  // The engine's temporary execution directory.
  virtual void GetExecPath(WString& path) = 0;

  // --- job side (the jobs) ---
  virtual uint32_t AddNewJob(const WString& objTypeName, const WString& objName, const WString& componentDir,
                             uint32_t& componentCount, ZTI_CHECK_MODE mode) = 0;
  virtual uint32_t StartUpdate() = 0;
  virtual uint32_t DoFlashBoot(B_TYPE bootType, uint32_t reserved) = 0;
  virtual uint32_t GetFlashBootStatus(B_TYPE& bootType, uint32_t& detail) = 0;
  virtual uint32_t ResumeJob() = 0;
  virtual uint32_t CleanupUpdate() = 0;
  // Null when the engine holds no job; the arguments are always null.
  virtual const tJobElement* GetFirstJobStatus(const void* reserved1, const void* reserved2) = 0;
  // Null at the end.
  virtual const tJobElement* GetNextJobStatus() = 0;
  virtual const char16_t* GetJobCompletionStateString(uint32_t completionCode) = 0;
  // Nonzero on success, 0 on failure: the other way round from the calls above.
  virtual int WriteqXL_LogEntry(bool isError, const WString& deviceName, const WString& componentName,
                                const WString& installedVersion, const WString& repositoryVersion,
                                const WString& message) = 0;
};
