// What a thread asks of the system about itself.
#pragma once

#include <cstdint>

namespace platform {

// The calling thread's number in the system, as debuggers and process lists show it.
uint32_t ThreadNumber();

// Gives the calling thread the highest priority that it may have: time-critical on Windows,
// SCHED_RR on Linux. Where the system doesn't permit that, nothing happens. A time-critical
// thread must not start threads: they would inherit the priority.
void SetTimeCritical();

}  // namespace platform
