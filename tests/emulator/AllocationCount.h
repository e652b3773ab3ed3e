// How often the calling thread has taken memory by operator new, which this test program replaces;
// and memory that runs out.
#pragma once

#include <cstdint>

uint64_t AllocationCount();

// From now on the allocation number `index`, counted from 0 over all threads but the caller's,
// fails once. Nothing else ever fails.
void FailAllocation(int64_t index);

// An allocation that is to fail is still to come.
bool AllocationFailureIsDue();
