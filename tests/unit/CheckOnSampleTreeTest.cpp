// One comparison as the module runs it, with the simulated engine, on a tree that repotool builds
// from leaves written here and a machine whose inventory is written here: the rows, codes and
// files must be the ones this server and this machine imply.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "base/WFormat.h"
#include "check/DiffData.h"
#include "check/GetVVDiff.h"
#include "check/InstalledData.h"
#include "config/MakeDirectoryPath.h"
#include "foundation/CFile.h"
#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "platform/Archive.h"
#include "platform/Environment.h"
#include "platform/FileIo.h"
#include "tests/unit/TestRegistry.h"

namespace {

const WString kBase = u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden";

WString EnvPath(const char* name) {
  const char* v = std::getenv(name);
  if (!v || !*v) return WString();
  WString path = WFromUtf8(v);
#ifdef _WIN32
  if (path[0] == u'/') path = u"Z:" + path;
#endif
  return path;
}

std::string Read(const WString& path) {
  std::string bytes;
  platform::ReadWholeFile(path, bytes);
  std::string out;
  for (size_t i = 0; i < bytes.size(); ++i)
    if (!(bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n')) out.push_back(bytes[i]);
  return out;
}

void Write(const WString& path, const std::string& text) {
  MakeDirectoryPath(path.substr(0, path.find_last_of(u"/\\")));
  ASSERT_TRUE(platform::WriteWholeFile(path, text.data(), text.size())) << WToUtf8(path);
}

// The leaves of the server: path, leaf.ini's [component] lines, and whether a release note comes.
struct LeafSpec {
  const char* path;
  const char* component;
  bool note;
  bool link;
};

const LeafSpec kLeaves[] = {
    {"BIOS/D1/A1", "objectName=D1\nversion=1.2.0\nseverity=mandatory\nreboot=yes\n", true, false},
    {"BIOS/D1/A2", "objectName=D1\nversion=1.1.5\nseverity=mandatory\nreboot=yes\n", false, false},
    {"DRV/Win", "type=DRIVER\nobjectName=M1\nversion=1.1\nos=windows\nseverity=optional\n", false, false},
    {"FW/BMC", "objectName=B1\nversion=1.1\nprerequisite=BMC>=3.0\nreboot=immediately\n", false, false},
    {"FW/New", "objectName=N1\nversion=5\nseverity=optional\nreboot=sometimes\n", false, false},
    {"FW/Absent", "objectName=Z9\nversion=9.9\n", false, false},
    {"FW/Step", "objectName=S1\nversion=3.0\nminStepVersion=2.0\n", false, false},
    {"LINK/T1", "type=TOOL\nobjectName=T1\nversion=1.0\n", false, true},
    {"NIC/X1", "subtype=NIC\nobjectName=X1\nversion=2.0\npciId=8086:1572\n", true, false},
    {"NIC/X2/Old", "subtype=NIC\nobjectName=X2\nversion=0.9\n", false, false},
    {"NIC/X2/Older", "subtype=NIC\nobjectName=X2\nversion=0.8\n", false, false},
};

const char kInventory[] =
    "# the machine of this test\n"
    "[system]\nos=linux\n"
    "[component]\ntype=BIOS\nsubtype=SystemBoard\nobjectName=D1\nversion=1.1.0\ncompId=D1\ndescription=board\n"
    "[component]\ntype=DRIVER\nsubtype=Storage\nobjectName=M1\nversion=1.0\ncompId=M1\ndescription=raid\n"
    "[component]\ntype=FIRMWARE\nsubtype=BMC\nobjectName=B1\nversion=1.0\ncompId=B1\ndescription=bmc\n"
    "[component]\ntype=FIRMWARE\nsubtype=BMC\nobjectName=BMC0\nversion=2.1\ncompId=BMC0\ndescription=base bmc\n"
    "[component]\ntype=FIRMWARE\nsubtype=Misc\nobjectName=N1\nversion=\ncompId=N1\ndescription=no version\n"
    "[component]\ntype=FIRMWARE\nsubtype=Misc\nobjectName=S1\nversion=1.0\ncompId=S1\ndescription=stepper\n"
    "[component]\ntype=TOOL\nsubtype=Link\nobjectName=T1\nversion=1.0\ncompId=T1\ndescription=tool\n"
    "[component]\ntype=FIRMWARE\nsubtype=NIC\nobjectName=X1\nversion=2.0\ncompId=PCI\\VEN_8086&DEV_1572\n"
    "description=nic\n"
    "[component]\ntype=FIRMWARE\nsubtype=NIC\nobjectName=X2\nversion=1.0\ncompId=X2\ndescription=nic2\n"
    "[component]\ntype=KordSupportPack-Win\nsubtype=SupportPack\nobjectName=SupportPack\nversion=4.1.0\n"
    "compId=KPK-4.1.0\ndescription=Support pack\n";

class CheckOnSampleTree : public ::testing::Test {
 protected:
  void SetUp() override {
    repotool = EnvPath("EM_REPOTOOL");
    stub = EnvPath("EM_SFX_STUB");
    ASSERT_FALSE(repotool.empty() || stub.empty()) << "EM_REPOTOOL and EM_SFX_STUB must name the tools";
    root = TestDirectory(u"checktree");
    CFile::RemoveDirectoryTree(root, false);
    reg.String(kBase + u"\\DATA", u"DataRoot", root + u"/data");
    reg.String(kBase + u"\\Setup", u"TempRoot", root + u"/temp");
    MakeDirectoryPath(root + u"/data/EM_MENDER");
    MakeDirectoryPath(root + u"/temp");
    // The simulated engine, whatever the machine running the tests has configured.
    hadEngine = platform::GetEnv(u"EM_MENDER_ENGINE", savedEngine);
    platform::SetEnv(u"EM_MENDER_ENGINE", u"");
  }
  void TearDown() override {
    if (hadEngine)
      platform::SetEnv(u"EM_MENDER_ENGINE", savedEngine);
    else
      platform::UnsetEnv(u"EM_MENDER_ENGINE");
    CFile::RemoveDirectoryTree(root, true);
  }

  ::testing::AssertionResult Tool(const std::vector<WString>& args) {
    WString outFile = root + u"/repotool.txt";
    std::string command = "\"" + WToUtf8(repotool) + "\"";
    for (const WString& arg : args) command += " \"" + WToUtf8(arg) + "\"";
    command += " >\"" + WToUtf8(outFile) + "\" 2>&1";
#ifdef _WIN32
    command = "\"" + command + "\"";
#endif
    if (std::system(command.c_str()) == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << command << ": " << Read(outFile);
  }

  TestRegistry reg{u"checktree"};
  WString repotool, stub, root, savedEngine;
  bool hadEngine = false;
};

}  // namespace

TEST_F(CheckOnSampleTree, TableAndFilesFollowFromTreeAndInventory) {
  const WString leaves = root + u"/leaves", server = root + u"/server", repo = root + u"/repo";
  for (const LeafSpec& leaf : kLeaves) {
    const WString dir = leaves + u"/" + WFromUtf8(leaf.path);
    std::string ini =
        std::string("[leaf]\nversion=3\ntype=") + (leaf.link ? "L" : "F") + "\n[component]\n" + leaf.component;
    Write(dir + u"/leaf.ini", ini);
    if (!leaf.link) Write(dir + u"/files/readme.txt", std::string("payload of ") + leaf.path + "\n");
    if (leaf.note) Write(dir + u"/rel_note.txt", "notes\n");
  }
  ASSERT_TRUE(Tool({u"build", u"--leaves", leaves, u"--out", server, u"--stub", stub}));
  // The repository as the mirror leaves it: the information tree; one package fetched.
  MakeDirectoryPath(repo);
  std::string archive;
  ASSERT_TRUE(platform::ReadWholeFile(server + u"/ZT_par_tree.exe", archive));
  Write(repo + u"/ZT_par_tree.exe", archive);
  ASSERT_EQ(platform::UnpackSelfExtractingArchive(repo, u"ZT_par_tree.exe", root + u"/out.txt", root + u"/err.txt"), 0)
      << Read(root + u"/err.txt");
  platform::RemoveFilePath(repo + u"/ZT_par_tree.exe");
  std::string package;
  ASSERT_TRUE(platform::ReadWholeFile(server + u"/BIOS/D1/A1/A1.exe", package));
  Write(repo + u"/BIOS/D1/A1/A1.exe", package);
  Write(root + u"/data/EM_MENDER/UpdateJob/SimulatedEngine/inventory.txt", kInventory);

  UM_Util util(nullptr);
  ASSERT_TRUE(util.umStartLogging(u"UM_Checknew.log", u"UpdateCheck"));
  GetVVDiff diff(&util, nullptr);
  EXPECT_EQ(diff.getInstalledErrorCode(), 0);
  diff.callKordUpTool();
  diff.initGetVVDiff(u"UM_Checknew.log");
  std::unique_ptr<DiffData> table = diff.createDiffData(repo);
  std::unique_ptr<InstalledData> installed = diff.createInstalledData();
  diff.createGlobalInfo();
  ASSERT_NE(table, nullptr) << WToUtf8(diff.getErrorMessage());
  ASSERT_NE(installed, nullptr);

  struct Row {
    const char16_t* path;
    const char16_t* installed;
    uint8_t ranking, reboot, severity, installable;
    int32_t engineError, size;
    bool note;
  };
  // Z9 is not installed, so FW/Absent does not apply; the newest of D1's two upgrades and of X2's
  // two downgrades is the highest one; N1's version is unknown.
  const Row expected[] = {
      {u"BIOS/D1/A1", u"1.1.0", 1, 2, 2, 1, 0, 0, true}, {u"BIOS/D1/A2", u"1.1.0", 2, 2, 2, 1, 0, 1, false},
      {u"DRV/Win", u"1.0", 1, 0, 0, 0, 58, 1, false},    {u"FW/BMC", u"1.0", 1, 1, 1, 0, 61, 1, false},
      {u"FW/New", u"", 0, 3, 0, 1, 0, 1, false},         {u"FW/Step", u"1.0", 1, 0, 1, 0, 66, 1, false},
      {u"LINK/T1", u"1.0", 3, 0, 1, 1, 0, -1, false},    {u"NIC/X1", u"2.0", 3, 0, 1, 1, 0, 1, true},
      {u"NIC/X2/Old", u"1.0", 4, 0, 1, 1, 0, 1, false},  {u"NIC/X2/Older", u"1.0", 5, 0, 1, 1, 0, 1, false},
  };
  ASSERT_EQ(table->getNumberEntries(), 10);
  for (int i = 0; i < 10; ++i) {
    const um_component* row = table->getComponent(i);
    const Row& want = expected[i];
    SCOPED_TRACE(WToUtf8(want.path));
    EXPECT_EQ(row->path, want.path);
    EXPECT_EQ(row->installedVersion, want.installed);
    EXPECT_EQ(row->rankingCode, want.ranking);
    EXPECT_EQ(row->rebootCode, want.reboot);
    EXPECT_EQ(row->severityCode, want.severity);
    EXPECT_EQ(row->installable, want.installable);
    EXPECT_EQ(row->engineError, want.engineError);
    EXPECT_EQ(row->downloadSize, want.size);
    EXPECT_EQ(row->binaryLoaded, want.size == 0 ? 1 : 0);
    EXPECT_EQ(row->releaseNote.empty(), !want.note);
    EXPECT_EQ(row->kpkPackageVersion, u"4.1.0");
  }
  EXPECT_EQ(table->getComponent(2)->engineErrorText,
            u"The package is not meant for the operating system of this server");
  EXPECT_EQ(table->getComponent(3)->engineErrorText, u"A prerequisite of the package is not fulfilled");
  EXPECT_EQ(table->getComponent(7)->componentId, u"8086:1572");
  EXPECT_EQ(table->getComponent(0)->zbpFileName, u"A1.exe");
  EXPECT_EQ(diff.getServerSeverityText(), u"critical");
  // Only the highest upgrades are announced, each once.
  EXPECT_EQ(diff.getNewComponentst(), u"BIOS/D1/A1\nDRV/Win\nFW/BMC\nFW/Step");
  EXPECT_EQ(diff.isCheckAlertNecessary(), 1);

  ASSERT_EQ(installed->getNumberEntries(), 10);
  EXPECT_EQ(installed->getComponent(7)->pciId, u"PCI\\VEN_8086&DEV_1572");
  EXPECT_EQ(installed->getComponent(9)->kpkVersion, u"KPK-4.1.0");

  const WString work = util.umGetWorkDir();
  const std::string update = Read(work + u"/ztUpdate.txt");
  EXPECT_NE(update.find("ComponentIndex=0|\tComponentPath=BIOS/D1/A1|\tComponentType=FIRMWARE|\tComponentSubType=|\t"
                        "ComponentId=|\tRepositoryVersion=1.2.0|\tInstalledversion=1.1.0|\tIsHighestUpgradeVersion=1|\t"
                        "IsHighestDowngradeVersion=0|\tRepos2InstRanking=1|\tMandatoryComponent=0|\tPrerequire=|\t"
                        "ORMUXError=0|\tORMUXErrText=|\tMinStepVersion=|\tZBPVersion=1|\tZBPFileName=A1.exe|\tOS=any|\t"
                        "KPKPackageVersion=4.1.0|\tVendorSeverity=mandatory|\tReBoot=yes|\tInstallTime=60|\t"
                        "installable=yes|\tbinaryLoaded=yes|\tDownloadSize=0|\t\n"),
            std::string::npos)
      << update;
  EXPECT_NE(update.find("ComponentIndex=9|\tComponentPath=NIC/X2/Older|"), std::string::npos);
  EXPECT_NE(update.find("\nCheckResult\nserverSeverity=critical |\t"), std::string::npos);
  EXPECT_NE(update.find("numberUpdateElements=10\ncheckError=0 | errMsg=\ninventoryError=0\n"), std::string::npos);
  const std::string installedText = Read(work + u"/ztInstalled.txt");
  EXPECT_NE(installedText.find("ComponentIndex=9\t|Version=4.1.0\t|CompType=KordSupportPack-Win\t|"
                               "CompSubType=SupportPack\t|CompId=KPK-4.1.0\t|ProdDesc=Support pack\n"),
            std::string::npos)
      << installedText;
  EXPECT_EQ(Read(util.umGetDataDir() + u"/ztNew.txt"),
            "BIOS/D1/A1|D1|1.1.0|1.2.0|mandatory\nDRV/Win|M1|1.0|1.1|optional\n"
            "FW/BMC|B1|1.0|1.1|recommended\nFW/Step|S1|1.0|3.0|recommended\n");
}
