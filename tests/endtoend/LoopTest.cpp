// Audio into an output and back out of the input: positions in the ring, and the lines in the log.
#include <algorithm>
#include <regex>
#include <thread>

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

TEST_F(Loop, APacketComesBackBitForBitWithItsPositionsInTheLog) {
  Send(1000, 77);
  Drain();
  EXPECT_EQ(Echoes(), (std::vector<Echo>{{0, 77}}));
  EXPECT_EQ(emulator.Line(".RtpManager: Stream OK"),
            "studio-a.RtpManager: Stream OK. SeqNumPos=995, SeqNum=1000, PosInBuf=5");
  EXPECT_EQ(emulator.Line(".Recv.0: Stream OK"), "studio-a.RtpManager.Recv.0: Stream OK");
  EXPECT_EQ(emulator.Line(".Recv.0: Stream ERROR"), "studio-a.RtpManager.Recv.0: Stream ERROR");
  EXPECT_EQ(StreamErrors(), 0u);
}

// Bit for bit means every 24-bit code, the ends of the range included.
TEST_F(Loop, EveryCodeSurvives) {
  std::vector<Bytes> payloads(4, Bytes(wire::kPayloadSize));
  uint32_t random = 1;
  for (Bytes& payload : payloads) {
    for (uint8_t& byte : payload) {
      random = random * 1664525 + 1013904223;
      byte = static_cast<uint8_t>(random >> 24);
    }
  }
  const int32_t corners[] = {1, -1, 2, 0x7FFFFF, -0x7FFFFF, -0x800000, 0x400000, -0x400000};
  for (size_t i = 0; i < std::size(corners); ++i) {
    wire::PutCode(payloads[0], i, i % 2, corners[i]);
  }
  for (size_t i = 0; i < payloads.size(); ++i) {
    sender.Send(static_cast<uint16_t>(500 + i), payloads[i]);
  }
  Drain();
  std::vector<Bytes> heard;
  for (const AudioPacket& packet : receiver.Packets()) {
    if (packet.payload != kSilence) heard.push_back(packet.payload);
  }
  EXPECT_TRUE(heard == payloads);
}

TEST_F(Loop, ALostPacketIsATickOfSilence) {
  for (const int number : {1000, 1001, 1003})
    Send(number, number);
  Drain();
  EXPECT_EQ(Echoes(), (std::vector<Echo>{{0, 1000}, {1, 1001}, {3, 1003}}));
  EXPECT_EQ(StreamErrors(), 0u);
}

TEST_F(Loop, ReorderedPacketsTakeTheirPlaces) {
  for (const int number : {1003, 1001, 1002, 1000}) {
    Send(number, number);
  }
  Drain();
  EXPECT_EQ(Echoes(), (std::vector<Echo>{{0, 1000}, {1, 1001}, {2, 1002}, {3, 1003}}));
  EXPECT_EQ(emulator.Line(".RtpManager: Stream OK"),
            "studio-a.RtpManager: Stream OK. SeqNumPos=998, SeqNum=1003, PosInBuf=5");
  EXPECT_EQ(StreamErrors(), 0u);
}

TEST_F(Loop, TheLaterOfTwoEqualPacketsIsHeard) {
  Send(1000, 1);
  Send(1001, 2);
  Send(1000, 3);
  Drain();
  EXPECT_EQ(Echoes(), (std::vector<Echo>{{0, 3}, {1, 2}}));
  EXPECT_EQ(StreamErrors(), 0u);
}

TEST_F(Loop, APacketThatComesTooLateIsDroppedWithoutAWord) {
  Send(1000, 1);
  Send(1002, 2);
  Send(994, 3);
  Send(1001, 4);
  Drain();
  EXPECT_EQ(Echoes(), (std::vector<Echo>{{0, 1}, {1, 4}, {2, 2}}));
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

  // The first packet after the jump takes the slot that the first one took, so it replaces the one
  // that is there by now; the others come out in their turn.
  const int ticks = std::stoi(numbers[1]) - 995;  // since the first packet
  std::vector<Echo> expected = {{0, 1000}, {1, 1001}, {2, 1002}};
  std::erase_if(expected, [&](const Echo& echo) { return echo.tick == ticks; });
  expected.push_back({ticks, 2001});
  std::sort(expected.begin(), expected.end(),
            [](const Echo& a, const Echo& b) { return a.tick < b.tick; });
  const int first = expected.front().tick;
  for (Echo& echo : expected)
    echo.tick -= first;
  EXPECT_EQ(Echoes(), expected);
}

TEST_F(Loop, AStreamThatRanDryBeginsAnew) {
  Send(1000, 1);
  Drain();
  Send(1001, 2);
  const std::string line = emulator.Line(".RtpManager: Stream ERROR");
  EXPECT_NE(line.find("SeqNum=1001, seq_num=1001, old_seq_num=1000, PosInBuf=-"), std::string::npos)
      << line;
  emulator.Line(".RtpManager: Stream OK");
  EXPECT_EQ(emulator.Line(".RtpManager: Stream OK"),
            "studio-a.RtpManager: Stream OK. SeqNumPos=996, SeqNum=1001, PosInBuf=5");
}

TEST_F(Loop, DatagramsThatAreNoPacketsChangeNothing) {
  Send(1000, 1);
  for (size_t size = 0; size < 12; ++size)
    sender.SendRaw(Bytes(size, 0xFF));
  Send(1001, 2);
  Drain();
  EXPECT_EQ(Echoes(), (std::vector<Echo>{{0, 1}, {1, 2}}));
  EXPECT_EQ(StreamErrors(), 0u);
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

TEST_F(Loop, APacedStreamComesBackInOrder) {
  constexpr int kPackets = 200;
  auto due = wire::Clock::now();
  for (int i = 0; i < kPackets; ++i) {
    Send(i, i);
    due += std::chrono::milliseconds(4);
    std::this_thread::sleep_until(due);  // the pace of the stream
  }
  emulator.Line("Test data stream OK");
  emulator.Line("Test data stream FAILED");
  Drain();
  const std::vector<Echo> echoes = Echoes();
  // On a machine that is busy our pace falters, and what the ring still held then comes out behind
  // what came later; most of the stream has to arrive, and in order if nothing faltered.
  EXPECT_GE(echoes.size(), static_cast<size_t>(kPackets / 2));
  if (StreamErrors() > 0) return;
  for (size_t i = 1; i < echoes.size(); ++i) {
    EXPECT_EQ(echoes[i].mark - echoes[i - 1].mark, echoes[i].tick - echoes[i - 1].tick);
  }
}

TEST_F(Loop, AnySenderIsHeard) {
  wire::StreamSender second(wire::OwnAddress(), emulator.Control(2));
  Send(1000, 1);
  second.Send(1001, PatternPayload(2));
  Drain();
  EXPECT_EQ(Echoes(), (std::vector<Echo>{{0, 1}, {1, 2}}));
}

}  // namespace
