#include "check/UM_Scheduler.h"

#include "base/WFormat.h"
#include "check/UM_Check.h"
#include "config/UM_Config.h"
#include "foundation/CDebug.h"
#include "foundation/IUpdateModule.h"
#include "platform/Clock.h"
#include "platform/Thread.h"

namespace {

// The longest wait the event takes (0xFFFFFFFF means no limit). Longer waits, such as the year
// after the mode has left the scheduler (31536000000 ms), are waited in pieces of this length;
// the pieces add up to the whole wait.
constexpr uint64_t kLongestWaitMs = 0xFFFFFFFEull;

bool ShuttingDown(IUpdateModule* module) {
  return module && module->GetSwitchShutDownFlag() != 0;
}

WString TimeText(int64_t localClockSeconds) {
  return WDateText(static_cast<uint32_t>(localClockSeconds));
}

// The frequency in seconds. The frequency is taken as the unsigned value the settings hold, so
// that no setting gives a negative interval.
int64_t IntervalOf(int32_t frequency) {
  return static_cast<int64_t>(static_cast<uint32_t>(frequency)) * scheduler::kSecondsPerFrequencyUnit;
}

}  // namespace

int64_t scheduler::NextPollingRate(int64_t startDate, int64_t now, int64_t interval) {
  const int64_t difference = startDate - now;
  if (difference > 0) return difference;
  // The thread never has an interval below one unit; this only keeps the division defined.
  if (interval <= 0) interval = kIdleInterval;
  return interval - ((-difference) % interval);
}

UM_Scheduler::UM_Scheduler(IUpdateModule* module, UM_Check* check, UM_Config* config)
    : module(module), check(check), config(config) {
  scheduleStartDate = config->getScheduleDate();
  frequency = static_cast<int32_t>(config->getScheduleFrequency());
  checkMode = config->getCheckMode();
  thread.m_bTerminateThread = 1;
  thread.SetThreadName(u"UpdateCheckScheduler", u"");
}

UM_Scheduler::~UM_Scheduler() {
  // The thread runs in this object: it is ended before anything of the object goes.
  if (threadActive.load()) stop();
}

int UM_Scheduler::start() {
  if (threadActive.load() == 1) {
    TRACE(1, u"\nUM_Scheduler::start()\t: >>>ERROR - Polling thread already active - return 1");
    return 1;
  }
  if (ShuttingDown(module)) return 0;
  TRACE(3, u"\n\nUM_Scheduler::start()\t: Start Update Check polling thread...");
  if (!wakeEvent.IsValid()) {
    // Without its event the thread could neither be woken nor wait: every wait would end at once.
    TRACE(1, u">>>ERROR 0x%X! Failed to start status polling thread (%s)!", wakeEvent.LastError(), u"no wake-up event");
    return -1;
  }
  if (!thread.CreateThreadObject(&UM_Scheduler::ThreadEntry, this, 0, false, 0)) {
    TRACE(1, u">>>ERROR 0x%X! Failed to start status polling thread (%s)!", thread.LastError(),
          u"thread creation failed");
    return -1;
  }
  threadActive = 1;
  return 0;
}

namespace {
constexpr uint32_t kStopGraceRealMs = 2000;
}  // namespace

int UM_Scheduler::stop() {
  if (threadActive.load() == 0) {
    TRACE(3, u"\nUM_Scheduler::stop()\t: Polling Thread not active/running - return 1");
    return 1;
  }
  wakeEvent.Set();
  if (!thread.WaitForThread(scheduler::kStopWaitMs)) {
    TRACE(1,
          u"\nUM_Scheduler::stop()\t: >>>ERROR! UpdateCheck polling thread could not be terminated! Give up after "
          u"30 seconds!\n");
    // As the task serializer's stop: a thread that was told to end gets up to 2 s of real time
    // more before the forced end, which can leave a lock of the process held (on Windows the
    // heap's), since a time scale may have run the 30 s out at once.
    if (!thread.WaitRealMs(kStopGraceRealMs)) thread.KillThread(0);
  }
  // The wake-up that ended the thread is not left for a thread started later; an event set after
  // this point (a change of the settings before the next start) is kept.
  wakeEvent.Reset();
  threadActive = 0;
  return 0;
}

int UM_Scheduler::setEvent(uint8_t onceImmediateFlag, uint8_t setForcedFlag) {
  bool send = setForcedFlag != 0;
  if (!send) {
    const bool same = checkMode.load() == config->getCheckMode() &&
                      scheduleStartDate.load() == static_cast<int64_t>(config->getScheduleDate()) &&
                      frequency.load() == static_cast<int32_t>(config->getScheduleFrequency());
    if (same)
      TRACE(3, u"\nUM_Scheduler::setEvent()\t: No event to sent, because Config Space parameters haven't changed!");
    send = !same;
  }
  onceImmediate = onceImmediateFlag;
  if (!send) return 0;
  return wakeEvent.Set() ? 1 : 0;
}

int64_t UM_Scheduler::setPollingRate(int64_t interval) {
  const int64_t now = platform::LocalClockSeconds();
  const int64_t rate = scheduler::NextPollingRate(scheduleStartDate.load(), now, interval);
  TRACE(3, u"\nUM_Scheduler::setPollingRate() : New pollingRate = '%ld' secs (Next start time= %s)\n",
        static_cast<long>(rate), TimeText(now + rate).c_str());
  return rate;
}

unsigned UM_Scheduler::ThreadEntry(void* self) {
  try {
    static_cast<UM_Scheduler*>(self)->Thread_UpdateCheckScheduler();
  }
  EM_CATCH_THREAD_CANCEL catch (...) {
    TRACE(1,
          u"\n\n################################################################################"
          u"\n####              Exception in UpdateCheckScheduler Thread !!               ####"
          u"\n################################################################################\n");
  }
  return 0;
}

void UM_Scheduler::Thread_UpdateCheckScheduler() {
  TRACE(3, u"\nUM_Scheduler::Thread_UpdateCheckScheduler()\t: START, checkMode=%d", static_cast<int>(checkMode.load()));
  TRACE(3, u"\nUM_Scheduler::Thread_UpdateCheckScheduler()\t: Do not call createData() unconditionally first time ...");

  int32_t freq = frequency.load();
  if (freq > scheduler::kMaxFrequency || freq <= 0) {
    freq = scheduler::kMaxFrequency;
    frequency = freq;
  }
  int64_t interval = IntervalOf(freq);
  int64_t now = platform::LocalClockSeconds();
  if (scheduleStartDate.load() == 0) {
    scheduleStartDate = now;
    config->setScheduleDate(static_cast<uint32_t>(now));
  }
  // The first wait goes to the start date, and at least 300 s: a start date already past does not
  // run a check at once. The grid of the start date applies from the second wait on.
  int64_t pollingRate = scheduleStartDate.load() - now;
  if (pollingRate < scheduler::kMinFirstWait) pollingRate = scheduler::kMinFirstWait;
  bool doAction = config->getCheckMode() == UPDATECHECK_VIA_SCHEDULER;

  while (!ShuttingDown(module)) {
    bool runCheck = false;
    if (!WaitForWakeUp(pollingRate)) {
      if (doAction)
        runCheck = true;
      else
        pollingRate = setPollingRate(interval);
    } else {
      TRACE(3, u"\nUM_Scheduler::Thread_UpdateCheckScheduler()\t: !!! EVENT !!! Polling loop was woken up by event.");
      if (ShuttingDown(module)) {
        TRACE(3, u"\nUM_Scheduler::Thread_UpdateCheckScheduler()\t: QV agent is going down - leave loop");
        return;
      }
      // Settings often change in a burst: the pause lets the burst end before the event is reset.
      platform::SleepMs(scheduler::kWakePauseMs);
      wakeEvent.Reset();
      runCheck = OnWakeUp(doAction, interval, pollingRate);
    }
    if (runCheck) {
      TRACE(3, u"\nUM_Scheduler::Thread_UpdateCheckScheduler()\t: Calling createData() at time: %s",
            TimeText(platform::LocalClockSeconds()).c_str());
      check->createData();
      pollingRate = setPollingRate(interval);
    }
  }
}

bool UM_Scheduler::WaitForWakeUp(int64_t seconds) {
  uint64_t remaining = seconds > 0 ? static_cast<uint64_t>(seconds) * 1000u : 0;
  do {
    const uint64_t piece = remaining > kLongestWaitMs ? kLongestWaitMs : remaining;
    if (wakeEvent.Wait(static_cast<uint32_t>(piece))) return true;
    remaining -= piece;
  } while (remaining > 0);
  return false;
}

bool UM_Scheduler::OnWakeUp(bool& doAction, int64_t& interval, int64_t& pollingRate) {
  if (onceImmediate.load() == 1) {
    onceImmediate = 0;
    TRACE(3,
          u"\nUM_Scheduler::Thread_UpdateCheckScheduler()\t: Once immediate flag is set => Calling createData() ...");
    check->createData();
    pollingRate = setPollingRate(interval);
    return false;
  }

  const uint8_t newMode = config->getCheckMode();
  const int64_t newDate = config->getScheduleDate();
  const int32_t newFrequency = static_cast<int32_t>(config->getScheduleFrequency());
  const bool frequencyChanged = newFrequency != frequency.load();
  const bool dateChanged = newDate != scheduleStartDate.load();

  if (newMode != checkMode.load()) {
    checkMode = newMode;
    if (newMode != UPDATECHECK_VIA_SCHEDULER) {
      TRACE(
          3,
          u"\nUM_Scheduler::Thread_UpdateCheckScheduler()\t: Check mode != UPDATECHECK_VIA_SCHEDULER => No calling of "
          u"createData() anymore!");
      doAction = false;
      pollingRate = scheduler::kIdleInterval;
      interval = scheduler::kIdleInterval;
      return false;
    }
    TRACE(3,
          u"\nUM_Scheduler::Thread_UpdateCheckScheduler()\t: Check mode = UPDATECHECK_VIA_SCHEDULER => Calling "
          u"createData via scheduler!");
    // Back in the scheduler's mode with the same schedule: the idle wait of the other mode stays
    // until the date or the frequency changes.
    if (!frequencyChanged && !dateChanged) return false;
  }

  doAction = true;

  if (frequencyChanged) {
    TRACE(3, u"\nUM_Scheduler::Thread_UpdateCheckScheduler()\t: Scheduler Frequency has changed (from '%d' to '%d')!",
          static_cast<int>(frequency.load()), static_cast<int>(newFrequency));
    const int32_t taken = newFrequency == 0 ? scheduler::kMaxFrequency : newFrequency;
    frequency = taken;
    interval = IntervalOf(taken);
    // A whole new interval from now, not the next point of the start date's grid.
    pollingRate = interval;
    if (!dateChanged) return false;
  }

  if (!dateChanged) return true;  // woken without a change: a check now

  TRACE(3, u"\nUM_Scheduler::Thread_UpdateCheckScheduler()\t: Scheduler Start Date has changed to '%lu' secs(= %s)!",
        static_cast<unsigned long>(newDate), TimeText(newDate).c_str());
  const int64_t now = platform::LocalClockSeconds();
  if (newDate != 0 && (newDate >= now || now - newDate >= scheduler::kMinFirstWait)) {
    scheduleStartDate = newDate;
    pollingRate = setPollingRate(interval);
    return false;
  }
  // No date, or one just past: the schedule starts now, with a check.
  TRACE(3, u"\nUM_Scheduler::Thread_UpdateCheckScheduler()\t: Check should start immediately !");
  scheduleStartDate = now;
  config->setScheduleDate(static_cast<uint32_t>(now));
  return true;
}
