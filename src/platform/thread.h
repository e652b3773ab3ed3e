// What a thread asks of the system about itself.
#pragma once

#include <cstdint>

namespace platform {

// The calling thread's number in the system, as debuggers and process lists show it.
uint32_t ThreadNumber();

// Gives the calling thread the highest priority that it may have: time-critical on Windows,
// SCHED_RR on Linux. Where the system doesn't permit that, the thread's sleeps at least end as
// exactly as it permits. A time-critical thread must not start threads: they would inherit the
// priority.
void SetTimeCritical();

// Whether the system permits it. Tried on the calling thread, which is afterwards as it was.
bool CanBeTimeCritical();

}  // namespace platform
