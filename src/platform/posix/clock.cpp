#include "platform/clock.h"

#include <time.h>

#include <cerrno>

namespace platform {

namespace {

timespec Now(clockid_t id) {
  timespec now{};
  clock_gettime(id, &now);
  return now;
}

class PosixClock final : public Clock {
 public:
  PosixClock() { tzset(); }

  int64_t Counter() override {
    const timespec now = Now(CLOCK_MONOTONIC);
    return int64_t{now.tv_sec} * kCounterFrequency + now.tv_nsec / 100;
  }

  int64_t WallSeconds() override { return Now(CLOCK_REALTIME).tv_sec; }

  LocalTime Local() override {
    // localtime_r takes a lock of the C library and may read the time zone file; a time-critical
    // thread does that once a second at most.
    thread_local time_t cachedSecond = -1;
    thread_local LocalTime cached;
    const timespec now = Now(CLOCK_REALTIME);
    if (now.tv_sec != cachedSecond) {
      tm parts{};
      localtime_r(&now.tv_sec, &parts);
      cached = {parts.tm_year + 1900,
                parts.tm_mon + 1,
                parts.tm_mday,
                parts.tm_hour,
                parts.tm_min,
                parts.tm_sec,
                0};
      cachedSecond = now.tv_sec;
    }
    cached.millisecond = static_cast<int>(now.tv_nsec / 1'000'000);
    return cached;
  }

  void Sleep(uint32_t milliseconds) override {
    timespec rest{static_cast<time_t>(milliseconds / 1000),
                  static_cast<long>(milliseconds % 1000) * 1'000'000};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
    }
  }

  // On the clock of Counter itself, so that no time is lost between a reading and the sleep.
  void SleepUntil(int64_t counter) override {
    const timespec end{static_cast<time_t>(counter / kCounterFrequency),
                       static_cast<long>(counter % kCounterFrequency) * 100};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
  }
};

}  // namespace

Clock& SystemClock() {
  static PosixClock clock;
  return clock;
}

}  // namespace platform
