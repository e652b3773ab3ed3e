#include "runtime/TrackedMutex.h"

#include "runtime/Clocks.h"
#include "runtime/Environment.h"
#include "runtime/Format.h"

int64_t LockTimes::Now() {
  return ClockRead(nullptr);
}

void LockTimes::Report(const std::wstring& name) const {
  uint32_t frequency = 0;
  const int64_t released = ClockRead(&frequency);
  // The lowest 32 bits of a difference: right for holds up to 429 s, at 10,000,000 ticks a second.
  // Times 1000 it leaves 32 bits after 429 ms, so that product is taken in 64.
  const auto ticks = [](int64_t from, int64_t to) {
    return uint64_t{static_cast<uint32_t>(to - from)};
  };
  if (ticks(requested, released) < uint64_t{kLockLimitMs} * frequency / 1000) return;
  try {
    const auto log = GetDebugLog();
    if (!log) return;
    const auto ms = [&](int64_t from, int64_t to) { return ticks(from, to) * 1000 / frequency; };
    log->Write(Format(L"LOCK: %s: Total=%d Waiting=%d Owning=%d Release=%d", name,
                      ms(requested, released), ms(requested, granted), ms(granted, releasing),
                      ms(releasing, released)));
  } catch (...) {
    // Out of memory: the line is lost, the caller's work isn't.
  }
}
