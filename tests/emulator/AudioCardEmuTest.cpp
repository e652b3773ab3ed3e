// One unit tick by tick and step by step, its parts played by hand.
#include "AudioCardEmu.h"

#include <gtest/gtest.h>

#include "TestSignal.h"
#include "emulator/AllocationCount.h"
#include "emulator/Doubles.h"
#include "support/CapturedLog.h"
#include "support/ManualClock.h"

namespace Network {
namespace {

using Story = std::vector<std::string>;
using Channel = FakeRtp::Channel;

class AudioCardEmuTest : public testing::Test {
 protected:
  void Make(const std::wstring& type, int32_t mode = 0) {
    settings_.AddrStr = L"127.0.0.5";
    UnitSettings unit;
    unit.UnitType = type;
    unit.Mode = mode;
    Make(unit);
  }

  void Make(const UnitSettings& unit) {
    unit_ = std::make_unique<AudioCardEmu>(nullptr, bench_.UnitParts());
    ASSERT_TRUE(unit_->Init(settings_, unit).IsOk());
    ASSERT_TRUE(unit_->Start().IsOk());
    bench_.TakeStory();
  }

  void Tick() { bench_.sync->Tick(); }

  // Arrives on output 0 from the next tick on.
  void Receive(const Channel& left, const Channel& right) { bench_.rtp->received = {left, right}; }
  void ReceivePattern() { Receive(Ramp(), Falling()); }

  static Channel Ramp(float amplitude = 1.0f) {
    Channel channel;
    WriteRamp(channel.data(), amplitude);
    return channel;
  }
  static Channel Falling() {
    Channel channel = Ramp();
    std::reverse(channel.begin(), channel.end());
    return channel;
  }

  const Channel& Sent(size_t channel) const { return bench_.rtp->sent[channel]; }

  Bench bench_;
  EmuSettings settings_;
  std::unique_ptr<AudioCardEmu> unit_;
};

TEST_F(AudioCardEmuTest, LivesInOrder) {
  settings_.AddrStr = L"127.0.0.5";
  UnitSettings unit;
  unit.BasePort = 9000;
  unit.Speed = 1.5;
  unit_ = std::make_unique<AudioCardEmu>(nullptr, bench_.UnitParts());
  ASSERT_TRUE(unit_->Init(settings_, unit).IsOk());
  EXPECT_EQ(bench_.TakeStory(),
            (Story{"emulator1.SyncManager AddTarget", "emulator1.SyncManager SetSyncFreq 48000 192",
                   "emulator1.SyncManager SetSpeed", "emulator1.RtpManager Init",
                   "emulator1.JsonUdpConnect Init"}));
  EXPECT_EQ(bench_.sync->GetSpeed(), 1.5);
  EXPECT_EQ(bench_.sync->TargetCount(), 1u);

  const RtpManagerInfo& rtp = bench_.rtp->info;
  EXPECT_EQ(rtp.SampleFreq, 48000u);
  EXPECT_EQ(rtp.PacketSmplSize, 192u);
  EXPECT_EQ(rtp.RecvBufSize, 9u);
  EXPECT_EQ(rtp.RecvBufPos, 5u);
  ASSERT_EQ(rtp.RecvAddrs.size(), 1u);
  EXPECT_EQ(rtp.RecvAddrs[0], Addr(L"127.0.0.5:9002"));
  ASSERT_EQ(rtp.SendChans.size(), 1u);
  EXPECT_FALSE(rtp.SendChans[0].Addr.IsDefined());
  EXPECT_EQ(rtp.SendChans[0].PayloadType, 100u);

  const JsonUdpInfo& connect = bench_.connect->info;
  EXPECT_EQ(connect.BindAddr, Addr(L"127.0.0.5:9000"));
  EXPECT_FALSE(connect.SendAddr.IsDefined());
  EXPECT_EQ(connect.Receiver, unit_.get());
  EXPECT_EQ(connect.MaxPacketSize, 1432u);
  EXPECT_FALSE(connect.Broadcast);

  ASSERT_TRUE(unit_->Start().IsOk());
  EXPECT_EQ(bench_.TakeStory(), (Story{"emulator1.RtpManager Start", "emulator1.SyncManager Start",
                                       "emulator1.JsonUdpConnect Start"}));
  ASSERT_TRUE(unit_->Stop().IsOk());
  ASSERT_TRUE(unit_->Stop().IsOk());
  EXPECT_EQ(bench_.TakeStory(), (Story{"emulator1.SyncManager Stop", "emulator1.RtpManager Stop",
                                       "emulator1.SyncManager Stop", "emulator1.RtpManager Stop"}));
  unit_.reset();
  EXPECT_EQ(bench_.TakeStory(), (Story{"emulator1.JsonUdpConnect Stop",  // before its users go
                                       "emulator1.SyncManager gone", "emulator1.RtpManager gone",
                                       "emulator1.JsonUdpConnect gone", "audio net gone"}));
}

TEST_F(AudioCardEmuTest, UnsupportedFrequencyFailsInitByName) {
  for (const auto& [freq, text] : {std::pair{96000u, L"Sample freq 96000 is not supported"},
                                   std::pair{4294967295u, L"Sample freq -1 is not supported"}}) {
    UnitSettings unit;
    unit.SampleFreq = freq;
    AudioCardEmu card(nullptr, bench_.UnitParts());
    bench_.TakeStory();
    { EXPECT_FALSE(card.Init(settings_, unit).IsOk()); }
    const std::wstring line = Log().TryTake(text);
    EXPECT_NE(line.find(L"Method=Network::AudioCardEmu::InitAudio File=src\\AudioCardEmu"),
              std::wstring::npos);
    EXPECT_EQ(bench_.TakeStory(), Story{"emulator1.SyncManager AddTarget"});
  }
}

TEST_F(AudioCardEmuTest, FailedStepStopsTheAudioAndComesBack) {
  for (const char* failing : {"RtpManager Start", "SyncManager Start", "JsonUdpConnect Start"}) {
    bench_.failing = std::string("emulator1.") + failing;
    unit_ = std::make_unique<AudioCardEmu>(nullptr, bench_.UnitParts());
    ASSERT_TRUE(unit_->Init(settings_, UnitSettings()).IsOk());
    EXPECT_FALSE(unit_->Start().IsOk());
    EXPECT_NE(Log().TryTake(L"Start failed"), L"");
    const Story story = bench_.TakeStory();
    ASSERT_GE(story.size(), 2u);
    EXPECT_EQ(story[story.size() - 2], "emulator1.SyncManager Stop") << failing;
    EXPECT_EQ(story.back(), "emulator1.RtpManager Stop") << failing;
    EXPECT_FALSE(bench_.sync->IsStarted());
    unit_.reset();
  }
}

TEST_F(AudioCardEmuTest, LoopsAudioBackBitForBit) {
  Make(kUnitTypeQZ610);
  Channel left, right;
  for (size_t i = 0; i < left.size(); ++i) {
    left[i] = static_cast<float>(i) * 1e-7f;
    right[i] = -1.0f + static_cast<float>(i) * 1e-7f;
  }
  Receive(left, right);
  Tick();
  EXPECT_EQ(Sent(0), left);
  EXPECT_EQ(Sent(1), right);
  EXPECT_EQ(bench_.rtp->recvBuffers, 2u);
  EXPECT_EQ(bench_.rtp->recvCount, 192u);
  EXPECT_EQ(bench_.rtp->sentBuffers, 2u);
  EXPECT_EQ(bench_.rtp->sentCount, 192u);

  // What isn't received again doesn't sound again.
  bench_.rtp->received.clear();
  Tick();
  EXPECT_EQ(Sent(0), Channel{});
  EXPECT_EQ(Sent(1), Channel{});
}

TEST_F(AudioCardEmuTest, ModesPutTheTestSignalOverTheLoop) {
  ManualClock clock;
  clock.SetCounter(25'000'000);  // a quarter of the sweep
  const Channel full = Ramp(), quarter = Ramp(0.25f), loop = Falling();
  const std::pair<Channel, Channel> expected[] = {{Ramp(), loop},  {full, full},
                                                  {full, loop},    {quarter, quarter},
                                                  {quarter, loop}, {Ramp(), loop}};
  for (int32_t mode = 0; mode <= 5; ++mode) {
    Make(kUnitTypeQZ610, mode);
    ReceivePattern();
    Tick();
    EXPECT_EQ(Sent(0), expected[mode].first) << mode;
    EXPECT_EQ(Sent(1), expected[mode].second) << mode;
  }
}

TEST_F(AudioCardEmuTest, FourInputsWithoutOutputs) {
  Make(kUnitTypeQZ820, 1);
  ReceivePattern();  // must reach nothing: there is no output
  Tick();
  EXPECT_EQ(bench_.rtp->recvBuffers, 0u);
  EXPECT_EQ(bench_.rtp->sentBuffers, 8u);
  for (size_t i = 0; i < 8; ++i)
    EXPECT_EQ(Sent(i), Ramp()) << i;

  Make(kUnitTypeQZ820, 0);
  Tick();
  for (size_t i = 0; i < 8; ++i)
    EXPECT_EQ(Sent(i), Channel{}) << i;
  EXPECT_EQ(Log().Count(L"Test data"), 0u);
}

TEST_F(AudioCardEmuTest, UnknownModelTicksInSilence) {
  Make(L"QZ999", 1);
  Tick();
  Tick();
  EXPECT_EQ(bench_.rtp->ticks, 2);
  EXPECT_EQ(bench_.rtp->recvBuffers, 0u);
  EXPECT_EQ(bench_.rtp->sentBuffers, 0u);
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(AudioCardEmuTest, TellsWhenThePatternComesAndGoes) {
  Make(kUnitTypeQZ610);
  Tick();
  EXPECT_EQ(Log().Count(L"Test data"), 0u);  // it was never there

  ReceivePattern();
  Tick();
  Tick();
  EXPECT_EQ(Log().Lines(), std::vector<std::wstring>{L"Test data stream OK"});
  bench_.rtp->received[1][100] += 0.003f;
  Tick();
  Tick();
  ReceivePattern();
  Tick();
  EXPECT_EQ(Log().Lines(),
            (std::vector<std::wstring>{L"Test data stream OK", L"Test data stream FAILED",
                                       L"Test data stream OK"}));
}

TEST_F(AudioCardEmuTest, FailedAudioIsLoggedAndTheTickGoesOn) {
  Make(kUnitTypeQZ610, 1);
  bench_.rtp->failAudio = true;
  Tick();
  EXPECT_NE(Log().TryTake(L"RecvAudio failed"), L"");
  EXPECT_NE(Log().TryTake(L"SendAudio failed"), L"");
  bench_.rtp->failAudio = false;
  Tick();
  EXPECT_EQ(bench_.rtp->ticks, 2);
  EXPECT_EQ(Sent(0), Ramp());
}

// A tick has 4 ms on a time-critical thread: after the first one it must not meet the allocator.
TEST_F(AudioCardEmuTest, OnlyTheFirstTickAllocates) {
  for (const auto& [type, mode] : {std::pair{kUnitTypeQZ610, 0}, {kUnitTypeQZ820, 3}}) {
    Make(type, mode);
    bench_.rtp->received.resize(2);
    uint64_t before = AllocationCount();
    Tick();
    EXPECT_GT(AllocationCount(), before);
    before = AllocationCount();
    for (int i = 0; i < 100; ++i)
      Tick();
    EXPECT_EQ(AllocationCount(), before);
  }
}

}  // namespace
}  // namespace Network
