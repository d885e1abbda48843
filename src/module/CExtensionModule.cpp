#include "module/CExtensionModule.h"

#include "foundation/CDebug.h"
#include "foundation/RequestMessage.h"
#include "foundation/SysLog.h"
#include "module/IModuleHost.h"

std::atomic<uint32_t> CExtensionModule::s_cabinetNumber{0};
std::atomic<uint8_t> CExtensionModule::s_cabinetSet{0};

void CExtensionModule::ResetServerCabinet() {
  s_cabinetNumber = 0;
  s_cabinetSet = 0;
}

int CExtensionModule::GetProperties(ModuleProperties* /*properties*/) {
  return 0;
}

int CExtensionModule::StartModule(IModuleHost* host, uint32_t identifier) {
  m_host = host;
  m_identifierLow = static_cast<uint16_t>(identifier & 0xFFFF);
  m_identifierHigh = static_cast<uint16_t>(identifier >> 16);
  const uint32_t hostType = host ? host->GetHostType() : 0;
  const char16_t* source = hostType == kHostTypeAgentless ? u"Tessaly Agentless Service" : u"Tessaly Node Warden";
  SysLog::Instance().RegisterSource(source, GetModuleName(), 0x40000000);
  return 1;
}

int CExtensionModule::ApplicationRequest(RequestMessage* message) {
  if (message) SetCommandValue(*message, GetCurrentCommand(*message), kKeyST, ST_DENIED, false);
  return 0;
}

int CExtensionModule::SetServerCabinetNumber(uint32_t number) {
  s_cabinetNumber = number;
  s_cabinetSet = 1;
  TRACE(1, u"\nCExtensionModule    : ## Server cabinet number = %d ##", static_cast<int>(number));
  return 1;
}

void CExtensionModule::OnSwitchEvent(uint32_t code, uint32_t a, uint32_t b) {
  if (code == kSwitchEventShutdown) m_bSwitchShutdown = 1;
  HostQuery5(code, a, b);
}
