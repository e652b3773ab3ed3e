#include "platform/clock.h"

#include <atomic>

namespace platform {

namespace {
std::atomic<Clock*> replacement{nullptr};
}

Clock& GetClock() {
  Clock* clock = replacement.load(std::memory_order_acquire);
  return clock ? *clock : SystemClock();
}

void ReplaceClock(Clock* clock) {
  replacement.store(clock, std::memory_order_release);
}

}  // namespace platform
