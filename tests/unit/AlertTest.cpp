// Alerts to the host and the event-log client: the alert record byte for byte, the settings that
// let alerts out, and the registration rules of the event source.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "foundation/CDebug.h"
#include "foundation/CFile.h"
#include "foundation/Opcodes.h"
#include "foundation/SysLog.h"
#include "foundation/UM_Util.h"
#include "module/CUpdateExtensionModule.h"
#include "module/IModuleHost.h"
#include "platform/Clock.h"
#include "platform/Environment.h"
#include "platform/FileIo.h"
#include "tests/unit/TestRegistry.h"

namespace {

const WString kBase = u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden";

struct PostedEvent {
  uint32_t opcode = 0;
  uint32_t stWhileHeld = 0;
  bool hasOE = false, hasOI = false, hasCA = false, raw = false;
  std::vector<uint8_t> data;
};

class AlertHost : public IModuleHost {
 public:
  int SendRequest(IExtensionModule*, RequestMessage*, uint32_t) override { return 0; }
  void PostEvent(IExtensionModule*, RequestMessage* message) override {
    PostedEvent e;
    const int32_t i = message->commandIndex;
    e.opcode = GetCommandValue(*message, i, kKeyOC, 0);
    e.stWhileHeld = GetCommandValue(*message, i, kKeyST, ST_ABSENT);
    e.hasOE = HasCommandKey(*message, i, kKeyOE);
    e.hasOI = HasCommandKey(*message, i, kKeyOI);
    e.hasCA = HasCommandKey(*message, i, kKeyCA);
    e.raw = HasRawData(*message);
    GetDataStream(*message, i, e.data);
    events.push_back(e);
  }
  void ModuleStarted(IExtensionModule*, uint32_t) override {}
  void ModuleStopping(IExtensionModule*) override {}
  uint32_t GetHostType() override { return 1; }

  std::vector<PostedEvent> events;
};

uint32_t U32(const std::vector<uint8_t>& b, size_t at) {
  return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<uint32_t>(b[at + 3]) << 24);
}
uint32_t U16(const std::vector<uint8_t>& b, size_t at) {
  return b[at] | (b[at + 1] << 8);
}

// The module started with its settings in a private registry and data directory; the alert
// settings are switched through the host's configuration requests.
class AlertTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = TestDirectory(u"alert");
    CFile::RemoveDirectoryTree(root, false);
    platform::CreateDirectoryPath(root + platform::kPathSeparator + u"data");
    reg.String(kBase + u"\\DATA", u"DataRoot", root + platform::kPathSeparator + u"data");
    reg.String(kBase + u"\\Setup", u"BinRoot", root);
    CExtensionModule::ResetServerCabinet();
    module.SetServerCabinetNumber(0);
    ASSERT_EQ(module.StartModule(&host, 1), 1);
  }
  void TearDown() override {
    module.StopModule();
    // StartModule registered the event source; the next test that starts a module finds none.
    SysLog::Instance().DeregisterSource();
    CExtensionModule::ResetServerCabinet();
    CFile::RemoveDirectoryTree(root, true);
  }

  void SetAlerts(uint32_t newUpdates, uint32_t jobFinished) {
    for (auto [oe, value] : {std::pair{6733u, newUpdates}, std::pair{6734u, jobFinished}}) {
      RequestMessage m;
      ConstructRequest(m, CM_WriteConfigurationSpace, oe, 0, 0, ST_NONE);
      SetDataNumber(m, GetCurrentCommand(m), value, 1);
      module.ApplicationRequest(&m);
      ASSERT_EQ(GetCommandValue(m, 0, kKeyST, ST_ABSENT), ST_OK) << oe;
    }
  }

  TestRegistry reg{u"alert"};
  WString root;
  AlertHost host;
  // Held by pointer: the module's destructor may throw, which a fixture's destructor may not.
  std::unique_ptr<CUpdateExtensionModule> owner = std::make_unique<CUpdateExtensionModule>();
  CUpdateExtensionModule& module = *owner;
};

}  // namespace

TEST_F(AlertTest, RecordOfAFinishedJobByteForByte) {
  SetAlerts(0, 1);
  const WString args[] = {u"ab", u"c"};
  const uint32_t before = platform::LocalClockSeconds();
  ASSERT_EQ(module.sendAlert(0x290010, 2, args), 0);
  const uint32_t after = platform::LocalClockSeconds();
  ASSERT_EQ(host.events.size(), 1u);
  const PostedEvent& e = host.events[0];
  EXPECT_EQ(e.opcode, 0x3341u);
  EXPECT_FALSE(e.hasOE);
  EXPECT_FALSE(e.hasOI);
  EXPECT_FALSE(e.hasCA);
  EXPECT_EQ(e.stWhileHeld, ST_PARKED);
  EXPECT_TRUE(e.raw);

  const std::vector<uint8_t>& b = e.data;
  ASSERT_EQ(b.size(), 31u);
  EXPECT_EQ(U16(b, 0), 31u);
  EXPECT_EQ(b[2], 1);  // version
  EXPECT_EQ(b[3], 4);  // platform
  EXPECT_EQ(U32(b, 4), 0x290010u);
  EXPECT_EQ(U32(b, 8), 0u);  // flags
  EXPECT_GE(U32(b, 12), before);
  EXPECT_LE(U32(b, 12), after + 1);
  EXPECT_EQ(U32(b, 16), 0u);
  EXPECT_EQ(U32(b, 20), 0u);
  EXPECT_EQ(b[24], 0);  // severity
  EXPECT_EQ(b[25], 2);  // arguments
  EXPECT_EQ(std::string(b.begin() + 26, b.end()), std::string("ab\0c\0", 5));
}

TEST_F(AlertTest, ArgumentsAreUtf8AndTheLengthFieldKeepsSixteenBits) {
  SetAlerts(1, 1);
  ASSERT_EQ(module.sendAlert(0x290001, 0, nullptr), 0);
  ASSERT_EQ(host.events.size(), 1u);
  EXPECT_EQ(host.events[0].data.size(), 26u);
  EXPECT_EQ(U16(host.events[0].data, 0), 26u);
  EXPECT_EQ(host.events[0].data[25], 0);

  // A wide text ends at its first terminator; what follows is not sent.
  const WString args[] = {u"\u00e4\u20ac", WString(u"x\0y", 3), WString(70000, u'z')};
  ASSERT_EQ(module.sendAlert(0x290013, 3, args), 0);
  ASSERT_EQ(host.events.size(), 2u);
  const std::vector<uint8_t>& b = host.events[1].data;
  ASSERT_EQ(b.size(), 26u + 6 + 2 + 70001);
  EXPECT_EQ(U16(b, 0), b.size() & 0xFFFF);
  EXPECT_EQ(b[25], 3);
  EXPECT_EQ(std::string(b.begin() + 26, b.begin() + 34), std::string("\xc3\xa4\xe2\x82\xac\0x\0", 8));
  EXPECT_EQ(b[34], 'z');
  EXPECT_EQ(b.back(), 0);
}

TEST_F(AlertTest, EachNumberFollowsItsOwnSettingWithItsSeverity) {
  struct Kind {
    uint32_t number;
    bool jobFinished;
    uint8_t severity;
  };
  // 0x290011 is sent with severity 0 although 0x290013 has 2.
  const Kind kinds[] = {{0x290000, false, 0}, {0x290001, false, 2}, {0x290010, true, 0},
                        {0x290011, true, 0},  {0x290012, true, 2},  {0x290013, true, 2}};
  const WString arg[] = {u"component"};
  for (const Kind& k : kinds) {
    // Off, and with only the other setting on: nothing goes out, and the result does not tell.
    SetAlerts(0, 0);
    EXPECT_EQ(module.sendAlert(k.number, 1, arg), 0);
    SetAlerts(k.jobFinished ? 1 : 0, k.jobFinished ? 0 : 1);
    EXPECT_EQ(module.sendAlert(k.number, 1, arg), 0);
    EXPECT_TRUE(host.events.empty()) << std::hex << k.number;
    host.events.clear();

    SetAlerts(k.jobFinished ? 0 : 1, k.jobFinished ? 1 : 0);
    EXPECT_EQ(module.sendAlert(k.number, 1, arg), 0);
    ASSERT_EQ(host.events.size(), 1u) << std::hex << k.number;
    EXPECT_EQ(U32(host.events[0].data, 4), k.number);
    EXPECT_EQ(host.events[0].data[24], k.severity) << std::hex << k.number;
    host.events.clear();
  }
}

TEST_F(AlertTest, UnknownNumbersFailWhateverTheSettings) {
  for (uint32_t alerts : {0u, 1u}) {
    SetAlerts(alerts, alerts);
    for (uint32_t number : {0x290002u, 0x290014u, 0x28FFFFu, 0u}) {
      EXPECT_EQ(module.sendAlert(number, 0, nullptr), -1) << std::hex << number;
    }
  }
  EXPECT_TRUE(host.events.empty());

  // Without a settings component every alert is off; unknown numbers still fail.
  CUpdateExtensionModule bare;
  const WString arg[] = {u"x"};
  EXPECT_EQ(bare.sendAlert(0x290010, 1, arg), 0);
  EXPECT_EQ(bare.sendAlert(0x290002, 0, nullptr), -1);
}

// The trace texts go out as they are: the text of 0x290001 holds "%u", which is no conversion.
TEST_F(AlertTest, TraceTextsAreWrittenLiterally) {
  const WString key = u"SOFTWARE\\Debug\\EM_MENDER";
  const WString file = root + platform::kPathSeparator + u"trace.log";
  reg.Dword(key, u"FileDebugLevel", 1);
  reg.String(key, u"TraceFile", file);
  g_Debug.Initialise(u"EM_MENDER", false);
  SetAlerts(1, 1);
  module.sendAlert(0x290001, 0, nullptr);
  module.sendAlert(0x290002, 0, nullptr);
  SysLog::Instance().RegisterSource(u"Tessaly Node Warden", u"EM_MENDER", 0x40000000);
  reg.DeleteKey(key);
  g_Debug.Initialise(u"EM_MENDER", false);

  std::string bytes;
  ASSERT_TRUE(platform::ReadWholeFile(file, bytes));
  WString text;
  for (size_t i = 2; i + 1 < bytes.size(); i += 2)
    text.push_back(static_cast<char16_t>(static_cast<uint8_t>(bytes[i]) | (static_cast<uint8_t>(bytes[i + 1]) << 8)));
  EXPECT_NE(text.find(u"send UpdManagerAlert %update repository tree failed"), WString::npos);
  EXPECT_NE(text.find(u"CUpdateExtensionModule::sendAlert\t: >>>>>>>ERROR: unsupported message"), WString::npos);
  EXPECT_NE(text.find(u"SWITCH (SysLog)     : RegisterSource(): WARNING!! Eventlog source already registered - "
                      u"registration ignored!"),
            WString::npos);
}

// The event-log client. The tests keep their entries away from the machine's own log: on POSIX
// they name a socket of their own where nothing listens; Wine keeps no event log at all.
class SysLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
#ifndef _WIN32
    platform::SetEnv(u"NODEWARDEN_SYSLOG_SOCKET",
                     TestDirectory(u"syslog") + platform::kPathSeparator + u"nobody-listens.sock");
#endif
    SysLog::Instance().DeregisterSource();
  }
  void TearDown() override {
    SysLog::Instance().DeregisterSource();
    platform::UnsetEnv(u"NODEWARDEN_SYSLOG_SOCKET");
  }
};

TEST_F(SysLogTest, SecondRegistrationLeavesTheFirstSourceInPlace) {
  SysLog& log = SysLog::Instance();
  ASSERT_NE(log.RegisterSource(u"Tessaly Node Warden", u"EM_MENDER", 0x1234), 0);
  EXPECT_TRUE(log.IsRegistered());
  EXPECT_EQ(log.MessageId(), 0x40001234u);
  EXPECT_NE(log.RegisterSource(u"Tessaly Agentless Service", u"OTHER", 7), 0);
  EXPECT_EQ(log.SourceName(), u"Tessaly Node Warden");
  EXPECT_EQ(log.MessageId(), 0x40001234u);

  EXPECT_NE(log.DeregisterSource(), 0);
  EXPECT_FALSE(log.IsRegistered());
  EXPECT_NE(log.DeregisterSource(), 0);  // nothing left to remove
  ASSERT_NE(log.RegisterSource(u"Tessaly Agentless Service", u"EM_MENDER", 0x40000000), 0);
  EXPECT_EQ(log.SourceName(), u"Tessaly Agentless Service");
}

TEST_F(SysLogTest, ReportsWithoutASourceReturnZero) {
  SysLog& log = SysLog::Instance();
  EXPECT_EQ(log.ReportInformation(u"%s", u"text"), 0);
  EXPECT_EQ(log.ReportWarning(u"%d", 1), 0);
  EXPECT_EQ(log.ReportError(u"plain"), 0);
  // No source name: the message identifier is kept, but nothing is registered.
  EXPECT_EQ(log.RegisterSource(nullptr, u"EM_MENDER", 5), 0);
  EXPECT_FALSE(log.IsRegistered());
  EXPECT_EQ(log.MessageId(), 0x40000005u);
  EXPECT_EQ(log.ReportError(u"plain"), 0);
}

// Entries through the module's one way to the event log. tests/scripts/event_log.sh runs this with a
// real receiver (rsyslogd natively, Wine's debug channel under Wine) and checks what arrived; it names
// the text in EM_EVENTLOG_PROBE_TEXT.
TEST(EventLogProbe, DISABLED_EntriesThroughUtil) {
  WString text;
  ASSERT_TRUE(platform::GetEnv(u"EM_EVENTLOG_PROBE_TEXT", text) && !text.empty());
  SysLog& log = SysLog::Instance();
  log.DeregisterSource();
  ASSERT_NE(log.RegisterSource(u"Tessaly Node Warden", u"EM_MENDER", 0x40000000), 0);
  UM_Util util(nullptr);
  util.umEventLogWrite(0, text + u" information");
  util.umEventLogWrite(2, text + u" warning");
  util.umEventLogWrite(1, text + u" error");
  EXPECT_NE(log.ReportInformation(u"%s direct %d", text.c_str(), 42), 0);
  EXPECT_NE(log.DeregisterSource(), 0);
}
