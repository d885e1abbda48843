// One comparison driven through a scripted engine: the call order, the table of updates and the
// server severity, the installed components, the three result files and their replacement.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "base/WFormat.h"
#include "check/DiffData.h"
#include "check/GetVVDiff.h"
#include "check/InstalledData.h"
#include "config/MakeDirectoryPath.h"
#include "foundation/CFile.h"
#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "platform/Clock.h"
#include "platform/FileIo.h"
#include "tests/unit/EngineDouble.h"
#include "tests/unit/FakeUpdateModule.h"
#include "tests/unit/TestRegistry.h"

using ::testing::_;
using ::testing::DoAll;
using ::testing::InSequence;
using ::testing::Return;
using ::testing::SetArgReferee;
using ::testing::StrictMock;

namespace {

const WString kBase = u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden";

std::string Read(const WString& path) {
  std::string bytes;
  platform::ReadWholeFile(path, bytes);
  return bytes;
}

// Lines of a result file, with the system's line ends made plain.
std::string Plain(std::string text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i)
    if (!(text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')) out.push_back(text[i]);
  return out;
}

int CountLines(const std::string& text, const std::string& start) {
  int n = 0;
  for (size_t pos = 0; (pos = text.find(start, pos)) != std::string::npos; pos += start.size())
    if (pos == 0 || text[pos - 1] == '\n') ++n;
  return n;
}

PackageRow Package(const std::string& path) {
  PackageRow row;
  row.path = WFromUtf8(path);
  return row;
}

class GetVVDiffTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = TestDirectory(u"vvdiff");
    CFile::RemoveDirectoryTree(root, false);
    reg.String(kBase + u"\\DATA", u"DataRoot", root + kSep + u"data");
    reg.String(kBase + u"\\Setup", u"TempRoot", root + kSep + u"temp");
    platform::CreateDirectoryPath(root + kSep + u"data");
    platform::CreateDirectoryPath(root + kSep + u"temp");
    repo = root + kSep + u"repo";
    platform::CreateDirectoryPath(repo);
    platform::SetClock(&clock);
    util = std::make_unique<UM_Util>(nullptr);
    work = util->umGetWorkDir();
    util->umStartLogging(u"UM_Checknew.log", u"UpdateCheck");
    engine = new StrictMock<MockEngine>();
    ON_CALL(*engine, GetErrorString(_)).WillByDefault([](int32_t n) -> const char16_t* {
      switch (n) {
        case 31:
          return u"broken component description";
        case 41:
          return u"repository unreadable";
        case 61:
          return u"prerequisite not fulfilled";
        default:
          return u"some error";
      }
    });
    EXPECT_CALL(*engine, GetErrorString(_)).Times(::testing::AnyNumber());
  }
  void TearDown() override {
    diff.reset();
    util.reset();
    platform::SetClock(nullptr);
    CFile::RemoveDirectoryTree(root, true);
  }

  void Make(uint32_t useLocalInventory = 0) {
    EXPECT_CALL(*engine, UseLocalInventory()).WillOnce(Return(useLocalInventory));
    diff = std::make_unique<GetVVDiff>(util.get(), &module, FactoryOf(engine));
    data = util->umGetDataDir();
  }

  // One check in the order the check driver calls, with the engine's calls in that order.
  void Check(ScriptedUpdates* updates, ScriptedInventory* inventory, uint32_t iteratorResult = 0) {
    {
      InSequence order;
      EXPECT_CALL(*engine, DoKordUpScan());
      EXPECT_CALL(*engine, GetUpdateInventoryIterator(repo, _))
          .WillOnce(DoAll(SetArgReferee<1>(updates), Return(iteratorResult)));
      EXPECT_CALL(*engine, GetInventoryIterator()).WillOnce(Return(inventory));
    }
    diff->callKordUpTool();
    diff->initGetVVDiff(u"UM_Checknew.log");
    table = diff->createDiffData(repo);
    installed = diff->createInstalledData();
    diff->createGlobalInfo();
  }

  std::string CheckLog() { return Read(work + kSep + u"UM_Checknew.log"); }
  std::string UpdateFile() { return Plain(Read(work + kSep + u"ztUpdate.txt")); }

  TestRegistry reg{u"vvdiff"};
  platform::VirtualClock clock{1709298309u};
  FakeUpdateModule module;
  WString root, repo, work, data;
  std::unique_ptr<UM_Util> util;
  StrictMock<MockEngine>* engine = nullptr;
  std::unique_ptr<GetVVDiff> diff;
  std::unique_ptr<DiffData> table;
  std::unique_ptr<InstalledData> installed;
  ScriptedInventory oneComponent;
};

}  // namespace

// A full table fails the whole comparison, yet the update file keeps every line written.
TEST_F(GetVVDiffTest, TheTwoHundredthUpdateFailsTheComparison) {
  Make();
  oneComponent.Add({u"NIC", u"FIRMWARE", u"card", u"1.0", u"PCI\\VEN_8086"});
  ScriptedUpdates updates;
  for (int i = 0; i < 200; ++i) updates.Add(Package("FW/P" + std::to_string(i)));
  Check(&updates, &oneComponent);
  EXPECT_EQ(table, nullptr);
  EXPECT_EQ(diff->getDiffErrorCode(), GetVVDiff::kCheckComparisonFailed);
  EXPECT_EQ(diff->getServerSeverity(), GetVVDiff::kSeverityUnknown);
  EXPECT_EQ(diff->getServerSeverityText(), u"unknown");
  const std::string file = UpdateFile();
  EXPECT_EQ(CountLines(file, "ComponentIndex="), 200);
  EXPECT_NE(file.find("ComponentIndex=199|\tComponentPath=FW/P199|"), std::string::npos);
  EXPECT_NE(file.find("numberUpdateElements=199\ncheckError=3 | errMsg=\ninventoryError=0\n"), std::string::npos)
      << file;
  EXPECT_EQ(CheckLog().find("List of update packages created successfully."), std::string::npos);

  // 199 fit.
  ScriptedUpdates fit;
  for (int i = 0; i < 199; ++i) fit.Add(Package("FW/P" + std::to_string(i)));
  Check(&fit, &oneComponent);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->getNumberEntries(), 199);
  EXPECT_EQ(table->getComponent(198)->path, u"FW/P198");
  EXPECT_EQ(table->getComponent(199), nullptr);
  EXPECT_EQ(diff->getDiffErrorCode(), 0);
}

TEST_F(GetVVDiffTest, EmptyListIsNoErrorButUnknownSeverity) {
  Make();
  oneComponent.Add({u"NIC", u"FIRMWARE", u"card", u"1.0", u"X"});
  ScriptedUpdates none;
  Check(&none, &oneComponent);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->getNumberEntries(), 0);
  EXPECT_EQ(diff->getDiffErrorCode(), 0);
  EXPECT_EQ(diff->getServerSeverityText(), u"unknown");
  EXPECT_EQ(diff->isCheckAlertNecessary(), 0);
  const std::string log = CheckLog();
  EXPECT_NE(log.find(">>>>ERROR\tNo updatable product reported."), std::string::npos) << log;
  EXPECT_NE(log.find("List of update packages created successfully."), std::string::npos);
  EXPECT_NE(
      UpdateFile().find("\nCheckResult\nserverSeverity=unknown |\tdiffDate=1709298309 |\tnumberUpdateElements=0\n"),
      std::string::npos);
}

// Validity codes: 58, 61 and 66 stand in the table as not installable and count for the
// severity; any other code is skipped.
TEST_F(GetVVDiffTest, NotInstallableEntriesStandAndRaiseTheSeverity) {
  Make();
  oneComponent.Add({u"NIC", u"FIRMWARE", u"card", u"1.0", u"X"});
  ScriptedUpdates updates;
  PackageRow bad = Package("FW/Broken");
  bad.valid = 31;
  updates.Add(bad);
  PackageRow pre = Package("FW/NeedsBMC");
  pre.valid = 61;
  pre.severity = u"mandatory";
  updates.Add(pre);
  PackageRow fine = Package("FW/Fine");
  fine.severity = u"optional";
  updates.Add(fine);
  Check(&updates, &oneComponent);
  ASSERT_NE(table, nullptr);
  ASSERT_EQ(table->getNumberEntries(), 2);
  const um_component* row = table->getComponent(0);
  EXPECT_EQ(row->path, u"FW/NeedsBMC");
  EXPECT_EQ(row->installable, 0);
  EXPECT_EQ(row->engineError, 61);
  EXPECT_EQ(row->engineErrorText, u"prerequisite not fulfilled");
  EXPECT_EQ(table->getComponent(1)->installable, 1);
  EXPECT_EQ(table->getComponent(1)->engineErrorText, u"");
  EXPECT_EQ(diff->getServerSeverityText(), u"critical");
  const std::string log = CheckLog();
  EXPECT_NE(log.find("\tskip invalid entry: FW/Broken, broken component description"), std::string::npos) << log;
  EXPECT_NE(log.find("\tadd not installable entry: FW/NeedsBMC, prerequisite not fulfilled"), std::string::npos);
  EXPECT_NE(log.find("\tadd entry: FW/Fine"), std::string::npos);
}

// The severity climbs with upgrades only (ranking 1, or ranking 0 with the upgrade flag), and
// never goes down within a check.
TEST_F(GetVVDiffTest, ServerSeverityLadder) {
  Make();
  oneComponent.Add({u"NIC", u"FIRMWARE", u"card", u"1.0", u"X"});
  struct Case {
    std::vector<std::tuple<const char16_t*, uint32_t, uint8_t>> rows;  // severity, ranking, upgrade flag
    const char16_t* expected;
  } cases[] = {
      {{{u"optional", 1, 1}}, u"ok"},
      {{{u"mandatory", 2, 0}, {u"mandatory", 3, 0}}, u"ok"},  // same and older versions do not count
      {{{u"mandatory", 0, 0}}, u"ok"},                        // nothing installed, not the highest
      {{{u"recommended", 0, 1}}, u"warning"},
      {{{u"recommended", 1, 0}, {u"optional", 1, 1}}, u"warning"},
      {{{u"Mandatory", 1, 1}}, u"ok"},  // compared exactly
      {{{u"optional", 1, 1}, {u"recommended", 1, 1}, {u"mandatory", 1, 1}, {u"optional", 1, 1}}, u"critical"},
  };
  for (const Case& c : cases) {
    ScriptedUpdates updates;
    int i = 0;
    for (const auto& [severity, ranking, upgrade] : c.rows) {
      PackageRow row = Package("FW/S" + std::to_string(i++));
      row.severity = severity;
      row.ranking = ranking;
      row.upgrade = upgrade;
      updates.Add(row);
    }
    Check(&updates, &oneComponent);
    EXPECT_EQ(diff->getServerSeverityText(), c.expected) << WToUtf8(std::get<0>(c.rows[0]));
  }
}

// An exception of the engine in the middle of the list: the lines written so far stay, the text
// of the exception goes into the summary, and the table is not handed out.
TEST_F(GetVVDiffTest, ExceptionInTheMiddleOfTheList) {
  Make();
  oneComponent.Add({u"NIC", u"FIRMWARE", u"card", u"1.0", u"X"});
  ScriptedUpdates updates;
  for (int i = 0; i < 5; ++i) updates.Add(Package("FW/E" + std::to_string(i)));
  updates.throwAt = 3;
  Check(&updates, &oneComponent);
  EXPECT_EQ(table, nullptr);
  EXPECT_EQ(diff->getDiffErrorCode(), GetVVDiff::kCheckComparisonFailed);
  EXPECT_EQ(diff->getErrorMessage(), u"UpdateCheck failed with ORMUX exception: engine lost its place\n");
  std::string file = UpdateFile();
  EXPECT_EQ(CountLines(file, "ComponentIndex="), 2);
  EXPECT_NE(file.find("checkError=3 | errMsg=UpdateCheck failed with ORMUX exception: engine lost its place\n\n"
                      "inventoryError=0\n"),
            std::string::npos)
      << file;
  EXPECT_NE(CheckLog().find("\terror message=UpdateCheck failed with ORMUX exception: engine lost its place"),
            std::string::npos);
  // The memory of announced components holds what came before the exception, no more.
  EXPECT_EQ(Plain(Read(data + kSep + u"ztNew.txt")), "FW/E0|X1|1.0|2.0|recommended\nFW/E1|X1|1.0|2.0|recommended\n");

  ScriptedUpdates other;
  other.Add(Package("FW/O"));
  other.throwAt = 1;
  other.throwOther = true;
  Check(&other, &oneComponent);
  EXPECT_EQ(table, nullptr);
  EXPECT_EQ(diff->getErrorMessage(), u"UpdateCheck failed with unexpected exception\n");
}

TEST_F(GetVVDiffTest, EngineErrorOfTheComparison) {
  Make();
  oneComponent.Add({u"NIC", u"FIRMWARE", u"card", u"1.0", u"X"});
  ScriptedUpdates unused;
  Check(&unused, &oneComponent, 41);
  EXPECT_EQ(table, nullptr);
  EXPECT_EQ(diff->getDiffErrorCode(), GetVVDiff::kCheckComparisonFailed);
  EXPECT_EQ(diff->getErrorMessage(), u"UpdateCheck failed with ORMUX error=41, repository unreadable\n");
  EXPECT_EQ(unused.fetches, 0);

  // A repository that is not there is not handed to the engine at all.
  EXPECT_CALL(*engine, GetInventoryIterator()).WillOnce(Return(&oneComponent));
  diff->initGetVVDiff(u"UM_Checknew.log");
  EXPECT_EQ(diff->createDiffData(root + kSep + u"nowhere"), nullptr);
  EXPECT_EQ(diff->getDiffErrorCode(), GetVVDiff::kCheckRepositoryMissing);
  installed = diff->createInstalledData();
  diff->createGlobalInfo();
  EXPECT_NE(CheckLog().find("Missing repository '" + WToUtf8(root + kSep + u"nowhere") +
                            "'. Please, modify repository path."),
            std::string::npos);
  EXPECT_NE(CheckLog().find("\tnumberUpdateElements=0,checkError=2"), std::string::npos);
  EXPECT_EQ(UpdateFile().find("numberUpdateElements"), std::string::npos);
}

// The binary present, absent without its version file, a one-byte leaf, sizes in MB rounded
// down but at least 1, a server that claims an absurd size, short and older version lines.
TEST_F(GetVVDiffTest, DownloadSizes) {
  Make();
  oneComponent.Add({u"NIC", u"FIRMWARE", u"card", u"1.0", u"X"});
  auto leaf = [&](const std::string& path, const std::string& versionLine) {
    WString dir = repo + kSep + WFromUtf8(path);
    MakeDirectoryPath(dir);
    if (!versionLine.empty())
      platform::WriteWholeFile(dir + u"/versionLeaf.txt", versionLine.data(), versionLine.size());
  };
  leaf("A/Here", "A/Here\t3\tHere.exe\t5000000\tF\t-\t0\t2\r\n");
  platform::WriteWholeFile(repo + u"/A/Here/Here.exe", "MZ", 2);
  leaf("A/NoFile", "");
  leaf("A/OneByte", "A/OneByte\t1\tOne.exe\t1\tF\t-\t0\t0\r\n");
  leaf("A/ThreeMB", "A/ThreeMB\t1\tT.exe\t3145729\tF\t-\t0\t0\r\n");
  leaf("A/Huge", "A/Huge\t1\tH.exe\t9000000000000000000\tF\t-\t0\t0\r\n");
  leaf("A/Short", "A/Short\t1\r\n");
  leaf("A/FourFields", "A/FourFields\t1\tF.exe\t2097152");  // the older form, as the last line
  ScriptedUpdates updates;
  for (const char* p : {"A/Here", "A/NoFile", "A/OneByte", "A/ThreeMB", "A/Huge", "A/Short", "A/FourFields"}) {
    PackageRow row = Package(p);
    row.fileName = WFromUtf8(std::string(p).substr(2)) + u".exe";
    updates.Add(row);
  }
  Check(&updates, &oneComponent);
  ASSERT_NE(table, nullptr);
  ASSERT_EQ(table->getNumberEntries(), 7);
  // The version-line reader saturates sizes at 2^40 bytes.
  const int32_t expected[] = {0, -1, 1, 3, 1048576, -1, 2};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(table->getComponent(i)->downloadSize, expected[i]) << i;
  EXPECT_EQ(table->getComponent(0)->binaryLoaded, 1);
  EXPECT_EQ(table->getComponent(1)->binaryLoaded, 0);
  EXPECT_NE(UpdateFile().find("binaryLoaded=yes|\tDownloadSize=0|\t\n"), std::string::npos);
  EXPECT_NE(UpdateFile().find("|\tbinaryLoaded=no|\tDownloadSize=-1|\t\n"), std::string::npos);
}

// The lines of both files as a reader of them expects them, field by field.
TEST_F(GetVVDiffTest, ResultFileFormats) {
  Make();
  ScriptedInventory inventory;
  inventory.Add({u"SystemBoard", u"BIOS", u"BIOS of D3300", u"1.1.0", u"D3300"});
  inventory.Add({u"SupportPack", u"KordSupportPack-Win", u"Support pack", u"4.1.0", u"KPK-4.1.0"});
  inventory.Add({u"NIC", u"FIRMWARE", u"card", u"2.0", u"PCI\\VEN_8086&DEV_1572"});
  ScriptedUpdates updates;
  PackageRow row = Package("BIOS/D3300/A1");
  row.type = u"BIOS";
  row.subType = u"SystemBoard";
  row.objectName = u"D3300";
  row.pciId = u"";
  row.newVersion = u"1.2.0";
  row.instVersion = u"1.1.0";
  row.stepVersion = u"1.0.0";
  row.fileName = u"A1_3.exe";
  row.severity = u"mandatory";
  row.reboot = u"yes";
  row.kpk = u"4.1.0";
  row.mandatory = 1;
  row.installTime = 90;
  updates.Add(row);
  Check(&updates, &inventory);
  EXPECT_EQ(UpdateFile(),
            "ComponentIndex=0|\tComponentPath=BIOS/D3300/A1|\tComponentType=BIOS|\tComponentSubType=SystemBoard|\t"
            "ComponentId=|\tRepositoryVersion=1.2.0|\tInstalledversion=1.1.0|\tIsHighestUpgradeVersion=1|\t"
            "IsHighestDowngradeVersion=0|\tRepos2InstRanking=1|\tMandatoryComponent=1|\tPrerequire=|\tORMUXError=0|\t"
            "ORMUXErrText=|\tMinStepVersion=1.0.0|\tZBPVersion=1|\tZBPFileName=A1_3.exe|\tOS=any|\t"
            "KPKPackageVersion=4.1.0|\tVendorSeverity=mandatory|\tReBoot=yes|\tInstallTime=90|\tinstallable=yes|\t"
            "binaryLoaded=no|\tDownloadSize=-1|\t\n"
            "\nCheckResult\nserverSeverity=critical |\tdiffDate=1709298309 |\tnumberUpdateElements=1\n"
            "checkError=0 | errMsg=\ninventoryError=0\n");
  EXPECT_EQ(Plain(Read(work + kSep + u"ztInstalled.txt")),
            "ComponentIndex=0\t|Version=1.1.0\t|CompType=BIOS\t|CompSubType=SystemBoard\t|CompId=D3300\t|"
            "ProdDesc=BIOS of D3300\n"
            "ComponentIndex=1\t|Version=4.1.0\t|CompType=KordSupportPack-Win\t|CompSubType=SupportPack\t|"
            "CompId=KPK-4.1.0\t|ProdDesc=Support pack\n"
            "ComponentIndex=2\t|Version=2.0\t|CompType=FIRMWARE\t|CompSubType=NIC\t|"
            "CompId=PCI\\VEN_8086&DEV_1572\t|ProdDesc=card\n");
  EXPECT_EQ(Plain(Read(data + kSep + u"ztNew.txt")), "BIOS/D3300/A1|D3300|1.1.0|1.2.0|mandatory\n");
  ASSERT_NE(installed, nullptr);
  ASSERT_EQ(installed->getNumberEntries(), 3);
  EXPECT_EQ(installed->getComponent(0)->pciId, u"");
  EXPECT_EQ(installed->getComponent(1)->kpkVersion, u"KPK-4.1.0");
  EXPECT_EQ(installed->getComponent(1)->pciId, u"");
  EXPECT_EQ(installed->getComponent(2)->pciId, u"PCI\\VEN_8086&DEV_1572");
  const std::string log = CheckLog();
  EXPECT_NE(log.find("\tBIOS/SystemBoard, version=1.1.0 "), std::string::npos) << log;
  EXPECT_NE(log.find("check summary:\tserverSeverity=critical"), std::string::npos);
  EXPECT_NE(log.find("\tnumberUpdateElements=1,checkError=0"), std::string::npos);
  EXPECT_NE(log.find("\tnumberInventoryElements=3,inventoryError=0"), std::string::npos);
  EXPECT_EQ(log.find("error message="), std::string::npos);
}

// An inventory without elements, an engine without an iterator, and the engine's exceptions.
TEST_F(GetVVDiffTest, InventoryFailures) {
  Make();
  ScriptedInventory empty;
  EXPECT_CALL(*engine, GetInventoryIterator()).WillOnce(Return(&empty)).WillOnce(Return(nullptr));
  diff->initGetVVDiff(u"UM_Checknew.log");
  EXPECT_EQ(diff->createInstalledData(), nullptr);
  EXPECT_EQ(diff->getInstalledErrorCode(), GetVVDiff::kInventoryEmpty);
  EXPECT_EQ(diff->createInstalledData(), nullptr);
  EXPECT_EQ(diff->getInstalledErrorCode(), GetVVDiff::kInventoryEmpty);
  EXPECT_NE(CheckLog().find("Creating inventorylist of update packages failed."), std::string::npos);

  ScriptedInventory throwing;
  throwing.Add({u"a", u"A", u"d", u"1", u"i"});
  throwing.Add({u"b", u"B", u"d", u"1", u"j"});
  throwing.throwAt = 2;
  ScriptedInventory other;
  other.Add({u"a", u"A", u"d", u"1", u"i"});
  other.throwAt = 1;
  other.throwOther = true;
  EXPECT_CALL(*engine, GetInventoryIterator()).WillOnce(Return(&throwing)).WillOnce(Return(&other));
  EXPECT_EQ(diff->createInstalledData(), nullptr);  // one element counted, yet the table is gone
  EXPECT_EQ(diff->getInstalledErrorCode(), GetVVDiff::kInventoryEngineException);
  EXPECT_EQ(diff->getErrorMessage(), u"InventoryCheck failed with ORMUX exception: engine lost its place\n");
  EXPECT_EQ(diff->createInstalledData(), nullptr);
  EXPECT_EQ(diff->getInstalledErrorCode(), GetVVDiff::kInventoryOtherException);
  EXPECT_EQ(diff->getErrorMessage(), u"InventoryCheck failed with unexpected exception\n");
}

// The table holds 99 installed components; the rest are counted but not kept.
TEST_F(GetVVDiffTest, InstalledTableKeepsNinetyNine) {
  Make();
  ScriptedInventory many;
  for (int i = 0; i < 120; ++i) many.Add({u"s", u"T", u"d", u"1", WFromUtf8("C" + std::to_string(i))});
  EXPECT_CALL(*engine, GetInventoryIterator()).WillOnce(Return(&many));
  diff->initGetVVDiff(u"UM_Checknew.log");
  installed = diff->createInstalledData();
  ASSERT_NE(installed, nullptr);
  EXPECT_EQ(installed->getNumberEntries(), 99);
  EXPECT_EQ(installed->getComponent(98)->compId, u"C98");
  diff->createGlobalInfo();
  EXPECT_NE(CheckLog().find("\tnumberInventoryElements=120,inventoryError=0"), std::string::npos);
  EXPECT_EQ(CountLines(Plain(Read(work + kSep + u"ztInstalled.txt")), "ComponentIndex="), 120);
}

// A failed UseLocalInventory leaves the engine in place and the inventory error set; the marker
// file in the work directory switches the engine's trace on before anything else.
TEST_F(GetVVDiffTest, EngineSetUp) {
  const WString traceFile = work + kSep + u"ORMUX_UpdTrace.txt";
  platform::WriteWholeFile(work + kSep + u"ORMUX_TRACE", "", 0);
  platform::WriteWholeFile(traceFile, "old", 3);
  {
    InSequence order;
    EXPECT_CALL(*engine, SetTrace(10u, traceFile)).WillOnce([&](uint32_t, const WString&) {
      EXPECT_FALSE(platform::FileExists(traceFile));  // the old trace goes first
    });
    EXPECT_CALL(*engine, UseLocalInventory()).WillOnce(Return(5));
  }
  diff = std::make_unique<GetVVDiff>(util.get(), &module, FactoryOf(engine));
  EXPECT_EQ(diff->getInstalledErrorCode(), GetVVDiff::kInventoryEmpty);

  // A factory that gives no engine at all: every step fails cleanly.
  GetVVDiff none(util.get(), &module, [](const EngineArgs&, UM_Util*) { return EnginePtr(); });
  EXPECT_EQ(none.getInstalledErrorCode(), GetVVDiff::kInventoryEmpty);
  none.callKordUpTool();
  none.initGetVVDiff(u"x");
  EXPECT_EQ(none.createDiffData(repo), nullptr);
  EXPECT_EQ(none.createInstalledData(), nullptr);
}

// The result files are replaced only when the check is complete: a check cut off before
// (a crash, the module stopped) leaves the files of the last complete check.
TEST_F(GetVVDiffTest, ResultFilesReplacedOnlyAtTheEnd) {
  Make();
  oneComponent.Add({u"NIC", u"FIRMWARE", u"card", u"1.0", u"X"});
  ScriptedUpdates first;
  first.Add(Package("FW/First"));
  Check(&first, &oneComponent);
  const std::string update = Read(work + kSep + u"ztUpdate.txt");
  const std::string installedText = Read(work + kSep + u"ztInstalled.txt");
  const std::string ztNew = Read(data + kSep + u"ztNew.txt");
  ASSERT_NE(update.find("FW/First"), std::string::npos);

  ScriptedUpdates second;
  second.Add(Package("FW/Second"));
  EXPECT_CALL(*engine, GetUpdateInventoryIterator(repo, _)).WillOnce(DoAll(SetArgReferee<1>(&second), Return(0)));
  EXPECT_CALL(*engine, GetInventoryIterator()).WillOnce(Return(&oneComponent));
  diff->initGetVVDiff(u"UM_Checknew.log");
  table = diff->createDiffData(repo);
  installed = diff->createInstalledData();
  // Cut off here: the new files are written, the old ones untouched.
  EXPECT_NE(Read(work + kSep + u"new_ztUpdate.txt").find("FW/Second"), std::string::npos);
  EXPECT_NE(Read(data + kSep + u"new_ztNew.txt").find("FW/Second"), std::string::npos);
  EXPECT_EQ(Read(work + kSep + u"ztUpdate.txt"), update);
  EXPECT_EQ(Read(work + kSep + u"ztInstalled.txt"), installedText);
  EXPECT_EQ(Read(data + kSep + u"ztNew.txt"), ztNew);

  diff->createGlobalInfo();
  EXPECT_NE(Read(work + kSep + u"ztUpdate.txt").find("FW/Second"), std::string::npos);
  EXPECT_FALSE(platform::FileExists(work + kSep + u"new_ztUpdate.txt"));
  EXPECT_FALSE(platform::FileExists(data + kSep + u"new_ztNew.txt"));
  EXPECT_FALSE(platform::FileExists(work + kSep + u"new_ztInstalled.txt"));
}

// ztNew.txt across comparisons: only upgrades that were not announced last time count as new.
TEST_F(GetVVDiffTest, NewComponentsAcrossComparisons) {
  Make();
  oneComponent.Add({u"NIC", u"FIRMWARE", u"card", u"1.0", u"X"});
  auto run = [&](std::vector<std::pair<const char*, uint32_t>> packages, uint32_t iteratorResult = 0) {
    ScriptedUpdates updates;
    for (const auto& [path, ranking] : packages) {
      PackageRow row = Package(path);
      row.ranking = ranking;
      row.upgrade = ranking == 1 ? 1 : 0;
      updates.Add(row);
    }
    Check(&updates, &oneComponent, iteratorResult);
    return WToUtf8(diff->getNewComponentst());
  };
  const WString ztNew = data + kSep + u"ztNew.txt";

  EXPECT_EQ(run({{"FW/A", 1}, {"FW/B", 1}, {"FW/Same", 2}}), "FW/A\nFW/B");
  EXPECT_EQ(diff->isCheckAlertNecessary(), 1);
  const std::string announced = Read(ztNew);
  EXPECT_EQ(Plain(announced), "FW/A|X1|1.0|2.0|recommended\nFW/B|X1|1.0|2.0|recommended\n");

  // Unchanged repository: nothing new, the same file.
  EXPECT_EQ(run({{"FW/A", 1}, {"FW/B", 1}, {"FW/Same", 2}}), "");
  EXPECT_EQ(diff->isCheckAlertNecessary(), 0);
  EXPECT_EQ(Read(ztNew), announced);

  // B installed meanwhile: it drops out of the file, and counts as new when it comes back.
  EXPECT_EQ(run({{"FW/A", 1}, {"FW/B", 2}}), "");
  EXPECT_EQ(Plain(Read(ztNew)), "FW/A|X1|1.0|2.0|recommended\n");
  EXPECT_EQ(run({{"FW/A", 1}, {"FW/B", 1}}), "FW/B");

  // A failed comparison forgets what was announced: every upgrade is new the next time.
  EXPECT_EQ(run({}, 41), "");
  EXPECT_EQ(diff->isCheckAlertNecessary(), 0);
  EXPECT_EQ(run({{"FW/A", 1}, {"FW/B", 1}}), "FW/A\nFW/B");
  EXPECT_EQ(diff->isCheckAlertNecessary(), 1);
}
