#include "platform/Clock.h"

#include "platform/win32/Win32Util.h"

namespace platform {

uint64_t MonotonicMicros() {
  static LARGE_INTEGER freq = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return f;
  }();
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  return static_cast<uint64_t>(now.QuadPart / freq.QuadPart * 1000000 +
                               (now.QuadPart % freq.QuadPart) * 1000000 / freq.QuadPart);
}

int64_t UtcSeconds() {
  FILETIME ft;
  GetSystemTimeAsFileTime(&ft);
  uint64_t t = (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  return static_cast<int64_t>(t / 10000000ull) - 11644473600ll;
}

int32_t LocalOffsetSeconds() {
  FILETIME utc, local;
  GetSystemTimeAsFileTime(&utc);
  if (!FileTimeToLocalFileTime(&utc, &local)) return 0;
  int64_t u = static_cast<int64_t>((static_cast<uint64_t>(utc.dwHighDateTime) << 32) | utc.dwLowDateTime);
  int64_t l = static_cast<int64_t>((static_cast<uint64_t>(local.dwHighDateTime) << 32) | local.dwLowDateTime);
  return static_cast<int32_t>((l - u) / 10000000);
}

void SleepRealMicros(uint64_t micros) {
  uint64_t ms = (micros + 999) / 1000;
  Sleep(ms > 0xFFFFFFFEull ? 0xFFFFFFFEu : static_cast<DWORD>(ms));
}

LocalTime NowLocalTime() {
  SYSTEMTIME st;
  GetLocalTime(&st);
  return LocalTime{st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds};
}

}  // namespace platform
