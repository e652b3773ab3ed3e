// The monotonic counter as the system's arithmetic uses it. Any thread.
#pragma once

#include <cstdint>

// Ticks of the counter in a second.
uint64_t ClockFrequency();

// The counter; `frequency`, if given, receives its ticks per second.
int64_t ClockRead(uint32_t* frequency);

// The counter in units of 100 ns.
int64_t ClockTicks100ns();

// a * b / c, truncated toward zero, with the product taken in 128 bits: positions times a counter
// frequency leave 64 bits after hours. A result beyond 64 bits is cut to the nearest limit, and a
// divisor of 0 gives 0.
int64_t MulDiv64(int64_t a, int64_t b, int64_t c);

// a + b and a - b; a result beyond 64 bits is cut to the nearest limit.
int64_t SaturatingAdd(int64_t a, int64_t b);
int64_t SaturatingSub(int64_t a, int64_t b);
