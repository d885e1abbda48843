// What the components below the module need of the module object. The module implements it;
// the components hold a plain pointer to it, which may be null (the exported repository functions
// run without a module).
#pragma once

#include <cstdint>

#include "base/WString.h"

class CEvent;
struct RequestMessage;

class IUpdateModule {
 public:
  // Set by the host's shutdown event; ends every long loop.
  virtual uint32_t GetSwitchShutDownFlag() = 0;
  // 1 and the number once the host has set it; 0 and 0 before.
  virtual int GetCabinetNumber(uint32_t* number) = 0;
  // An event to the host; ST reads 255 while the host holds it.
  virtual void SendEvent(RequestMessage* message) = 0;
  // A synchronous request to the host; without a host ST becomes 6.
  virtual void SendHostRequest(RequestMessage* message) = 0;
  virtual int getMailAlertEnabledFlag() = 0;
  // An alert record to the host, sent only when the alert setting of its kind is on. 0, or -1 for
  // a message number the module does not know.
  virtual int sendAlert(uint32_t msgNumber, int numberArgs, const WString* args) = 0;
  // Waited on and reset by the transfer code, set by nobody: a plain sleep.
  virtual CEvent& SpareEvent() = 0;
  // Set when a check has ended; the job code waits on it.
  virtual CEvent& PollingLoopCheckDone() = 0;

 protected:
  ~IUpdateModule() = default;
};
