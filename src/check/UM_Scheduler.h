// The update-check polling thread: runs a check at the configured start date and then at every
// multiple of the configured frequency, runs one on demand, and follows changes of the schedule
// without a restart. All its times are LocalClockSeconds values; every wait goes through the
// clock service.
#pragma once

#include <atomic>
#include <cstdint>

#include "foundation/CEvent.h"
#include "foundation/CThread.h"

class IUpdateModule;
class UM_Check;
class UM_Config;

namespace scheduler {

constexpr int64_t kSecondsPerFrequencyUnit = 86400;
constexpr int32_t kMaxFrequency = 365;
// The smallest first wait; also how far a new start date may lie in the past and still mean
// "now".
constexpr int64_t kMinFirstWait = 300;
constexpr uint32_t kWakePauseMs = 300;
// Wait and interval once the mode has left the scheduler.
constexpr int64_t kIdleInterval = 31536000;
constexpr uint32_t kStopWaitMs = 30000;

// Seconds from `now` to the next point of the grid startDate + k * interval: the time to the start
// date while it lies ahead; a whole interval when `now` lies on the grid.
int64_t NextPollingRate(int64_t startDate, int64_t now, int64_t interval);

}  // namespace scheduler

class UM_Scheduler {
 public:
  UM_Scheduler(IUpdateModule* module, UM_Check* check, UM_Config* config);
  // Stops a thread still running.
  ~UM_Scheduler();
  UM_Scheduler(const UM_Scheduler&) = delete;
  UM_Scheduler& operator=(const UM_Scheduler&) = delete;

  // 0 started (or not started because the module is going down), 1 already active, -1 no thread.
  int start();
  // 0 after the thread ended (by itself or killed after 30 s), 1 when none was active.
  int stop();
  // Wakes the thread when forced or when the schedule in the settings differs from the one held;
  // stores onceImmediateFlag either way. The result of setting the event, 0 when none was sent.
  int setEvent(uint8_t onceImmediateFlag, uint8_t setForcedFlag);
  // The next wait in seconds, on the grid of the start date; traced.
  int64_t setPollingRate(int64_t interval);

  bool ThreadActive() const { return threadActive.load() != 0; }

 private:
  static unsigned ThreadEntry(void* self);
  void Thread_UpdateCheckScheduler();
  // Waits for the wake event up to `seconds`, in pieces the event takes. True when woken.
  bool WaitForWakeUp(int64_t seconds);
  // Follows the settings after a wake-up; true when a check is to run now.
  bool OnWakeUp(bool& doAction, int64_t& interval, int64_t& pollingRate);

  // Written by the thread, compared by setEvent on the host's threads.
  std::atomic<uint8_t> checkMode{0};
  std::atomic<uint8_t> threadActive{0};
  std::atomic<int64_t> scheduleStartDate{0};
  std::atomic<int32_t> frequency{0};
  std::atomic<uint8_t> onceImmediate{0};
  IUpdateModule* module;
  UM_Check* check;
  UM_Config* config;
  CThread thread;
  CEvent wakeEvent;
};
