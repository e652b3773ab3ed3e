// An operating-system event: wakes one thread that sleeps with a time limit. Several signals before
// a wake-up count as one. Set and Reset may be called from any thread, Wait from one at a time.
#pragma once

#include <cstdint>
#include <memory>

namespace platform {

class Event {
 public:
  enum class Mode {
    AutoReset,   // a successful Wait clears the signal
    ManualReset  // only Reset clears it
  };

  explicit Event(Mode mode);  // not signalled
  ~Event();
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void Set();
  void Reset();

  // Waits on the monotonic clock until the event is signalled or the time is over; 0 only tests.
  // True when it was signalled.
  bool Wait(uint32_t milliseconds);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace platform
