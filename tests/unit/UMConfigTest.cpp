// The update settings: start values, the repository checks, the configuration check code, the
// web parameters, and the in-memory schedule date.
#include <gtest/gtest.h>

#include "config/UM_Config.h"
#include "foundation/CEvent.h"
#include "foundation/CFile.h"
#include "foundation/IUpdateModule.h"
#include "foundation/RequestMessage.h"
#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "platform/FileIo.h"
#include "tests/unit/FakeUpdateModule.h"
#include "tests/unit/TestRegistry.h"

namespace {

const WString kBase = u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden";

using FakeModule = FakeUpdateModule;

class UMConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = TestDirectory(u"umconfig");
    CFile::RemoveDirectoryTree(root, false);
    platform::CreateDirectoryPath(root + kSep + u"data");
    reg.String(kBase + u"\\DATA", u"DataRoot", root + kSep + u"data");
    reg.String(kBase + u"\\Setup", u"BinRoot", root);
  }
  void TearDown() override { CFile::RemoveDirectoryTree(root, true); }

  // A request as a requester sends it: 0xE001 reads, 0xE002 writes.
  uint32_t Write(UM_Config& c, uint32_t oe, uint32_t value) {
    RequestMessage m;
    ConstructRequest(m, 0xE002, oe, 0, 0, ST_NONE);
    SetDataNumber(m, GetCurrentCommand(m), value, 4);
    c.request(m);
    return GetCommandValue(m, 0, kKeyST, ST_ABSENT);
  }
  uint32_t WriteText(UM_Config& c, uint32_t oe, const WString& text) {
    RequestMessage m;
    ConstructRequest(m, 0xE002, oe, 0, 0, ST_NONE);
    SetDataString(m, GetCurrentCommand(m), text);
    c.request(m);
    return GetCommandValue(m, 0, kKeyST, ST_ABSENT);
  }
  WString ReadText(UM_Config& c, uint32_t oe) {
    RequestMessage m;
    ConstructRequest(m, 0xE001, oe, 0, 0, ST_NONE);
    c.request(m);
    WString text;
    return GetDataString(m, 0, text, 0) ? text : WString(u"<no text>");
  }

  TestRegistry reg{u"umconfig"};
  WString root;
  FakeModule module;
};

}  // namespace

TEST_F(UMConfigTest, LocalRepositoryChecksAndCheckCodes) {
  UM_Util util(&module);
  {
    UM_Config c(&module, &util);
    // Mode 0 by default, no path: the read-only repository is missing.
    EXPECT_EQ(c.check(), 2);
    Write(c, 6721, CQVV_UpdRepositoryLocalRW);
  }
  // Mode 1 with no path takes the module's own repository under the data directory.
  util.umGetDataDir();  // the first call only creates the directory
  UM_Config c(&module, &util);
  const WString expected = root + kSep + u"data" + kSep + u"EM_MENDER" + kSep + u"UpdateRepository";
  EXPECT_EQ(c.DefaultRepositoryPath(), expected);
  EXPECT_EQ(c.getRepositoryPath(), expected);
  EXPECT_EQ(c.check(), 2);  // missing, and no download to fill it
  EXPECT_EQ(c.getWebParams(), nullptr);
  Write(c, 6725, 1);  // download on: the directory may be made
  EXPECT_EQ(c.check(), 0);
  EXPECT_TRUE(platform::DirectoryExists(expected));
  WriteText(c, 6727, u"updates.example");
  Write(c, 6802, 8080);
  auto web = c.getWebParams();
  ASSERT_NE(web, nullptr);
  EXPECT_EQ(web->server, u"updates.example");
  EXPECT_EQ(web->port, 8080u);

  // Read-only modes refuse deleting binaries and downloading.
  Write(c, 6721, CQVV_UpdRepositoryLocalRO);
  WriteText(c, 6720, root);
  EXPECT_EQ(c.check(), 5);
  Write(c, 6729, 1);
  EXPECT_EQ(c.check(), 4);
  Write(c, 6721, CQVV_UpdRepositoryRemote);
  EXPECT_EQ(c.check(), 4);
  Write(c, 6729, 0);
  Write(c, 6725, 0);
  EXPECT_EQ(c.check(), 0);
  Write(c, 6721, 9);
  EXPECT_EQ(c.check(), 1);
}

TEST_F(UMConfigTest, IllegalAccessModeIsResetAtStart) {
  UM_Util util(&module);
  {
    UM_Config c(&module, &util);
    Write(c, 6721, 7);
    EXPECT_EQ(c.repositoryAccessMode, 7);
  }
  UM_Config c(&module, &util);
  EXPECT_EQ(c.repositoryAccessMode, CQVV_UpdRepositoryLocalRO);
}

TEST_F(UMConfigTest, ScheduleDateLivesInMemoryOnly) {
  UM_Util util(&module);
  {
    UM_Config c(&module, &util);
    Write(c, 6730, 1234);
    EXPECT_EQ(c.getScheduleDate(), 1234u);
    EXPECT_EQ(c.setScheduleDate(99999), 1);
    EXPECT_EQ(c.getScheduleDate(), 99999u);
  }
  // The stored key went with the date's size 0: the next start finds no date.
  UM_Config c(&module, &util);
  EXPECT_EQ(c.getScheduleDate(), 0u);
}

TEST_F(UMConfigTest, StartWaitsForTheCabinetAndMailAlertNeedsBothFlags) {
  module.cabinetKnown = false;
  UM_Util util(&module);
  UM_Config c(&module, &util);
  EXPECT_FALSE(c.ConfigRead());
  EXPECT_EQ(c.getMailAlertEnabledFlag(), 0);
  // The first request loads the settings.
  RequestMessage m;
  ConstructRequest(m, 0xE001, 6724, 0, 0, ST_NONE);
  EXPECT_EQ(c.request(m), 1);
  EXPECT_TRUE(c.ConfigRead());
  // The global flag (OE 1040) is not a setting of update management: stored by the host.
  ConstructRequest(m, 0xE002, 1040, 0, 0, ST_NONE);
  SetDataNumber(m, GetCurrentCommand(m), 1, 1);
  ASSERT_EQ(c.ConfigSpace().WriteNumber(m, nullptr), 1);
  EXPECT_EQ(c.getMailAlertEnabledFlag(), 0);  // no alert kind switched on
  Write(c, 6734, 1);
  EXPECT_EQ(c.getMailAlertEnabledFlag(), 4);
  // Any other opcode is refused with the number 1 as data.
  ConstructRequest(m, 0x3331, 0, 0, 0, ST_NONE);
  EXPECT_EQ(c.request(m), 0);
  EXPECT_EQ(GetCommandValue(m, 0, kKeyST, 0), ST_DENIED);
  uint32_t data = 0;
  EXPECT_TRUE(GetDataValue(m, 0, data));
  EXPECT_EQ(data, 1u);
}

TEST_F(UMConfigTest, ATextTheStoreCannotKeepIsRefusedAndChangesNothing) {
  UM_Util util(&module);
  {
    UM_Config c(&module, &util);
    EXPECT_EQ(WriteText(c, 6722, u"alice"), ST_OK);
    EXPECT_EQ(WriteText(c, 6727, u"updates.example"), ST_OK);
    EXPECT_EQ(WriteText(c, 6723, u"secret"), ST_OK);
    // What would read back otherwise after the next start is refused with ST 6, and the setting
    // keeps the value it had in memory and in the file.
    for (const WString& text : {WString(u"ab\0cd", 5), WString(70000, u'x')}) {
      EXPECT_EQ(WriteText(c, 6722, text), ST_FAILED);
      EXPECT_EQ(WriteText(c, 6723, text), ST_FAILED);
    }
    EXPECT_EQ(ReadText(c, 6722), u"alice");
    EXPECT_EQ(ReadText(c, 6723), u"secret");
    // A carriage return is stored as a line break of the user id and plants nothing.
    EXPECT_EQ(WriteText(c, 6722, u"bob\r1A47.FFFF.0000=evil.example.com\r1A47.FFFF.0000.Size=16"), ST_OK);
  }
  UM_Config c(&module, &util);
  EXPECT_EQ(ReadText(c, 6727), u"updates.example");
  EXPECT_EQ(ReadText(c, 6722), u"bob||1A47.FFFF.0000=evil.example.com||1A47.FFFF.0000.Size=16");
  EXPECT_EQ(ReadText(c, 6723), u"secret");
}

TEST(UMConfigAddress, FallBackIpv6Formatter) {
  const uint8_t zero[16] = {0};
  EXPECT_EQ(UM_Config::FormatIpv6Fallback(zero), u"::");
  uint8_t loop[16] = {0};
  loop[15] = 1;
  EXPECT_EQ(UM_Config::FormatIpv6Fallback(loop), u"::1");
  const uint8_t doc[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0x12, 0x34, 0x00, 0x0a};
  EXPECT_EQ(UM_Config::FormatIpv6Fallback(doc), u"2001:db8:0:0:0:0:1234:a");
}
