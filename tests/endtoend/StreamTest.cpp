// What the inputs of a unit send: header, numbers, the samples of a mode.
#include <cstdlib>

#include "endtoend/EndToEnd.h"

namespace {

class Stream : public EndToEnd {
 protected:
  EmulatorProcess emulator{std::vector<UnitSpec>{{.type = "QZ820", .mode = 1}}};
  wire::AudioReceiver a{loop, here}, b{loop, here}, c{loop, here}, d{loop, here};
};

TEST_F(Stream, AllInputsOfAUnitCarryTheTickThatTheyBelongTo) {
  emulator.StartAndWait();
  SetInputs(emulator.Control(),
            {"off", b.Local().ToText(), c.Local().ToText(), d.Local().ToText()});
  for (wire::AudioReceiver* stream : {&b, &c, &d}) {
    ASSERT_TRUE(stream->WaitCount(50));
    const auto& packets = stream->Packets();
    const wire::StreamHeader first = packets[0].Header();
    for (size_t i = 0; i < packets.size(); ++i) {
      wire::StreamHeader header;  // version 2, type 100, no marker, SSRC 0
      header.sequence = static_cast<uint16_t>(first.sequence + i);
      // Both count from the first tick.
      header.timestamp = static_cast<uint32_t>(first.sequence + i) * wire::kPacketFrames;
      ASSERT_EQ(packets[i].bytes, wire::EncodePacket(header, wire::Ramp(1.0F, true))) << i;
    }
    // The inputs were set one after the other, at most a tick apart.
    EXPECT_LE(std::abs(first.sequence - b.Packets()[0].Header().sequence), 1);
  }
}

TEST_F(Stream, AnInputThatIsOffSendsNothingAndItsNumbersGoOn) {
  emulator.StartAndWait();
  SetInputs(emulator.Control(), {a.Local().ToText(), "", "", b.Local().ToText()});
  ASSERT_TRUE(a.WaitCount(5));
  SetInputs(emulator.Control(), {"off", "", "", ""});
  Ask(emulator.Control(), "get_inputs", "inputs");
  b.Clear();
  ASSERT_TRUE(b.WaitCount(22));
  const uint16_t off = b.Packets()[1].Header().sequence;  // a tick may have been under way
  EXPECT_LT(a.Packets().back().Header().sequence, off);
  a.Clear();
  SetInputs(emulator.Control(), {a.Local().ToText(), "", "", ""});
  ASSERT_TRUE(a.WaitCount(1));
  EXPECT_GE(a.Packets()[0].Header().sequence, off + 20);
}

}  // namespace
