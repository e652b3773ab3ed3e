#include "audio/SyncManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "platform/text.h"
#include "support/CapturedLog.h"
#include "support/ManualClock.h"

using Network::ISyncSource;
using Network::ISyncTarget;
using Network::SyncManager;

namespace {

constexpr int64_t kStepTicks = 40'000;  // 192 samples at 48000 Hz in counter ticks: 4 ms

// Keeps positions and times of the ticks, and may take its time over them.
class TickTarget final : public ISyncTarget {
 public:
  void OnSync(ISyncSource*, int64_t pos, uint32_t freq) override {
    std::lock_guard lock(mutex_);
    positions_.push_back(pos);
    times_.push_back(platform::GetClock().Counter());
    lastFreq = freq;
    if (takes && (slowTick == 0 || slowTick == times_.size())) takes();
    ticked_.notify_all();
  }

  size_t Count() const {
    std::lock_guard lock(mutex_);
    return positions_.size();
  }
  std::vector<int64_t> Positions() const {
    std::lock_guard lock(mutex_);
    return positions_;
  }

  // Waits, a minute at most, until there have been `count` ticks.
  bool WaitCount(size_t count) const {
    std::unique_lock lock(mutex_);
    return ticked_.wait_for(lock, std::chrono::minutes(1),
                            [&] { return positions_.size() >= count; });
  }

  // Starts the clock, stops it after `count` ticks and gives their times.
  std::vector<int64_t> Hear(SyncManager& sync, size_t count) {
    sync.AddTarget(this);
    sync.Start();
    EXPECT_TRUE(WaitCount(count));
    sync.Stop();
    times_.resize(count);
    return times_;
  }

  std::function<void()> takes;
  size_t slowTick = 0;  // the only one that takes long, from 1; 0: all
  std::atomic<uint32_t> lastFreq{0};

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable ticked_;
  std::vector<int64_t> positions_;
  std::vector<int64_t> times_;
};

// At no beat of a machine that has been up for years.
constexpr int64_t kYears = int64_t{3} * 365 * 86400 * platform::kCounterFrequency + 1234;

// A manager that isn't started: the test calls the passes itself.
class SyncManagerTest : public testing::Test {
 protected:
  SyncManagerTest() : sync_(L"unit.SyncManager") {
    sync_.AddTarget(&target_);
    sync_.SetSyncFreq(48000, 192);
  }

  // All ticks that are due now, given back to back. Their number.
  int Passes() {
    int ticks = 0;
    while (sync_.Pass())
      ++ticks;
    return ticks;
  }

  // Moves the clock in millisecond steps and looks each time, as the thread does. The ticks.
  int Run(int64_t ms) {
    int ticks = 0;
    for (int64_t i = 0; i < ms; ++i) {
      clock_.AdvanceMs(1);
      ticks += Passes();
    }
    return ticks;
  }

  // A source at `freq` reports for `ms` milliseconds, once in 50 ms, `speed` times as fast as the
  // local clock; the ticks go on meanwhile.
  int RunWithSource(int64_t ms, uint32_t freq, double speed) {
    int ticks = 0;
    for (int64_t at = 0; at < ms; at += 50) {
      Report(freq);
      ticks += Run(50);
      sourceSeconds_ += 0.05 * speed;
    }
    return ticks;
  }

  void Report(uint32_t freq) {
    sync_.OnSync(nullptr, static_cast<int64_t>(sourceSeconds_ * freq + 0.5), freq);
  }

  int LogCount(const std::wstring& change) {
    return static_cast<int>(Log().Count(L"unit.SyncManager: " + change));
  }

  ManualClock clock_;
  TickTarget target_;
  SyncManager sync_;
  double sourceSeconds_ = 100;
};

TEST_F(SyncManagerTest, HeldUpThreadCatchesUpBackToBack) {
  Passes();
  clock_.AdvanceMs(79);
  EXPECT_EQ(Passes(), 19);
  clock_.AdvanceMs(1);
  EXPECT_EQ(Passes(), 1) << "the phase has moved";

  // The first missed tick is exactly 20 steps late.
  clock_.AdvanceMs(84);
  EXPECT_EQ(Passes(), 21);
  EXPECT_EQ(target_.Positions().back(), 192 * 41);
  EXPECT_EQ(LogCount(L"Sync FAIL"), 0);
}

TEST_F(SyncManagerTest, ThreadHeldUpTooLongStartsAnewFromThePresent) {
  Passes();
  clock_.AdvanceMs(90);
  // One tick gives up the old phase, the next one begins the new.
  EXPECT_EQ(Passes(), 2);
  EXPECT_NE(Log().TryTake(L"unit.SyncManager: Sync FAIL. Internal sync timeout."), L"");
  clock_.AdvanceTicks(kStepTicks - 1);
  EXPECT_EQ(Passes(), 0);
  clock_.AdvanceTicks(1);
  EXPECT_EQ(Passes(), 1);
  EXPECT_EQ(target_.Positions(), (std::vector<int64_t>{0, 192, 384, 576}));
}

TEST_F(SyncManagerTest, OnlyANewRateRestartsThePhase) {
  Passes();
  clock_.AdvanceMs(3);
  sync_.SetSyncFreq(48000, 192);
  EXPECT_EQ(Passes(), 0);
  clock_.AdvanceMs(1);
  EXPECT_EQ(Passes(), 1);

  clock_.AdvanceMs(1);
  sync_.SetSyncFreq(96000, 192);
  EXPECT_EQ(sync_.GetSyncFreq(), 96000u);
  EXPECT_EQ(Passes(), 1);
  EXPECT_EQ(target_.lastFreq, 96000u);
  clock_.AdvanceMs(2);
  EXPECT_EQ(Passes(), 1);
  EXPECT_EQ(target_.Positions().back(), 576) << "the position goes on";

  // A speed that changes while it runs moves the whole clock.
  sync_.SetSpeed(2.0);
  EXPECT_EQ(Passes(), 2);
  EXPECT_NE(Log().TryTake(L"Internal sync timeout"), L"");
}

TEST_F(SyncManagerTest, SpeedWithoutMeaningStopsTheTicksAndNothingElse) {
  const double infinity = std::numeric_limits<double>::infinity();
  for (const double speed :
       {infinity, -infinity, std::numeric_limits<double>::quiet_NaN(), 1e300, -1e300, 0.0, -1.0}) {
    SyncManager sync(L"odd");
    sync.AddTarget(&target_);
    sync.SetSyncFreq(0x7FFFFFFF, 192);
    sync.SetSpeed(speed);
    EXPECT_TRUE(sync.Pass()) << speed;
    for (int i = 0; i < 100; ++i) {
      clock_.AdvanceMs(1);
      sync.OnSync(nullptr, std::numeric_limits<int64_t>::max() - 100 + i, 1);
      EXPECT_FALSE(sync.Pass()) << speed;
    }
  }
}

// A tick comes at the next quarter of a millisecond, whatever the rate. A thread that slept longer,
// or from one whole millisecond to the next alone, would be later than that.
TEST(SyncBeat, TicksComeAQuarterMillisecondLateAtMost) {
  const struct {
    uint32_t freq;
    double speed;
  } rates[] = {{48000, 1}, {44100, 1}, {44100, 0.37}, {48000, 2.5}, {8000, 1}};
  for (const auto& [freq, speed] : rates) {
    ManualClock clock;
    clock.SetCounter(kYears);
    clock.leapEnd = INT64_MAX;
    TickTarget listener;
    SyncManager sync(L"unit");
    sync.SetSyncFreq(freq, 192);
    sync.SetSpeed(speed);
    const std::vector<int64_t> times = listener.Hear(sync, 2000);
    const double period = 192e7 / (freq * speed);
    for (size_t i = 0; i < times.size(); ++i) {
      const double late =
          static_cast<double>(times[i] - times[0]) - period * static_cast<double>(i);
      ASSERT_GE(late, -10'000'000 / (freq * speed)) << freq << " Hz, tick " << i;  // a sample
      ASSERT_LE(late, 2504) << freq << " Hz, tick " << i;
    }
    EXPECT_LE(clock.wakings, (clock.Counter() - kYears) / 2500 + 1);
    Log().Clear();
  }
}

// The series are what a user has to see what his machine does to the ticks: a look each
// millisecond, a tick in four, and a line a minute from each.
TEST(SyncBeat, SeriesTellOfLooksAndTicks) {
  ManualClock clock;
  clock.SetCounter(kYears);
  TickTarget listener;
  listener.takes = [&] { clock.AdvanceMs(2); };
  SyncManager sync(L"unit");
  sync.SetSyncFreq(48000, 192);
  clock.leapEnd = kYears + 90 * platform::kCounterFrequency;  // over the end of one minute
  listener.Hear(sync, 90 * 250);
  // The last are those of Stop, in this order.
  const wchar_t* const last[][2] = {{L"unit.OutSyncFreq: N=", L", E=4, J=0, S=0, Min=4, Max=4("},
                                    {L"unit.OutSyncDur: N=", L", E=2, Min=2, Max=2("},
                                    {L"unit.OutWaitFreq: N=", L", J="},
                                    {L"unit.OutWaitDur: N=", L", Max=1("}};
  const std::vector<std::wstring> lines = Log().Lines();
  ASSERT_EQ(lines.size(), 8u);
  for (size_t i = 0; i < 4; ++i)
    for (const wchar_t* part : last[i])
      EXPECT_NE(lines[lines.size() - 4 + i].find(part), std::wstring::npos) << i;
  EXPECT_EQ(lines.back().find(L", J="), std::wstring::npos);
}

// What a thread was held up for it makes up at once, with no sleep between the ticks; but a clock
// that is always behind leaves the others of its thread their turn.
TEST(SyncBeat, LateTicksComeBackToBackAndHoldNobodyUp) {
  ManualClock clock;
  clock.leapEnd = INT64_MAX;
  TickTarget held;
  held.takes = [&] { clock.AdvanceMs(79); };
  held.slowTick = 3;
  {
    SyncManager sync(L"unit");
    sync.SetSyncFreq(48000, 192);
    const std::vector<int64_t> times = held.Hear(sync, 30);
    for (size_t i = 3; i < 22; ++i)
      EXPECT_EQ(times[i], times[2] + 790'000) << "missed tick " << i;
    EXPECT_GT(times[22], times[21]);
  }
  TickTarget slow, other;
  slow.takes = [&] { clock.AdvanceMs(6); };  // of 4 that it has
  SyncManager behind(L"behind"), sync(L"unit");
  behind.SetSyncFreq(48000, 192);
  sync.SetSyncFreq(48000, 192);
  sync.AddTarget(&other);
  sync.Start();
  slow.Hear(behind, 100);
  sync.Stop();
  EXPECT_GE(other.Count(), 100u);
  Log().Allow(L"Internal sync timeout");
}

TEST(SyncBeat, StopWaitsForItsOwnTickAndForNoOther) {
  class Gate final : public ISyncTarget {
   public:
    void OnSync(ISyncSource*, int64_t, uint32_t) override {
      inside = true;
      while (!open)
        std::this_thread::yield();
      for (int i = 0; i < 2000; ++i)
        std::this_thread::yield();  // time for a Stop that doesn't wait to return
      inside = false;
    }
    std::atomic<bool> inside{false}, open{false};
  } gate;
  SyncManager stuck(L"stuck"), other(L"other"), third(L"third");
  stuck.AddTarget(&gate);
  for (SyncManager* sync : {&stuck, &other, &third}) {
    sync->SetSyncFreq(48000, 192);
    sync->Start();
  }
  while (!gate.inside)
    std::this_thread::yield();
  third.Stop();  // the gate is closed still
  std::thread opener([&] { gate.open = true; });
  stuck.Stop();
  EXPECT_FALSE(gate.inside);
  opener.join();
  other.Stop();
  Log().Clear();
}

TEST_F(SyncManagerTest, LostPositionEndsTheLockWithoutAJump) {
  Passes();
  const int64_t before = RunWithSource(1000, 48000, 1.5);
  EXPECT_EQ(LogCount(L"Sync LOCK"), 1);
  EXPECT_GT(before, 300) << "the lock was never followed";

  for (const auto& [pos, freq] : {std::pair<int64_t, uint32_t>{-1, 48000}, {4800, 0}}) {
    const int fails = LogCount(L"Sync FAIL");
    sync_.OnSync(nullptr, pos, freq);
    EXPECT_EQ(LogCount(L"Sync FAIL"), fails) << "reported only by the next pass";
    EXPECT_LE(Passes(), 1);
    EXPECT_EQ(LogCount(L"Sync FAIL"), fails + 1);
    EXPECT_NEAR(Run(1000), 250, 1);
    RunWithSource(500, 48000, 1.5);
  }
  EXPECT_EQ(LogCount(L"Sync LOCK"), 3);
  EXPECT_EQ(LogCount(L"Sync FAIL. Internal"), 0);
}

TEST_F(SyncManagerTest, FiveReportsLockAndAfterSilenceFiveMore) {
  Passes();
  for (int locks = 0; locks < 2; ++locks) {
    RunWithSource(200, 48000, 1.01);
    EXPECT_EQ(LogCount(L"Sync LOCK"), locks) << "four reports are too few";
    RunWithSource(50, 48000, 1.01);
    EXPECT_EQ(LogCount(L"Sync LOCK"), locks + 1);
    // 20 s of a source that is one per cent fast: 1.01 * 250 ticks a second, without a jump.
    EXPECT_NEAR(RunWithSource(20'000, 48000, 1.01), 20 * 252.5, 2);

    // 50 ms have passed since the latest report: exactly two seconds are still good.
    for (const int64_t silence : {1950, 2000}) {
      EXPECT_EQ(LogCount(L"Sync FAIL"), locks);
      Run(silence);
      sourceSeconds_ += static_cast<double>(silence) / 1000;
      Report(48000);
      Run(1);
    }
    EXPECT_EQ(LogCount(L"Sync FAIL"), locks + 1) << "and that report was dropped";
  }
}

// Reports that were measured against another rate, or before a gap, say nothing of the present.
TEST_F(SyncManagerTest, ANewRateAndATimeoutForgetTheReports) {
  Passes();
  const std::function<void()> breaks[] = {[&] { sync_.SetSyncFreq(96000, 192); },
                                          [&] {
                                            clock_.AdvanceMs(200);
                                            Passes();
                                          }};
  for (const auto& happens : breaks) {
    RunWithSource(500, 48000, 1.01);
    const int locks = LogCount(L"Sync LOCK");
    happens();
    Run(5);
    RunWithSource(200, 48000, 1.01);
    EXPECT_EQ(LogCount(L"Sync LOCK"), locks);
    RunWithSource(500, 48000, 1.01);
    EXPECT_EQ(LogCount(L"Sync LOCK"), locks + 1);
  }
}

TEST_F(SyncManagerTest, TargetThatThrowsCostsNobodyATick) {
  TickTarget bad;
  bad.takes = [] { throw std::bad_alloc(); };
  sync_.AddTarget(&bad);
  Passes();
  clock_.AdvanceMs(4);
  Passes();
  EXPECT_EQ(target_.Positions(), (std::vector<int64_t>{0, 192}));
  EXPECT_EQ(LogCount(L"Sync target failed: "), 2);
}

TEST_F(SyncManagerTest, ThreadTicksWhileStartedAndThePositionGoesOn) {
  EXPECT_TRUE(sync_.Stop().IsOk());
  EXPECT_TRUE(Log().Lines().empty());
  for (size_t ticks = 1; ticks < 4; ++ticks) {
    EXPECT_TRUE(sync_.Start().IsOk());
    EXPECT_TRUE(sync_.IsStarted());
    EXPECT_TRUE(target_.WaitCount(ticks));
    EXPECT_TRUE(sync_.Stop().IsOk());
    EXPECT_FALSE(sync_.IsStarted());
    clock_.AdvanceMs(1000);
  }
  EXPECT_EQ(target_.Positions(), (std::vector<int64_t>{0, 192, 384}));
}

// Start and Stop from three threads, with a controller that changes the rate, a source that reports
// and other clocks that come and go on the same beat: nothing is torn, and no pass meets a clock
// that has stopped or is gone.
TEST_F(SyncManagerTest, AllSidesAtOnce) {
  std::atomic<int> stoppers{2};
  const auto stopRepeatedly = [this, &stoppers] {
    for (int i = 0; i < 100; ++i) {
      target_.WaitCount(target_.Count() + 1);
      sync_.Stop();
    }
    --stoppers;
  };
  std::thread others[] = {
      std::thread(stopRepeatedly),
      std::thread(stopRepeatedly),
      std::thread([this, &stoppers] {
        for (int64_t pos = 0; stoppers != 0; pos += 1000) {
          sync_.OnSync(nullptr, pos, 48000);
          sync_.SetSyncFreq(sync_.GetSyncFreq() == 48000 ? 44100 : 48000, 192);
          clock_.AdvanceMs(1);
        }
      }),
      std::thread([&stoppers] {
        while (stoppers != 0) {
          TickTarget target;
          SyncManager sync(L"other");
          sync.SetSyncFreq(48000, 192);
          sync.AddTarget(&target);
          sync.Start();
          target.WaitCount(1);
        }
      }),
  };
  while (stoppers != 0)
    sync_.Start();
  for (std::thread& other : others)
    other.join();
  sync_.Stop();
  const std::vector<int64_t> positions = target_.Positions();
  for (size_t i = 0; i < positions.size(); ++i)
    ASSERT_EQ(positions[i], static_cast<int64_t>(i) * 192);
}

}  // namespace
