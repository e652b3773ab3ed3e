// Audio into an output and back out of the input: positions in the ring, and the lines in the log.
#include <regex>

#include "endtoend/EndToEnd.h"

namespace {

using wire::AudioPacket;
using wire::Bytes;
using wire::PatternPayload;

constexpr size_t kRing = 9;  // packets
const Bytes kSilence(wire::kPayloadSize);

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
// distance by their numbers, so that no test depends on when the ticks fall. But a test that is
// held up for longer than the ring, 20 ms, in the middle of its packets sees the stream run dry: so
// these tests run alone.
class Loop : public EndToEnd {
 protected:
  void SetUp() override {
    emulator.StartAndWait();
    controller.Tell(emulator.Control(), "set_inputs", Inputs({receiver.Local().ToText()}));
    receiver.WaitPackets(1);
    receiver.Clear();
  }

  // The pattern with that mark, as packet `number`.
  void Send(int number, int mark) {
    sender.Send(static_cast<uint16_t>(number), PatternPayload(mark));
  }

  // Waits until something has come back, and after it silence for longer than the ring is long.
  void Drain() {
    ASSERT_TRUE(receiver.Wait([](const std::vector<AudioPacket>& packets) {
      bool heard = false;
      size_t silent = 0;
      for (const AudioPacket& packet : packets) {
        const bool silence = packet.payload == kSilence;
        heard = heard || !silence;
        silent = silence ? silent + 1 : 0;
      }
      return heard && silent > 2 * kRing;
    }));
  }

  std::vector<Echo> Echoes() const {
    std::vector<Echo> echoes;
    uint16_t first = 0;
    for (const AudioPacket& packet : receiver.Packets()) {
      if (packet.payload == kSilence) continue;
      const auto mark = wire::MarkOf(packet.payload);
      EXPECT_TRUE(mark) << "something that wasn't sent";
      if (echoes.empty()) first = packet.sequence;
      echoes.push_back({static_cast<uint16_t>(packet.sequence - first), mark.value_or(-1)});
    }
    return echoes;
  }

  size_t StreamErrors() const { return emulator.LinesWith(".RtpManager: Stream ERROR").size(); }

  EmulatorProcess emulator{std::vector<UnitSpec>{{}}};
  wire::StreamReceiver receiver{wire::OwnAddress()};
  wire::StreamSender sender{wire::OwnAddress(), emulator.Control(2)};
};

// Lost, reordered, doubled and late ones, a short datagram, and one of another sender.
TEST_F(Loop, PacketsTakeTheirPlacesBitForBit) {
  wire::StreamSender second(wire::OwnAddress(), emulator.Control(2));
  Send(1003, 3);
  Send(1001, 1);
  for (size_t size = 0; size < 12; ++size)
    sender.SendRaw(Bytes(size, 0xFF));
  second.Send(1000, PatternPayload(0));
  Send(1003, 9);  // the later of two is heard
  Send(990, 5);
  Drain();
  EXPECT_EQ(Echoes(), (std::vector<Echo>{{0, 0}, {1, 1}, {3, 9}}));
  EXPECT_EQ(emulator.Line(".RtpManager: Stream OK"),
            "studio-a.RtpManager: Stream OK. SeqNumPos=998, SeqNum=1003, PosInBuf=5");
  EXPECT_EQ(emulator.Line(".Recv.0: Stream OK"), "studio-a.RtpManager.Recv.0: Stream OK");
  EXPECT_EQ(emulator.Line(".Recv.0: Stream ERROR"), "studio-a.RtpManager.Recv.0: Stream ERROR");
  EXPECT_EQ(StreamErrors(), 0u);
}

TEST_F(Loop, SequenceNumbersRunOnThroughTheirWrap) {
  const int numbers[] = {65534, 65535, 0, 1};
  for (int i = 0; i < 4; ++i)
    Send(numbers[i], i);
  Drain();
  EXPECT_EQ(Echoes(), (std::vector<Echo>{{0, 0}, {1, 1}, {2, 2}, {3, 3}}));
  EXPECT_EQ(emulator.Line(".RtpManager: Stream OK"),
            "studio-a.RtpManager: Stream OK. SeqNumPos=65529, SeqNum=65534, PosInBuf=5");
  EXPECT_EQ(StreamErrors(), 0u);

  // The ticks have passed the newest packet: the next one finds the stream run dry, with the
  // numbers counted on, and begins anew with the bare ones.
  Send(5, 9);
  const std::string line = emulator.Line(".RtpManager: Stream ERROR");
  EXPECT_NE(line.find("SeqNum=65541, seq_num=65541, old_seq_num=65537, PosInBuf=-"),
            std::string::npos)
      << line;
  EXPECT_EQ(emulator.Line(".RtpManager: Stream OK"),
            "studio-a.RtpManager: Stream OK. SeqNumPos=0, SeqNum=5, PosInBuf=5");
}

TEST_F(Loop, AJumpBeginsTheStreamAnewAndKeepsWhatTheRingHolds) {
  for (const int number : {1000, 1001, 1002})
    Send(number, number);
  Send(2001, 2001);
  Drain();
  const std::string line = emulator.Line(".RtpManager: Stream ERROR");
  std::smatch numbers;
  const std::regex form(
      R"(studio-a\.RtpManager: Stream ERROR\. SeqNumPos=(\d+), SeqNum=2001, seq_num=2001, )"
      R"(old_seq_num=1002, PosInBuf=(\d+))");
  ASSERT_TRUE(std::regex_match(line, numbers, form)) << line;
  EXPECT_EQ(std::stoi(numbers[2]), 2001 - std::stoi(numbers[1]));
  emulator.Line(".RtpManager: Stream OK");
  EXPECT_EQ(emulator.Line(".RtpManager: Stream OK"),
            "studio-a.RtpManager: Stream OK. SeqNumPos=1996, SeqNum=2001, PosInBuf=5");
  EXPECT_EQ(StreamErrors(), 1u);

  // It replaces the one that is in its slot by now; the others come out in their turn.
  EXPECT_GE(Echoes().size(), 3u);
}

// A packet that isn't one of 192 stereo samples takes its place and is silent, with a failure for
// its tick; the stream goes on.
TEST_F(Loop, PacketsOfAnotherFormAreSilent) {
  Send(1000, 1);
  sender.Send(1001, PatternPayload(2), 99 << 1);
  sender.Send(1002, Bytes(96 * 6, 0x11));
  Send(1003, 4);
  Drain();
  EXPECT_EQ(Echoes(), (std::vector<Echo>{{0, 1}, {3, 4}}));
  emulator.Line("Packet smpl size mismatch number ASIO buffer smpl size");
  EXPECT_EQ(emulator.LinesWith("Packet smpl size mismatch").size(), 2u);
}

TEST_F(Loop, ThePatternIsToldWhenItComesAndWhenItStops) {
  // A sample may be off by 1/384, which is 21845.3 codes.
  Bytes inside = PatternPayload(), outside = PatternPayload();
  wire::PutCode(inside, 100, 1, wire::GetCode(inside, 100, 1) + 21800);
  wire::PutCode(outside, 100, 1, wire::GetCode(outside, 100, 1) + 21900);
  sender.Send(1000, PatternPayload());
  sender.Send(1001, inside);
  sender.Send(1002, outside);
  sender.Send(1003, PatternPayload());
  emulator.Line("Test data stream FAILED");
  emulator.Line("Test data stream FAILED");
  EXPECT_EQ(emulator.LinesWith("Test data stream"),
            (std::vector<std::string>{"Test data stream OK", "Test data stream FAILED",
                                      "Test data stream OK", "Test data stream FAILED"}));
}

}  // namespace
