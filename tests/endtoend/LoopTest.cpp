// Audio into an output and back out of the input.
#include <algorithm>

#include "endtoend/EndToEnd.h"

namespace {

using wire::Bytes;
using wire::Pattern;
using wire::StreamPacket;

// What came back of the packets sent: at which of the unit's ticks, and which one.
struct Echo {
  int tick;  // 0 is the first that came back
  int32_t mark;
  bool operator==(const Echo&) const = default;
};

void PrintTo(const Echo& echo, std::ostream* out) {
  *out << "{" << echo.tick << ", " << echo.mark << "}";
}

// A QZ610 that loops audio back to `receiver`. The packets of a test go out at once and keep their
// distance by their numbers, so that no test depends on when the ticks fall. But one that is held
// up for longer than the ring, 20 ms, in the middle of its packets sees the stream run dry: so
// these tests run alone, and see how long the sending took.
class Loop : public EndToEnd {
 protected:
  void SetUp() override {
    emulator.StartAndWait();
    SetInputs(emulator.Control(), {receiver.Local().ToText()});
    ASSERT_TRUE(receiver.WaitCount(1));
    receiver.Clear();
  }

  void Send(const Bytes& bytes) { sender.Send(bytes, emulator.Control(2)); }

  // Waits until something has come back, and after it silence for longer than the ring is long.
  void Drain() {
    ASSERT_TRUE(loop.RunUntil(
        [this] {
          const auto& packets = receiver.Packets();
          const auto sounds = [](const StreamPacket& packet) { return packet.Audio() != kSilence; };
          const auto last = std::find_if(packets.rbegin(), packets.rend(), sounds);
          return last != packets.rend() && last - packets.rbegin() > 18;
        },
        kPatience));
  }

  std::vector<Echo> Echoes() const {
    std::vector<Echo> echoes;
    uint16_t first = 0;
    for (const StreamPacket& packet : receiver.Packets()) {
      if (packet.Audio() == kSilence) continue;
      const auto mark = wire::MarkOf(packet.Audio());
      EXPECT_TRUE(mark) << "something that wasn't sent";
      const uint16_t number = packet.Header().sequence;
      if (echoes.empty()) first = number;
      echoes.push_back({static_cast<uint16_t>(number - first), mark.value_or(-1)});
    }
    return echoes;
  }

  EmulatorProcess emulator{std::vector<UnitSpec>{{}}};
  wire::AudioReceiver receiver{loop, here};
  wire::UdpPort sender{loop, here, nullptr};
};

// Lost, reordered, doubled and late ones, short ones, one of another format, and one of another
// sender; through the wrap of the numbers. A machine that stood still meanwhile is asked again.
TEST_F(Loop, PacketsTakeTheirPlacesBitForBit) {
  wire::UdpPort second(loop, here, nullptr);
  std::vector<Bytes> packets{Packet(65534, Pattern(1)), Packet(65536, Pattern(3))};
  for (size_t size = 0; size < 12; ++size)
    packets.emplace_back(size, uint8_t{0xFF});
  packets.push_back(Packet(65536, Pattern(9)));  // the later of two is heard
  packets.push_back(Packet(65521, Pattern(5)));
  packets.push_back(Packet(65537, wire::Frames(96, {1, 1})));  // takes its place, silent
  const auto errors = [this] { return emulator.LinesWith(".RtpManager: Stream ERROR").size(); };
  // True if neither this end nor the unit was held up. A stream that follows another one begins
  // with an error.
  const auto attempt = [&](size_t errorsDue) {
    receiver.Clear();
    const size_t before = errors();
    const auto begin = wire::Clock::now();
    second.Send(packets[0], emulator.Control(2));
    second.Send(Packet(65533, Pattern(0)), emulator.Control(2));
    for (const Bytes& packet : packets)
      Send(packet);
    const bool inTime = wire::Clock::now() - begin < std::chrono::milliseconds(4);
    Drain();
    return inTime && errors() - before == errorsDue;
  };
  for (int i = 0; i < 20 && !attempt(i == 0 ? 0 : 1); ++i) {
  }
  EXPECT_EQ(Echoes(), (std::vector<Echo>{{0, 0}, {1, 1}, {3, 9}}));
  emulator.Line("Packet smpl size mismatch number ASIO buffer smpl size");
  EXPECT_EQ(emulator.Line(".RtpManager: Stream OK"),
            "studio-a.RtpManager: Stream OK. SeqNumPos=65529, SeqNum=65534, PosInBuf=5");
  EXPECT_EQ(emulator.Line(".Recv.0: Stream OK"), "studio-a.RtpManager.Recv.0: Stream OK");
  EXPECT_EQ(emulator.Line(".Recv.0: Stream ERROR"), "studio-a.RtpManager.Recv.0: Stream ERROR");
}

}  // namespace
