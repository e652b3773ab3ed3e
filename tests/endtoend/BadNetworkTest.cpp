// The real emulator behind a network that loses, doubles, reorders and damages.
#include <chrono>

#include "badnetwork/RunSeed.h"
#include "endtoend/EndToEnd.h"
#include "platform/text.h"
#include "relay/LossyRelay.h"
#include "sockets/INetManager.h"

namespace {

using relay::LinkFaults;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

class BadNetwork : public EndToEnd {
 protected:
  // A relay on this port of the test's address.
  struct Relay {
    Relay(uint16_t port, const wire::Endpoint& target, const LinkFaults& faults)
        : front{wire::OwnAddress(), port} {
      EXPECT_TRUE(relay.Start({AddrOf(front), AddrOf(target), RunSeed(), port, faults}).IsOk());
    }

    static Network::NetAddr AddrOf(const wire::Endpoint& endpoint) {
      Network::NetAddr addr;
      EXPECT_TRUE(addr.SetFromText(platform::Utf8ToWideLossy(endpoint.ToText())));
      return addr;
    }

    const wire::Endpoint front;
    std::unique_ptr<Network::INetManager> net = Network::INetManager::Create();
    relay::LossyRelay relay{net.get()};
  };
};

TEST_F(BadNetwork, ControlSurvivesAndHeals) {
  EmulatorProcess emulator({UnitSpec{.type = "QZ820"}});
  emulator.StartAndWait();
  emulator.Allow("No ack received");
  emulator.Allow("Bad message received");
  Relay relay(9500, emulator.Control(), {40, 10, 10, 20, 1, 20});
  wire::Controller far(wire::OwnAddress());  // what it gets may be damaged
  for (int i = 0; i < 60; ++i) {
    far.Send(relay.front, "get_inputs");
    far.Take("inputs", relay.front, milliseconds(50));
  }
  relay.relay.SetFaults({});
  std::optional<wire::Message> answer;
  const auto healed = steady_clock::now();
  for (int i = 0; i < 20 && !answer; ++i) {
    far.Send(relay.front, "get_fm_freq");
    answer = far.Take("fm_freq", relay.front, milliseconds(300));
  }
  EXPECT_TRUE(answer);
  // For a machine that is busy with other things; the promise, a second, is held in virtual time.
  EXPECT_LT(steady_clock::now() - healed, std::chrono::seconds(5));
  EXPECT_GT(relay.relay.CountsBack().taken, 60U) << "hardly any traffic";
}

// Out and back through one bad network each: what arrives is what was sent, or silence.
TEST_F(BadNetwork, DeliveredAudioIsRight) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartAndWait();
  const LinkFaults faults{20, 20, 20, 0, 2, 6};
  wire::StreamReceiver receiver(wire::OwnAddress());
  Relay out(9500, emulator.Control(2), faults);
  Relay back(9501, receiver.Local(), faults);
  wire::StreamSender sender(wire::OwnAddress(), out.front);
  controller.Tell(emulator.Control(), "set_inputs", Inputs({back.front.ToText()}));

  const wire::Bytes silence(wire::kPayloadSize);
  uint16_t number = 0;
  size_t seen = 0;
  int sounding = 0;
  // Each packet that comes back asks for the next.
  EXPECT_TRUE(receiver.Wait([&](const std::vector<wire::AudioPacket>& packets) {
    sender.Send(number, wire::PatternPayload(number));
    ++number;
    for (; seen < packets.size(); ++seen) {
      const wire::Bytes& payload = packets[seen].payload;
      if (payload == silence) continue;
      ++sounding;
      EXPECT_LT(wire::MarkOf(payload).value_or(number), number) << "something that wasn't sent";
    }
    return sounding >= 300;
  }));
  controller.Tell(emulator.Control(), "set_inputs", Inputs({"off"}));
}

}  // namespace
