#include "module/CUpdateExtensionModule.h"

#include <cstring>

#include "check/DiffComponentInfo.h"
#include "check/UM_Check.h"
#include "check/UM_Scheduler.h"
#include "config/UM_Config.h"
#include "foundation/CDebug.h"
#include "foundation/UM_Util.h"
#include "module/IModuleHost.h"
#include "platform/Environment.h"

const char16_t* g_moduleTraceName = u"EM_?????";

namespace {
const char16_t kSeparator[] = u"\n==========================================================================";
}

CUpdateExtensionModule::CUpdateExtensionModule() {
  TRACE(5, u"\nEM_MENDER           : CLASS CREATED!");
}

CUpdateExtensionModule::~CUpdateExtensionModule() noexcept(false) {
  TRACE(5, u"\nEM_MENDER           : CLASS DESTROYED!");
}

int CUpdateExtensionModule::GetProperties(ModuleProperties* properties) {
  if (!properties || properties->size < kModulePropertiesMinSize) return 0;
  properties->flags08 |= 3;
  properties->flags18 |= 3;
  properties->value20 = 100;
  properties->value30 = 1;
  auto put = [](char16_t* field, const char16_t* text) {
    size_t n = WLength(text);
    if (n > 99) n = 99;
    std::memcpy(field, text, n * sizeof(char16_t));
    field[n] = 0;
    field[99] = 0;
  };
  put(properties->name, GetModuleName());
  put(properties->description, u"Update filter module");
  return 1;
}

int CUpdateExtensionModule::DetectHardware() {
  // Systems that this module does not serve announce themselves through QV_SYSTEM.
  WString system;
  platform::GetEnv(u"QV_SYSTEM", system);
  if (system == u"oraclelinux" || system == u"xenserver" || system == u"ovmserver") return 0;
  return 1;
}

int CUpdateExtensionModule::GetCabinetNumber(uint32_t* number) {
  if (ServerCabinetSet()) {
    if (number) *number = ServerCabinetNumber();
    return 1;
  }
  if (number) *number = 0;
  return 0;
}

int CUpdateExtensionModule::StartModule(IModuleHost* host, uint32_t identifier) {
  // The separator and the text are two messages, so that each line gets its stamps.
  TRACE(1, kSeparator);
  TRACE(1, u"\n### Starting module %s ###\n", g_moduleTraceName);
  CExtensionModule::StartModule(host, identifier);
  // The components in their order; a failed allocation leaves a null pointer and the start goes
  // on. The jobs join when they are built; until then their opcodes are answered as unknown ones.
  m_util = new (std::nothrow) UM_Util(this);
  m_config = new (std::nothrow) UM_Config(this, m_util);
  m_check = new (std::nothrow) UM_Check(m_config, m_util, this);
  // The scheduler's thread runs only from OnSwitchStarted on.
  m_scheduler = new (std::nothrow) UM_Scheduler(this, m_check, m_config);
  StartSerialization();
  TRACE(1, u"\n\n### Start of module %s completed successfully ###", g_moduleTraceName);
  TRACE(1, kSeparator);
  return 1;
}

void CUpdateExtensionModule::OnSwitchStarted() {
  TRACE(1, u"\n### OnSwitchStarted module %s ###\n", g_moduleTraceName);
  int ret = 0;
  if (m_scheduler) ret = m_scheduler->start();
  if (m_host) m_host->ModuleStarted(this, 0);
  uint32_t cabinet = 0;
  int cabOk = GetCabinetNumber(&cabinet);
  TRACE(1, u"\n\n### OnSwitchStarted of module %s completed, ret=%d, checkReady=%d ###", g_moduleTraceName, ret,
        static_cast<int>(checkReady));
  TRACE(1, u"\n serverCabId=%d, myCabId=%d,cabok=%d\n", static_cast<int>(ServerCabinetNumber()),
        static_cast<int>(cabinet), cabOk);
  TRACE(1, kSeparator);
}

int CUpdateExtensionModule::StopModule() {
  TRACE(1, kSeparator);
  TRACE(1, u"\n### Stopping module %s ###\n", g_moduleTraceName);
  TerminateSerialization();
  if (m_host) m_host->ModuleStopping(this);
  TRACE(2, u"\n### Send update stop event to module %s ###\n", g_moduleTraceName);
  // The fixed teardown order: check, scheduler, paths and logs, settings, jobs. Paths and logs go
  // before the settings, which hold a pointer to them and do not use it while stopping.
  //
  // The scheduler's thread may be inside a check, and a thread woken without the shutdown event
  // would start another one: it is ended (30 s at most, then killed) before the check it calls
  // goes, and the scheduler object itself goes in its own place after the check.
  if (m_scheduler) m_scheduler->stop();
  delete m_check;
  m_check = nullptr;
  if (m_scheduler) {
    delete m_scheduler;
    m_scheduler = nullptr;
  }
  delete m_util;
  m_util = nullptr;
  delete m_config;
  m_config = nullptr;
  TRACE(1, u"\n\n### Stop of module %s completed successfully ###", g_moduleTraceName);
  TRACE(1, kSeparator);
  return 1;
}

uint32_t CUpdateExtensionModule::GetSwitchShutDownFlag() {
  uint32_t flag = m_bSwitchShutdown.load();
  TRACE(1, u"\nCUpdateExtensionModule::GetSwitchShutDownFlag()\t: m_bSwitchShutdown=%d", static_cast<int>(flag));
  return flag;
}

DiffComponentInfo* CUpdateExtensionModule::getDiffComponentInfo(WString componentPath) {
  return m_check ? m_check->getDiffComponent(componentPath) : nullptr;
}

int CUpdateExtensionModule::getMailAlertEnabledFlag() {
  return m_config ? m_config->getMailAlertEnabledFlag() : 0;
}

void CUpdateExtensionModule::OnTaskExecution(RequestMessage* message, uint32_t /*level*/) {
  if (!g_Debug.IsActive()) return;
  TRACE(3, u"\nEM_MENDER (OnTaskX) : START, opcode=%d\n",
        static_cast<int>(message ? GetCommandValue(*message, message->commandIndex, kKeyOC, 0) : 0));
  TRACE(3, u"\nEM_MENDER (OnTaskX) : END\n");
}
