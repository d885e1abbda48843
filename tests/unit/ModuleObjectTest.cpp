// The module object driven directly, with a recording host.
#include <gtest/gtest.h>

#include <vector>

#include "foundation/Opcodes.h"
#include "foundation/SysLog.h"
#include "module/CUpdateExtensionModule.h"
#include "module/IModuleHost.h"
#include "platform/Environment.h"

namespace {

class RecordingHost : public IModuleHost {
 public:
  int SendRequest(IExtensionModule* module, RequestMessage* message, uint32_t timeoutMs) override {
    requests.push_back({GetCommandValue(*message, message->commandIndex, kKeyOC, 0), timeoutMs});
    EXPECT_EQ(module, expectedModule);
    SetCommandValue(*message, GetCurrentCommand(*message), kKeyST, ST_OK, false);
    return 1;
  }
  void PostEvent(IExtensionModule* module, RequestMessage* message) override {
    EXPECT_EQ(module, expectedModule);
    stDuringPost.push_back(GetCommandValue(*message, message->commandIndex, kKeyST, ST_ABSENT));
  }
  void ModuleStarted(IExtensionModule*, uint32_t) override { ++started; }
  void ModuleStopping(IExtensionModule*) override { ++stopping; }
  uint32_t GetHostType() override { return hostType; }

  IExtensionModule* expectedModule = nullptr;
  uint32_t hostType = 1;
  std::vector<std::pair<uint32_t, uint32_t>> requests;
  std::vector<uint32_t> stDuringPost;
  int started = 0, stopping = 0;
};

class ShutdownWatcher : public CUpdateExtensionModule {
 public:
  int HostQuery5(uint32_t code, uint32_t a, uint32_t b) override {
    passed = {code, a, b};
    return 0;
  }
  std::vector<uint32_t> passed;
};

// One command with the given keys; a key of value ~0u is left out.
void Command(RequestMessage& m, uint32_t oc, uint32_t ca = ~0u, uint32_t st = ~0u) {
  ResetMessage(m);
  MessageValue& c = GetCurrentCommand(m);
  SetCommandValue(m, c, kKeyOC, oc, false);
  if (ca != ~0u) SetCommandValue(m, c, kKeyCA, ca, false);
  if (st != ~0u) SetCommandValue(m, c, kKeyST, st, false);
}

uint32_t St(const RequestMessage& m) {
  return GetCommandValue(m, m.commandIndex, kKeyST, ST_ABSENT);
}

}  // namespace

TEST(ModuleObject, PropertiesAndHardware) {
  CUpdateExtensionModule module;
  ModuleProperties p{};
  p.size = 451;
  p.flags08 = 0x10;
  EXPECT_EQ(module.GetProperties(&p), 0);
  EXPECT_EQ(p.flags08, 0x10u);
  EXPECT_EQ(p.name[0], 0);
  p.size = 452;
  ASSERT_EQ(module.GetProperties(&p), 1);
  EXPECT_EQ(p.flags08, 0x13u);
  EXPECT_EQ(p.flags18, 3u);
  EXPECT_EQ(p.value20, 100u);
  EXPECT_EQ(p.value30, 1u);
  EXPECT_EQ(WString(p.name), u"EM_MENDER");
  EXPECT_EQ(WString(p.description), u"Update filter module");

  platform::SetEnv(u"QV_SYSTEM", u"xenserver");
  EXPECT_EQ(module.DetectHardware(), 0);
  platform::SetEnv(u"QV_SYSTEM", u"XenServer");
  EXPECT_EQ(module.DetectHardware(), 1);
  platform::SetEnv(u"QV_SYSTEM", u"ovmserver");
  EXPECT_EQ(module.DetectHardware(), 0);
  platform::UnsetEnv(u"QV_SYSTEM");
  EXPECT_EQ(module.DetectHardware(), 1);
}

TEST(ModuleObject, CabinetNumberAndRouting) {
  CExtensionModule::ResetServerCabinet();
  CUpdateExtensionModule module;
  uint32_t cab = 77;
  EXPECT_EQ(module.GetCabinetNumber(&cab), 0);
  EXPECT_EQ(cab, 0u);
  RequestMessage m;
  Command(m, 0x1234, 0);
  EXPECT_EQ(module.ApplicationRequest(&m), 0);
  EXPECT_EQ(St(m), ST_DENIED);  // CA 0 is the cabinet before any is set: unknown opcode
  ASSERT_EQ(module.SetServerCabinetNumber(3), 1);
  EXPECT_EQ(module.GetCabinetNumber(&cab), 1);
  EXPECT_EQ(cab, 3u);

  Command(m, 0x1234, 4);
  EXPECT_EQ(module.ApplicationRequest(&m), 0);
  EXPECT_EQ(St(m), ST_ILLEGAL_CABINET);
  Command(m, CM_UmServerStartCheck, 0);
  EXPECT_EQ(module.ApplicationRequest(&m), 0);
  EXPECT_EQ(St(m), ST_ILLEGAL_CABINET);  // the cabinet rule comes before routing
  Command(m, CM_UmServerStartCheck);
  EXPECT_EQ(module.ApplicationRequest(&m), 1);
  EXPECT_EQ(St(m), ST_OK);
  Command(m, CM_UmServerStartCheck, 3, 9);
  EXPECT_EQ(module.ApplicationRequest(&m), 1);
  EXPECT_EQ(St(m), ST_OK);
  for (uint32_t oc : {0xE003u, 0x33DFu, 0x33A8u, 0x33E0u, 0xE001u, 0xE002u}) {
    Command(m, oc, 3);
    EXPECT_EQ(module.ApplicationRequest(&m), 0) << oc;
    EXPECT_EQ(St(m), ST_DENIED) << oc;
  }
  CExtensionModule::ResetServerCabinet();
}

TEST(ModuleObject, HostTrafficAndLifecycle) {
  ShutdownWatcher module;
  RecordingHost host;
  host.expectedModule = &module;
  host.hostType = kHostTypeAgentless;

  RequestMessage m;
  ConstructRequest(m, CM_VInfoStartScanning, 0, 0, 0, ST_NONE);
  module.SendHostRequest(&m);
  EXPECT_EQ(St(m), ST_FAILED);  // no host yet

  ASSERT_EQ(module.StartModule(&host, 0x00020001), 1);
  EXPECT_EQ(SysLog::Instance().SourceName(), u"Tessaly Agentless Service");
  module.OnSwitchStarted();
  EXPECT_EQ(host.started, 1);

  ConstructRequest(m, CM_RequestShutdownAndReset, 0, 0, 0, ST_NONE);
  module.SendHostRequest(&m);
  ASSERT_EQ(host.requests.size(), 1u);
  EXPECT_EQ(host.requests[0].first, CM_RequestShutdownAndReset);
  EXPECT_EQ(host.requests[0].second, 5000u);

  // An event is parked at 255 while the host holds it; its own status comes back afterwards.
  ConstructRequest(m, CM_UmDataChanged, 0, 0, 0, 0);
  module.SendEvent(&m);
  ConstructRequest(m, CM_UmAlert, 0, 0, 0, ST_NONE);
  module.SendEvent(&m);
  EXPECT_EQ(host.stDuringPost, (std::vector<uint32_t>{255, 255}));
  EXPECT_EQ(St(m), ST_ABSENT);
  EXPECT_TRUE(HasCommandKey(m, 0, kKeyST));  // added with 22 when it was absent

  EXPECT_EQ(module.GetSwitchShutDownFlag(), 0u);
  module.OnSwitchEvent(1, 5, 6);
  EXPECT_EQ(module.GetSwitchShutDownFlag(), 0u);
  module.OnSwitchEvent(kSwitchEventShutdown, 7, 8);
  EXPECT_EQ(module.GetSwitchShutDownFlag(), 1u);
  EXPECT_EQ(module.passed, (std::vector<uint32_t>{2, 7, 8}));

  EXPECT_EQ(module.StopModule(), 1);
  EXPECT_EQ(host.stopping, 1);
  EXPECT_FALSE(module.WorkerRunning());

  // Replies are watched, never answered: an empty scan state and unknown opcodes change nothing.
  Command(m, CM_VInfoScanState);
  module.ApplicationReply(&m);
  EXPECT_FALSE(HasCommandKey(m, 0, kKeyST));
  Command(m, CM_VInfoScanTime);
  module.ApplicationReply(&m);
  EXPECT_FALSE(HasCommandKey(m, 0, kKeyST));
}
