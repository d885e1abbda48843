// The simulated engine's inventory file: what a good file gives, each malformed kind refused as a
// whole, the atomic save the job side will use, and how the engine reads, keeps and rereads it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/SimInventory.h"
#include "engine/SimulatedEngine.h"
#include "tests/unit/EngineTestSupport.h"

using engine::SimComponent;
using engine::SimInventory;
using namespace enginetest;

namespace {

const std::string kGoodFile =
    "# Installed components of the simulated update engine\n"
    "[system]\n"
    "os=linux\n"
    "\n"
    "[component]\n"
    "type=BIOS\n"
    "subtype=SystemBoard\n"
    "objectName=D3300\n"
    "version=1.1.0\n"
    "compId=D3300\n"
    "description=BIOS of the system board D3300\n"
    "\n"
    "[component]\n"
    "type=KordSupportPack-Win\n"
    "subtype=SupportPack\n"
    "objectName=SupportPack\n"
    "version=4.1.0\n"
    "compId=KPK-4.1.0\n"
    "description=Support pack\n";

SimInventory Parsed(const std::string& bytes) {
  SimInventory inv;
  WString error;
  EXPECT_TRUE(inv.Parse(bytes, error)) << WToUtf8(error);
  return inv;
}

std::vector<std::string> Descriptions(InventoryIterator* it) {
  std::vector<std::string> out;
  if (!it) return out;
  for (const InventoryElement* e = it->GetFirst(); e; e = it->GetNext()) out.push_back(WToUtf8(Text(e->ProdDesc)));
  return out;
}

}  // namespace

TEST(EngineInventoryTest, GoodFileGivesItsComponentsInOrder) {
  SimInventory inv = Parsed(kGoodFile);
  EXPECT_EQ(inv.Os(), u"linux");
  ASSERT_EQ(inv.Components().size(), 2u);
  EXPECT_EQ(inv.Components()[0],
            (SimComponent{u"BIOS", u"SystemBoard", u"D3300", u"1.1.0", u"D3300", u"BIOS of the system board D3300"}));
  EXPECT_EQ(inv.Components()[1], (SimComponent{u"KordSupportPack-Win", u"SupportPack", u"SupportPack", u"4.1.0",
                                               u"KPK-4.1.0", u"Support pack"}));
  ASSERT_NE(inv.SupportPack(), nullptr);
  EXPECT_EQ(inv.SupportPack()->version, u"4.1.0");
}

TEST(EngineInventoryTest, MarkLineEndsCaseBlanksAndNewKeys) {
  // A byte-order mark, CR LF, names in other cases, blanks around keys and values, ';' comments,
  // [system] behind the components, a key a newer writer added, a version left empty.
  const std::string file =
      "\xEF\xBB\xBF; written by hand\r\n"
      "[ COMPONENT ]\r\n"
      "  TYPE =  FIRMWARE \r\n"
      "ObjectName=NIC1\r\n"
      "Version=\r\n"
      "description=Netzwerkkarte f\xC3\xBCr Gr\xC3\xB6\xC3\x9F"
      "e\r\n"
      "firmwareSlot=2\r\n"
      "\r\n"
      "[System]\r\n"
      "OS=Windows\r\n"
      "arch=x64\r\n";
  SimInventory inv = Parsed(file);
  EXPECT_EQ(inv.Os(), u"Windows");
  ASSERT_EQ(inv.Components().size(), 1u);
  EXPECT_EQ(inv.Components()[0], (SimComponent{u"FIRMWARE", u"", u"NIC1", u"", u"", u"Netzwerkkarte für Größe"}));
  EXPECT_EQ(inv.SupportPack(), nullptr);

  // Without [system] the engine's operating system is the module's.
  SimInventory bare = Parsed("[component]\ntype=BIOS\n");
  EXPECT_EQ(bare.Os(), SimInventory::DefaultOs());
  EXPECT_TRUE(Parsed("").Components().empty());
}

TEST(EngineInventoryTest, EachMalformedKindIsRefusedWholeWithItsLine) {
  struct Bad {
    const char* what;
    std::string text;
    const char* line;
  };
  const std::vector<Bad> bad = {
      {"a line that is nothing", "[component]\ntype=BIOS\njust words\n", "line 3"},
      {"an unknown section", "[component]\ntype=BIOS\n[hardware]\n", "line 3"},
      {"a section without its bracket", "[component\ntype=BIOS\n", "line 1"},
      {"a key outside a section", "os=linux\n[component]\ntype=BIOS\n", "line 1"},
      {"a component without type", "[component]\ntype=BIOS\n[component]\nobjectName=X\n[system]\n", "line 3"},
      {"the last component without type", "[component]\ntype=BIOS\n\n[component]\nobjectName=X\n", "line 4"},
      {"an empty type", "[component]\ntype=\nobjectName=X\n", "line 1"},
      {"a key twice", "[component]\ntype=BIOS\nversion=1\nVERSION=2\n", "line 4"},
      {"an unknown key twice", "[component]\ntype=BIOS\nslot=1\nslot=2\n", "line 4"},
      {"a second [system]", "[system]\nos=linux\n[component]\ntype=BIOS\n[system]\n", "line 5"},
      {"os twice", "[system]\nos=linux\nos=windows\n", "line 3"},
      {"a value without key", "[component]\ntype=BIOS\n=x\n", "line 3"},
  };
  for (const Bad& b : bad) {
    SimInventory inv = Parsed(kGoodFile);
    const SimInventory before = inv;
    WString error;
    EXPECT_FALSE(inv.Parse(b.text, error)) << b.what;
    EXPECT_NE(WToUtf8(error).find(b.line), std::string::npos) << b.what << ": " << WToUtf8(error);
    EXPECT_EQ(inv, before) << b.what << ": the object changed";
  }
}

class EngineInventoryFileTest : public EngineFolderTest {};

TEST_F(EngineInventoryFileTest, SaveRoundTripAndAtomicity) {
  platform::CreateDirectoryPath(dataDir);
  platform::CreateDirectoryPath(engineDir);
  const WString path = engineDir + platform::kPathSeparator + u"inventory.txt";
  SimInventory inv = Parsed(kGoodFile);
  inv.SetOs(u"windows");
  inv.Components().push_back(SimComponent{u"DRIVER", u"Storage", u"RAID1", u"", u"PCI\\VEN_1000", u"Größe €"});
  ASSERT_TRUE(inv.Save(path));
  EXPECT_FALSE(platform::FileExists(path + u".new"));
  EXPECT_EQ(Parsed(Read(path)), inv);

  // A write that fails leaves the old file as it was.
  const std::string saved = Read(path);
  SimInventory other = Parsed("[component]\ntype=BIOS\n");
  ASSERT_TRUE(platform::CreateDirectoryPath(path + u".new"));  // the temporary name is taken
  EXPECT_FALSE(other.Save(path));
  EXPECT_EQ(Read(path), saved);
  ASSERT_TRUE(platform::RemoveDirectoryPath(path + u".new"));

  // Texts that would not read back as they are never replace the file.
  SimInventory broken = inv;
  broken.Components()[0].description = u"two\nlines";
  EXPECT_FALSE(broken.Save(path));
  broken = inv;
  broken.Components()[0].version = u" 1.0";
  EXPECT_FALSE(broken.Save(path));
  broken = inv;
  broken.Components()[0].type.clear();
  EXPECT_FALSE(broken.Save(path));
  EXPECT_EQ(Read(path), saved);
  EXPECT_FALSE(platform::FileExists(path + u".new"));
}

TEST_F(EngineInventoryFileTest, EngineReadsKeepsAndRereads) {
  // Nothing is created by the construction; a missing file is an empty inventory.
  {
    SimulatedEngine e(args);
    EXPECT_EQ(e.UseLocalInventory(), 0u);
    InventoryIterator* it = e.GetInventoryIterator();
    ASSERT_NE(it, nullptr);
    EXPECT_EQ(it->GetFirst(), nullptr);
    EXPECT_FALSE(platform::DirectoryExists(engineDir));
  }

  Inventory(kGoodFile);
  SimulatedEngine e(args);
  const WString trace = root + platform::kPathSeparator + u"engine-trace.txt";
  e.SetTrace(10, trace);
  ASSERT_EQ(e.UseLocalInventory(), 0u);
  const InventoryElement* first = e.GetInventoryIterator()->GetFirst();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(Text(first->CompType), u"BIOS");
  EXPECT_EQ(Text(first->CompSubType), u"SystemBoard");
  EXPECT_EQ(Text(first->ProdDesc), u"BIOS of the system board D3300");
  EXPECT_EQ(Text(first->Version), u"1.1.0");
  EXPECT_EQ(Text(first->CompId), u"D3300");

  // A file that goes bad: the scan keeps the last good reading; after the event the comparison
  // refuses with 40 and the inventory iterator still shows the good reading. The trace names the
  // line.
  Inventory(kGoodFile + "[component]\nobjectName=NoType\n");
  e.DoKordUpScan();
  EXPECT_EQ(Descriptions(e.GetInventoryIterator()),
            (std::vector<std::string>{"BIOS of the system board D3300", "Support pack"}));
  e.InventoryModifiedEvent();
  UpdateInventoryIterator* uit = nullptr;
  EXPECT_EQ(e.GetUpdateInventoryIterator(repo, uit), 40u);
  EXPECT_EQ(uit, nullptr);
  EXPECT_EQ(Descriptions(e.GetInventoryIterator()),
            (std::vector<std::string>{"BIOS of the system board D3300", "Support pack"}));
  const std::string traced = Read(trace);
  EXPECT_NE(traced.find("line 20"), std::string::npos) << traced;
  EXPECT_NE(traced.find("UseLocalInventory: 2 components"), std::string::npos) << traced;

  // A fresh engine over the bad file has nothing half-loaded: the good first components are not
  // there either.
  SimulatedEngine fresh(args);
  EXPECT_EQ(fresh.UseLocalInventory(), 40u);
  EXPECT_TRUE(Descriptions(fresh.GetInventoryIterator()).empty());

  // The scan picks up a repaired file.
  Inventory("[component]\ntype=BIOS\ndescription=repaired\n");
  e.DoKordUpScan();
  EXPECT_EQ(Descriptions(e.GetInventoryIterator()), (std::vector<std::string>{"repaired"}));

  // The job side's save replaces file and memory together.
  SimInventory flashed = e.Inventory();
  flashed.Components()[0].version = u"1.2.0";
  ASSERT_TRUE(e.SaveInventory(flashed));
  EXPECT_EQ(Parsed(Read(e.InventoryPath())), flashed);
  EXPECT_EQ(Text(e.GetInventoryIterator()->GetFirst()->Version), u"1.2.0");
}

TEST_F(EngineInventoryFileTest, TextsAndPaths) {
  SimulatedEngine e(args);
  WString exec;
  e.GetExecPath(exec);
  EXPECT_EQ(exec, engineDir + platform::kPathSeparator + u"exec");
  for (int32_t n : {31, 32, 40, 41, 58, 61, 66, 1001, 1002}) {
    WString text = Text(e.GetErrorString(n));
    EXPECT_EQ(text.find(u"Unknown"), WString::npos) << n;
    EXPECT_FALSE(text.empty()) << n;
  }
  EXPECT_NE(WToUtf8(e.GetErrorString(58)).find("operating system"), std::string::npos);
  EXPECT_NE(WToUtf8(e.GetErrorString(61)).find("prerequisite"), std::string::npos);
  EXPECT_NE(WToUtf8(e.GetErrorString(66)).find("step version"), std::string::npos);
  const char16_t* unknown = e.GetErrorString(4711);
  EXPECT_EQ(Text(unknown), u"Unknown engine error 4711");
  e.GetErrorString(4712);
  EXPECT_EQ(Text(unknown), u"Unknown engine error 4711");  // still valid after other texts

  // The job side answers that it is not there yet.
  uint32_t count = 9;
  EXPECT_EQ(e.AddNewJob(u"SystemBoard", u"D3300", u"BIOS/D3300", count, ZTI_CHECK_Normal), 1002u);
  EXPECT_EQ(e.StartUpdate(), 1002u);
  EXPECT_EQ(e.DoFlashBoot(BOOTTYPE_Flash, 0), 1002u);
  B_TYPE boot = BOOTTYPE_Flash;
  uint32_t detail = 0;
  EXPECT_EQ(e.GetFlashBootStatus(boot, detail), 1002u);
  EXPECT_EQ(e.ResumeJob(), 1002u);
  EXPECT_EQ(e.CleanupUpdate(), 1002u);
  EXPECT_EQ(e.GetFirstJobStatus(nullptr, nullptr), nullptr);
  EXPECT_EQ(e.GetNextJobStatus(), nullptr);
  EXPECT_NE(e.GetJobCompletionStateString(3), nullptr);
}
