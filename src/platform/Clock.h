// The clock service: every sleep, event wait, poll interval and time-out of the system goes
// through it, so that tests can shorten them (EM_MENDER_TIME_SCALE) or run them on a virtual
// clock whose time moves only when a waiter waits.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

namespace platform {

constexpr uint32_t kInfinite = 0xFFFFFFFFu;
constexpr uint64_t kInfiniteMicros = ~0ull;

// Something a thread can wait on in real time: an event, a thread's end.
class Waitable {
 public:
  // Waits up to `micros` of real time (kInfiniteMicros: no limit). True when signalled.
  virtual bool WaitRealMicros(uint64_t micros) = 0;

 protected:
  ~Waitable() = default;
};

class Clock {
 public:
  virtual ~Clock() = default;
  // The system's UTC time in seconds since 1970, cut to 32 bits, plus the local offset from UTC
  // rounded to whole minutes.
  virtual uint32_t LocalClockSeconds() = 0;
  // Monotonic milliseconds.
  virtual uint64_t TickMs() = 0;
  virtual void SleepMs(uint32_t ms) = 0;
  // Waits up to `ms` (kInfinite: no limit) for the object. True when it was signalled.
  virtual bool Wait(Waitable& object, uint32_t ms) = 0;
};

// The clock in force. The system clock honours EM_MENDER_TIME_SCALE: with a factor F every wait
// takes 1/F of its time and the clock's own time runs F times as fast, so that deadlines computed
// from the clock and the waits that lead to them stay consistent.
Clock& GetClock();
// Replaces the clock in force (tests); null restores the system clock.
void SetClock(Clock* clock);
// The factor read from EM_MENDER_TIME_SCALE at first use (1 when unset or invalid).
double TimeScale();

inline uint32_t LocalClockSeconds() {
  return GetClock().LocalClockSeconds();
}
inline uint64_t TickMs() {
  return GetClock().TickMs();
}
inline void SleepMs(uint32_t ms) {
  GetClock().SleepMs(ms);
}
inline bool WaitFor(Waitable& object, uint32_t ms) {
  return GetClock().Wait(object, ms);
}

// Raw time sources of the operating system, in real time.
uint64_t MonotonicMicros();
int64_t UtcSeconds();
// The local offset from UTC in seconds at this moment.
int32_t LocalOffsetSeconds();
void SleepRealMicros(uint64_t micros);

struct LocalTime {
  int year, month, day, hour, minute, second, millisecond;
};
LocalTime NowLocalTime();

// A clock for unit tests. Its time starts at the given seconds and advances only when code
// sleeps or waits on it: a sleep moves time forward at once; a wait first gives the object a
// short real grace period (other threads may be about to signal it) and then, if it is still not
// signalled, moves time to the end of the wait and reports the time-out.
class VirtualClock : public Clock {
 public:
  explicit VirtualClock(uint32_t localSeconds = 1700000000u, uint32_t graceMs = 20);
  uint32_t LocalClockSeconds() override;
  uint64_t TickMs() override;
  void SleepMs(uint32_t ms) override;
  bool Wait(Waitable& object, uint32_t ms) override;
  void Advance(uint64_t ms);
  // Total virtual milliseconds spent in sleeps and waits that ran out.
  uint64_t ElapsedMs() const { return m_nowMs.load() - m_startMs; }

 private:
  std::atomic<uint64_t> m_nowMs;
  uint64_t m_startMs;
  uint32_t m_graceMs;
};

}  // namespace platform
