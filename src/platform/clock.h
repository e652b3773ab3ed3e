// The clocks of the machine, as one replaceable object so that logic can be tested with time
// moved by hand. Any thread.
#pragma once

#include <cstdint>

namespace platform {

// Ticks of Clock::Counter in a second, on every system: one tick is 100 ns.
constexpr int64_t kCounterFrequency = 10'000'000;

struct LocalTime {
  int year = 1970;
  int month = 1;  // 1 to 12
  int day = 1;    // 1 to 31
  int hour = 0;
  int minute = 0;
  int second = 0;  // 0 to 60
  int millisecond = 0;

  bool operator==(const LocalTime&) const = default;
};

class Clock {
 public:
  virtual ~Clock() = default;

  // Monotonic, kCounterFrequency ticks a second, unaffected by changes of the system time.
  virtual int64_t Counter() = 0;

  // System time in seconds since 1970-01-01 00:00:00 UTC. May jump.
  virtual int64_t WallSeconds() = 0;

  // Local time to the millisecond. Cheap enough for a time-critical thread. May jump.
  virtual LocalTime Local() = 0;

  virtual void Sleep(uint32_t milliseconds) = 0;

  // Sleeps until Counter has reached `counter`; not at all if it has.
  virtual void SleepUntil(int64_t counter) = 0;
};

// The clock in use: the system's own unless a test has replaced it.
Clock& GetClock();

// Puts `clock` in the system clock's place; null brings that back. The caller keeps ownership and
// replaces it again before `clock` dies.
void ReplaceClock(Clock* clock);

// The system's own clock. Implemented by the system's folder.
Clock& SystemClock();

}  // namespace platform
