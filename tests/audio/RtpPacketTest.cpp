#include "audio/RtpPacket.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "audio/IRtp.h"
#include "support/CapturedLog.h"
#include "support/WireAudio.h"

using Network::Packet;
using Network::RtpHeader;
using Network::RtpPacket;
using wire::Bytes;

namespace {

RtpPacket Wrap(const Bytes& bytes) {
  auto packet = std::make_shared<Packet>(1432);
  packet->Resize(bytes.size());
  std::copy(bytes.begin(), bytes.end(), packet->Data());
  return RtpPacket(packet);
}

Bytes BytesOf(const RtpPacket& packet) {
  const Packet& bytes = *packet.GetPacket();
  return Bytes(bytes.Data(), bytes.Data() + bytes.Size());
}

// The three bytes that a sample goes out as.
Bytes WireOf(float sample) {
  RtpPacket packet;
  EXPECT_TRUE(packet.Create(100, 1).IsOk());
  EXPECT_TRUE(packet.SetAudioPayloadChan(&sample, 0, 1).IsOk());
  return Bytes(packet.GetPayload(), packet.GetPayload() + 3);
}

float SampleOf(const Bytes& code) {
  Bytes payload = code;
  payload.resize(6);
  float sample = 0;
  const RtpPacket packet = Wrap(wire::MakeAudioDatagram(0, 0, wire::kType48000, payload));
  EXPECT_TRUE(packet.GetAudioPayloadChan(&sample, 0, 1).IsOk());
  return sample;
}

}  // namespace

TEST(RtpPacket, HeaderStandsInNetworkOrderWithReversedBitFields) {
  RtpPacket packet;
  ASSERT_TRUE(packet.Create(100, 1).IsOk());
  RtpHeader header = packet.GetHeader();
  header.SeqNumber = 0x0102;
  header.Timestamp = 0x03040506;
  ASSERT_TRUE(packet.SetHeader(header).IsOk());
  EXPECT_EQ(BytesOf(packet), (Bytes{2, 0xC8, 1, 2, 3, 4, 5, 6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

  // Flags, marker and source of a sender are let through but mean nothing.
  const RtpHeader got =
      Wrap({0xFF, 0xCB, 0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 1, 2, 3, 4}).GetHeader();
  EXPECT_EQ(got.PayloadType(), 101u);
  EXPECT_EQ(got.SeqNumber, 0xFEDC);
  EXPECT_EQ(got.Timestamp, 0xBA987654u);
  EXPECT_EQ(got.Ssrc, 0x01020304u);
}

TEST(RtpPacket, OnlyTwoPayloadTypesAreAudio) {
  for (uint32_t type = 0; type < 300; ++type) {
    const bool audio = type == 100 || type == 101;
    EXPECT_EQ(Network::IsAudioPayloadType(type), audio);
    EXPECT_EQ(Network::PayloadChanCount(type), audio ? 2u : 0u);
    EXPECT_EQ(Network::PayloadSmplBytes(type), audio ? 3u : 0u);
  }
  EXPECT_EQ(Network::PayloadTypeFromFreq(48000), 100u);
  EXPECT_EQ(Network::PayloadTypeFromFreq(44100), 101u);
  EXPECT_EQ(Network::PayloadTypeFromFreq(96000), 0u);

  RtpHeader header;
  EXPECT_EQ(header.GetPacketSize(192), 0u);
  header.SetPayloadType(101);
  EXPECT_EQ(header.GetPacketSize(192), 1164u);

  RtpPacket packet;
  packet.Create(228, 192);  // 228 is 100 in seven bits
  EXPECT_NE(Log().TryTake(L"Network::RtpPacket::Create"), L"");
  EXPECT_TRUE(packet.IsEmpty());
}

TEST(RtpPacket, SamplesAreCutOffTowardZeroAndNotClipped) {
  EXPECT_EQ(WireOf(0.5f), (Bytes{0x3F, 0xFF, 0xFF}));
  EXPECT_EQ(WireOf(-0.5f), (Bytes{0xC0, 0x00, 0x01}));
  EXPECT_EQ(WireOf(1.0f), (Bytes{0x7F, 0xFF, 0xFF}));
  EXPECT_EQ(WireOf(2.0f), (Bytes{0xFF, 0xFF, 0xFE}));

  // Beyond 32 bits there is no code: silence, on every processor.
  for (const float wild : {300.0f, -300.0f, std::numeric_limits<float>::infinity(), NAN})
    EXPECT_EQ(WireOf(wild), (Bytes{0, 0, 0}));

  EXPECT_NEAR(SampleOf({0x7F, 0xFF, 0xFF}), 1.0f, 1e-7);
  EXPECT_FLOAT_EQ(SampleOf({0x80, 0x00, 0x00}), -1.00000012f);
  EXPECT_EQ(SampleOf({0xFF, 0xFF, 0xFF}), -1.1920930376163597e-07f);
}

// The loop-back of a unit must be bit-exact. With any product in double precision half of the codes
// come back one lower.
TEST(RtpPacket, EveryCodeSurvivesALoopBack) {
  constexpr uint32_t kFrames = 1 << 16;
  Bytes payload(size_t{kFrames} * 6);
  std::vector<float> samples(kFrames);
  RtpPacket back;
  ASSERT_TRUE(back.Create(100, kFrames).IsOk());
  for (int32_t first = -(1 << 23); first < 1 << 23; first += 2 * int32_t{kFrames}) {
    for (size_t frame = 0; frame < kFrames; ++frame) {
      wire::PutCode(payload, frame, 0, first + static_cast<int32_t>(frame));
      wire::PutCode(payload, frame, 1, first + static_cast<int32_t>(frame + kFrames));
    }
    auto buffer = std::make_shared<Packet>(12 + payload.size());
    buffer->Resize(buffer->Capacity());
    RtpPacket sent(buffer);
    ASSERT_TRUE(sent.SetHeader(back.GetHeader()).IsOk());
    std::copy(payload.begin(), payload.end(), sent.GetPayload());
    for (uint32_t channel = 0; channel < 2; ++channel) {
      ASSERT_TRUE(sent.GetAudioPayloadChan(samples.data(), channel, 1).IsOk());
      ASSERT_TRUE(back.SetAudioPayloadChan(samples.data(), channel, 1).IsOk());
    }
    ASSERT_EQ(BytesOf(back), BytesOf(sent)) << "from code " << first;
  }
}

TEST(RtpPacket, ChannelsInterleaveAndStrideSkips) {
  const std::vector<float> source = {0.25f, 9, 9, -0.25f, 9, 9};
  RtpPacket packet;
  ASSERT_TRUE(packet.Create(101, 2).IsOk());
  ASSERT_TRUE(packet.SetAudioPayloadChan(source.data(), 1, 3).IsOk());
  const Bytes payload(packet.GetPayload(), packet.GetPayload() + packet.GetPayloadSize());
  EXPECT_EQ(payload, (Bytes{0, 0, 0, 0x1F, 0xFF, 0xFF, 0, 0, 0, 0xE0, 0, 1}));

  std::vector<float> got(3, 9);
  ASSERT_TRUE(packet.GetAudioPayloadChan(got.data(), 1, 2).IsOk());
  EXPECT_NEAR(got[0], 0.25f, 1e-6);
  EXPECT_EQ(got[1], 9);
  EXPECT_NEAR(got[2], -0.25f, 1e-6);
}

// A datagram may have any size. The bytes behind it belong to nobody and must not be looked at.
TEST(RtpPacket, DatagramsOfOddSizes) {
  for (size_t size = 0; size < 12; ++size) {
    const RtpPacket packet = Wrap(Bytes(size, 0xC8));
    EXPECT_EQ(packet.GetPayload(), nullptr);
    EXPECT_EQ(packet.GetPayloadSize(), 0u);
    EXPECT_EQ(packet.GetSmplCount(), 0u);
    RtpPacket(packet).SetHeader({});
    EXPECT_NE(Log().TryTake(L"Packet shorter than its header"), L"");
    EXPECT_EQ(BytesOf(packet), Bytes(size, 0xC8));
  }
  const auto samples = [](size_t payload, uint8_t typeByte) {
    return Wrap(wire::MakeAudioDatagram(1, 2, typeByte, Bytes(payload))).GetSmplCount();
  };
  EXPECT_EQ(samples(0, wire::kType48000), 0u);
  EXPECT_EQ(samples(1152, wire::kType48000), 192u);
  EXPECT_EQ(samples(1157, wire::kType44100), 192u);
  EXPECT_EQ(samples(1152, 99 << 1), 0u);
}

TEST(RtpPacket, FailuresTellThemselvesApart) {
  float sample = 0;
  RtpPacket empty;
  EXPECT_EQ(empty.GetHeader().VersionAndFlags, 2);
  EXPECT_EQ(empty.GetPayload(), nullptr);
  EXPECT_EQ(empty.GetSmplCount(), 0u);
  empty.SetHeader({});
  EXPECT_NE(Log().TryTake(L"Network::RtpPacket::SetHeader"), L"");
  empty.SetAudioPayloadChan(&sample, 0, 1);
  EXPECT_NE(Log().TryTake(L"ErrStr=Empty packet"), L"");
  empty.GetAudioPayloadChan(&sample, 0, 1);
  EXPECT_NE(Log().TryTake(L"ErrStr=Empty packet"), L"");

  RtpPacket other = Wrap(wire::MakeAudioDatagram(1, 2, 99 << 1, Bytes(6)));
  other.SetAudioPayloadChan(&sample, 0, 1);
  EXPECT_NE(Log().TryTake(L"Updefined payloadType"), L"");
  other.GetAudioPayloadChan(&sample, 0, 1);
  EXPECT_NE(Log().TryTake(L"Updafined payloadType"), L"");

  RtpPacket audio = Wrap(wire::MakeAudioDatagram(1, 2, wire::kType48000, Bytes(6)));
  audio.SetAudioPayloadChan(&sample, 2, 1);
  audio.GetAudioPayloadChan(&sample, 2, 1);
  EXPECT_EQ(Log().Count(L"Incorrect channel index"), 2u);
  Log().Allow(L"Incorrect channel index");
}
