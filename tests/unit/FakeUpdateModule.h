// The module as the components below it see it, with the cabinet known or not.
#pragma once

#include "foundation/CEvent.h"
#include "foundation/IUpdateModule.h"

class FakeUpdateModule : public IUpdateModule {
 public:
  uint32_t GetSwitchShutDownFlag() override { return shutdown; }
  int GetCabinetNumber(uint32_t* number) override {
    *number = 0;
    return cabinetKnown ? 1 : 0;
  }
  void SendEvent(RequestMessage*) override {}
  void SendHostRequest(RequestMessage*) override {}
  int getMailAlertEnabledFlag() override { return 0; }
  int sendAlert(uint32_t, int, const WString*) override { return 0; }
  CEvent& SpareEvent() override { return spare; }
  CEvent& PollingLoopCheckDone() override { return done; }

  bool cabinetKnown = true;
  uint32_t shutdown = 0;
  CEvent spare, done;
};
