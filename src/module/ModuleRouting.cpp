// Routing of the host's requests and replies, and the module's own traffic towards the host.
#include <vector>

#include "check/UM_Check.h"
#include "check/UM_Scheduler.h"
#include "config/UM_Config.h"
#include "foundation/CDebug.h"
#include "foundation/Opcodes.h"
#include "module/CLogMsgArguments.h"
#include "module/CUpdateExtensionModule.h"
#include "module/IModuleHost.h"
#include "platform/Clock.h"

namespace {

int TraceInt(uint32_t v) {
  return static_cast<int>(v);
}

// An opcode this module does not serve: ST 1, result 0, nothing else changes.
int AnswerUnknown(RequestMessage& m) {
  SetCommandValue(m, GetCurrentCommand(m), kKeyST, ST_DENIED, false);
  return 0;
}

// The alerts the module knows: which setting lets them out, how grave the host should take them,
// and the trace line that says one goes out.
struct AlertKind {
  uint32_t number;
  bool jobFinished;  // gated by the setting for finished jobs, else by the one for new updates
  uint8_t severity;
  const char16_t* trace;
};

// 0x290011 (flashing failed) goes out with severity 0 although its sibling 0x290013 has 2: that is
// the value the host receives for it.
constexpr AlertKind kAlertKinds[] = {
    {0x290000, false, 0, u"send UpdManagerAlert new components available"},
    {0x290001, false, 2, u"send UpdManagerAlert %update repository tree failed"},
    {0x290010, true, 0, u"send UpdManagerAlert updatejob ok"},
    {0x290011, true, 0, u"send UpdManagerAlert updatejob failed"},
    {0x290012, true, 2, u"send UpdManagerAlert download failed for updatejob"},
    {0x290013, true, 2, u"send UpdManagerAlert updatejob failed"},
};

constexpr uint8_t kAlertPlatform = 4;

}  // namespace

void CUpdateExtensionModule::TraceReturn(RequestMessage& message) {
  const int32_t i = message.commandIndex;
  TRACE(5, u"\nEM_MENDER (RETURN)  : CABID %04d: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%X Len %d",
        TraceInt(GetCommandValue(message, i, kKeyCA, 0)), GetCommandValue(message, i, kKeyOC, 0),
        GetCommandValue(message, i, kKeyOE, 0), GetCommandValue(message, i, kKeyOI, 0),
        GetCommandValue(message, i, kKeyMI, 0) >> 16, GetCommandValue(message, i, kKeyMI, 0) & 0xFFFF,
        GetCommandValue(message, i, kKeyST, ST_ABSENT), static_cast<int>(GetDataLength(message, i)));
}

int CUpdateExtensionModule::ApplicationRequest(RequestMessage* message) {
  RequestMessage& m = *message;
  const int32_t i = m.commandIndex;
  TRACE(4, u"\nEM_MENDER (REQUEST) : CABID %04d: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%X",
        TraceInt(GetCommandValue(m, i, kKeyCA, 0)), GetCommandValue(m, i, kKeyOC, 0), GetCommandValue(m, i, kKeyOE, 0),
        GetCommandValue(m, i, kKeyOI, 0), GetCommandValue(m, i, kKeyMI, 0) >> 16,
        GetCommandValue(m, i, kKeyMI, 0) & 0xFFFF, GetCommandValue(m, i, kKeyST, ST_ABSENT));

  // A command addressed to another cabinet is not ours; one without "CA" is.
  if (HasCommandKey(m, i, kKeyCA) && GetCommandValue(m, i, kKeyCA, 0) != ServerCabinetNumber()) {
    TRACE(2, u"\nEM_MENDER (REQUEST) :  : -> Illegal cabinet number - request denied!");
    SetCommandValue(m, GetCurrentCommand(m), kKeyST, ST_ILLEGAL_CABINET, false);
    TraceReturn(m);
    return 0;
  }

  const uint32_t oc = GetCommandValue(m, i, kKeyOC, 0);
  if (oc == CM_UmSetRepositoryAccessqLTX) {
    // The settings component answers this one; its path has no return trace.
    if (!m_config) return AnswerUnknown(m);
    const int result = m_config->request(m);
    TRACE(2, u"\nEM_MENDER (REQUEST) :  umConfig returns %d", result);
    return result;
  }
  int result = 0;
  if (oc >= CM_UmJobFirst && oc <= CM_UmJobLast) {
    // Job and history requests: the job component is not part of this build yet.
    result = AnswerUnknown(m);
  } else if (oc == CM_UmServerStartCheck) {
    TRACE(2, u"\nEM_MENDER (REQUEST) :  call umScheduler.setEvent for starting once immediately createData()");
    // The check runs on the scheduler's thread; the reply does not wait for it.
    if (m_scheduler) m_scheduler->setEvent(1, 1);
    MessageValue& command = GetCurrentCommand(m);
    if (command.IsObject()) SetCommandValue(m, command, kKeyST, ST_OK, false);
    result = 1;
  } else if (oc >= CM_UmFamilyFirst && oc <= CM_UmFamilyLast) {
    if (!m_check) {
      result = AnswerUnknown(m);
    } else {
      result = m_check->request(m);
      TRACE(2, u"\nEM_MENDER (REQUEST) :  umCheck returns %d", result);
      if (oc == CM_UmServerCheckConfig && m_scheduler) {
        // The settings' check may have come with new schedule values.
        TRACE(2,
              u"\nEM_MENDER (REQUEST) :  call umScheduler.setEvent for informing about  modified configuration "
              u"values)");
        const int rc = m_scheduler->setEvent(0, 0);
        TRACE(2, u"\nEM_MENDER (REQUEST) :  umScheduler.setEvent returns %d", rc);
      }
    }
  } else if ((oc == CM_ReadConfigurationSpace || oc == CM_WriteConfigurationSpace) && m_config) {
    result = m_config->request(m);
    TRACE(2, u"\nEM_MENDER (REQUEST) :  umConfig returns %d", result);
  } else {
    result = AnswerUnknown(m);
  }
  TraceReturn(m);
  return result;
}

void CUpdateExtensionModule::ApplicationReply(RequestMessage* message) {
  try {
    RequestMessage& m = *message;
    const int32_t i = m.commandIndex;
    TRACE(3, u"\nEM_MENDER (REPLY)    : START \n");
    TRACE(3, u"\nEM_MENDER (REPLY)    : CABID %04d: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X Len %d\n",
          TraceInt(GetCommandValue(m, i, kKeyCA, 0)), GetCommandValue(m, i, kKeyOC, 0),
          GetCommandValue(m, i, kKeyOE, 0), GetCommandValue(m, i, kKeyOI, 0), GetCommandValue(m, i, kKeyMI, 0) >> 16,
          GetCommandValue(m, i, kKeyMI, 0) & 0xFFFF, GetCommandValue(m, i, kKeyST, ST_ABSENT),
          static_cast<int>(GetDataLength(m, i)));
    const uint32_t oc = GetCommandValue(m, i, kKeyOC, 0);
    if (oc == CM_VInfoScanTime) {
      TRACE(3, u"\nEM_MENDER (REPLY)    : CM_VInfoScanTime catched\n");
      return;
    }
    if (oc != CM_VInfoScanState) {
      TRACE(3, u"EM_MENDER (REPLY)    : not interested in this event\n");
      return;
    }
    TRACE(2, u"\nEM_MENDER (REPLY)    : CM_VInfoScanState catched\n");
    if (GetDataLength(m, i) <= 0) return;
    uint32_t value = 0;
    GetDataValue(m, i, value);
    const uint32_t scanState = value & 0xFF;
    TRACE(3, u"EM_MENDER (REPLY)    : ScanState=%d: \n", static_cast<int>(scanState));
    // Only a changed inventory (states 2 and 3) concerns the check, and only once it exists.
    if (!m_scheduler || !m_check || (scanState != 2 && scanState != 3)) return;
    TRACE(2, u"EM_MENDER (REPLY)    : inform ORMUX; inventoryModified\n");
    if (m_check->setInventoryModifiedEvent(static_cast<uint8_t>(scanState))) {
      TRACE(2, u"EM_MENDER (REPLY)    : inform UM_scheduler; setEvent(immediate,force)\n");
      m_scheduler->setEvent(1, 1);
    }
    TRACE(3, u"EM_MENDER (REPLY)    : END \n");
  }
  EM_CATCH_THREAD_CANCEL catch (...) {
    TRACE(1, u"EM_MENDER (REPLY)    : ERROR! Exception in ApplicationReply()\n");
  }
}

void CUpdateExtensionModule::SendEvent(RequestMessage* message) {
  RequestMessage& m = *message;
  const uint32_t kept = GetCommandValue(m, m.commandIndex, kKeyST, ST_ABSENT);
  SetCommandValue(m, GetCurrentCommand(m), kKeyST, ST_PARKED, false);
  if (m_host) m_host->PostEvent(this, message);
  SetCommandValue(m, GetCurrentCommand(m), kKeyST, kept, false);
}

void CUpdateExtensionModule::SendHostRequest(RequestMessage* message) {
  if (m_host) {
    m_host->SendRequest(this, message, kHostRequestTimeoutMs);
  } else {
    SetCommandValue(*message, GetCurrentCommand(*message), kKeyST, ST_FAILED, false);
  }
}

int CUpdateExtensionModule::sendAlert(uint32_t msgNumber, int numberArgs, const WString* args) {
  RequestMessage message;
  ResetMessage(message);
  if (!args || numberArgs < 0) numberArgs = 0;
  TRACE(3, u"CUpdateExtensionModule::sendAlert\t: START, msgNumber=%X, numberArgs=%d\n", msgNumber, numberArgs);
  for (int i = 0; i < numberArgs; ++i)
    TRACE(3, u"CUpdateExtensionModule::sendAlert\t: arg[%d]=%s\n", i, args[i].c_str());

  // Without the settings component every alert is off.
  const uint8_t alertNewUpdates = m_config ? m_config->alertNewUpdates : 0;
  const uint8_t alertJobFinished = m_config ? m_config->alertJobFinished : 0;
  const AlertKind* kind = nullptr;
  for (const AlertKind& k : kAlertKinds)
    if (k.number == msgNumber) kind = &k;
  if (!kind) {
    TRACE(1, u"CUpdateExtensionModule::sendAlert\t: >>>>>>>ERROR: unsupported message\n");
    return -1;
  }
  if ((kind->jobFinished ? alertJobFinished : alertNewUpdates) == 0) return 0;
  // The text goes through "%s": the one of 0x290001 holds a "%u" that is no conversion.
  TRACE(1, u"%s\n", kind->trace);

  const std::vector<WString> arguments(args, args + numberArgs);
  const uint32_t now = platform::LocalClockSeconds();
  TRACE(3,
        u"CUpdateExtensionModule::sendAlert\t: create 'CLogMsgArguments "
        u"(platform=%d,msgNo=%X,time=%d,severity=%d,0,FALSE)'\n",
        static_cast<int>(kAlertPlatform), msgNumber, static_cast<int>(now), static_cast<int>(kind->severity));
  CLogMsgArguments record(kAlertPlatform, msgNumber, now, kind->severity, 0, false);
  for (const WString& argument : arguments) record.AddArgument(argument);

  MessageValue& command = GetCurrentCommand(message);
  InitCommand(message, command, CM_UmAlert, 0, 0);
  SetDataBytes(message, command, record.Bytes().data(), record.Bytes().size());
  MessageRemoveMember(command, kKeyST);
  SendEvent(&message);
  TRACE(3, u"CUpdateExtensionModule::sendAlert\t: END, msgNumber=%X, returns %d\n", msgNumber, 0);
  return 0;
}
