// How often the calling thread has taken memory by operator new, which this test program replaces.
#pragma once

#include <cstdint>

uint64_t AllocationCount();
