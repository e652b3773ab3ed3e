#include "runtime/Statistics.h"

#include <gtest/gtest.h>

#include <limits>
#include <locale>

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

  // What the series writes now, behind its name; empty if it writes nothing.
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
  Configure(StatSeries::kMeanOnly);
  Interval(1 * kTicksPerMs);
  Interval(2 * kTicksPerMs);
  EXPECT_EQ(Flush(), " N=2, E=1.5, Min=1, Max=2(03:04:05.006), Unit=1/1000");
}

TEST_F(StatisticsTest, MeanSeesTheLastBinButMaxIsExact) {
  Interval(70 * kTicksPerMs);
  clock_.SetLocal({2026, 1, 2, 23, 59, 9, 87});
  Interval(71 * kTicksPerMs);
  clock_.SetLocal({2026, 1, 3, 0, 0, 0, 0});
  Interval(71 * kTicksPerMs);  // no new maximum, so the time of the first one stays
  EXPECT_EQ(Flush(), " N=3, E=51, J=0, S=0, Min=70, Max=71(23:59:09.087), Unit=1/1000");
}

TEST_F(StatisticsTest, ImpossibleIntervalsAreCutToTheRangeOfTheValues) {
  series_.Sample(std::numeric_limits<int64_t>::min());
  series_.Finish(std::numeric_limits<int64_t>::max());
  series_.Sample(std::numeric_limits<int64_t>::max());
  series_.Finish(std::numeric_limits<int64_t>::min());
  EXPECT_EQ(Flush(),
            " N=2, E=25, J=26, S=26, Min=-2.14748e+09, Max=2.14748e+09(03:04:05.006), "
            "Unit=1/1000");
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

TEST_F(StatisticsTest, HistogramNamesTheOutermostBins) {
  series_.ShowHistogram = true;
  Interval(-3 * kTicksPerMs);
  Interval(0);
  Interval(7 * kTicksPerMs);
  Interval(99 * kTicksPerMs);
  const std::string line = Flush();
  EXPECT_EQ(line.substr(line.find(" Histogram")),
            " Histogram:  least:25 [0]:25 [7]:25 greatest:25");
}

TEST_F(StatisticsTest, DigitsAreNotGroupedInAnyLocale) {
  struct Grouping : std::numpunct<wchar_t> {
    std::string do_grouping() const override { return "\3"; }
    wchar_t do_decimal_point() const override { return L','; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  for (int i = 0; i < 1000; ++i)
    Interval(i < 500 ? kTicksPerMs : 2 * kTicksPerMs);
  const std::string line = Flush();
  std::locale::global(before);
  EXPECT_EQ(line.substr(0, 15), " N=1000, E=1.5,");
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
  clock.AdvanceMs(40'000);  // an even minute begins
  EXPECT_TRUE(gate.Due());
  EXPECT_FALSE(gate.Due());
  clock.AdvanceMs(60'000);
  EXPECT_FALSE(gate.Due());
  clock.AdvanceMs(60'000);
  EXPECT_TRUE(gate.Due());

  gate.SetPeriod(0);  // taken as 1
  clock.AdvanceMs(60'000);
  EXPECT_TRUE(gate.Due());
  for (const int64_t jump : {-7200, 86400}) {  // the wall clock is set: open at once, then as ever
    clock.JumpWall(jump);
    EXPECT_TRUE(gate.Due());
    EXPECT_FALSE(gate.Due());
    clock.AdvanceMs(60'000);
    EXPECT_TRUE(gate.Due());
  }
}

// Both guards, just below and at the limit, and where milliseconds times the frequency leave 32
// bits.
TEST(GuardsTest, OnlyFiveMillisecondsAndMoreAreLogged) {
  ManualClock clock;
  TrackedMutex mutex(std::wstring(L"SyncManager::OutMutex"));
  TrackedRecursiveMutex recursive(L"UdpSock::_SockMutex");
  const auto spend = [&](int64_t ticks) {
    {
      ScopedDuration guard(L"RtpAudioManager::RecvAudio");
      clock.AdvanceTicks(ticks);
    }
    ScopedLock lock(mutex);
    ScopedLock outer(recursive);
    ScopedLock inner(recursive);
    clock.AdvanceTicks(ticks);
  };
  const auto lines = [](const std::wstring& ms) {
    const std::wstring rest = L": Total=" + ms + L" Waiting=0 Owning=" + ms + L" Release=0";
    return std::vector<std::wstring>{L"DURATION: " + ms + L" ms : RtpAudioManager::RecvAudio",
                                     L"LOCK: UdpSock::_SockMutex" + rest,
                                     L"LOCK: UdpSock::_SockMutex" + rest,
                                     L"LOCK: SyncManager::OutMutex" + rest};
  };
  spend(49'999);
  EXPECT_TRUE(Log().Lines().empty());
  spend(50'000);
  EXPECT_EQ(Log().Lines(), lines(L"5"));
  Log().Clear();
  spend(600'420'000);
  EXPECT_EQ(Log().Lines(), lines(L"60042"));
}

TEST(GuardsTest, TheLockLineHoldsWaitingOwningAndReleasing) {
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
