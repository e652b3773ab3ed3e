// A clock that only the test moves; or one that leaps: it stands still until somebody sleeps until
// a later time, and then that time has come, so that a thread runs through minutes in an instant.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <thread>

#include "platform/clock.h"

class ManualClock : public platform::Clock {
 public:
  ManualClock() { platform::ReplaceClock(this); }
  ~ManualClock() override { platform::ReplaceClock(nullptr); }
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  // Moves the counter and the wall clock.
  void AdvanceTicks(int64_t ticks) { counter_ += ticks; }
  void AdvanceMs(int64_t ms) { counter_ += ms * (platform::kCounterFrequency / 1000); }
  void SetCounter(int64_t ticks) { counter_ = ticks; }
  void SetLocal(const platform::LocalTime& time) {
    std::lock_guard lock(localMutex_);
    local_ = time;
  }

  int64_t Counter() override { return counter_; }
  // Moves the wall clock alone.
  void JumpWall(int64_t seconds) { wallJump_ += seconds; }

  int64_t WallSeconds() override {
    return 1'700'000'000 + wallJump_ + counter_ / platform::kCounterFrequency;
  }
  platform::LocalTime Local() override {
    std::lock_guard lock(localMutex_);
    return local_;
  }
  void Sleep(uint32_t milliseconds) override { AdvanceMs(milliseconds); }
  // Unless it leaps there, the clock isn't moved: a thread that sleeps so looks at what the test
  // has made of it.
  void SleepUntil(int64_t counter) override {
    ++wakings;
    if (counter > leapEnd) return std::this_thread::sleep_for(std::chrono::microseconds(100));
    if (counter > counter_) counter_ = counter;
  }

  std::atomic<int64_t> leapEnd{INT64_MIN};  // it leaps no further
  std::atomic<int64_t> wakings{0};

 private:
  std::atomic<int64_t> counter_{1'000'000'000};
  std::atomic<int64_t> wallJump_{0};
  std::mutex localMutex_;
  platform::LocalTime local_{2026, 1, 2, 3, 4, 5, 6};
};
