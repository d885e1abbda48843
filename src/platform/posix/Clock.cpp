#include "platform/Clock.h"

#include <errno.h>
#include <sys/time.h>
#include <time.h>

#include "platform/Thread.h"

namespace platform {

uint64_t MonotonicMicros() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

int64_t UtcSeconds() {
  return static_cast<int64_t>(::time(nullptr));
}

int32_t LocalOffsetSeconds() {
  time_t now = ::time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  return static_cast<int32_t>(local.tm_gmtoff);
}

void SleepRealMicros(uint64_t micros) {
  // In slices, so that a thread ended by force leaves its sleep within one slice.
  constexpr uint64_t kSlice = 50000;
  for (;;) {
    ThrowIfKilled();
    uint64_t step = micros < kSlice ? micros : kSlice;
    timespec ts{static_cast<time_t>(step / 1000000u), static_cast<long>((step % 1000000u) * 1000u)};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
    micros -= step;
    if (micros == 0) break;
  }
}

LocalTime NowLocalTime() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  tm local{};
  time_t secs = tv.tv_sec;
  localtime_r(&secs, &local);
  return LocalTime{local.tm_year + 1900,
                   local.tm_mon + 1,
                   local.tm_mday,
                   local.tm_hour,
                   local.tm_min,
                   local.tm_sec,
                   static_cast<int>(tv.tv_usec / 1000)};
}

}  // namespace platform
