// Thread wrappers and the task serializer.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "foundation/CCriticalSection.h"
#include "foundation/CEvent.h"
#include "foundation/CThread.h"
#include "module/CTaskSerializer.h"
#include "platform/Clock.h"

namespace {

unsigned WaitOnEvent(void* arg) {
  static_cast<CEvent*>(arg)->Wait(platform::kInfinite);
  return 0;
}

unsigned Quick(void*) {
  return 0;
}

}  // namespace

TEST(CThread, WaitKillAndName) {
  CThread none;
  EXPECT_TRUE(none.WaitForThread(0));  // no handle: nothing to wait for
  EXPECT_EQ(none.KillThread(0), 1);

  CThread quick;
  ASSERT_EQ(quick.CreateThreadObject(Quick, nullptr, 0, false, 0), 1);
  EXPECT_TRUE(quick.WaitForThread(5000));
  EXPECT_TRUE(quick.WaitForThread(0));  // ended: true at once

  CEvent never;
  CThread stuck;
  ASSERT_EQ(stuck.CreateThreadObject(WaitOnEvent, &never, 0, false, 0), 1);
  EXPECT_FALSE(stuck.WaitForThread(30));
  EXPECT_EQ(stuck.KillThread(0), 1);
  EXPECT_FALSE(stuck.HasHandle());  // closed in every case

  CThread named;
  EXPECT_EQ(named.SetThreadName(u"", u"x"), 0);
  const WString sixty(60, u'n');
  EXPECT_EQ(named.SetThreadName(sixty.c_str(), u"_TaskHndlr"), 1);
  EXPECT_EQ(WString(named.Name()), sixty);  // name and suffix would reach 64
  EXPECT_EQ(named.SetThreadName(u"EM_MENDER", u"_TaskHndlr"), 1);
  EXPECT_EQ(WString(named.Name()), u"EM_MENDER_TaskHndlr");
  const WString seventy(70, u'm');
  named.SetThreadName(seventy.c_str(), u"");
  EXPECT_EQ(WString(named.Name()).size(), 62u);
}

TEST(CThread, DestructorKillsAThreadThatDoesNotEnd) {
  // The destructor's 5-second wait runs on a virtual clock; the kill is real.
  platform::VirtualClock clock;
  platform::SetClock(&clock);
  CEvent never;
  {
    CThread t;
    t.m_bTerminateThread = 1;
    ASSERT_EQ(t.CreateThreadObject(WaitOnEvent, &never, 0, false, 0), 1);
  }
  EXPECT_GE(clock.ElapsedMs(), 5010u);
  platform::SetClock(nullptr);
}

TEST(CCriticalSection, RecursiveAndLeftAtDestruction) {
  auto* cs = new CCriticalSection;
  cs->Enter();
  cs->Enter();
  EXPECT_TRUE(cs->IsLockedByCurrentThread());
  std::atomic<bool> entered{false};
  std::thread other([&] {
    CCriticalSectionLock lock(*cs);
    entered = true;
  });
  platform::SleepRealMicros(20000);
  EXPECT_FALSE(entered);
  cs->Leave();
  cs->Leave();
  other.join();
  EXPECT_TRUE(entered);
  cs->Enter();
  delete cs;  // still held: left before it is deleted
}

namespace {

class RecordingSerializer : public CTaskSerializer {
 public:
  RecordingSerializer(uint32_t levels, uint32_t records) : CTaskSerializer(levels, records) {}
  ~RecordingSerializer() noexcept(false) override { TerminateSerialization(); }
  void OnTaskExecution(RequestMessage* message, uint32_t level) override {
    {
      std::lock_guard<std::mutex> lock(mutex);
      seen.push_back({GetCommandValue(*message, message->commandIndex, kKeyOC, 0), level});
    }
    const uint32_t oc = GetCommandValue(*message, message->commandIndex, kKeyOC, 0);
    if (oc == 100) {
      running.Set();
      gate.Wait(5000);
    }
    if (oc == 666) throw 1;
  }
  void OnQueueEmpty(uint32_t level) override { emptied.push_back(level); }
  void OnWorkerStart() override { started = true; }
  void OnWorkerExit() override { exited = true; }

  std::mutex mutex;
  std::vector<std::pair<uint32_t, uint32_t>> seen;
  std::vector<uint32_t> emptied;
  std::atomic<bool> started{false}, exited{false};
  CEvent running, gate;
};

// Posts once the worker has made room in the ring (bounded to five seconds).
bool PostWhenRoom(CTaskSerializer& s, TaskRecord* record, uint32_t level) {
  for (int i = 0; i < 5000; ++i) {
    if (s.PostTask(record, level)) return true;
    platform::SleepRealMicros(1000);
  }
  delete record;
  return false;
}

TaskRecord* Task(uint32_t oc, CEvent* done = nullptr) {
  auto* r = new TaskRecord;
  r->externalEvent = done;
  ConstructRequest(r->message, oc, 0, 0, 0, ST_NONE);
  return r;
}

}  // namespace

TEST(CTaskSerializer, HigherLevelFirstAndRingWrap) {
  RecordingSerializer s(2, 3);
  EXPECT_EQ(s.TerminateSerialization(), 1);  // no worker yet: returns at once
  ASSERT_EQ(s.StartSerialization(), 1);
  EXPECT_EQ(s.StartSerialization(), 1);  // running: starts nothing
  EXPECT_TRUE(s.started);
  // The first task holds the worker until the queues are filled.
  ASSERT_TRUE(s.PostTask(Task(100), 0));
  ASSERT_TRUE(s.running.Wait(5000));
  // Level 0 has taken one record: the next three wrap round the end of its 24-byte ring.
  ASSERT_TRUE(s.PostTask(Task(1), 0));
  ASSERT_TRUE(s.PostTask(Task(2), 0));
  ASSERT_TRUE(s.PostTask(Task(4), 0));
  ASSERT_TRUE(s.PostTask(Task(3), 1));
  TaskRecord* overflow = Task(99);
  EXPECT_FALSE(s.PostTask(overflow, 0));  // ring full: the record stays the caller's
  delete overflow;
  EXPECT_FALSE(s.PostTask(overflow, 2));  // no such level
  ASSERT_TRUE(s.PostTask(Task(5), 1));
  s.gate.Set();
  CEvent done;
  ASSERT_TRUE(PostWhenRoom(s, Task(666), 0));  // throws: the worker goes on
  ASSERT_TRUE(PostWhenRoom(s, Task(7, &done), 0));
  ASSERT_TRUE(done.Wait(5000));
  EXPECT_EQ(s.TerminateSerialization(), 1);
  EXPECT_TRUE(s.exited);
  std::lock_guard<std::mutex> lock(s.mutex);
  const std::vector<std::pair<uint32_t, uint32_t>> expected = {{100, 0}, {3, 1}, {5, 1},   {1, 0},
                                                               {2, 0},   {4, 0}, {666, 0}, {7, 0}};
  EXPECT_EQ(s.seen, expected);
  EXPECT_EQ(s.emptied.back(), 0u);
  // A terminated serializer can be started again.
  EXPECT_EQ(s.StartSerialization(), 1);
}

namespace {

// Real time spent outside every wait of the clock service, where a kill cannot reach the thread
// (as in a long file operation).
void BusyRealMicros(uint64_t micros) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(micros);
  while (std::chrono::steady_clock::now() < end) std::this_thread::yield();
}

// A worker that is slow to leave: its exit hook is busy for a while, then touches the object.
class SlowExitSerializer : public CTaskSerializer {
 public:
  explicit SlowExitSerializer(uint64_t exitMicros) : m_exitMicros(exitMicros) {}
  void OnTaskExecution(RequestMessage*, uint32_t) override {}
  void OnWorkerExit() override {
    BusyRealMicros(m_exitMicros);
    exitDone = true;
  }
  uint64_t m_exitMicros;
  std::atomic<bool> exitDone{false};
};

unsigned BusyForRealTime(void* arg) {
  BusyRealMicros(1200000);  // longer than the kill's own second
  static_cast<std::atomic<bool>*>(arg)->store(true);
  return 0;
}

}  // namespace

// No thread may outlive the bounded wait for it: whatever the clock does, the serializer's stop
// and the thread wrapper end the thread and join it before they return, so that the object it
// runs in can be freed. Whether the thread was killed (Windows) or seen to its end (POSIX, where a
// thread busy outside every wait cannot be killed), nothing of it runs after the return.
TEST(CTaskSerializer, StopJoinsTheWorkerWhenTheBoundedWaitRunsOut) {
  platform::VirtualClock clock;  // the 2-second wait runs out after the clock's short grace
  platform::SetClock(&clock);
  for (uint64_t exitMicros : {300000ull, 1200000ull}) {
    auto* s = new SlowExitSerializer(exitMicros);
    ASSERT_EQ(s->StartSerialization(), 1);
    s->TerminateSerialization();
    EXPECT_FALSE(s->WorkerRunning());
    if (!s->exitDone) {  // killed before its end: it must not come back to the object
      platform::SleepRealMicros(exitMicros + 100000);
      EXPECT_FALSE(s->exitDone) << "the worker ran on after the stop (" << exitMicros << " us)";
    }
    delete s;  // with the worker still inside, AddressSanitizer reports a use after free
  }
  std::atomic<bool> finished{false};
  {
    CThread t;
    t.m_bTerminateThread = 1;
    ASSERT_EQ(t.CreateThreadObject(BusyForRealTime, &finished, 0, false, 0), 1);
  }
  if (!finished) {
    platform::SleepRealMicros(1300000);
    EXPECT_FALSE(finished) << "the thread ran on after its wrapper was destroyed";
  }
  platform::SetClock(nullptr);
}
