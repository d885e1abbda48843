// The module object the host creates. It owns the components of the module in creation order and
// routes the host's requests to them.
#pragma once

#include <cstdint>

#include "foundation/CEvent.h"
#include "foundation/IUpdateModule.h"
#include "module/CExtensionModule.h"
#include "module/CTaskSerializer.h"

class UM_Util;
class UM_Config;
class UM_Check;
class UM_Scheduler;
class UM_Job;
struct DiffComponentInfo;

class CUpdateExtensionModule : public CExtensionModule, public CTaskSerializer, public IUpdateModule {
 public:
  CUpdateExtensionModule();
  ~CUpdateExtensionModule() noexcept(false) override;

  int GetProperties(ModuleProperties* properties) override;
  int DetectHardware() override;
  int StartModule(IModuleHost* host, uint32_t identifier) override;
  int StopModule() override;
  void OnSwitchStarted() override;
  void ApplicationReply(RequestMessage* message) override;
  int ApplicationRequest(RequestMessage* message) override;
  int GetCabinetNumber(uint32_t* number) override;
  const char16_t* GetModuleName() override { return u"EM_MENDER"; }

  uint32_t GetSwitchShutDownFlag() override;
  virtual DiffComponentInfo* getDiffComponentInfo(WString componentPath);
  int getMailAlertEnabledFlag() override;
  // Alert numbers: 0x290000/0x290001 (new components, tree update failed) under the setting for
  // new updates; 0x290010..0x290013 (job ok, flashing, download, preparing failed) under the
  // setting for finished jobs.
  int sendAlert(uint32_t msgNumber, int numberArgs, const WString* args) override;

  void OnTaskExecution(RequestMessage* message, uint32_t level) override;

  // The way of every event to the host: ST reads 255 while the host holds the message.
  void SendEvent(RequestMessage* message) override;
  // A synchronous request to the host, built with ConstructRequest; without a host ST becomes 6.
  void SendHostRequest(RequestMessage* message) override;

  CEvent& SpareEvent() override { return m_spareEvent; }
  CEvent& PollingLoopCheckDone() override { return E_PollingLoopCheckDone; }

 private:
  void TraceReturn(RequestMessage& message);

  CEvent m_spareEvent;  // waited on and reset by the transfer code; nobody sets it: a plain sleep
  CEvent E_PollingLoopCheckDone;
  uint32_t m_unused1 = 0;
  uint32_t m_unused2 = 0;
  UM_Util* m_util = nullptr;
  UM_Check* m_check = nullptr;
  UM_Config* m_config = nullptr;
  uint8_t checkReady = 0;
  UM_Scheduler* m_scheduler = nullptr;
  UM_Job* m_job = nullptr;
};

// The module name for trace texts: "EM_?????" until the module file is loaded.
extern const char16_t* g_moduleTraceName;
