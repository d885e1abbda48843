// The simulated engine's comparison of its inventory with a repository: which leaves it reports,
// in which order, with which ranking, flags and validity, and the element's texts. Expected rows
// are written out as an administrator would read them off the files.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/SimulatedEngine.h"
#include "platform/Archive.h"
#include "tests/unit/EngineTestSupport.h"

using namespace enginetest;

namespace {

// A description as repotool writes it: a comment line, key=value lines, CR LF.
std::string Zt(const std::string& objectName, const std::string& version, const std::string& extra = "") {
  std::string text = "# component description\r\n";
  if (!objectName.empty()) text += "objectName=" + objectName + "\r\n";
  text += "version=" + version + "\r\n";
  size_t pos = 0;
  while (pos < extra.size()) {
    size_t end = extra.find('\n', pos);
    text += extra.substr(pos, end - pos) + "\r\n";
    pos = end == std::string::npos ? extra.size() : end + 1;
  }
  return text;
}

const std::string kInventory =
    "[system]\n"
    "os=linux\n"
    "[component]\n"  // 0
    "type=BIOS\nsubtype=SystemBoard\nobjectName=D3300\nversion=1.1.0\ncompId=D3300\ndescription=BIOS D3300\n"
    "[component]\n"  // 1: its version is unknown
    "type=FIRMWARE\nsubtype=NIC\nobjectName=NIC1\nversion=\ncompId=PCI8086:1572\ndescription=NIC\n"
    "[component]\n"  // 2
    "type=FIRMWARE\nsubtype=BMC\nobjectName=iRMC\nversion=2.5\ncompId=BMC\ndescription=Management controller\n"
    "[component]\n"  // 3
    "type=KordSupportPack-Win\nsubtype=SupportPack\nobjectName=SupportPack\nversion=4.1.0\ncompId=KPK-4.1.0\n"
    "[component]\n"  // 4: the same name again, never "its" component
    "type=BIOS\nobjectName=D3300\nversion=9.9\ndescription=second D3300\n"
    "[component]\n"  // 5
    "type=DRIVER\nsubtype=Storage\nobjectName=RAID1\nversion=3.0\ncompId=RAID\ndescription=RAID driver\n";

class EngineCompareTest : public EngineFolderTest {
 protected:
  void WriteRepository() {
    // Three upgrades, one equal, two downgrades, and an upgrade whose version equals another's.
    Leaf(u"BIOS/D3300/A", Zt("D3300", "1.2.0"));
    Leaf(u"BIOS/D3300/B", Zt("D3300", "1.10.0"));
    Leaf(u"BIOS/D3300/C", Zt("D3300", "1.9"));
    Leaf(u"BIOS/D3300/D", Zt("D3300", "1.1.0"));
    Leaf(u"BIOS/D3300/E", Zt("D3300", "1.0.5"));
    Leaf(u"BIOS/D3300/F", Zt("D3300", "0.9"));
    Leaf(u"BIOS/D3300/G", Zt("D3300", "1.10"));
    // Validity rules of iRMC 2.5 on linux.
    Leaf(u"BMC/Any", Zt("iRMC", "2.6", "os=any\nprerequisite=NIC\nminStepVersion=2.5"));
    Leaf(u"BMC/Linux", Zt("iRMC", "2.7", "os=LINUX\nprerequisite=D3300>=1.1"));
    Leaf(u"BMC/Malformed", Zt("iRMC", "2.8", "prerequisite=iRMC>2.0"));
    Leaf(u"BMC/UnknownVersion", Zt("iRMC", "2.9", "prerequisite=NIC1>=1.0"));
    Leaf(u"BMC/Prereq", Zt("iRMC", "2.8.1", "prerequisite=SystemBoard>=1.2"));
    Leaf(u"BMC/Both", Zt("iRMC", "2.8.2", "os=windows\nprerequisite=Missing"));
    Leaf(u"BMC/Step", Zt("iRMC", "3.1", "minStepVersion=2.6"));
    Leaf(u"BMC/StepOk", Zt("iRMC", "3.0", "minStepVersion=2.5"));
    Leaf(u"BMC/Win", Zt("iRMC", "3.2", "os=windows"));
    Leaf(u"BMC/Down", Zt("iRMC", "2.0", "minStepVersion=2.9"));
    // Broken descriptions and a newer format.
    Leaf(u"BROKEN/NoName", Zt("", "1.0"));
    Leaf(u"BROKEN/EmptyVersion", Zt("D3300", ""));
    Leaf(u"BROKEN/BadTime", Zt("D3300", "2.0", "installTime=soon"));
    Leaf(u"BROKEN/Mandatory2", Zt("D3300", "2.0", "mandatory=2"));
    Leaf(u"FUTURE/Format2", Zt("D3300", "2.0", "formatVersion=2"));
    // 8-bit and UTF-8 texts, keys in other cases, LF only.
    Leaf(u"DRIVER/Storage/Cp1252",
         "objectName=RAID1\nversion=3.0\nsubtype=Gr\xF6\xDF"
         "e \x80\n");
    Leaf(u"DRIVER/Storage/Utf8",
         "# all fields\nOBJECTNAME=RAID1\nVersion=3.0.1\ntype=DRIVER\nSubType=Gr\xC3\xB6\xC3\x9F"
         "e \xE2\x82\xAC\n"
         "pciId=1000:0097\nseverity=critical\nreboot=2\ninstallTime=120\nmandatory=1\npackageFile=Utf8.exe\n"
         "formatVersion=1\nprerequisite=\nos=\nminStepVersion=\n");
    Leaf(u"LINK/L1", Zt("RAID1", "3.0"), u"ztlink.par");
    Leaf(u"NIC/NIC1", Zt("NIC1", "5.0"));
    Leaf(u"NIC/NIC1b", Zt("NIC1", "4.0"));
    // Never reported: nothing installed, the support pack entry, the mirror's work and repair
    // directories, a directory inside a leaf.
    Leaf(u"OTHER/Unknown", Zt("X1", "1.0"));
    Leaf(u"PACK/SupportPack", Zt("SupportPack", "5.0"));
    Leaf(u"BIOS/D3300/A_bk", Zt("D3300", "8.0"));
    Leaf(u"BIOS/Old~del", Zt("D3300", "8.1"));
    Leaf(u"temp/temp_par_tree/BIOS/X", Zt("D3300", "8.2"));
    Leaf(u"BIOS/D3300/A/Nested", Zt("D3300", "8.3"));
  }
};

}  // namespace

TEST_F(EngineCompareTest, RowsOfAMixedRepository) {
  Inventory(kInventory);
  WriteRepository();
  SimulatedEngine e(args);
  const WString trace = root + u"/engine-trace.txt";
  e.SetTrace(10, trace);
  ASSERT_EQ(e.UseLocalInventory(), 0u);
  UpdateInventoryIterator* it = nullptr;
  ASSERT_EQ(e.GetUpdateInventoryIterator(repo, it), 0u);
  ASSERT_NE(it, nullptr);
  // 29 leaves: the skipped directories and the one inside a leaf are not among them.
  const std::string traced = Read(trace);
  EXPECT_NE(traced.find(": 29 leaves, 22 applicable, 5 invalid"), std::string::npos) << traced;

  // fwPath, objectName, new, installed, compId, ranking, upgrade, downgrade, valid
  const std::vector<Row> expected = {
      {"BIOS/D3300/A", "D3300", "1.2.0", "1.1.0", 0, 1, 0, 0, 0},
      {"BIOS/D3300/B", "D3300", "1.10.0", "1.1.0", 0, 1, 1, 0, 0},
      {"BIOS/D3300/C", "D3300", "1.9", "1.1.0", 0, 1, 0, 0, 0},
      {"BIOS/D3300/D", "D3300", "1.1.0", "1.1.0", 0, 2, 0, 0, 0},
      {"BIOS/D3300/E", "D3300", "1.0.5", "1.1.0", 0, 3, 0, 1, 0},
      {"BIOS/D3300/F", "D3300", "0.9", "1.1.0", 0, 3, 0, 0, 0},
      {"BIOS/D3300/G", "D3300", "1.10", "1.1.0", 0, 1, 0, 0, 0},
      {"BMC/Any", "iRMC", "2.6", "2.5", 2, 1, 0, 0, 0},
      {"BMC/Both", "iRMC", "2.8.2", "2.5", 2, 1, 0, 0, 58},
      {"BMC/Down", "iRMC", "2.0", "2.5", 2, 3, 0, 1, 0},
      {"BMC/Linux", "iRMC", "2.7", "2.5", 2, 1, 0, 0, 0},
      {"BMC/Malformed", "iRMC", "2.8", "2.5", 2, 1, 0, 0, 61},
      {"BMC/Prereq", "iRMC", "2.8.1", "2.5", 2, 1, 0, 0, 61},
      {"BMC/Step", "iRMC", "3.1", "2.5", 2, 1, 0, 0, 66},
      {"BMC/StepOk", "iRMC", "3.0", "2.5", 2, 1, 0, 0, 0},
      {"BMC/UnknownVersion", "iRMC", "2.9", "2.5", 2, 1, 0, 0, 61},
      {"BMC/Win", "iRMC", "3.2", "2.5", 2, 1, 1, 0, 58},
      {"BROKEN/BadTime", "D3300", "2.0", "", 0, 0, 0, 0, 31},
      {"BROKEN/EmptyVersion", "D3300", "", "", 0, 0, 0, 0, 31},
      {"BROKEN/Mandatory2", "D3300", "2.0", "", 0, 0, 0, 0, 31},
      {"BROKEN/NoName", "", "1.0", "", 0, 0, 0, 0, 31},
      {"DRIVER/Storage/Cp1252", "RAID1", "3.0", "3.0", 5, 2, 0, 0, 0},
      {"DRIVER/Storage/Utf8", "RAID1", "3.0.1", "3.0", 5, 1, 1, 0, 0},
      {"FUTURE/Format2", "D3300", "2.0", "", 0, 0, 0, 0, 32},
      {"LINK/L1", "RAID1", "3.0", "3.0", 5, 2, 0, 0, 0},
      {"NIC/NIC1", "NIC1", "5.0", "", 1, 0, 1, 0, 0},
      {"NIC/NIC1b", "NIC1", "4.0", "", 1, 0, 0, 0, 0},
  };
  EXPECT_EQ(Rows(it), expected);

  // Every field of one fully described element.
  const UpdateElement* u = nullptr;
  for (const UpdateElement* x = it->GetFirst(); x; x = it->GetNext())
    if (Text(x->FwPath) == u"DRIVER/Storage/Utf8") u = x;
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(Text(u->ComponentDir), u"DRIVER/Storage/Utf8");
  EXPECT_EQ(Text(u->ZBPFileName), u"Utf8.exe");
  EXPECT_EQ(Text(u->ZBPVersion), u"1");
  EXPECT_EQ(Text(u->ObjectTypeName), u"Größe €");
  EXPECT_EQ(Text(u->ComponentType), u"DRIVER");
  EXPECT_EQ(Text(u->PCI_Id), u"1000:0097");
  EXPECT_EQ(Text(u->severity), u"critical");
  EXPECT_EQ(Text(u->ReBoot), u"2");
  EXPECT_EQ(Text(u->Prerequire), u"");
  EXPECT_EQ(Text(u->OS), u"");
  EXPECT_EQ(Text(u->stepVersion), u"");
  EXPECT_EQ(u->InstallTime, 120u);
  EXPECT_EQ(u->Mandatory, 1);
  EXPECT_EQ(Text(u->ProdName), u"RAID1");
  EXPECT_EQ(Text(u->ProdDescr), u"RAID driver");
  EXPECT_EQ(Text(u->SerialNo), u"");
  EXPECT_EQ(Text(u->VersionViewId), u"");
  EXPECT_EQ(Text(u->cKPKnewVersions), u"");
  EXPECT_EQ(u->Offline, 0);
  EXPECT_EQ(u->nKPKnewVersions, 0);
  EXPECT_EQ(u->CompType, 0);
  EXPECT_EQ(Text(u->KPKPackageVersion), u"4.1.0");

  // The 8-bit description and the defaults of keys it does not give; an invalid entry's texts.
  for (const UpdateElement* x = it->GetFirst(); x; x = it->GetNext()) {
    const WString path = Text(x->FwPath);
    if (path == u"DRIVER/Storage/Cp1252") {
      EXPECT_EQ(Text(x->ObjectTypeName), u"Größe €");
      EXPECT_EQ(Text(x->ComponentType), u"FIRMWARE");
      EXPECT_EQ(Text(x->severity), u"recommended");
      EXPECT_EQ(Text(x->ReBoot), u"no");
      EXPECT_EQ(Text(x->OS), u"any");
      EXPECT_EQ(Text(x->ZBPVersion), u"1");
      EXPECT_EQ(x->InstallTime, 60u);
      EXPECT_EQ(x->Mandatory, 0);
    }
    if (path == u"BROKEN/NoName") {
      for (const char16_t* t : {x->ProdName,
                                x->ProdDescr,
                                x->InstVersion,
                                x->SerialNo,
                                x->NewVersion,
                                x->ObjectName,
                                x->VersionViewId,
                                x->stepVersion,
                                x->ComponentType,
                                x->ComponentDir,
                                x->ObjectTypeName,
                                x->ZBPFileName,
                                x->ZBPVersion,
                                x->severity,
                                x->ReBoot,
                                x->Prerequire,
                                x->OS,
                                x->PCI_Id,
                                x->KPKPackageVersion,
                                x->cKPKnewVersions})
        EXPECT_NE(t, nullptr);
      EXPECT_EQ(Text(x->ComponentDir), u"BROKEN/NoName");
    }
    EXPECT_EQ(Text(x->KPKPackageVersion), u"4.1.0") << WToUtf8(path);
  }
}

TEST_F(EngineCompareTest, RepositoryThatIsNoDirectoryAndEngineWithoutSupportPack) {
  Inventory("[component]\ntype=BIOS\nobjectName=D3300\nversion=1.0\n");
  Leaf(u"BIOS/A", Zt("D3300", "1.1"));
  Leaf(u"BIOS/Broken", Zt("D3300", "1.1", "mandatory=yes"));
  SimulatedEngine e(args);
  ASSERT_EQ(e.UseLocalInventory(), 0u);
  UpdateInventoryIterator* it = reinterpret_cast<UpdateInventoryIterator*>(&e);
  EXPECT_EQ(e.GetUpdateInventoryIterator(repo + u"/BIOS/A/zt.par", it), 41u);
  EXPECT_EQ(it, nullptr);
  EXPECT_EQ(e.GetUpdateInventoryIterator(root + u"/missing", it), 41u);
  EXPECT_EQ(e.GetUpdateInventoryIterator(u"", it), 41u);

  ASSERT_EQ(e.GetUpdateInventoryIterator(repo, it), 0u);
  const UpdateElement* first = it->GetFirst();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(ToRow(*first), (Row{"BIOS/A", "D3300", "1.1", "1.0", 0, 1, 1, 0, 0}));
  EXPECT_EQ(Text(first->KPKPackageVersion), u"");
  // Broken entries are reported whatever is installed.
  const UpdateElement* second = it->GetNext();
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(ToRow(*second), (Row{"BIOS/Broken", "D3300", "1.1", "", 0, 0, 0, 0, 31}));
  EXPECT_EQ(it->GetNext(), nullptr);

  // An empty inventory still reports them, and nothing else.
  Inventory("");
  e.InventoryModifiedEvent();
  ASSERT_EQ(e.GetUpdateInventoryIterator(repo, it), 0u);
  EXPECT_EQ(Rows(it), (std::vector<Row>{{"BIOS/Broken", "D3300", "1.1", "", 0, 0, 0, 0, 31}}));
}

// A repository as the mirror leaves it after unpacking the server's information tree that
// repotool built: the engine reads the descriptions that repotool writes.
TEST_F(EngineCompareTest, RepositoryBuiltByRepotool) {
  const WString repotool = PathFromEnv("EM_REPOTOOL"), stub = PathFromEnv("EM_SFX_STUB");
  if (repotool.empty() || stub.empty()) GTEST_SKIP() << "EM_REPOTOOL and EM_SFX_STUB are not set";
  const WString leaves = root + u"/leaves", server = root + u"/server";
  Put(leaves, u"BIOS/D3300/A1/leaf.ini",
      "[leaf]\r\nversion=3\r\ntype=F\r\n[component]\r\ntype=BIOS\r\nsubtype=SystemBoard\r\nobjectName=D3300\r\n"
      "version=1.12.3\r\nseverity=critical\r\nprerequisite=iRMC>=2.0\r\nos=linux\r\n");
  Put(leaves, u"LINK/D3300/leaf.ini",
      "[leaf]\r\nversion=1\r\ntype=L\r\n[component]\r\nobjectName=D3300\r\nversion=1.0.0\r\n");
  Put(leaves, u"FIRMWARE/NIC/X710/leaf.ini", "[leaf]\r\nversion=2\r\ntype=F\r\n[component]\r\nobjectName=X710\r\n");
  auto q = [](const WString& p) { return "\"" + WToUtf8(p) + "\""; };
  std::string command = q(repotool) + " build --leaves " + q(leaves) + " --out " + q(server) + " --stub " + q(stub);
#ifdef _WIN32
  command = "\"" + command + "\"";  // the command interpreter strips the outer pair
#endif
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
  const std::string archive = Read(server + u"/ZT_par_tree.exe");
  ASSERT_FALSE(archive.empty());
  Put(repo, u"ZT_par_tree.exe", archive);
  ASSERT_EQ(
      platform::UnpackSelfExtractingArchive(repo, u"ZT_par_tree.exe", root + u"/unpack.out", root + u"/unpack.err"), 0)
      << Read(root + u"/unpack.err");

  Inventory(
      "[system]\nos=linux\n[component]\ntype=BIOS\nobjectName=D3300\nversion=1.9\n"
      "[component]\ntype=FIRMWARE\nobjectName=iRMC\nversion=2.0\n"
      "[component]\ntype=FIRMWARE\nsubtype=NIC\nobjectName=X710\nversion=1.0.1\n");
  SimulatedEngine e(args);
  ASSERT_EQ(e.UseLocalInventory(), 0u);
  UpdateInventoryIterator* it = nullptr;
  ASSERT_EQ(e.GetUpdateInventoryIterator(repo, it), 0u);
  EXPECT_EQ(Rows(it), (std::vector<Row>{{"BIOS/D3300/A1", "D3300", "1.12.3", "1.9", 0, 1, 1, 0, 0},
                                        {"FIRMWARE/NIC/X710", "X710", "1.0.2", "1.0.1", 2, 1, 1, 0, 0},
                                        {"LINK/D3300", "D3300", "1.0.0", "1.9", 0, 3, 0, 1, 0}}));
  const UpdateElement* a1 = it->GetFirst();
  ASSERT_NE(a1, nullptr);
  EXPECT_EQ(Text(a1->ZBPFileName), u"A1.exe");
  EXPECT_EQ(Text(a1->ZBPVersion), u"1");
  EXPECT_EQ(Text(a1->severity), u"critical");
  EXPECT_EQ(Text(a1->Prerequire), u"iRMC>=2.0");
  EXPECT_EQ(Text(a1->OS), u"linux");
  EXPECT_EQ(Text(a1->ComponentType), u"BIOS");
  EXPECT_EQ(a1->InstallTime, 60u);
}
