// What the inputs of a unit send: header, numbers, the samples of each mode.
#include <algorithm>
#include <cmath>

#include "endtoend/EndToEnd.h"

namespace {

using wire::AudioPacket;
using wire::Bytes;
using wire::PatternPayload;
using wire::RampPayload;
using wire::StreamReceiver;
using wire::StreamSender;

const Bytes kSilence(wire::kPayloadSize);

// The fixed bytes of a stream and its numbers.
void ExpectStream(const std::vector<AudioPacket>& packets, uint8_t typeByte) {
  ASSERT_FALSE(packets.empty());
  for (size_t i = 0; i < packets.size(); ++i) {
    const Bytes& header = packets[i].header;
    EXPECT_EQ(header[0], 0x02);
    EXPECT_EQ(header[1], typeByte);
    EXPECT_EQ(Bytes(header.begin() + 8, header.end()), Bytes(4)) << "SSRC";
    EXPECT_EQ(packets[i].payload.size(), wire::kPayloadSize);
    if (i == 0) continue;
    ASSERT_EQ(packets[i].sequence, static_cast<uint16_t>(packets[i - 1].sequence + 1)) << i;
    ASSERT_EQ(packets[i].timestamp, packets[i - 1].timestamp + 192) << i;
  }
  // Both count from the first tick.
  EXPECT_EQ(packets[0].timestamp, packets[0].sequence * 192U);
}

class Stream : public EndToEnd {
 protected:
  // A QZ820 in that mode with its first input at `receiver`.
  void StartTuner(int mode, int64_t sampleFreq = 48000) {
    emulator = std::make_unique<EmulatorProcess>(
        std::vector<UnitSpec>{{.type = "QZ820", .mode = mode, .sampleFreq = sampleFreq}});
    emulator->StartAndWait();
    receiver.Clear();
    controller.Tell(emulator->Control(), "set_inputs",
                    Inputs({receiver.Local().ToText(), "", "", ""}));
  }

  StreamReceiver receiver{wire::OwnAddress()};
  std::unique_ptr<EmulatorProcess> emulator;
};

TEST_F(Stream, AllInputsOfAUnitCarryTheTickThatTheyBelongTo) {
  StartTuner(1);
  StreamReceiver b(wire::OwnAddress()), c(wire::OwnAddress()), d(wire::OwnAddress());
  controller.Tell(emulator->Control(), "set_inputs",
                  Inputs({"off", b.Local().ToText(), c.Local().ToText(), d.Local().ToText()}));
  controller.Tell(emulator->Control(), "set_inputs",
                  Inputs({receiver.Local().ToText(), "", "", ""}));
  const Bytes ramp = RampPayload(1.0f, true);
  EXPECT_EQ(wire::GetCode(ramp, 191, 0), 0x7FFFFF);
  const auto first = b.WaitPackets(50);
  for (const StreamReceiver* stream : {&b, &c, &d}) {
    const auto packets = stream->WaitPackets(50);
    ExpectStream(packets, wire::kType48000);
    for (const AudioPacket& packet : packets)
      ASSERT_EQ(packet.payload, ramp);
    // The inputs were set one after the other, at most a tick apart.
    EXPECT_LE(std::abs(packets[0].sequence - first[0].sequence), 1);
  }
}

TEST_F(Stream, UnknownModesAreSilentAsModeZeroIs) {
  for (const int mode : {0, 7, -1}) {
    StartTuner(mode, 44100);
    const auto packets = receiver.WaitPackets(20);
    ExpectStream(packets, wire::kType44100);
    for (const AudioPacket& packet : packets)
      ASSERT_EQ(packet.payload, kSilence);
    emulator.reset();
  }
}

// The time within the sweep's ten seconds, in 100 ns, that makes this payload bit for bit; -1 if
// none does.
int64_t SweepTime(const Bytes& payload, bool right) {
  const int32_t top = wire::GetCode(payload, wire::kFrames - 1, 0);
  const auto middle = static_cast<int64_t>(static_cast<double>(top) / 8388607.0 * 1e8);
  for (int64_t time = std::max<int64_t>(0, middle - 30); time < middle + 30; ++time) {
    const auto level = static_cast<float>(static_cast<double>(time) / 1e8);
    if (RampPayload(level, right) == payload) return time;
  }
  return -1;
}

TEST_F(Stream, SweepsRiseInTenSeconds) {
  for (const int mode : {3, 4}) {
    StartTuner(mode);
    const auto packets = receiver.WaitPackets(100);
    ExpectStream(packets, wire::kType48000);
    const int64_t begin = SweepTime(packets.front().payload, mode == 3);
    for (const AudioPacket& packet : packets) {
      const int64_t time = SweepTime(packet.payload, mode == 3);
      ASSERT_GE(time, 0) << "no level makes this packet";
      const double seconds = std::chrono::duration<double>(packet.time - packets[0].time).count();
      const double swept = static_cast<double>((time - begin + 100'000'000) % 100'000'000) / 1e7;
      // Modulo ten seconds, as the first packet can be the one that was held up.
      EXPECT_LT(std::abs(std::remainder(swept - seconds, 10.0)), 0.1);
    }
    emulator.reset();
  }
}

TEST_F(Stream, AnInputThatIsOffSendsNothingAndItsNumbersGoOn) {
  StartTuner(1);
  StreamReceiver other(wire::OwnAddress());
  controller.Tell(emulator->Control(), "set_inputs", Inputs({"", "", "", other.Local().ToText()}));
  receiver.WaitPackets(5);
  controller.Tell(emulator->Control(), "set_inputs", Inputs({"off", "", "", ""}));
  controller.Ask(emulator->Control(), "get_inputs", "inputs");
  // A tick may have been under way.
  other.Clear();
  const uint16_t off = other.WaitPackets(2)[1].sequence;
  other.Clear();
  other.WaitPackets(20);
  EXPECT_LT(receiver.Packets().back().sequence, off);

  receiver.Clear();
  controller.Tell(emulator->Control(), "set_inputs",
                  Inputs({receiver.Local().ToText(), "", "", ""}));
  const auto again = receiver.WaitPackets(10);
  ExpectStream(again, wire::kType48000);
  EXPECT_GE(again[0].sequence, off + 20);
}

// Mode 2 writes the left channel alone: on the right goes what the output received in that tick.
TEST_F(Stream, TheLeftRampLetsTheReceivedRightChannelThrough) {
  emulator = std::make_unique<EmulatorProcess>(std::vector<UnitSpec>{{.mode = 2}});
  emulator->StartAndWait();
  controller.Tell(emulator->Control(), "set_inputs", Inputs({receiver.Local().ToText()}));
  receiver.WaitPackets(1);
  StreamSender sender(wire::OwnAddress(), emulator->Control(2));
  sender.Send(1000, PatternPayload());
  Bytes mixed = RampPayload(1.0f, false);
  for (size_t frame = 0; frame < wire::kFrames; ++frame) {
    wire::PutCode(mixed, frame, 1, wire::GetCode(PatternPayload(), frame, 1));
  }
  EXPECT_TRUE(receiver.Wait([&](const std::vector<AudioPacket>& packets) {
    return std::any_of(packets.begin(), packets.end(),
                       [&](const AudioPacket& packet) { return packet.payload == mixed; });
  }));
  for (const AudioPacket& packet : receiver.Packets()) {
    EXPECT_TRUE(packet.payload == mixed || packet.payload == RampPayload(1.0f, false));
  }
}

}  // namespace
