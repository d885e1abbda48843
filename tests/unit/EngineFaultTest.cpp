// Faults planted in the simulated engine's faults.txt, and the inventory event that another
// thread sends while a comparison is being read.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "engine/FaultPlan.h"
#include "engine/SimulatedEngine.h"
#include "tests/unit/EngineTestSupport.h"

using namespace enginetest;

namespace {

const std::string kInventory =
    "[component]\ntype=BIOS\nobjectName=D3300\nversion=1.1.0\ndescription=board\n"
    "[component]\ntype=FIRMWARE\nobjectName=iRMC\nversion=2.0\ndescription=bmc\n";

class EngineFaultTest : public EngineFolderTest {
 protected:
  void SetUp() override {
    EngineFolderTest::SetUp();
    Inventory(kInventory);
    Leaf(u"A", "objectName=D3300\nversion=1.2\n");
    Leaf(u"B", "objectName=D3300\nversion=1.3\n");
    Leaf(u"C", "objectName=iRMC\nversion=2.1\n");
  }
  // The ZTException of a call, or a failure when something else (or nothing) came.
  template <typename F>
  static void ExpectZt(F call, uint32_t code, const WString& text) {
    try {
      call();
      ADD_FAILURE() << "no exception";
    } catch (const ZTException& e) {
      EXPECT_EQ(e.getCode(), code);
      EXPECT_EQ(e.getText(), text);
    } catch (...) {
      ADD_FAILURE() << "another exception than ZTException";
    }
  }
  template <typename F>
  static void ExpectOther(F call) {
    try {
      call();
      ADD_FAILURE() << "no exception";
    } catch (const ZTException&) {
      ADD_FAILURE() << "ZTException where another was planned";
    } catch (const std::runtime_error&) {
    }
  }
};

}  // namespace

TEST_F(EngineFaultTest, PlannedResultsAndNull) {
  SimulatedEngine e(args);
  Faults("UseLocalInventory=77\nGetUpdateInventoryIterator=5\nGetInventoryIterator=null\n");
  EXPECT_EQ(e.UseLocalInventory(), 77u);
  UpdateInventoryIterator* it = nullptr;
  EXPECT_EQ(e.GetUpdateInventoryIterator(repo, it), 5u);
  EXPECT_EQ(it, nullptr);
  EXPECT_EQ(e.GetInventoryIterator(), nullptr);
  EXPECT_EQ(Text(e.GetErrorString(77)), u"Unknown engine error 77");

  // Read afresh at every operation: without the file the engine works again.
  ASSERT_TRUE(platform::RemoveFilePath(engineDir + u"/faults.txt"));
  EXPECT_EQ(e.UseLocalInventory(), 0u);
  ASSERT_EQ(e.GetUpdateInventoryIterator(repo, it), 0u);
  EXPECT_EQ(Rows(it).size(), 3u);
  ASSERT_NE(e.GetInventoryIterator(), nullptr);
}

TEST_F(EngineFaultTest, IteratorThrowsAtTheNamedFetch) {
  SimulatedEngine e(args);
  ASSERT_EQ(e.UseLocalInventory(), 0u);
  UpdateInventoryIterator* it = nullptr;

  Faults("UpdateIteratorThrow=2,1234,no more, really\n");
  ASSERT_EQ(e.GetUpdateInventoryIterator(repo, it), 0u);
  const UpdateElement* first = it->GetFirst();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(Text(first->FwPath), u"A");
  ExpectZt([&] { it->GetNext(); }, 1234, u"no more, really");
  // GetFirst counts from 1 again.
  EXPECT_NE(it->GetFirst(), nullptr);
  ExpectZt([&] { it->GetNext(); }, 1234, u"no more, really");

  Faults("UpdateIteratorThrow=1\n");
  ASSERT_EQ(e.GetUpdateInventoryIterator(repo, it), 0u);
  try {
    it->GetFirst();
    ADD_FAILURE() << "no exception";
  } catch (const ZTException& x) {
    EXPECT_FALSE(x.getText().empty());
  }

  Faults("UpdateIteratorThrowOther=3\n");
  ASSERT_EQ(e.GetUpdateInventoryIterator(repo, it), 0u);
  EXPECT_NE(it->GetFirst(), nullptr);
  EXPECT_NE(it->GetNext(), nullptr);
  ExpectOther([&] { it->GetNext(); });

  Faults("InventoryIteratorThrow=2,7\n");
  InventoryIterator* inv = e.GetInventoryIterator();
  ASSERT_NE(inv, nullptr);
  EXPECT_NE(inv->GetFirst(), nullptr);
  ExpectZt([&] { inv->GetNext(); }, 7, u"simulated engine exception");

  Faults("InventoryIteratorThrowOther=1\n");
  inv = e.GetInventoryIterator();
  ASSERT_NE(inv, nullptr);
  ExpectOther([&] { inv->GetFirst(); });
}

TEST_F(EngineFaultTest, OperationsThrow) {
  SimulatedEngine e(args);
  Faults("DoKordUpScanThrow=99\n");
  ExpectZt([&] { e.DoKordUpScan(); }, 99, u"simulated engine exception");
  Faults("UseLocalInventoryThrow=5,inventory locked\n");
  ExpectZt([&] { e.UseLocalInventory(); }, 5, u"inventory locked");
  Faults("GetUpdateInventoryIteratorThrowOther=out of memory\nGetInventoryIteratorThrow=6,busy\n");
  UpdateInventoryIterator* it = nullptr;
  ExpectOther([&] { e.GetUpdateInventoryIterator(repo, it); });
  ExpectZt([&] { e.GetInventoryIterator(); }, 6, u"busy");
}

TEST_F(EngineFaultTest, BadLinesAreIgnoredAndTraced) {
  std::vector<WString> problems;
  engine::FaultPlan plan = engine::FaultPlan::Parse(
      "# comment\nNonsense=1\nUseLocalInventory=abc\nno equals sign\nGetInventoryIterator=nil\n"
      "UpdateIteratorThrow=0\nUpdateIteratorThrowOther=2,3\nDoKordUpScanThrow=\nGetUpdateInventoryIterator=12\n",
      problems);
  EXPECT_EQ(problems.size(), 7u);
  EXPECT_FALSE(plan.useLocalInventoryResult.has_value());
  EXPECT_FALSE(plan.inventoryIteratorNull);
  EXPECT_EQ(plan.updateFetch.fetch, 0u);
  EXPECT_EQ(plan.updateIteratorResult, 12u);

  SimulatedEngine e(args);
  const WString trace = root + u"/trace.txt";
  e.SetTrace(10, trace);
  Faults("Nonsense=1\nUseLocalInventory=3\n");
  EXPECT_EQ(e.UseLocalInventory(), 3u);
  const std::string traced = Read(trace);
  EXPECT_NE(traced.find("faults.txt line 1 ignored: Nonsense=1"), std::string::npos) << traced;
}

// The check reads the elements of a comparison while another thread reports a changed inventory:
// the elements stay as they were, and the next comparison reads the inventory again.
TEST_F(EngineFaultTest, InventoryEventFromAnotherThreadWhileIterating) {
  SimulatedEngine e(args);
  ASSERT_EQ(e.UseLocalInventory(), 0u);
  // A changed file alone is not read: the engine reads it after the event.
  Inventory("[component]\ntype=BIOS\nobjectName=D3300\nversion=1.3\n");
  UpdateInventoryIterator* it = nullptr;
  ASSERT_EQ(e.GetUpdateInventoryIterator(repo, it), 0u);
  ASSERT_EQ(Rows(it).size(), 3u);

  std::atomic<bool> stop{false};
  std::atomic<int> events{0};
  std::thread other([&] {
    while (!stop.load()) {
      e.InventoryModifiedEvent();
      events.fetch_add(1);
      std::this_thread::yield();
    }
  });
  // Until the other thread has sent some events, and some rounds beyond.
  for (int round = 0; round < 200 || events.load() < 10; ++round) {
    const std::vector<Row> rows = Rows(it);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[1], (Row{"B", "D3300", "1.3", "1.1.0", 0, 1, 1, 0, 0}));
  }
  stop.store(true);
  other.join();

  const std::vector<Row> reread = {{"A", "D3300", "1.2", "1.3", 0, 3, 0, 1, 0},
                                   {"B", "D3300", "1.3", "1.3", 0, 2, 0, 0, 0}};
  ASSERT_EQ(e.GetUpdateInventoryIterator(repo, it), 0u);
  EXPECT_EQ(Rows(it), reread);
  // The events are used up by that reading: a later change waits for the next event.
  Inventory("[component]\ntype=BIOS\nobjectName=D3300\nversion=1.4\n");
  ASSERT_EQ(e.GetUpdateInventoryIterator(repo, it), 0u);
  EXPECT_EQ(Rows(it), reread);
}
