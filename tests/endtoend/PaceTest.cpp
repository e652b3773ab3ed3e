// The emulator against the controller's clock. These tests run alone.
#include <algorithm>
#include <cmath>

#include "endtoend/EndToEnd.h"

namespace {

using Packets = std::deque<wire::StreamPacket>;

double Seconds(wire::Clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

// How late packet `i` is, in seconds, against a sender with exactly that rate whose first packet
// came when the first one here did.
double Lateness(const Packets& packets, size_t i, double rate) {
  const auto number = static_cast<uint16_t>(packets[i].Header().sequence -  //
                                            packets[0].Header().sequence);
  return Seconds(packets[i].time - packets[0].time) - number / rate;
}

// Packets can be held up, by the tick's thread or by ours, but never come early: so the least
// lateness at the beginning and the least at the end differ by nothing but a wrong rate.
void ExpectRate(wire::AudioReceiver& receiver, size_t count, double rate) {
  ASSERT_TRUE(receiver.WaitCount(count));
  const Packets& packets = receiver.Packets();
  for (size_t i = 1; i < packets.size(); ++i) {
    const wire::StreamHeader before = packets[i - 1].Header(), header = packets[i].Header();
    ASSERT_EQ(header.sequence, static_cast<uint16_t>(before.sequence + 1));
    ASSERT_EQ(header.timestamp, before.timestamp + wire::kPacketFrames);
  }
  const size_t third = packets.size() / 3;
  double begin = 1e9, end = 1e9;
  for (size_t i = 0; i < third; ++i) {
    begin = std::min(begin, Lateness(packets, i, rate));
    end = std::min(end, Lateness(packets, packets.size() - 1 - i, rate));
  }
  const double elapsed = Seconds(packets.back().time - packets.front().time);
  const double drift = (end - begin) / (elapsed * 2 / 3);
  EXPECT_LT(std::abs(drift), 700e-6 * TimeFactor()) << "at " << rate << " packets a second";
}

TEST_F(Pace, StreamsRunAtExactlyTheSampleRate) {
  EmulatorProcess emulator({UnitSpec{.type = "QZ820", .mode = 1},
                            {.id = "b", .sampleFreq = 44100},
                            {.id = "c", .speed = "2.00000"}});
  emulator.StartAndWait();
  wire::AudioReceiver a(loop, here), b(loop, here), c(loop, here), d(loop, here);
  SetInputs(emulator.Control(), {a.Local().ToText(), "", "", b.Local().ToText()});
  SetInputs(emulator.Control(10), {c.Local().ToText()});
  SetInputs(emulator.Control(16), {d.Local().ToText()});
  ExpectRate(a, 750, 48000.0 / 192);
  ExpectRate(b, 750, 48000.0 / 192);
  ExpectRate(c, 690, 44100.0 / 192);
  ExpectRate(d, 1500, 2 * 48000.0 / 192);

  // The same at a rate that was set on the way.
  Tell(emulator.Control(), "set_state", {{"device_freq", 44100}});
  Ask(emulator.Control(), "get_inputs", "inputs");
  a.Clear();
  SetInputs(emulator.Control(), {a.Local().ToText(), "", "", ""});
  ExpectRate(a, 690, 44100.0 / 192);
}

// The first packet of a stream waits in the ring for five ticks and leaves at the sixth: between
// 20 and 24 ms later at 48000 Hz.
TEST_F(Pace, TheRingDelaysAStreamByFiveTicks) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartAndWait();
  wire::AudioReceiver receiver(loop, here);
  wire::UdpPort sender(loop, here, nullptr);
  SetInputs(emulator.Control(), {receiver.Local().ToText()});
  std::vector<double> delays;
  for (int i = 0; i < 15; ++i) {
    receiver.Clear();
    const auto sent = wire::Clock::now();
    // Far from the ones before: each is the first of a stream.
    sender.Send(Packet(1000 * (i + 1), wire::Pattern(i)), emulator.Control(2));
    Packets::const_iterator back;
    ASSERT_TRUE(loop.RunUntil(
        [&] {
          back = std::find_if(
              receiver.Packets().begin(), receiver.Packets().end(),
              [&](const wire::StreamPacket& packet) { return wire::MarkOf(packet.Audio()) == i; });
          return back != receiver.Packets().end();
        },
        kPatience));
    delays.push_back(Seconds(back->time - sent) * 1000);
  }
  std::sort(delays.begin(), delays.end());
  EXPECT_GT(delays[delays.size() / 2], 19.0);
  EXPECT_LT(delays[delays.size() / 2], 24 + 3 * TimeFactor());
}

}  // namespace
