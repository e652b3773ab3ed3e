#include "runtime/TrackedMutex.h"

#include <gtest/gtest.h>

#include "support/CapturedLog.h"
#include "support/ManualClock.h"

namespace {

TEST(TrackedMutex, OnlyALockOfFiveMillisecondsIsLogged) {
  ManualClock clock;
  TrackedMutex mutex(L"SyncManager::OutMutex");
  const auto hold = [&](int64_t ticks) {
    ScopedLock lock(mutex);
    clock.AdvanceTicks(ticks);
  };
  hold(49'999);
  EXPECT_TRUE(Log().Lines().empty());
  hold(50'000);
  EXPECT_EQ(Log().TryTake(L"LOCK"),
            L"LOCK: SyncManager::OutMutex: Total=5 Waiting=0 Owning=5 Release=0");
  hold(600'000'000);  // milliseconds times the frequency are beyond 32 bits
  EXPECT_EQ(Log().TryTake(L"LOCK"),
            L"LOCK: SyncManager::OutMutex: Total=60000 Waiting=0 Owning=60000 Release=0");
}

TEST(TrackedMutex, LineTellsWaitingFromOwningAndReleasing) {
  ManualClock clock;
  LockTimes times;
  times.requested = clock.Counter();
  clock.AdvanceTicks(31'000);
  times.granted = clock.Counter();
  clock.AdvanceTicks(19'999);
  times.releasing = clock.Counter();
  clock.AdvanceTicks(70'000);
  times.Report(L"x");
  EXPECT_EQ(Log().TryTake(L"LOCK"), L"LOCK: x: Total=12 Waiting=3 Owning=1 Release=7");
}

}  // namespace
