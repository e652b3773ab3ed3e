// The real emulator behind a network that loses, doubles, reorders and damages.
#include <chrono>

#include "badnetwork/RunSeed.h"
#include "endtoend/EndToEnd.h"
#include "wire/Relay.h"

namespace {

using std::chrono::milliseconds;

class BadNetwork : public EndToEnd {};

TEST_F(BadNetwork, ControlSurvivesAndHeals) {
  EmulatorProcess emulator({UnitSpec{.type = "QZ820"}});
  emulator.StartAndWait();
  emulator.Allow("No ack received");
  emulator.Allow("Bad message received");
  wire::Relay relay(loop, {here, emulator.Control(), RunSeed(), 0, {40, 10, 10, 20, 1, 20}});
  wire::Link far(loop, here);  // what it gets may be damaged
  for (int i = 0; i < 60; ++i) {
    far.Send(relay.Local(), "get_inputs");
    far.Take("inputs", relay.Local(), milliseconds(50));
  }
  relay.SetFaults({});
  std::optional<wire::Message> answer;
  const auto healed = wire::Clock::now();
  for (int i = 0; i < 20 && !answer; ++i) {
    far.Send(relay.Local(), "get_fm_freq");
    answer = far.Take("fm_freq", relay.Local(), milliseconds(300));
  }
  EXPECT_TRUE(answer);
  // For a machine that is busy with other things; the promise, a second, is held in virtual time.
  EXPECT_LT(wire::Clock::now() - healed, std::chrono::seconds(5));
  EXPECT_GT(relay.CountsBack().taken, 60U) << "hardly any traffic";
}

// Out and back through one bad network each: what arrives is what was sent, or silence.
TEST_F(BadNetwork, DeliveredAudioIsRight) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartAndWait();
  const wire::LinkFaults faults{20, 20, 20, 0, 2, 6};
  wire::AudioReceiver receiver(loop, here);
  wire::UdpPort sender(loop, here, nullptr);
  wire::Relay out(loop, {here, emulator.Control(2), RunSeed(), 1, faults});
  wire::Relay back(loop, {here, receiver.Local(), RunSeed(), 2, faults});
  SetInputs(emulator.Control(), {back.Local().ToText()});

  int number = 0;
  size_t seen = 0;
  int sounding = 0;
  // Each packet that comes back asks for the next.
  EXPECT_TRUE(loop.RunUntil(
      [&] {
        for (; seen < receiver.Packets().size(); ++seen) {
          sender.Send(Packet(number, wire::Pattern(number)), out.Local());
          ++number;
          const wire::Frames audio = receiver.Packets()[seen].Audio();
          if (audio == kSilence) continue;
          ++sounding;
          EXPECT_LT(wire::MarkOf(audio).value_or(number), number) << "something that wasn't sent";
        }
        return sounding >= 300;
      },
      kPatience));
  SetInputs(emulator.Control(), {"off"});
}

}  // namespace
