// The clock of a unit on the real counter. Bounds are generous, as the machine may be busy.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "audio/ISyncManager.h"
#include "platform/clock.h"
#include "platform/startup.h"
#include "support/CapturedLog.h"

namespace {

constexpr int64_t kTicksPerMs = platform::kCounterFrequency / 1000;

// Holds each tick against the time at which it should come.
class Pacer final : public Network::ISyncTarget {
 public:
  void OnSync(Network::ISyncSource*, int64_t pos, uint32_t freq) override {
    const int64_t now = platform::GetClock().Counter();
    if (pos == 0) first_ = now;
    const int64_t late = now - first_ - pos * platform::kCounterFrequency / freq;
    earliest = std::min<int64_t>(earliest, late);
    latest = std::max<int64_t>(latest, late);
    ++count;
  }

  // Read once the manager has been stopped.
  int64_t earliest = 0;
  int64_t latest = 0;
  int64_t count = 0;

 private:
  int64_t first_ = 0;
};

class SyncPaceTest : public testing::TestWithParam<uint32_t> {};

TEST_P(SyncPaceTest, TicksKeepTheRateOfTheCounter) {
  platform::BeginTimerPeriod();
  // A machine that holds the thread up for longer than 80 ms makes it start anew, which is no
  // matter of pace: such a run is repeated.
  for (int attempt = 0; attempt < 5; ++attempt) {
    Log().Clear();
    Pacer pacer;
    std::unique_ptr<Network::ISyncManager> sync(Network::ISyncManager::Create(L"pace"));
    sync->AddTarget(&pacer);
    sync->SetSyncFreq(GetParam(), 192);

    const int64_t start = platform::GetClock().Counter();
    sync->Start();
    platform::GetClock().Sleep(1500);
    sync->Stop();
    const int64_t end = platform::GetClock().Counter();
    if (Log().Count(L"Internal sync timeout") != 0) continue;

    EXPECT_GT(pacer.earliest, -85 * kTicksPerMs);
    EXPECT_LT(pacer.latest, 85 * kTicksPerMs);
    const double expected = static_cast<double>(end - start) * GetParam() /
                            (192.0 * static_cast<double>(platform::kCounterFrequency));
    EXPECT_NEAR(static_cast<double>(pacer.count), expected, 40);
    platform::EndTimerPeriod();
    return;
  }
  platform::EndTimerPeriod();
  GTEST_SKIP() << "the machine is too busy to measure the pace";
}

INSTANTIATE_TEST_SUITE_P(Rates, SyncPaceTest, testing::Values(44100u, 48000u));

}  // namespace
