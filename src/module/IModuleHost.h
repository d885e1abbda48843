// The host's interface as the module sees it. Its slot order is the host's: eight slots the module
// never calls, the four it does, fourteen more, then the host type.
#pragma once

#include <cstdint>

class IExtensionModule;
struct RequestMessage;

class IModuleHost {
 public:
  virtual int HostSlot01() { return 0; }
  virtual int HostSlot02() { return 0; }
  virtual int HostSlot03() { return 0; }
  virtual int HostSlot04() { return 0; }
  virtual int HostSlot05() { return 0; }
  virtual int HostSlot06() { return 0; }
  virtual int HostSlot07() { return 0; }
  virtual int HostSlot08() { return 0; }
  // Synchronous request to the host; the reply stands in the same message on return.
  virtual int SendRequest(IExtensionModule* module, RequestMessage* message, uint32_t timeoutMs) = 0;
  // Hands an event or alert to the host.
  virtual void PostEvent(IExtensionModule* module, RequestMessage* message) = 0;
  virtual void ModuleStarted(IExtensionModule* module, uint32_t reserved) = 0;
  virtual void ModuleStopping(IExtensionModule* module) = 0;
  virtual int HostSlot13() { return 0; }
  virtual int HostSlot14() { return 0; }
  virtual int HostSlot15() { return 0; }
  virtual int HostSlot16() { return 0; }
  virtual int HostSlot17() { return 0; }
  virtual int HostSlot18() { return 0; }
  virtual int HostSlot19() { return 0; }
  virtual int HostSlot20() { return 0; }
  virtual int HostSlot21() { return 0; }
  virtual int HostSlot22() { return 0; }
  virtual int HostSlot23() { return 0; }
  virtual int HostSlot24() { return 0; }
  virtual int HostSlot25() { return 0; }
  virtual int HostSlot26() { return 0; }
  // 5 for the agentless service, anything else for the agent.
  virtual uint32_t GetHostType() = 0;

 protected:
  ~IModuleHost() = default;
};

constexpr uint32_t kHostTypeAgentless = 5;
