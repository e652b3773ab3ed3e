// One unit between a network played by hand and its own clock: what no far end can see of it, or
// only by chance.
#include "emulator/AudioCardEmu.h"

#include <gtest/gtest.h>

#include "emulator/AllocationCount.h"
#include "emulator/FakeNets.h"
#include "emulator/TestSignal.h"

namespace Network {
namespace {

const NetAddr kController = Addr(L"10.0.0.9:7000");
const NetAddr kListener = Addr(L"10.0.0.9:5000");
constexpr uint16_t kControl = 8000;
constexpr uint16_t kOutput = 8002;

class AudioCardEmuTest : public testing::Test {
 protected:
  AudioCardEmuTest() { settings_.AddrStr = L"127.0.0.5"; }

  void Make(const UnitSettings& unit) {
    ctlNet_ = nets_.Make();
    unit_ = std::make_unique<AudioCardEmu>(ctlNet_.get(), nets_.Factory());
    ASSERT_TRUE(unit_->Init(settings_, unit).IsOk());
  }

  void Tell(const JsonMsg& msg) { nets_.Tell(kControl, msg, kController); }

  // Where the unit sends its one input, once all earlier requests have been handled.
  NetAddr Destination() {
    Tell(JsonMsgGetInputs());
    const auto answer = nets_.NextAnswer<JsonMsgInputs>(kControl, kController);
    return answer && answer->inputs.size() == 1 ? answer->inputs[0] : Addr(L"0.0.0.0:1");
  }

  // Whether no packet comes while another unit's clock ticks ten times.
  bool IsSilent() {
    FakeNets nets;
    const auto net = nets.Make();
    AudioCardEmu metronome(net.get(), nets.Factory());
    EXPECT_TRUE(metronome.Init(settings_, UnitSettings()).IsOk());
    EXPECT_TRUE(metronome.Start().IsOk());
    nets.Tell(kControl, *SetInput(kListener), kController);
    const size_t before = nets_.Count(kListener);
    for (int i = 0; i < 10; ++i)
      nets.Next(kListener);
    return nets_.Count(kListener) == before;
  }

  // Gives the unit's output one packet with these channels.
  void Deliver(const std::vector<float>& left, const std::vector<float>& right) {
    RtpPacket packet;
    ASSERT_TRUE(packet.Create(100, left.size()).IsOk());
    packet.SetAudioPayloadChan(left.data(), 0, 1);
    packet.SetAudioPayloadChan(right.data(), 1, 1);
    const Packet& bytes = *packet.GetPacket();
    nets_.Bound(kOutput)->Deliver({bytes.Data(), bytes.Data() + bytes.Size()}, kController);
  }

  EmuSettings settings_;
  FakeNets nets_;
  std::unique_ptr<INetManager> ctlNet_;
  std::unique_ptr<AudioCardEmu> unit_;
};

TEST_F(AudioCardEmuTest, ChangesItsFrequencyAndNothingElse) {
  Make(UnitSettings());
  ASSERT_TRUE(unit_->Start().IsOk());
  const UdpSockInfo control = nets_.Bound(kControl)->Info();
  EXPECT_FALSE(control.Broadcast);
  EXPECT_EQ(control.MaxPacketSize, 1432u);

  Tell(*SetInput(kListener));
  EXPECT_EQ(nets_.NextPacket(kListener).GetHeader().PayloadType(), 100u);
  Tell(*SetState(48000));
  EXPECT_EQ(Destination(), kListener) << "it has that frequency already";
  // A message that came by another road isn't this unit's.
  unit_->OnMsgReceived(nullptr, SetState(44100), kController);
  EXPECT_EQ(Destination(), kListener);

  Tell(*SetState(44100));
  EXPECT_FALSE(Destination().IsDefined());
  ASSERT_TRUE(nets_.Bound(kOutput));
  EXPECT_EQ(nets_.Bound(kOutput)->Info().BindAddr, Addr(L"127.0.0.5:8002"));
  const NetAddr second = Addr(L"10.0.0.9:5002");
  Tell(*SetInput(second));
  EXPECT_EQ(nets_.NextPacket(second).GetHeader().PayloadType(), 101u);

  Tell(*SetState(96000));
  EXPECT_EQ(Destination(), second);
  EXPECT_NE(Log().TryTake(L"Sample freq 96000 is not supported"), L"");
}

TEST_F(AudioCardEmuTest, IsSilentFromStopOn) {
  Make(UnitSettings());
  ASSERT_TRUE(unit_->Start().IsOk());
  Tell(*SetInput(kListener));
  nets_.Next(kListener);
  ASSERT_TRUE(unit_->Stop().IsOk());
  EXPECT_TRUE(IsSilent());
  Tell(*SetState(44100));  // which stops, changes and starts the audio of a unit that runs
  Tell(*SetInput(kListener));
  EXPECT_EQ(Destination(), kListener);
  EXPECT_TRUE(IsSilent());
}

TEST_F(AudioCardEmuTest, WithoutItsControlPortItDoesNotRun) {
  nets_.failPort = kControl;
  Make(UnitSettings());
  { EXPECT_FALSE(unit_->Start().IsOk()); }
  EXPECT_NE(Log().TryTake(L"open failed"), L"");
  // Only a clock that runs looks at its output: a packet would show in the log.
  Deliver(std::vector<float>(kTickSamples), std::vector<float>(kTickSamples));
  EXPECT_TRUE(IsSilent());
  EXPECT_EQ(Log().Count(L"RtpManager.Recv.0: Stream OK"), 0u);
}

// The unit's own ramp lies over what it received. It is known by what was there before. A packet
// that doesn't fit costs its own tick alone.
TEST_F(AudioCardEmuTest, KnowsThePatternUnderItsOwnTestSignal) {
  UnitSettings unit;
  unit.Mode = 1;
  Make(unit);
  ASSERT_TRUE(unit_->Start().IsOk());
  Deliver(std::vector<float>(96), std::vector<float>(96));
  EXPECT_NE(Log().Take(L"Packet smpl size mismatch"), L"");
  std::vector<float> rising(kTickSamples);
  WriteRamp(rising.data(), 1.0f);
  Deliver(rising, {rising.rbegin(), rising.rend()});
  EXPECT_NE(Log().Take(L"Test data stream OK"), L"");
  EXPECT_NE(Log().Take(L"Test data stream FAILED"), L"");
}

// A tick has 4 ms on a time-critical thread. Beyond a list of packets for each direction, and for
// each input a packet with its bytes, only the first may meet the allocator.
TEST_F(AudioCardEmuTest, OnlyTheFirstTickAllocates) {
  for (const auto& [type, mode] : {std::pair{kUnitTypeQZ610, 0}, {kUnitTypeQZ820, 3}}) {
    UnitSettings unit;
    unit.UnitType = type;
    unit.Mode = mode;
    Make(unit);
    unit_->OnSync(nullptr, 0, 48000);
    const uint64_t before = AllocationCount();
    unit_->OnSync(nullptr, 0, 48000);
    const int lists = (unit.GetOutputCount() > 0 ? 1 : 0) + (unit.GetInputCount() > 0 ? 1 : 0);
    EXPECT_EQ(AllocationCount() - before, static_cast<uint64_t>(lists + 2 * unit.GetInputCount()));
  }
}

}  // namespace
}  // namespace Network
