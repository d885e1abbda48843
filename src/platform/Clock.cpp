#include "platform/Clock.h"

#include <cstdlib>
#include <string>

#include "platform/Environment.h"

namespace platform {

namespace {

class SystemClock : public Clock {
 public:
  SystemClock() : m_scale(TimeScale()), m_startMicros(MonotonicMicros()), m_startUtc(UtcSeconds()) {}

  uint32_t LocalClockSeconds() override {
    int64_t utc = UtcSeconds();
    if (m_scale != 1.0) {
      utc = m_startUtc + static_cast<int64_t>(static_cast<double>(MonotonicMicros() - m_startMicros) * m_scale / 1e6);
    }
    int32_t offset = LocalOffsetSeconds();
    offset = (offset >= 0 ? (offset + 30) / 60 : (offset - 30) / 60) * 60;
    return static_cast<uint32_t>(static_cast<uint64_t>(utc)) + static_cast<uint32_t>(offset);
  }
  uint64_t TickMs() override {
    return static_cast<uint64_t>(static_cast<double>(MonotonicMicros()) * m_scale / 1000.0);
  }
  void SleepMs(uint32_t ms) override { SleepRealMicros(Scaled(ms)); }
  bool Wait(Waitable& object, uint32_t ms) override {
    return object.WaitRealMicros(ms == kInfinite ? kInfiniteMicros : Scaled(ms));
  }

 private:
  uint64_t Scaled(uint32_t ms) const { return static_cast<uint64_t>(static_cast<double>(ms) * 1000.0 / m_scale); }
  double m_scale;
  uint64_t m_startMicros;
  int64_t m_startUtc;
};

std::atomic<Clock*> g_clock{nullptr};

Clock& SystemClockInstance() {
  static SystemClock clock;
  return clock;
}

}  // namespace

double TimeScale() {
  static const double scale = [] {
    WString text;
    if (!GetEnv(u"EM_MENDER_TIME_SCALE", text) || text.empty()) return 1.0;
    double v = std::strtod(WToUtf8(text).c_str(), nullptr);
    return (v >= 1e-3 && v <= 1e9) ? v : 1.0;
  }();
  return scale;
}

Clock& GetClock() {
  Clock* c = g_clock.load(std::memory_order_acquire);
  return c ? *c : SystemClockInstance();
}

void SetClock(Clock* clock) {
  g_clock.store(clock, std::memory_order_release);
}

VirtualClock::VirtualClock(uint32_t localSeconds, uint32_t graceMs)
    : m_nowMs(static_cast<uint64_t>(localSeconds) * 1000), m_startMs(m_nowMs.load()), m_graceMs(graceMs) {}

uint32_t VirtualClock::LocalClockSeconds() {
  return static_cast<uint32_t>(m_nowMs.load() / 1000);
}
uint64_t VirtualClock::TickMs() {
  return m_nowMs.load();
}
void VirtualClock::SleepMs(uint32_t ms) {
  Advance(ms);
}
void VirtualClock::Advance(uint64_t ms) {
  m_nowMs.fetch_add(ms);
}

bool VirtualClock::Wait(Waitable& object, uint32_t ms) {
  if (ms == kInfinite) return object.WaitRealMicros(kInfiniteMicros);
  if (object.WaitRealMicros(static_cast<uint64_t>(ms < m_graceMs ? ms : m_graceMs) * 1000)) return true;
  Advance(ms);
  return false;
}

}  // namespace platform
