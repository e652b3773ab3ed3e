// One unit with its parts played by hand: what no far end can see of it.
#include "emulator/AudioCardEmu.h"

#include <gtest/gtest.h>

#include "emulator/AllocationCount.h"
#include "emulator/Doubles.h"
#include "emulator/TestSignal.h"
#include "support/CapturedLog.h"

namespace Network {
namespace {

using Story = std::vector<std::string>;

class AudioCardEmuTest : public testing::Test {
 protected:
  void Make(const UnitSettings& unit) {
    settings_.AddrStr = L"127.0.0.5";
    unit_ = std::make_unique<AudioCardEmu>(nullptr, bench_.UnitParts());
    ASSERT_TRUE(unit_->Init(settings_, unit).IsOk());
  }

  void SetState(uint32_t freq) {
    auto request = std::make_shared<JsonMsgSetState>();
    request->device_freq = freq;
    bench_.connect->Deliver(request, Addr(L"127.0.0.9:7000"));
  }

  Bench bench_;
  EmuSettings settings_;
  std::unique_ptr<AudioCardEmu> unit_;
};

TEST_F(AudioCardEmuTest, LivesInOrder) {
  UnitSettings unit;
  unit.Speed = 1.5;
  Make(unit);
  EXPECT_EQ(bench_.TakeStory(),
            (Story{"emulator1.SyncManager AddTarget", "emulator1.SyncManager SetSyncFreq 48000 192",
                   "emulator1.SyncManager SetSpeed", "emulator1.RtpManager Init",
                   "emulator1.JsonUdpConnect Init"}));
  EXPECT_EQ(bench_.sync->GetSpeed(), 1.5);

  ASSERT_TRUE(unit_->Start().IsOk());
  EXPECT_EQ(bench_.TakeStory(), (Story{"emulator1.RtpManager Start", "emulator1.SyncManager Start",
                                       "emulator1.JsonUdpConnect Start"}));
  ASSERT_TRUE(unit_->Stop().IsOk());
  EXPECT_EQ(bench_.TakeStory(), (Story{"emulator1.SyncManager Stop", "emulator1.RtpManager Stop"}));
  unit_.reset();
  EXPECT_EQ(bench_.TakeStory(), (Story{"emulator1.JsonUdpConnect Stop",  // before its users go
                                       "emulator1.SyncManager gone", "emulator1.RtpManager gone",
                                       "emulator1.JsonUdpConnect gone", "audio net gone"}));
}

TEST_F(AudioCardEmuTest, ChangesTheFrequencyWhileTheClockStands) {
  Make(UnitSettings());
  ASSERT_TRUE(unit_->Start().IsOk());
  bench_.TakeStory();
  SetState(48000);
  EXPECT_EQ(bench_.TakeStory(), Story{});
  SetState(44100);
  EXPECT_EQ(bench_.TakeStory(),
            (Story{"emulator1.SyncManager Stop", "emulator1.RtpManager Stop",
                   "emulator1.SyncManager SetSyncFreq 44100 192", "emulator1.SyncManager SetSpeed",
                   "emulator1.RtpManager Init", "emulator1.RtpManager Start",
                   "emulator1.SyncManager Start"}));
  ASSERT_TRUE(unit_->Stop().IsOk());
  bench_.TakeStory();
  SetState(48000);
  EXPECT_EQ(bench_.TakeStory(), Story{}) << "a stopped unit stays silent";
}

TEST_F(AudioCardEmuTest, FailuresAreLoggedAndTheTickGoesOn) {
  UnitSettings unit;
  unit.Mode = 1;
  Make(unit);
  bench_.rtp->failAudio = true;
  bench_.sync->Tick();
  EXPECT_NE(Log().TryTake(L"RecvAudio failed"), L"");
  EXPECT_NE(Log().TryTake(L"SendAudio failed"), L"");
  FakeRtp::Channel ramp;
  WriteRamp(ramp.data(), 1.0f);
  EXPECT_EQ(bench_.rtp->sent[0], ramp) << "although nothing could be received";

  bench_.failing = "emulator1.JsonUdpConnect Send";
  bench_.connect->Deliver(std::make_shared<JsonMsgGetInputs>(), Addr(L"127.0.0.9:7000"));
  EXPECT_NE(Log().TryTake(L"ErrStr=Send failed"), L"");
}

// A tick has 4 ms on a time-critical thread: after the first one it must not meet the allocator.
TEST_F(AudioCardEmuTest, OnlyTheFirstTickAllocates) {
  for (const auto& [type, mode] : {std::pair{kUnitTypeQZ610, 0}, {kUnitTypeQZ820, 3}}) {
    UnitSettings unit;
    unit.UnitType = type;
    unit.Mode = mode;
    Make(unit);
    uint64_t before = AllocationCount();
    bench_.sync->Tick();
    EXPECT_GT(AllocationCount(), before);
    before = AllocationCount();
    for (int i = 0; i < 100; ++i)
      bench_.sync->Tick();
    EXPECT_EQ(AllocationCount(), before);
  }
}

}  // namespace
}  // namespace Network
