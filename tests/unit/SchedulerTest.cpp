// The update-check scheduler: the grid of the start date, the first wait, the wake-ups and the
// changes of the settings they follow, start and stop. The thread runs on a virtual clock whose
// waits and sleeps on the scheduler's thread end only when the test says so (or by the event),
// so every case knows where the thread stands and which wait it asked for.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "check/UM_Check.h"
#include "check/UM_Scheduler.h"
#include "config/UM_Config.h"
#include "foundation/CEvent.h"
#include "foundation/CFile.h"
#include "foundation/RequestMessage.h"
#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "platform/Clock.h"
#include "platform/FileIo.h"
#include "tests/unit/FakeUpdateModule.h"
#include "tests/unit/TestRegistry.h"

namespace {

constexpr uint32_t kStart = 1700000000u;
constexpr uint32_t kHour = 3600, kDay = 86400;
constexpr uint64_t kHourMs = 3600000ull, kDayMs = 86400000ull;
constexpr uint32_t kPiece = 0xFFFFFFFEu;  // the longest single wait of the event
constexpr uint32_t kNone = ~0u;
constexpr auto kRealLimit = std::chrono::seconds(30);  // only a broken test waits this long
constexpr uint32_t kMode = 6724, kDate = 6730, kFrequency = 6731;

// A virtual clock under the test's hand. A wait or sleep of any thread but the test's is a step
// that ends when the test finishes it (the time then moves by its length) or, for a wait, when
// its object is signalled. The test's own timed waits (the stop's wait for the thread) get a real
// grace and then run out, as on the plain virtual clock.
class SteppedClock : public platform::VirtualClock {
 public:
  SteppedClock() : VirtualClock(kStart, 0), m_testThread(std::this_thread::get_id()) {}

  bool Wait(platform::Waitable& object, uint32_t ms) override {
    if (ms == platform::kInfinite) return object.WaitRealMicros(platform::kInfiniteMicros);
    if (std::this_thread::get_id() != m_testThread) return Step(&object, ms);
    if (object.WaitRealMicros(uint64_t{testGraceMs.load()} * 1000)) return true;
    Advance(ms);
    testTimeOutMs += ms;
    return false;
  }
  void SleepMs(uint32_t ms) override {
    if (std::this_thread::get_id() == m_testThread) return VirtualClock::SleepMs(ms);
    Step(nullptr, ms);
  }

  // The length of the thread's next step once it has begun and goes on (a wait its event ended at
  // once is passed over); kNone when it is of the other kind or none comes.
  uint32_t NextWait() { return Next(false); }
  uint32_t NextSleep() { return Next(true); }
  // Ends the step last returned and waits until its time is counted.
  void Finish() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_finish = m_seen;
    m_changed.notify_all();
    m_changed.wait_for(lock, kRealLimit, [&] { return m_ended >= m_seen; });
  }
  // Every step from now on ends at once.
  void RunFree() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_free = true;
    m_changed.notify_all();
  }

  std::atomic<uint32_t> testGraceMs{10000};
  std::atomic<uint64_t> testTimeOutMs{0};

 private:
  bool Step(platform::Waitable* object, uint32_t ms) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const uint64_t step = ++m_entered;
    m_sleep = object == nullptr;
    m_ms = ms;
    m_changed.notify_all();
    const auto limit = std::chrono::steady_clock::now() + kRealLimit;
    auto released = [&] { return m_free || m_finish >= step || std::chrono::steady_clock::now() > limit; };
    bool signalled = false;
    if (!object) m_changed.wait_until(lock, limit, released);
    while (object && !released()) {
      lock.unlock();
      signalled = object->WaitRealMicros(1000);
      lock.lock();
      if (signalled) break;
    }
    if (!signalled) Advance(ms);
    m_ended = step;
    m_changed.notify_all();
    return signalled;
  }
  uint32_t Next(bool sleep) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_changed.wait_for(lock, kRealLimit, [&] { return m_entered > m_seen && m_ended < m_entered; })) return kNone;
    m_seen = m_entered;
    return m_sleep == sleep ? m_ms : kNone;
  }

  const std::thread::id m_testThread;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_sleep = false, m_free = false;
  uint32_t m_ms = 0;
  uint64_t m_entered = 0, m_ended = 0, m_seen = 0, m_finish = 0;
};

// The check the scheduler starts, counted with the clock's time of each call. On demand a call
// blocks until `stuck` is set, as a check that does not come back.
class CountingCheck : public UM_Check {
 public:
  CountingCheck(UM_Config* config, UM_Util* util, IUpdateModule* module)
      : UM_Check(config, util, module, [](const EngineArgs&, UM_Util*) { return EnginePtr(); }) {}

  bool createData() override {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_times.push_back(platform::LocalClockSeconds());
    }
    m_called.notify_all();
    if (blockForever) {
      stuck.Wait(platform::kInfinite);
      leftTheBlock = true;
    }
    return true;
  }
  std::vector<uint32_t> Times() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_times;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_times.clear();
  }
  bool WaitForCalls(size_t n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_called.wait_for(lock, kRealLimit, [&] { return m_times.size() >= n; });
  }

  std::atomic<bool> blockForever{false}, leftTheBlock{false};
  CEvent stuck;

 private:
  std::mutex m_mutex;
  std::condition_variable m_called;
  std::vector<uint32_t> m_times;
};

// The shutdown flag is read by the scheduler's thread while the test sets it.
class ShutdownModule : public FakeUpdateModule {
 public:
  uint32_t GetSwitchShutDownFlag() override { return down.load(); }
  std::atomic<uint32_t> down{0};
};

using Times = std::vector<uint32_t>;

class SchedulerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::SetClock(&clock);
    const WString base = u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden";
    root = TestDirectory(u"scheduler");
    CFile::RemoveDirectoryTree(root, false);
    platform::CreateDirectoryPath(root + kSep + u"data");
    reg.String(base + u"\\DATA", u"DataRoot", root + kSep + u"data");
    reg.String(base + u"\\Setup", u"BinRoot", root);
    util = std::make_unique<UM_Util>(&module);
    config = std::make_unique<UM_Config>(&module, util.get());
    check = std::make_unique<CountingCheck>(config.get(), util.get(), &module);
  }
  void TearDown() override {
    module.down = 1;
    clock.RunFree();
    check->stuck.Set();
    scheduler.reset();  // stops a thread still running
    check.reset();
    config.reset();
    util.reset();
    platform::SetClock(nullptr);
    CFile::RemoveDirectoryTree(root, true);
  }

  // A setting as a requester writes it.
  void Set(uint32_t oe, uint32_t value) {
    RequestMessage m;
    ConstructRequest(m, 0xE002, oe, 0, 0, ST_NONE);
    SetDataNumber(m, GetCurrentCommand(m), value, 4);
    config->request(m);
    ASSERT_EQ(GetCommandValue(m, 0, kKeyST, ST_ABSENT), ST_OK) << "setting " << oe;
  }
  void Start(uint32_t mode, uint32_t date, uint32_t frequency) {
    Set(kMode, mode);
    Set(kDate, date);
    Set(kFrequency, frequency);
    scheduler = std::make_unique<UM_Scheduler>(&module, check.get(), config.get());
    ASSERT_EQ(scheduler->start(), 0);
  }
  // Scheduler mode, the start date an hour ahead, daily; the first check has run and the thread
  // waits for the next day.
  uint32_t StartDailyAfterFirstCheck() {
    Start(UPDATECHECK_VIA_SCHEDULER, kStart + kHour, 1);
    EXPECT_EQ(clock.NextWait(), kHourMs);
    clock.Finish();
    EXPECT_EQ(clock.NextWait(), kDayMs);
    return kStart + kHour;
  }
  // Ends the thread as the module does (shutdown flag, then stop) and forgets the checks.
  void Restart() {
    module.down = 1;
    ASSERT_EQ(scheduler->stop(), 0);
    scheduler.reset();
    module.down = 0;
    check->Clear();
  }
  uint32_t Now() { return platform::LocalClockSeconds(); }
  // The thread's pause after a wake-up, before it looks at the flag and the settings.
  void PassWakeUpPause() {
    ASSERT_EQ(clock.NextSleep(), 300u);
    clock.Finish();
  }
  // The whole of the thread's next wait, which it may wait in pieces: every piece but the last
  // runs out here, the last one goes on.
  uint64_t NextWholeWait() {
    uint64_t total = 0;
    for (;;) {
      const uint32_t piece = clock.NextWait();
      if (piece == kNone) return ~0ull;
      total += piece;
      if (piece < kPiece) return total;
      clock.Finish();
    }
  }

  SteppedClock clock;
  ShutdownModule module;
  TestRegistry reg{u"scheduler"};
  WString root;
  std::unique_ptr<UM_Util> util;
  std::unique_ptr<UM_Config> config;
  std::unique_ptr<CountingCheck> check;
  std::unique_ptr<UM_Scheduler> scheduler;
};

}  // namespace

TEST(SchedulerGrid, NextPollingRateLiesOnTheGridOfTheStartDate) {
  const int64_t now = kStart;
  const struct {
    int64_t start, interval, rate;
  } cases[] = {
      {now + kHour, kDay, kHour},                       // ahead: the time to the start date
      {now + 10 * kDay, kDay, 10 * kDay},               // ahead by more than an interval
      {now, 7 * kDay, 7 * kDay},                        // on the start date: a whole interval
      {now - 2 * kDay, kDay, kDay},                     // on the grid
      {now - 1, kDay, kDay - 1},                        // just after a point of the grid
      {now - (kDay - 1), kDay, 1},                      // just before the next one
      {now - (10 * kDay + 5), 7 * kDay, 4 * kDay - 5},  // far back, weekly: the 14th day
      {now - (3 * 365 * kDay + 10), 365 * kDay, 365 * kDay - 10},
  };
  for (const auto& c : cases)
    EXPECT_EQ(scheduler::NextPollingRate(c.start, now, c.interval), c.rate) << c.start - now << " " << c.interval;
}

// Each case starts the thread at the clock's `t`: the waits it asks for in turn (all but the last
// run out, each with a check when the mode is the scheduler's) and the checks, from `t`.
TEST_F(SchedulerTest, FirstWaitGoesToTheStartDateThenTheGrid) {
  constexpr int64_t kNoDate = INT64_MIN;
  const struct {
    uint8_t mode;
    int64_t date;  // from t
    uint32_t frequency;
    std::vector<uint64_t> waitsMs;
    Times checks;
  } cases[] = {
      {UPDATECHECK_VIA_SCHEDULER, kHour, 1, {kHourMs, kDayMs, kDayMs}, {kHour, kHour + kDay}},
      // No date: now becomes the date; a first wait of 300 s, then the grid of the new date.
      {UPDATECHECK_VIA_SCHEDULER, kNoDate, 1, {300000, (kDay - 300) * 1000ull, kDayMs}, {300, kDay}},
      // Ten days back, weekly: 300 s, then the 14th day from the date.
      {UPDATECHECK_VIA_SCHEDULER,
       -10 * int64_t{kDay},
       7,
       {300000, (4 * kDay - 300) * 1000ull, 7 * kDayMs},
       {300, 4 * kDay}},
      // A frequency above a year counts as a year.
      {UPDATECHECK_VIA_SCHEDULER, kHour, 400, {kHourMs, 365 * kDayMs, 365 * kDayMs}, {kHour, kHour + 365 * kDay}},
      // Outside the scheduler's mode the thread waits on the grid and checks nothing.
      {1, kHour, 1, {kHourMs, kDayMs, kDayMs, kDayMs}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "mode " << int{c.mode} << " date " << c.date << " frequency " << c.frequency);
    const uint32_t t = Now();
    Start(c.mode, c.date == kNoDate ? 0 : static_cast<uint32_t>(t + c.date), c.frequency);
    for (size_t i = 0; i < c.waitsMs.size(); ++i) {
      EXPECT_EQ(NextWholeWait(), c.waitsMs[i]) << "wait " << i;
      if (i == 0) {
        EXPECT_TRUE(check->Times().empty());  // starting runs no check by itself
      }
      if (i + 1 < c.waitsMs.size()) clock.Finish();
    }
    Times expected;
    for (uint32_t offset : c.checks) expected.push_back(t + offset);
    EXPECT_EQ(check->Times(), expected);
    if (c.date == kNoDate) {
      EXPECT_EQ(config->getScheduleDate(), t);
    }
    Restart();
  }
}

TEST_F(SchedulerTest, SetEventWakesOnlyOnChangeOrForceButAlwaysStoresTheFlag) {
  const uint32_t a = StartDailyAfterFirstCheck();
  // A forced call wakes the thread; an unforced one after it, with nothing changed, sends nothing
  // but leaves its flag: the thread checks at once without looking at the settings, so the
  // frequency written meanwhile stays unseen, also by the wait that runs out after.
  EXPECT_EQ(scheduler->setEvent(0, 1), 1);
  ASSERT_EQ(clock.NextSleep(), 300u);
  EXPECT_EQ(scheduler->setEvent(1, 0), 0);
  Set(kFrequency, 2);
  clock.Finish();
  EXPECT_EQ(clock.NextWait(), kDayMs);
  clock.Finish();
  EXPECT_EQ(clock.NextWait(), kDayMs);
  EXPECT_EQ(check->Times(), (Times{a, a, a + kDay}));

  // The other way round: an unforced call with nothing changed clears the flag a forced one set,
  // so the thread follows the settings and checks nothing.
  Set(kFrequency, 1);
  EXPECT_EQ(scheduler->setEvent(1, 1), 1);
  ASSERT_EQ(clock.NextSleep(), 300u);
  EXPECT_EQ(scheduler->setEvent(0, 0), 0);
  Set(kFrequency, 2);
  clock.Finish();
  EXPECT_EQ(clock.NextWait(), 2 * kDayMs);
  EXPECT_EQ(check->Times().size(), 3u);
  EXPECT_EQ(scheduler->setEvent(0, 0), 0);  // the thread holds what the settings say
}

TEST_F(SchedulerTest, ForcedWakeUpChecksAtOnceAndKeepsTheGrid) {
  const uint32_t a = StartDailyAfterFirstCheck();
  // With the flag the check runs as such; without it, a wake-up with nothing changed runs one.
  for (int onceImmediate : {1, 0}) {
    clock.Advance(5 * kHourMs);
    EXPECT_EQ(scheduler->setEvent(static_cast<uint8_t>(onceImmediate), 1), 1);
    PassWakeUpPause();
    EXPECT_EQ(clock.NextWait(), kDayMs - (Now() - a) * 1000ull);
  }
  clock.Finish();
  EXPECT_EQ(clock.NextWait(), kDayMs);
  EXPECT_EQ(check->Times(), (Times{a, a + 5 * kHour, a + 10 * kHour, a + kDay}));
}

TEST_F(SchedulerTest, NewStartDateJustPastStartsNowAnOlderOneSetsANewGrid) {
  Times expected{StartDailyAfterFirstCheck()};
  const struct {
    int64_t back;  // -1: no date
    bool now;
  } cases[] = {{100, true}, {300, false}, {-1, true}};  // 300 s back is past enough
  for (const auto& c : cases) {
    SCOPED_TRACE(c.back);
    clock.Advance(kHourMs);
    const uint32_t n = Now();
    Set(kDate, c.back < 0 ? 0 : static_cast<uint32_t>(n - c.back));
    EXPECT_EQ(scheduler->setEvent(0, 0), 1);
    PassWakeUpPause();
    if (c.now) {  // a check now, and now is the start date, in the settings too
      EXPECT_EQ(clock.NextWait(), kDayMs);
      expected.push_back(n);
      EXPECT_EQ(config->getScheduleDate(), n);
    } else {  // no check now; the next one on the grid of the new date
      EXPECT_EQ(clock.NextWait(), (kDay - c.back) * 1000ull);
      EXPECT_EQ(scheduler->setEvent(0, 0), 0);  // the thread took the date
    }
    EXPECT_EQ(check->Times(), expected);
  }
}

TEST_F(SchedulerTest, NewFrequencyWaitsAWholeNewIntervalThenFindsTheGrid) {
  const uint32_t a = StartDailyAfterFirstCheck();
  clock.Advance(5 * kHourMs);
  const uint32_t n = Now();
  Set(kFrequency, 3);
  EXPECT_EQ(scheduler->setEvent(0, 0), 1);
  PassWakeUpPause();
  EXPECT_EQ(clock.NextWait(), 3 * kDayMs);  // from now, not to the grid of the date
  clock.Finish();
  EXPECT_EQ(clock.NextWait(), (3 * kDay - 5 * kHour) * 1000ull);
  clock.Finish();
  EXPECT_EQ(clock.NextWait(), 3 * kDayMs);
  EXPECT_EQ(check->Times(), (Times{a, n + 3 * kDay, a + 6 * kDay}));

  Set(kFrequency, 0);  // means a year
  EXPECT_EQ(scheduler->setEvent(0, 0), 1);
  PassWakeUpPause();
  EXPECT_EQ(NextWholeWait(), 365 * kDayMs);
  EXPECT_EQ(check->Times().size(), 3u);
}

TEST_F(SchedulerTest, BackInTheSchedulerModeTheIdleWaitStaysUntilTheScheduleChanges) {
  const uint32_t a = StartDailyAfterFirstCheck();
  Set(kMode, 1);
  EXPECT_EQ(scheduler->setEvent(0, 0), 1);
  PassWakeUpPause();
  EXPECT_EQ(clock.NextWait(), kPiece);  // the idle year begins
  Set(kMode, UPDATECHECK_VIA_SCHEDULER);
  EXPECT_EQ(scheduler->setEvent(0, 0), 1);
  PassWakeUpPause();
  // Same date and frequency: the idle year's wait stays, in pieces the event takes, and no check
  // runs at its end.
  for (int i = 0; i < 7; ++i) {
    ASSERT_EQ(clock.NextWait(), kPiece) << i;
    clock.Finish();
  }
  EXPECT_EQ(clock.NextWait(), 31536000000ull - 7ull * kPiece);
  clock.Finish();
  EXPECT_EQ(clock.NextWait(), kPiece);  // the next idle year
  EXPECT_EQ(Now(), a + 365 * kDay);
  EXPECT_EQ(check->Times(), (Times{a}));

  // A new frequency ends it.
  Set(kFrequency, 2);
  EXPECT_EQ(scheduler->setEvent(0, 0), 1);
  PassWakeUpPause();
  EXPECT_EQ(clock.NextWait(), 2 * kDayMs);
  clock.Finish();
  EXPECT_EQ(clock.NextWait(), kDayMs);  // 367 days from the start date: back on its grid
  EXPECT_EQ(check->Times(), (Times{a, a + 367 * kDay}));
}

TEST_F(SchedulerTest, StartAndStopGuards) {
  scheduler = std::make_unique<UM_Scheduler>(&module, check.get(), config.get());
  EXPECT_EQ(scheduler->stop(), 1);  // never started
  Start(UPDATECHECK_VIA_SCHEDULER, kStart + kHour, 1);
  EXPECT_EQ(scheduler->start(), 1);
  EXPECT_EQ(clock.NextWait(), kHourMs);

  // Going down: the stop's event ends the wait and the flag the thread, within the stop's wait.
  module.down = 1;
  EXPECT_EQ(scheduler->stop(), 0);
  EXPECT_FALSE(scheduler->ThreadActive());
  EXPECT_EQ(clock.testTimeOutMs.load(), 0u);
  EXPECT_EQ(scheduler->stop(), 1);
  // While the module goes down no thread starts.
  EXPECT_EQ(scheduler->start(), 0);
  EXPECT_FALSE(scheduler->ThreadActive());
  EXPECT_EQ(scheduler->stop(), 1);

  // Started again, the first wait is whole: the stop's wake-up is not left behind.
  module.down = 0;
  EXPECT_EQ(scheduler->start(), 0);
  EXPECT_EQ(clock.NextWait(), kHourMs);
  EXPECT_EQ(Now(), kStart);
  EXPECT_TRUE(check->Times().empty());
}

TEST_F(SchedulerTest, StopGivesUpOnACheckThatDoesNotReturnAndEndsTheThread) {
  check->blockForever = true;
  clock.testGraceMs = 100;
  Start(UPDATECHECK_VIA_SCHEDULER, kStart + kHour, 1);
  EXPECT_EQ(clock.NextWait(), kHourMs);
  clock.Finish();
  ASSERT_TRUE(check->WaitForCalls(1));
  module.down = 1;
  EXPECT_EQ(scheduler->stop(), 0);
  EXPECT_EQ(clock.testTimeOutMs.load(), 30000u);
  EXPECT_FALSE(scheduler->ThreadActive());
  // The thread is gone, not merely left: the check it was in never comes back.
  check->stuck.Set();
  EXPECT_FALSE(check->leftTheBlock);
}
