// The module file as the host loads it: its exports, the single module object, the properties
// record, the cabinet number and the calling order of start and shutdown.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <vector>

#include "hostlib/JsonMessage.h"
#include "tests/integration/IntegrationSupport.h"

namespace {

TEST(ModuleFile, ExportsAllEightEntryPointsByName) {
  REQUIRE_MODULE_PATH();
  ModuleHost host(HostOptions());
  ASSERT_TRUE(host.Load()) << host.LastError();
  const ModuleEntryPoints& e = host.Entries();
  EXPECT_NE(e.getModuleName, nullptr);
  EXPECT_NE(e.create, nullptr);
  EXPECT_NE(e.remove, nullptr);
  EXPECT_NE(e.setupAction, nullptr);
  EXPECT_NE(e.updateTree, nullptr);
  EXPECT_NE(e.download, nullptr);
  EXPECT_NE(e.checkWebConnection, nullptr);
  EXPECT_NE(e.deleteBinary, nullptr);
  EXPECT_EQ(std::u16string(e.getModuleName()), u"EM_MENDER");
}

TEST(ModuleFile, MissingFileIsReportedAndNothingRuns) {
  ModuleHost::Options options = HostOptions();
  options.modulePath += u".missing";
  ModuleHost host(options);
  EXPECT_FALSE(host.Start());
  EXPECT_FALSE(host.Loaded());
  EXPECT_EQ(host.Module(), nullptr);
  EXPECT_FALSE(host.LastError().empty());
}

TEST(ModuleFile, OneModuleObjectPerLoad) {
  REQUIRE_MODULE_PATH();
  ModuleHost host(HostOptions());
  ASSERT_TRUE(host.Load()) << host.LastError();
  const ModuleEntryPoints& e = host.Entries();

  EXPECT_EQ(e.remove(), 0) << "nothing to delete before the first EM_Create";
  IExtensionModule* first = nullptr;
  IExtensionModule* second = nullptr;
  EXPECT_NE(e.create(&first, nullptr), 0);
  ASSERT_NE(first, nullptr);
  EXPECT_NE(e.create(&second, nullptr), 0);
  EXPECT_EQ(second, first) << "a second EM_Create hands back the existing object";
  EXPECT_EQ(std::u16string(first->GetModuleName()), u"EM_MENDER");
  EXPECT_EQ(e.remove(), 1);
  EXPECT_EQ(e.remove(), 0);
  // A new object after the delete is a working one.
  IExtensionModule* third = nullptr;
  EXPECT_NE(e.create(&third, nullptr), 0);
  ASSERT_NE(third, nullptr);
  EXPECT_EQ(e.remove(), 1);
}

TEST(ModuleFile, SetupActionsOtherThanUninstallSucceedAndDoNothing) {
  REQUIRE_MODULE_PATH();
  ModuleHost host(HostOptions());
  ASSERT_TRUE(host.Load()) << host.LastError();
  for (int action : {0, 1, 2, 3, 5, 100}) EXPECT_EQ(host.Entries().setupAction(action), 1) << "action " << action;
}

// A record larger than the module needs, pre-filled so that every byte the module writes shows.
struct PropertiesBuffer {
  static constexpr uint8_t kFill = 0xA5;
  alignas(ModuleProperties) uint8_t bytes[600];
  PropertiesBuffer() { std::memset(bytes, kFill, sizeof bytes); }
  ModuleProperties& record() { return *reinterpret_cast<ModuleProperties*>(bytes); }
};

TEST(ModuleFile, GetPropertiesWritesOnlyItsFieldsAndOnlyIntoARecordOfFullSize) {
  REQUIRE_MODULE_PATH();
  ModuleHost host(HostOptions());
  ASSERT_TRUE(host.Load()) << host.LastError();
  IExtensionModule* module = nullptr;
  ASSERT_NE(host.Entries().create(&module, nullptr), 0);

  PropertiesBuffer shortRecord;
  shortRecord.record().size = kModulePropertiesMinSize - 1;
  PropertiesBuffer untouched;
  untouched.record().size = kModulePropertiesMinSize - 1;
  EXPECT_EQ(module->GetProperties(&shortRecord.record()), 0);
  EXPECT_EQ(std::memcmp(shortRecord.bytes, untouched.bytes, sizeof untouched.bytes), 0);

  PropertiesBuffer full;
  full.record().size = kModulePropertiesMinSize;
  const PropertiesBuffer before = full;
  ASSERT_EQ(module->GetProperties(&full.record()), 1);
  const ModuleProperties& p = full.record();
  const uint32_t filled = 0xA5A5A5A5u;
  EXPECT_EQ(p.size, kModulePropertiesMinSize);
  EXPECT_EQ(p.flags08, filled | 3u) << "the flags are OR-ed, not replaced";
  EXPECT_EQ(p.flags18, filled | 3u);
  EXPECT_EQ(p.value20, 100u);
  EXPECT_EQ(p.value30, 1u);
  EXPECT_EQ(std::u16string(p.name), u"EM_MENDER");
  EXPECT_EQ(std::u16string(p.description), u"Update filter module");
  EXPECT_EQ(p.name[99], 0);
  EXPECT_EQ(p.description[99], 0);
  // Everything the module does not own keeps the host's bytes: the reserved words and all that
  // lies beyond the 452 bytes of the record.
  EXPECT_EQ(p.reserved04, filled);
  for (uint32_t word : p.reserved0C) EXPECT_EQ(word, filled);
  EXPECT_EQ(p.reserved1C, filled);
  for (uint32_t word : p.reserved24) EXPECT_EQ(word, filled);
  EXPECT_EQ(std::memcmp(full.bytes + kModulePropertiesMinSize, before.bytes + kModulePropertiesMinSize,
                        sizeof full.bytes - kModulePropertiesMinSize),
            0);
  EXPECT_EQ(host.Entries().remove(), 1);
}

TEST(ModuleLifecycle, CabinetNumberIsUnknownUntilTheHostSetsItEvenToZero) {
  REQUIRE_MODULE_PATH();
  {
    // A load that sets a number, so that a leftover would show in the next load.
    ModuleHost::Options options = HostOptions();
    options.cabinet = 7;
    ModuleHost host(options);
    ASSERT_TRUE(host.Start()) << host.LastError();
    uint32_t number = 0;
    EXPECT_EQ(host.Module()->GetCabinetNumber(&number), 1);
    EXPECT_EQ(number, 7u);
  }
  ModuleHost::Options options = HostOptions();
  options.setCabinet = false;
  ModuleHost host(options);
  ASSERT_TRUE(host.Start()) << host.LastError();
  uint32_t number = 77;
  EXPECT_EQ(host.Module()->GetCabinetNumber(&number), 0) << "a fresh load knows no cabinet number";
  EXPECT_EQ(number, 0u);
  EXPECT_EQ(host.Module()->SetServerCabinetNumber(0), 1);
  number = 77;
  EXPECT_EQ(host.Module()->GetCabinetNumber(&number), 1);
  EXPECT_EQ(number, 0u);
}

TEST(ModuleLifecycle, StartAndStopFollowTheHostsOrder) {
  REQUIRE_MODULE_PATH();
  ModuleHost host(HostOptions());
  ASSERT_TRUE(host.Start()) << host.LastError();
  EXPECT_EQ(host.CreateResult(), 1);
  EXPECT_EQ(host.PropertiesResult(), 1);
  EXPECT_EQ(std::u16string(host.Properties().name), u"EM_MENDER");
  EXPECT_EQ(host.StartResult(), 1);
  EXPECT_EQ(host.ModuleStartedCalls(), 1) << "OnSwitchStarted tells the host once";
  EXPECT_EQ(host.ModuleStoppingCalls(), 0);

  const auto begin = std::chrono::steady_clock::now();
  host.Stop();
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(host.ModuleStoppingCalls(), 1) << "StopModule tells the host once";
  EXPECT_FALSE(host.Loaded());
  // With the shutdown event first, no thread needs the 30 seconds that StopModule grants it.
  EXPECT_LT(took, std::chrono::seconds(20));
}

TEST(ModuleLifecycle, RestartLoadsAFreshModuleThatAnswers) {
  REQUIRE_MODULE_PATH();
  ModuleHost::Options options = HostOptions();
  options.cabinet = 2;
  ModuleHost host(options);
  ASSERT_TRUE(host.Start()) << host.LastError();
  ASSERT_TRUE(host.Restart()) << host.LastError();
  EXPECT_EQ(host.ModuleStartedCalls(), 2);
  EXPECT_EQ(host.ModuleStoppingCalls(), 1);
  uint32_t number = 0;
  EXPECT_EQ(host.Module()->GetCabinetNumber(&number), 1);
  EXPECT_EQ(number, 2u) << "the restarted module got the cabinet number before its start";

  RequestMessage message;
  std::string error;
  ASSERT_TRUE(CommandFromJsonText(R"({"OC":13105,"CA":2})", message, error)) << error;
  EXPECT_EQ(host.Request(message), 1);
  EXPECT_EQ(GetCommandValue(message, 0, kKeyST, ST_ABSENT), ST_OK);
}

TEST(ModuleLifecycle, DetectHardwareFollowsQvSystem) {
  REQUIRE_MODULE_PATH();
  struct Case {
    const char16_t* value;  // null: the variable is unset
    int expected;
  };
  WString saved;
  const bool hadValue = platform::GetEnv(u"QV_SYSTEM", saved);
  for (const Case& c : {Case{u"xenserver", 0}, Case{u"ovmserver", 0}, Case{u"oraclelinux", 0}, Case{u"XenServer", 1},
                        Case{u"xenserver ", 1}, Case{nullptr, 1}}) {
    if (c.value)
      platform::SetEnv(u"QV_SYSTEM", c.value);
    else
      platform::UnsetEnv(u"QV_SYSTEM");
    ModuleHost host(HostOptions());
    ASSERT_TRUE(host.Start()) << host.LastError();
    EXPECT_EQ(host.DetectHardwareResult(), c.expected) << (c.value ? WToUtf8(c.value) : "unset");
  }
  if (hadValue)
    platform::SetEnv(u"QV_SYSTEM", saved);
  else
    platform::UnsetEnv(u"QV_SYSTEM");
}

TEST(ModuleRequests, TheModuleAnswersTheCommandTheHostPointsAt) {
  REQUIRE_MODULE_PATH();
  ModuleHost host(HostOptions());
  ASSERT_TRUE(host.Start()) << host.LastError();

  // Command 0 is an unknown opcode, command 1 the start check: only command 1 is answered.
  RequestMessage message;
  std::string error;
  ASSERT_TRUE(CommandFromJsonText(R"({"OC":57347})", message, error)) << error;
  message.commandIndex = 1;
  SetCommandValue(message, GetCurrentCommand(message), kKeyOC, 0x3331, false);
  EXPECT_EQ(host.Request(message), 1);
  EXPECT_EQ(GetCommandValue(message, 1, kKeyST, ST_ABSENT), ST_OK);
  EXPECT_FALSE(HasCommandKey(message, 0, kKeyST));

  message.commandIndex = 0;
  EXPECT_EQ(host.Request(message), 0);
  EXPECT_EQ(GetCommandValue(message, 0, kKeyST, ST_ABSENT), ST_DENIED);
  EXPECT_EQ(GetCommandValue(message, 1, kKeyST, ST_ABSENT), ST_OK);
}

}  // namespace
