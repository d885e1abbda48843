// The check's data requests: a requester asks for the number of rows, then walks each field
// opcode with OI = 0, 1, ... below it. Every answer comes from the data the last check published.
#include "check/DiffData.h"
#include "check/InstalledData.h"
#include "check/UM_Check.h"
#include "foundation/CDebug.h"
#include "foundation/Opcodes.h"
#include "foundation/RequestMessage.h"
#include "foundation/UM_Util.h"
#include "platform/Clock.h"

namespace {

// A request waits this many rounds of one second for a swap to end.
constexpr int kLockWaitRounds = 60;
constexpr uint32_t kLockWaitRoundMs = 1000;

bool IsDiffRowOpcode(uint32_t oc) {
  return oc >= CM_UmDiffComponentPath && oc <= CM_UmDiffBinaryLoaded && oc != 0x3307 && oc != 0x330F;
}

bool IsInstalledRowOpcode(uint32_t oc) {
  return oc >= CM_UmInstalledType && oc <= CM_UmInstalledKPKVersion;
}

int AnswerUnknownOpcode(RequestMessage& m, uint32_t oc) {
  TRACE(1, u"\nUM_Check::request()\t: ## ERROR! unknown opcode 0x%04X", oc);
  ReplyValue(m, 0, ST_DENIED);
  return 0;
}

}  // namespace

bool UM_Check::EnterData() {
  // The test of `dataLocked` and the count go together under the counter lock: once the swap has
  // set the flag, no request can be counted in behind its back.
  for (int round = 0;; ++round) {
    {
      CCriticalSectionLock lock(counterLock);
      if (!dataLocked.load()) {
        ++requestActive;
        return true;
      }
    }
    if (round == kLockWaitRounds) break;
    platform::SleepMs(kLockWaitRoundMs);
  }
  TRACE(1, u"\nUM_Check::request()\t: ###ERROR: still dataLocked after waiting 60 seconds");
  return false;
}

void UM_Check::LeaveData() {
  CCriticalSectionLock lock(counterLock);
  --requestActive;
}

int UM_Check::request(RequestMessage& m) {
  const int32_t i = m.commandIndex;
  const uint32_t oc = GetCommandValue(m, i, kKeyOC, 0);
  const uint32_t oi = GetCommandValue(m, i, kKeyOI, 0);
  TRACE(3, u"\nUM_Check::request()\t: START, OC=0x%04X OI=%d", oc, static_cast<int>(oi));

  if (oc == CM_UmServerStartCheck) {
    // The module's routing wakes the scheduler for this opcode instead; the branch runs a check on
    // the caller's thread. It stays outside the data phase: the swap would wait for it.
    createData();
    ReplyValue(m, static_cast<uint32_t>(checkError.load()), ST_OK);
    return 1;
  }
  if (oc < CM_UmFamilyFirst || oc > CM_UmFamilyLast) return AnswerUnknownOpcode(m, oc);

  if (!EnterData()) {
    ClearData(m, ST_NOT_AVAILABLE);
    return 0;
  }
  const int result = AnswerRequest(m, oc, oi);
  LeaveData();
  TRACE(3, u"\nUM_Check::request()\t: END, OC=0x%04X result=%d ST=%d", oc, result,
        static_cast<int>(GetCommandValue(m, i, kKeyST, ST_ABSENT)));
  return result;
}

int UM_Check::AnswerRequest(RequestMessage& m, uint32_t oc, uint32_t oi) {
  if (IsDiffRowOpcode(oc)) return AnswerDiffRow(m, oc, oi);
  if (IsInstalledRowOpcode(oc)) return AnswerInstalledRow(m, oc, oi);
  switch (oc) {
    case CM_UmDiffNumberEntries:
      ReplyValue(m, pDiffData ? static_cast<uint32_t>(pDiffData->getNumberEntries()) : 0, ST_OK);
      return 1;
    case CM_UmInstalledNumberEntries:
      ReplyValue(m, pInstalledData ? static_cast<uint32_t>(pInstalledData->getNumberEntries()) : 0, ST_OK);
      return 1;
    case CM_UmServerSeverity:
      ReplyByte(m, serverSeverity.load(), ST_OK);
      return 1;
    case CM_UmServerCheckDate:
      ReplyValue(m, diffDate.load(), ST_OK);
      return 1;
    case CM_UmServerCheckConfig: {
      // May take as long as the web server's connection test; the result stays for later asks.
      configCheckResult = kConfigCheckRunning;
      const int result = checkConfig();
      configCheckResult = static_cast<uint8_t>(result);
      ReplyByte(m, static_cast<uint8_t>(result), ST_OK);
      return 1;
    }
    case CM_UmServerConfigResult:
      ReplyByte(m, configCheckResult.load(), ST_OK);
      return 1;
    case CM_UmServerCheckLog:
      if (logFileName.empty() || !util) {
        ClearData(m, ST_NOT_AVAILABLE);
      } else {
        ReplyString(m, util->umReadFile2String(logFileName), ST_OK);
      }
      return 1;
    case CM_UmServerCheckStatus:
      ReplyByte(m, checkStatus.load(), ST_OK);
      return 1;
    case CM_UmServerCheckError:
      ReplyValue(m, static_cast<uint32_t>(checkError.load()), ST_OK);
      return 1;
    default:
      return AnswerUnknownOpcode(m, oc);
  }
}

int UM_Check::AnswerDiffRow(RequestMessage& m, uint32_t oc, uint32_t oi) {
  const int32_t numberDiffs = pDiffData ? pDiffData->getNumberEntries() : 0;
  if (static_cast<int64_t>(oi) + 1 > numberDiffs) {
    TRACE(1, u"\nUM_Check::request()\t: ## ERROR! Illegal objectId (%d) for CM_UmDiff*, numberDiffs=%d",
          static_cast<int>(oi), static_cast<int>(numberDiffs));
    ClearData(m, ST_ILLEGAL);
    return 1;
  }
  if (!pDiffData) {
    TRACE(1, u"\nUM_Check::request()\t: ## ERROR! no data available; check must be started");
    ClearData(m, ST_ILLEGAL);
    return 1;
  }
  const um_component* c = pDiffData->getComponent(static_cast<int32_t>(oi));
  if (!c) {
    TRACE(1, u"\nUM_Check::request()\t: ## ERROR! no data available; component=NULL");
    ClearData(m, ST_ILLEGAL);
    return 1;
  }
  switch (oc) {
    case CM_UmDiffComponentPath:
      ReplyString(m, c->path, ST_OK);
      break;
    case CM_UmDiffComponentType:
      ReplyString(m, c->type, ST_OK);
      break;
    case CM_UmDiffComponentSubType:
      ReplyString(m, c->subType, ST_OK);
      break;
    case CM_UmDiffRepositoryVersion:
      ReplyString(m, c->repositoryVersion, ST_OK);
      break;
    case CM_UmDiffInstalledVersion:
      ReplyString(m, c->installedVersion, ST_OK);
      break;
    case CM_UmDiffObjectName:
      ReplyString(m, c->objectName, ST_OK);
      break;
    case CM_UmDiffRanking:
      ReplyByte(m, c->rankingCode, ST_OK);
      break;
    case CM_UmDiffMandatory:
      ReplyValue(m, c->mandatory & 0xFFFF, ST_OK);
      break;
    case CM_UmDiffPrerequire:
      ReplyString(m, c->prerequire, ST_OK);
      break;
    case CM_UmDiffSeverity:
      ReplyByte(m, c->severityCode, ST_OK);
      break;
    case CM_UmDiffEngineError:
      ReplyValue(m, static_cast<uint32_t>(c->engineError), ST_OK);
      break;
    case CM_UmDiffEngineErrorText:
      ReplyString(m, c->engineErrorText, ST_OK);
      break;
    case CM_UmDiffMinStepVersion:
      ReplyString(m, c->minStepVersion, ST_OK);
      break;
    case CM_UmDiffReboot:
      ReplyByte(m, c->rebootCode, ST_OK);
      break;
    case CM_UmDiffInstallTime:
      ReplyValue(m, c->installTime, ST_OK);
      break;
    case CM_UmDiffDownloadSize:
      ReplyValue(m, static_cast<uint32_t>(c->downloadSize), ST_OK);
      break;
    case CM_UmDiffKPKVersion:
      ReplyString(m, c->kpkPackageVersion, ST_OK);
      break;
    case CM_UmDiffReleaseNote: {
      // A note named but unreadable is as absent as one never named.
      WString text;
      if (!c->releaseNote.empty() && util) text = util->umReadFile2String(c->releaseNote);
      if (text.empty())
        ClearData(m, ST_NOT_AVAILABLE);
      else
        ReplyString(m, text, ST_OK);
      break;
    }
    case CM_UmDiffVendor:
      ReplyString(m, c->vendor, ST_OK);
      break;
    case CM_UmDiffComponentId:
      ReplyString(m, c->componentId, ST_OK);
      break;
    case CM_UmDiffBinaryLoaded:
      ReplyByte(m, c->binaryLoaded, ST_OK);
      break;
    default:
      return AnswerUnknownOpcode(m, oc);
  }
  return 1;
}

int UM_Check::AnswerInstalledRow(RequestMessage& m, uint32_t oc, uint32_t oi) {
  const int32_t numberInstalled = pInstalledData ? pInstalledData->getNumberEntries() : 0;
  const InstalledComponent* c = nullptr;
  if (static_cast<int64_t>(oi) + 1 <= numberInstalled) c = pInstalledData->getComponent(static_cast<int32_t>(oi));
  if (!c) {
    TRACE(1, u"\nUM_Check::request()\t: ## ERROR! Illegal objectId (%d) for CM_UmInstalled*, numberInstalled=%d",
          static_cast<int>(oi), static_cast<int>(numberInstalled));
    ClearData(m, ST_ILLEGAL);
    return 1;
  }
  switch (oc) {
    case CM_UmInstalledType:
      ReplyString(m, c->type, ST_OK);
      break;
    case CM_UmInstalledSubType:
      ReplyString(m, c->subType, ST_OK);
      break;
    case CM_UmInstalledVersion:
      ReplyString(m, c->version, ST_OK);
      break;
    case CM_UmInstalledPciId:
      ReplyString(m, c->pciId, ST_OK);
      break;
    default:
      ReplyString(m, c->kpkVersion, ST_OK);
      break;
  }
  return 1;
}
