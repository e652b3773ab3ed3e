#include "runtime/Statistics.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/text.h"
#include "runtime/TrackedMutex.h"
#include "support/CapturedLog.h"
#include "support/ManualClock.h"

namespace {

constexpr int64_t kTicksPerMs = platform::kCounterFrequency / 1000;

class StatisticsTest : public testing::Test {
 protected:
  StatisticsTest() : series_(L"unit.Series") {
    const int64_t second = clock_.WallSeconds() % 60;
    clock_.AdvanceMs((100 - second) % 60 * 1000);
    Configure(StatSeries::kMeanAndSpread);
  }

  void Configure(uint32_t mode) {
    series_.Configure(mode, 1, platform::kCounterFrequency, 1000, 0, 50);
  }

  // One interval of that many ticks, which starts now.
  void Interval(int64_t ticks) {
    series_.Sample(clock_.Counter());
    clock_.AdvanceTicks(ticks);
    series_.Finish(clock_.Counter());
  }

  // What the series writes now, after its name; empty if it writes nothing.
  std::string Flush() {
    series_.Flush();
    const std::wstring line = Log().TryTake(L"STATISTICS: unit.Series:");
    return line.empty() ? "" : WideToUtf8(line.substr(sizeof("STATISTICS: unit.Series:") - 1));
  }

  ManualClock clock_;  // at second 40 of a minute
  StatSeries series_;
};

TEST_F(StatisticsTest, LineHoldsMeanAndSpreadOfTheIntervals) {
  for (const int64_t ticks : {15'000, 35'000, 44'999, 64'999})  // rounded to 2, 4, 4, 6 ms
    Interval(ticks);
  EXPECT_EQ(Flush(), " N=4, E=4, J=1, S=1.41421, Min=2, Max=6(03:04:05.006), Unit=1/1000");
  // The mean sees the last bin, the maximum is exact, with the time of its first.
  Configure(StatSeries::kMeanOnly);
  Interval(70 * kTicksPerMs);
  clock_.SetLocal({2026, 1, 2, 23, 59, 9, 87});
  Interval(71 * kTicksPerMs);
  clock_.SetLocal({2026, 1, 3, 0, 0, 0, 0});
  Interval(71 * kTicksPerMs);
  EXPECT_EQ(Flush(), " N=3, E=51, Min=70, Max=71(23:59:09.087), Unit=1/1000");
}

TEST_F(StatisticsTest, SpacingCountsOneLessThanTheEvents) {
  for (int i = 0; i < 5; ++i) {
    series_.Sample(clock_.Counter());
    clock_.AdvanceMs(4);
  }
  EXPECT_EQ(Flush(), " N=4, E=4, J=0, S=0, Min=4, Max=4(03:04:05.006), Unit=1/1000");

  EXPECT_EQ(Flush(), "") << "nothing new";
  // The flush forgot the open interval: the next event only opens one.
  clock_.AdvanceMs(40);
  series_.Sample(clock_.Counter());
  EXPECT_EQ(Flush(), "");
}

TEST_F(StatisticsTest, LineComesByItselfOnceANewMinuteHasBegun) {
  Interval(kTicksPerMs);
  clock_.AdvanceMs(20'000);
  Interval(kTicksPerMs);
  EXPECT_NE(Log().TryTake(L": N=2, E=1,"), L"");
  EXPECT_EQ(Flush(), "");
}

TEST(StatIntervalTest, OpensOncePerPeriod) {
  ManualClock clock;
  clock.SetCounter(0);
  ASSERT_EQ(clock.WallSeconds() % 120, 80);
  StatInterval gate;
  gate.SetPeriod(2);
  EXPECT_FALSE(gate.Due());
  const auto dueAfter = [&](int64_t seconds) {
    clock.AdvanceMs(seconds * 1000);
    const bool due = gate.Due();
    EXPECT_FALSE(gate.Due());
    return due;
  };
  EXPECT_TRUE(dueAfter(40)) << "an even minute begins";
  EXPECT_FALSE(dueAfter(60));
  EXPECT_TRUE(dueAfter(60));
  gate.SetPeriod(0);  // taken as 1
  EXPECT_TRUE(dueAfter(60));
  for (const int64_t jump : {-7200, 86400}) {  // the wall clock is set: open at once, then as ever
    clock.JumpWall(jump);
    EXPECT_TRUE(dueAfter(0));
    EXPECT_TRUE(dueAfter(60));
  }
}

// Both guards, just below and at the limit, and where milliseconds times the frequency leave 32
// bits.
TEST(GuardsTest, OnlyFiveMillisecondsAndMoreAreLogged) {
  ManualClock clock;
  TrackedMutex mutex(std::wstring(L"SyncManager::OutMutex"));
  TrackedRecursiveMutex recursive(L"UdpSock::_SockMutex");
  for (const int64_t ticks : {49'999, 50'000, 600'420'000}) {
    ScopedDuration guard(L"RtpAudioManager::RecvAudio");
    ScopedLock lock(mutex);
    ScopedLock outer(recursive);
    ScopedLock inner(recursive);
    clock.AdvanceTicks(ticks);
  }
  std::vector<std::wstring> expected;
  for (const std::wstring ms : {L"5", L"60042"}) {
    const std::wstring rest = L": Total=" + ms + L" Waiting=0 Owning=" + ms + L" Release=0";
    expected.push_back(L"LOCK: UdpSock::_SockMutex" + rest);
    expected.push_back(L"LOCK: UdpSock::_SockMutex" + rest);
    expected.push_back(L"LOCK: SyncManager::OutMutex" + rest);
    expected.push_back(L"DURATION: " + ms + L" ms : RtpAudioManager::RecvAudio");
  }
  EXPECT_EQ(Log().Lines(), expected);

  LockTimes times;
  times.requested = clock.Counter();
  times.granted = times.requested + 31'000;
  times.releasing = times.granted + 19'999;
  clock.AdvanceTicks(31'000 + 19'999 + 70'000);
  times.Report(L"x");
  EXPECT_EQ(Log().TryTake(L"LOCK: x"), L"LOCK: x: Total=12 Waiting=3 Owning=1 Release=7");
}

}  // namespace
