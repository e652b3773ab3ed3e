// The emulator against the controller's clock. These tests run alone.
#include <algorithm>
#include <cmath>
#include <thread>

#include "endtoend/EndToEnd.h"
#include "support/System.h"

namespace {

using wire::AudioPacket;
using wire::StreamReceiver;
using wire::StreamSender;

double Seconds(wire::Clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

// How late packet `i` is, in seconds, against a sender with exactly that rate whose first packet
// came when the first one here did.
double Lateness(const std::vector<AudioPacket>& packets, size_t i, double rate) {
  const auto number = static_cast<uint16_t>(packets[i].sequence - packets[0].sequence);
  return Seconds(packets[i].time - packets[0].time) - number / rate;
}

// Packets can be held up, by the tick's thread or by ours, but never come early: so the least
// lateness at the beginning and the least at the end differ by nothing but a wrong rate.
void ExpectRate(const std::vector<AudioPacket>& packets, double rate) {
  ASSERT_GT(packets.size(), 100u);
  for (size_t i = 1; i < packets.size(); ++i) {
    ASSERT_EQ(packets[i].sequence, static_cast<uint16_t>(packets[i - 1].sequence + 1));
    ASSERT_EQ(packets[i].timestamp, packets[i - 1].timestamp + 192);
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
  // And the count, within a packet and what one hold-up of 50 ms makes of it.
  EXPECT_NEAR(static_cast<double>(packets.size() - 1), elapsed * rate,
              1 + 0.05 * rate * TimeFactor());
}

TEST_F(Pace, StreamsRunAtExactlyTheSampleRate) {
  EmulatorProcess emulator(
      {UnitSpec{.type = "QZ820", .mode = 1}, {.id = "b", .sampleFreq = 44100}});
  emulator.StartAndWait();
  StreamReceiver a(wire::OwnAddress()), b(wire::OwnAddress()), c(wire::OwnAddress());
  controller.Tell(emulator.Control(), "set_inputs",
                  Inputs({a.Local().ToText(), "", "", b.Local().ToText()}));
  controller.Tell(emulator.Control(10), "set_inputs", Inputs({c.Local().ToText()}));
  ExpectRate(a.WaitPackets(750), 48000.0 / 192);
  ExpectRate(b.WaitPackets(750), 48000.0 / 192);
  ExpectRate(c.WaitPackets(690), 44100.0 / 192);

  // The same at a rate that was set on the way.
  controller.Tell(emulator.Control(), "set_state", R"("device_freq":44100)");
  controller.Ask(emulator.Control(), "get_inputs", "inputs");
  a.Clear();
  controller.Tell(emulator.Control(), "set_inputs", Inputs({a.Local().ToText(), "", "", ""}));
  ExpectRate(a.WaitPackets(690), 44100.0 / 192);
}

TEST_F(Pace, SpeedMultipliesTheClock) {
  EmulatorProcess emulator({UnitSpec{.speed = "2.00000"}});
  emulator.StartAndWait();
  StreamReceiver a(wire::OwnAddress());
  controller.Tell(emulator.Control(), "set_inputs", Inputs({a.Local().ToText()}));
  ExpectRate(a.WaitPackets(1000), 2 * 48000.0 / 192);
}

// The first packet of a stream waits in the ring for five ticks and leaves at the sixth: between
// 20 and 24 ms later at 48000 Hz.
TEST_F(Pace, TheRingDelaysAStreamByFiveTicks) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartAndWait();
  StreamReceiver receiver(wire::OwnAddress());
  StreamSender sender(wire::OwnAddress(), emulator.Control(2));
  controller.Tell(emulator.Control(), "set_inputs", Inputs({receiver.Local().ToText()}));
  receiver.WaitPackets(1);
  std::vector<double> delays;
  for (int32_t i = 0; i < 15; ++i) {
    const auto sent = wire::Clock::now();
    // Far from the ones before: each is the first of a stream.
    sender.Send(static_cast<uint16_t>(1000 * (i + 1)), wire::PatternPayload(i));
    wire::Clock::time_point back;
    ASSERT_TRUE(receiver.Wait([&](const std::vector<AudioPacket>& packets) {
      back = packets.back().time;
      return wire::MarkOf(packets.back().payload) == i;
    }));
    delays.push_back(Seconds(back - sent) * 1000);
  }
  std::sort(delays.begin(), delays.end());
  EXPECT_GT(delays[delays.size() / 2], 19.0);
  EXPECT_LT(delays[delays.size() / 2], 24 + 3 * TimeFactor());
}

}  // namespace
