// The check driver with a scripted engine: what a check publishes and what a failed one leaves,
// the requests before and after it, the swap under running requests, two checks at once, the
// inventory events, and readers walking the tables while checks run back to back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "check/DiffComponentInfo.h"
#include "check/UM_Check.h"
#include "config/UM_Config.h"
#include "foundation/CFile.h"
#include "foundation/RequestMessage.h"
#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "platform/Clock.h"
#include "platform/FileIo.h"
#include "tests/unit/EngineDouble.h"
#include "tests/unit/FakeUpdateModule.h"
#include "tests/unit/TestRegistry.h"

using ::testing::_;
using ::testing::DoAll;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::SetArgReferee;

namespace {

const WString kBase = u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden";

// The module as the check sees it, with its events, alerts and event-log entries kept.
class RecordingModule : public FakeUpdateModule {
 public:
  void SendEvent(RequestMessage* m) override {
    std::lock_guard<std::mutex> lock(mutex);
    uint32_t data = 0xFFFF;
    GetDataValue(*m, m->commandIndex, data);
    events.push_back({GetCommandValue(*m, m->commandIndex, kKeyOC, 0), data});
  }
  int sendAlert(uint32_t number, int count, const WString* args) override {
    std::lock_guard<std::mutex> lock(mutex);
    alerts.push_back({number, count > 0 ? args[0] : WString(u"<none>")});
    return 0;
  }
  struct Event {
    uint32_t oc, data;
  };
  struct Alert {
    uint32_t number;
    WString text;
  };
  std::mutex mutex;
  std::vector<Event> events;
  std::vector<Alert> alerts;
};

class RecordingUtil : public UM_Util {
 public:
  using UM_Util::UM_Util;
  void umEventLogWrite(int severity, const WString& text) override {
    std::lock_guard<std::mutex> lock(mutex);
    entries.push_back(std::to_string(severity) + " " + WToUtf8(text));
  }
  std::vector<std::string> Entries() {
    std::lock_guard<std::mutex> lock(mutex);
    return entries;
  }

 private:
  std::mutex mutex;
  std::vector<std::string> entries;
};

// A check whose settings' check can be held, as a web server that does not answer would hold it.
class HoldableCheck : public UM_Check {
 public:
  using UM_Check::UM_Check;
  int checkConfig() override {
    std::unique_lock<std::mutex> lock(mutex);
    inside = true;
    changed.notify_all();
    changed.wait(lock, [this] { return !hold; });
    inside = false;
    return 0;
  }
  void WaitInside() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return inside; });
  }
  void Release() {
    std::lock_guard<std::mutex> lock(mutex);
    hold = false;
    changed.notify_all();
  }

 private:
  std::mutex mutex;
  std::condition_variable changed;
  bool hold = true;
  bool inside = false;
};

// Virtual time that costs a little real time when slept: threads that wait for each other in
// rounds of one second (the swap, a request behind it) still meet, and no test waits for real.
class SlowVirtualClock : public platform::VirtualClock {
 public:
  using VirtualClock::VirtualClock;
  void SleepMs(uint32_t ms) override {
    platform::SleepRealMicros(uint64_t{ms} * 5);
    VirtualClock::SleepMs(ms);
  }
};

struct Answer {
  int ret = 0;
  uint32_t st = ST_ABSENT;
  uint32_t value = 0;
  WString text;
  bool hasData = false;
};

Answer Ask(UM_Check& check, uint32_t oc, uint32_t oi = 0) {
  RequestMessage m;
  ConstructRequest(m, oc, 0, oi, 0, ST_NONE);
  Answer a;
  a.ret = check.request(m);
  a.st = GetCommandValue(m, 0, kKeyST, ST_ABSENT);
  a.hasData = GetDataLength(m, 0) > 0;
  if (!GetDataString(m, 0, a.text, 0)) GetDataValue(m, 0, a.value);
  return a;
}

PackageRow Row(const std::string& path, const std::string& version, const std::string& severity) {
  PackageRow row;
  row.path = WFromUtf8(path);
  row.newVersion = WFromUtf8(version);
  row.severity = WFromUtf8(severity);
  row.objectName = WFromUtf8("obj-" + path);
  return row;
}

class CheckDriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = TestDirectory(u"checkdriver");
    CFile::RemoveDirectoryTree(root, false);
    reg.String(kBase + u"\\DATA", u"DataRoot", root + kSep + u"data");
    reg.String(kBase + u"\\Setup", u"TempRoot", root + kSep + u"temp");
    platform::CreateDirectoryPath(root + kSep + u"data");
    platform::CreateDirectoryPath(root + kSep + u"temp");
    repo = root + kSep + u"repo";
    platform::CreateDirectoryPath(repo);
    platform::SetClock(&clock);
    util = std::make_unique<RecordingUtil>(&module);
    util->umGetWorkDir();
    util->umGetDataDir();
    config = std::make_unique<UM_Config>(&module, util.get());
    WriteSetting(6721, CQVV_UpdRepositoryLocalRW);
    WriteText(6720, repo);

    engine = new NiceMock<MockEngine>();
    ON_CALL(*engine, UseLocalInventory()).WillByDefault(Return(0));
    ON_CALL(*engine, GetErrorString(_)).WillByDefault(Return(u"engine error"));
    ON_CALL(*engine, GetUpdateInventoryIterator(_, _))
        .WillByDefault([this](const WString&, UpdateInventoryIterator*& it) {
          it = current.load();
          return 0u;
        });
    ON_CALL(*engine, GetInventoryIterator()).WillByDefault(Return(&inventory));
    inventory.Add({u"NIC", u"FIRMWARE", u"card", u"1.0", u"PCI\\VEN_8086"});
    inventory.Add({u"BIOS", u"BIOS", u"board", u"R1.2", u"BIOS-1"});
    first.Add(Row("FW/NIC", "2.0", "recommended"));
    first.Add(Row("BIOS/D3", "R1.5", "mandatory"));
    first.Add(Row("FW/RAID", "5.1", "optional"));
    current = &first;
  }
  void TearDown() override {
    check.reset();
    config.reset();
    util.reset();
    platform::SetClock(nullptr);
    CFile::RemoveDirectoryTree(root, true);
  }

  template <typename C = UM_Check>
  C& Make() {
    auto made = std::make_unique<C>(config.get(), util.get(), &module, FactoryOf(engine));
    C& ref = *made;
    check = std::move(made);
    return ref;
  }
  void WriteSetting(uint32_t oe, uint32_t value) {
    RequestMessage m;
    ConstructRequest(m, 0xE002, oe, 0, 0, ST_NONE);
    SetDataNumber(m, GetCurrentCommand(m), value, 4);
    config->request(m);
  }
  void WriteText(uint32_t oe, const WString& text) {
    RequestMessage m;
    ConstructRequest(m, 0xE002, oe, 0, 0, ST_NONE);
    SetDataString(m, GetCurrentCommand(m), text);
    config->request(m);
  }
  std::vector<RecordingModule::Event> Events() {
    std::lock_guard<std::mutex> lock(module.mutex);
    return module.events;
  }
  std::vector<RecordingModule::Alert> Alerts() {
    std::lock_guard<std::mutex> lock(module.mutex);
    return module.alerts;
  }

  TestRegistry reg{u"checkdriver"};
  SlowVirtualClock clock{1709298309u};
  RecordingModule module;
  WString root, repo;
  std::unique_ptr<RecordingUtil> util;
  std::unique_ptr<UM_Config> config;
  NiceMock<MockEngine>* engine = nullptr;
  std::unique_ptr<UM_Check> check;
  ScriptedUpdates first, second;
  std::atomic<ScriptedUpdates*> current{nullptr};
  ScriptedInventory inventory;
};

}  // namespace

// What a requester sees before any check, and the opcodes the range leaves out.
TEST_F(CheckDriverTest, RequestsBeforeTheFirstCheck) {
  UM_Check& c = Make();
  Answer n = Ask(c, 0x3300);
  EXPECT_EQ(n.st, ST_OK);
  EXPECT_EQ(n.value, 0u);
  EXPECT_EQ(Ask(c, 0x3301, 0).st, ST_ILLEGAL);
  EXPECT_EQ(Ask(c, 0x3317, 0).st, ST_ILLEGAL);
  EXPECT_EQ(Ask(c, 0x3330).value, 3u);
  EXPECT_EQ(Ask(c, 0x3335).st, ST_NOT_AVAILABLE);
  EXPECT_EQ(Ask(c, 0x3336).value, UM_Check::done_ok);
  EXPECT_EQ(Ask(c, 0x3390).value, 0u);
  EXPECT_EQ(Ask(c, 0x3394, 0).st, ST_ILLEGAL);
  for (uint32_t gap : {0x3307u, 0x330Fu, 0x3318u, 0x332Fu, 0x3338u, 0x3391u, 0x3397u, 0x33FFu}) {
    Answer a = Ask(c, gap);
    EXPECT_EQ(a.st, ST_DENIED) << std::hex << gap;
    EXPECT_EQ(a.ret, 0) << std::hex << gap;
  }
  // The settings' check: its result is kept for the later question.
  Answer cfg = Ask(c, 0x3333);
  EXPECT_EQ(cfg.st, ST_OK);
  EXPECT_EQ(Ask(c, 0x3334).value, cfg.value);
  // Nothing in the data is counted after all these: a check takes its data at once.
  EXPECT_TRUE(c.createData());
}

// A clean check publishes both tables, answers every field opcode from its rows, announces the
// new components once, and tells the requester with CM_UmDataChanged.
TEST_F(CheckDriverTest, ACheckPublishesItsTablesAndAnnouncesNewComponentsOnce) {
  platform::CreateDirectoryPath(repo + kSep + u"FW");
  platform::CreateDirectoryPath(repo + kSep + u"FW" + kSep + u"NIC");
  platform::WriteWholeFile(repo + kSep + u"FW" + kSep + u"NIC" + kSep + u"rel_note.txt", "Fixes link loss.\r\n", 18);
  UM_Check& c = Make();
  const uint32_t start = platform::LocalClockSeconds();
  ASSERT_TRUE(c.createData());
  EXPECT_TRUE(module.done.IsSet());

  EXPECT_EQ(Ask(c, 0x3336).value, UM_Check::done_ok);
  EXPECT_EQ(Ask(c, 0x3337).value, 0u);
  EXPECT_EQ(Ask(c, 0x3332).value, start);
  EXPECT_EQ(Ask(c, 0x3330).value, 2u);  // a mandatory upgrade: critical
  ASSERT_EQ(Ask(c, 0x3300).value, 3u);
  ASSERT_EQ(Ask(c, 0x3390).value, 2u);

  // Every field of every row agrees with the copy a job would take.
  for (uint32_t oi = 0; oi < 3; ++oi) {
    const WString path = Ask(c, 0x3301, oi).text;
    std::unique_ptr<DiffComponentInfo> info(c.getDiffComponent(path));
    ASSERT_EQ(info->errNumber, DiffComponentInfo::kFilled);
    EXPECT_EQ(path, first.rows[oi].path);
    EXPECT_EQ(Ask(c, 0x3302, oi).text, info->type);
    EXPECT_EQ(Ask(c, 0x3303, oi).text, info->subType);
    EXPECT_EQ(Ask(c, 0x3304, oi).text, first.rows[oi].newVersion);
    EXPECT_EQ(Ask(c, 0x3305, oi).text, first.rows[oi].instVersion);
    EXPECT_EQ(Ask(c, 0x3306, oi).text, first.rows[oi].objectName);
    EXPECT_EQ(Ask(c, 0x3308, oi).value, info->rankingCode);
    EXPECT_EQ(Ask(c, 0x3309, oi).value, info->mandatory);
    EXPECT_EQ(Ask(c, 0x330A, oi).text, info->prerequire);
    EXPECT_EQ(Ask(c, 0x330B, oi).value, info->severityCode);
    EXPECT_EQ(Ask(c, 0x330C, oi).value, static_cast<uint32_t>(info->engineError));
    EXPECT_EQ(Ask(c, 0x330D, oi).text, info->engineErrorText);
    EXPECT_EQ(Ask(c, 0x330E, oi).text, info->minStepVersion);
    EXPECT_EQ(Ask(c, 0x3310, oi).value, info->rebootCode);
    EXPECT_EQ(Ask(c, 0x3311, oi).value, 60u);
    EXPECT_EQ(Ask(c, 0x3312, oi).value, static_cast<uint32_t>(info->downloadSize));
    EXPECT_EQ(Ask(c, 0x3313, oi).text, info->kpkPackageVersion);
    EXPECT_EQ(Ask(c, 0x3315, oi).text, u"Corvane Works");
    EXPECT_EQ(Ask(c, 0x3316, oi).text, info->componentId);
    EXPECT_EQ(Ask(c, 0x3317, oi).value, info->binaryLoaded);
  }
  // The severity codes differ by row: the walk did not answer one row three times.
  EXPECT_NE(Ask(c, 0x330B, 0).value, Ask(c, 0x330B, 1).value);
  EXPECT_NE(Ask(c, 0x330B, 1).value, Ask(c, 0x330B, 2).value);
  // The release note is the file's text; a row without one answers 19.
  Answer note = Ask(c, 0x3314, 0);
  EXPECT_EQ(note.st, ST_OK);
  EXPECT_EQ(note.text, u"Fixes link loss.\n");
  EXPECT_EQ(Ask(c, 0x3314, 1).st, ST_NOT_AVAILABLE);
  // The last valid id is the count minus one.
  EXPECT_EQ(Ask(c, 0x3301, 2).st, ST_OK);
  EXPECT_EQ(Ask(c, 0x3301, 3).st, ST_ILLEGAL);
  EXPECT_EQ(Ask(c, 0x3396, 2).st, ST_ILLEGAL);
  EXPECT_EQ(Ask(c, 0x3394, 1).text, u"R1.2");

  const WString log = Ask(c, 0x3335).text;
  EXPECT_NE(log.find(u"Start creation of new update management data, repository='" + repo + u"'"), WString::npos);
  EXPECT_NE(log.find(u"Creation of new update management data ok."), WString::npos);
  EXPECT_NE(log.find(u"End creation of new update management data."), WString::npos);

  ASSERT_EQ(Events().size(), 1u);
  EXPECT_EQ(Events()[0].oc, 0x3340u);
  EXPECT_EQ(Events()[0].data, 1u);  // no web update: the tree counts as changed
  ASSERT_EQ(Alerts().size(), 1u);
  EXPECT_EQ(Alerts()[0].number, 0x290000u);
  EXPECT_NE(Alerts()[0].text.find(u"FW/NIC"), WString::npos);
  EXPECT_NE(Alerts()[0].text.find(u"BIOS/D3"), WString::npos);

  // The same updates again: nothing new to announce, and the log is the new check's.
  module.done.Reset();
  ASSERT_TRUE(c.createData());
  EXPECT_EQ(Alerts().size(), 1u);
  EXPECT_EQ(Events().size(), 2u);
  EXPECT_TRUE(module.done.IsSet());
  EXPECT_EQ(Ask(c, 0x3335).text.find(u"Start creation"), Ask(c, 0x3335).text.rfind(u"Start creation"));
}

// A missing repository drops the diff table; a failed comparison keeps the last one; a failed
// inventory keeps the last inventory. The published severity moves only with a table.
TEST_F(CheckDriverTest, WhatAFailedCheckLeavesPublished) {
  UM_Check& c = Make();
  ASSERT_TRUE(c.createData());
  ASSERT_EQ(Ask(c, 0x3300).value, 3u);

  // The comparison fails: the old table and its severity stay, the error is published.
  ON_CALL(*engine, GetUpdateInventoryIterator(_, _)).WillByDefault(Return(41u));
  EXPECT_FALSE(c.createData());
  EXPECT_EQ(Ask(c, 0x3336).value, UM_Check::done_error);
  EXPECT_EQ(Ask(c, 0x3337).value, static_cast<uint32_t>(UM_Check::kErrorComparison));
  EXPECT_EQ(Ask(c, 0x3300).value, 3u);
  EXPECT_EQ(Ask(c, 0x3330).value, 2u);
  EXPECT_EQ(Ask(c, 0x3390).value, 2u);

  // The inventory fails as well: the last inventory stays.
  ON_CALL(*engine, GetInventoryIterator()).WillByDefault(Return(nullptr));
  EXPECT_FALSE(c.createData());
  EXPECT_EQ(Ask(c, 0x3390).value, 2u);
  EXPECT_EQ(Ask(c, 0x3394, 0).text, u"1.0");

  // The repository goes: no table at all, and the error says why.
  ON_CALL(*engine, GetInventoryIterator()).WillByDefault(Return(&inventory));
  CFile::RemoveDirectoryTree(repo, true);
  // The data was taken, so the result is true; the status tells the requester it failed.
  EXPECT_TRUE(c.createData());
  EXPECT_EQ(Ask(c, 0x3337).value, static_cast<uint32_t>(UM_Check::kErrorRepositoryMissing));
  EXPECT_EQ(Ask(c, 0x3336).value, UM_Check::done_error);
  EXPECT_EQ(Ask(c, 0x3300).value, 0u);
  EXPECT_EQ(Ask(c, 0x3301, 0).st, ST_ILLEGAL);
  std::unique_ptr<DiffComponentInfo> gone(c.getDiffComponent(u"FW/NIC"));
  EXPECT_EQ(gone->errNumber, DiffComponentInfo::kNoDiffData);
  EXPECT_NE(Ask(c, 0x3335).text.find(u"Please, switch on download mode"), WString::npos);
  // Every check ended with the event, whatever its outcome.
  EXPECT_EQ(Events().size(), 4u);
}

// The copy for a job: by exact path, and the reasons when there is none.
TEST_F(CheckDriverTest, DiffComponentLookup) {
  UM_Check& c = Make();
  std::unique_ptr<DiffComponentInfo> before(c.getDiffComponent(u"FW/NIC"));
  EXPECT_EQ(before->errNumber, DiffComponentInfo::kNoDiffData);
  ASSERT_TRUE(c.createData());
  std::unique_ptr<DiffComponentInfo> empty(c.getDiffComponent(u""));
  EXPECT_EQ(empty->errNumber, DiffComponentInfo::kIllegalParameter);
  std::unique_ptr<DiffComponentInfo> other(c.getDiffComponent(u"fw/nic"));
  EXPECT_EQ(other->errNumber, DiffComponentInfo::kNoSuchComponent);
  std::unique_ptr<DiffComponentInfo> found(c.getDiffComponent(u"BIOS/D3"));
  ASSERT_EQ(found->errNumber, DiffComponentInfo::kFilled);
  EXPECT_EQ(found->repositoryVersion, u"R1.5");
  EXPECT_EQ(found->severity, u"mandatory");
}

// Inventory events: the first "changed" and every "changed again" start a check; a repeated
// "changed" lets the waiters go instead.
TEST_F(CheckDriverTest, InventoryEvents) {
  UM_Check& c = Make();
  EXPECT_CALL(*engine, InventoryModifiedEvent()).Times(2);
  EXPECT_TRUE(c.setInventoryModifiedEvent(2));
  module.done.Reset();
  EXPECT_FALSE(c.setInventoryModifiedEvent(2));
  EXPECT_TRUE(module.done.IsSet());
  EXPECT_FALSE(c.setInventoryModifiedEvent(1));
  clock.Advance(5000);
  EXPECT_TRUE(c.setInventoryModifiedEvent(3));
}

// Two checks at once: the second gives up at once with one event-log entry, the first completes.
TEST_F(CheckDriverTest, ASecondCheckWhileOneRunsGivesUp) {
  UM_Check& c = Make();
  std::mutex mutex;
  std::condition_variable cv;
  bool inside = false, go = false;
  ON_CALL(*engine, DoKordUpScan()).WillByDefault([&] {
    std::unique_lock<std::mutex> lock(mutex);
    inside = true;
    cv.notify_all();
    cv.wait(lock, [&] { return go; });
  });
  bool firstResult = false;
  std::thread running([&] { firstResult = c.createData(); });
  {
    std::unique_lock<std::mutex> lock(mutex);
    cv.wait(lock, [&] { return inside; });
  }
  EXPECT_FALSE(c.createData());
  {
    std::lock_guard<std::mutex> lock(mutex);
    go = true;
    cv.notify_all();
  }
  running.join();
  EXPECT_TRUE(firstResult);
  const std::vector<std::string> entries = util->Entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0],
            "4 Creation of update data stopped, because another thread is creating update data at the same time.");
  EXPECT_EQ(Events().size(), 1u);
  // The guard is down again: the next check runs.
  EXPECT_TRUE(c.createData());
}

// A request that stays inside the data over the whole wait makes the check drop its data: the old
// tables stay published and the status keeps saying "checking".
TEST_F(CheckDriverTest, ARequestHeldOverTheSwapMakesTheCheckDropItsData) {
  HoldableCheck& c = Make<HoldableCheck>();
  ASSERT_TRUE(c.createData());
  second.Add(Row("FW/ONLY", "9.9", "optional"));
  current = &second;
  std::thread holder([&] { Ask(c, 0x3333); });
  c.WaitInside();
  const uint64_t before = clock.ElapsedMs();
  EXPECT_FALSE(c.createData());
  EXPECT_GE(clock.ElapsedMs() - before, 10000u);  // ten rounds of one second
  c.Release();
  holder.join();
  EXPECT_EQ(Ask(c, 0x3336).value, UM_Check::checking);
  EXPECT_EQ(Ask(c, 0x3300).value, 3u);
  EXPECT_EQ(Ask(c, 0x3301, 0).text, u"FW/NIC");
  EXPECT_EQ(Events().size(), 2u);  // the dropped check still says it ended
  // Nothing holds the data now: the next check takes its data.
  EXPECT_TRUE(c.createData());
  EXPECT_EQ(Ask(c, 0x3300).value, 1u);
  EXPECT_EQ(Ask(c, 0x3336).value, UM_Check::done_ok);
}

// The module going down ends a check before it publishes, and no check starts after it.
TEST_F(CheckDriverTest, ShutdownEndsTheCheckWithoutPublishing) {
  UM_Check& c = Make();
  ON_CALL(*engine, GetInventoryIterator()).WillByDefault([this]() -> InventoryIterator* {
    module.shutdown = 1;
    return &inventory;
  });
  EXPECT_FALSE(c.createData());
  EXPECT_TRUE(Events().empty());
  EXPECT_FALSE(module.done.IsSet());
  EXPECT_EQ(Ask(c, 0x3300).value, 0u);
  module.shutdown = 0;
  EXPECT_FALSE(c.createData());
  EXPECT_TRUE(Events().empty());
}

// Readers walk every field of both tables in several threads while checks with different tables
// run back to back: every answer comes from a whole row of one of the two checks.
TEST_F(CheckDriverTest, ReadersWalkTheTablesWhileChecksRun) {
  UM_Check& c = Make();
  second.Add(Row("FW/ONLY", "9.9", "optional"));
  std::set<WString> paths;
  for (const auto& r : first.rows) paths.insert(r.path);
  for (const auto& r : second.rows) paths.insert(r.path);
  std::atomic<bool> stop{false};
  std::atomic<int> answered{0}, bad{0};
  auto walk = [&] {
    while (!stop) {
      const Answer count = Ask(c, 0x3300);
      if (count.st != ST_OK) continue;
      for (uint32_t oi = 0; oi < count.value; ++oi) {
        for (uint32_t oc = 0x3301; oc <= 0x3317; ++oc) {
          const Answer a = Ask(c, oc, oi);
          if (a.st == ST_OK) ++answered;
          if (oc == 0x3301 && a.st == ST_OK && !paths.count(a.text)) ++bad;
          if (a.st != ST_OK && a.st != ST_ILLEGAL && a.st != ST_DENIED && a.st != ST_NOT_AVAILABLE) ++bad;
        }
        Ask(c, 0x3394, oi);
      }
    }
  };
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) readers.emplace_back(walk);
  int taken = 0;
  for (int i = 0; i < 12; ++i) {
    current = (i % 2) ? &second : &first;
    if (c.createData()) ++taken;
  }
  stop = true;
  for (std::thread& t : readers) t.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_GT(answered.load(), 0);
  EXPECT_GT(taken, 0);
  // With the readers gone the next check takes its data, and it is that check's table.
  current = &second;
  EXPECT_TRUE(c.createData());
  EXPECT_EQ(Ask(c, 0x3300).value, 1u);
}
