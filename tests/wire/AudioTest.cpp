#include "support/WireAudio.h"

#include <gtest/gtest.h>

namespace wire {
namespace {

TEST(WireAudio, CodesAreTheDocumentedOnes) {
  EXPECT_EQ(CodeOf(0.5f), 0x3FFFFF);
  EXPECT_EQ(CodeOf(-0.5f), -4194303);
  EXPECT_EQ(CodeOf(1.0f), 0x7FFFFF);
  Bytes payload(kPayloadSize);
  PutCode(payload, 1, 1, -4194303);
  EXPECT_EQ((Bytes{payload.begin() + 9, payload.begin() + 12}), (Bytes{0xC0, 0x00, 0x01}));
  EXPECT_EQ(GetCode(payload, 1, 1), -4194303);
}

TEST(WireAudio, PatternsCarryTheirMark) {
  EXPECT_EQ(MarkOf(PatternPayload(0)), 0);
  EXPECT_EQ(MarkOf(PatternPayload(9999)), 9999);
  EXPECT_FALSE(MarkOf(Bytes(kPayloadSize)));
  EXPECT_FALSE(MarkOf(RampPayload(1.0f, true)));
  Bytes damaged = PatternPayload(5);
  damaged[100] ^= 1;
  EXPECT_FALSE(MarkOf(damaged));
}

TEST(WireAudio, AStreamArrivesAsItWasSent) {
  StreamReceiver receiver(OwnAddress());
  StreamSender sender(OwnAddress(), receiver.Local());
  sender.Send(0x0102, PatternPayload(3));
  sender.SendRaw({2, 3});
  sender.Send(0x0103, PatternPayload(4), kType44100);
  const auto packets = receiver.WaitPackets(2);
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_EQ(packets[0].header, (Bytes{0x02, 0xC8, 1, 2, 0, 0, 0xC1, 0x80, 0, 0, 0, 0}));
  EXPECT_EQ(packets[1].sequence, 0x0103);
  EXPECT_EQ(packets[1].timestamp, 0x0103u * 192);
  EXPECT_EQ(packets[1].header[1], kType44100);
  EXPECT_EQ(MarkOf(packets[1].payload), 4);
  EXPECT_EQ(receiver.ShortCount(), 1u);
}

}  // namespace
}  // namespace wire
