#include "audio/RtpPacket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <vector>

#include "audio/IRtp.h"
#include "support/CapturedLog.h"
#include "wire/Audio.h"

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

Bytes PayloadOf(const wire::Frames& frames) {
  const Bytes bytes = wire::EncodePacket({}, frames);
  return {bytes.begin() + wire::kHeaderBytes, bytes.end()};
}

// The low 24 bits of what a sample goes out as, by arithmetic that can't overflow.
int32_t CodeOf(float sample) {
  const float product = sample * 8388607.0f;
  if (!(std::fabs(product) < 2147483648.0f)) return 0;
  return static_cast<int32_t>(std::trunc(double{product}));
}

// Packs both channels, together and one after the other, and holds each code against `CodeOf`.
void ExpectCodes(const std::vector<float>& left, const std::vector<float>& right) {
  RtpPacket both, single;
  ASSERT_TRUE(both.Create(100, left.size()).IsOk());
  ASSERT_TRUE(single.Create(100, left.size()).IsOk());
  ASSERT_TRUE(both.SetAudioPayload(left.data(), right.data()).IsOk());
  ASSERT_TRUE(single.SetAudioPayloadChan(left.data(), 0, 1).IsOk());
  ASSERT_TRUE(single.SetAudioPayloadChan(right.data(), 1, 1).IsOk());
  wire::Frames frames;
  for (size_t i = 0; i < left.size(); ++i)
    frames.push_back({CodeOf(left[i]), CodeOf(right[i])});
  const Bytes expected = PayloadOf(frames);
  ASSERT_TRUE(std::equal(expected.begin(), expected.end(), both.GetPayload()));
  ASSERT_TRUE(std::equal(expected.begin(), expected.end(), single.GetPayload()));
}

float Neighbour(float sample, int32_t steps) {
  return std::bit_cast<float>(std::bit_cast<int32_t>(sample) + steps);
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
  }
  EXPECT_EQ(Network::PayloadTypeFromFreq(48000), 100u);
  EXPECT_EQ(Network::PayloadTypeFromFreq(44100), 101u);
  EXPECT_EQ(Network::PayloadTypeFromFreq(96000), 0u);

  RtpPacket packet;
  packet.Create(228, 192);  // 228 is 100 in seven bits
  EXPECT_NE(Log().TryTake(L"Network::RtpPacket::Create"), L"");
  EXPECT_TRUE(packet.IsEmpty());
}

TEST(RtpPacket, SamplesAreCutOffTowardZeroAndNotClipped) {
  RtpPacket packet;
  ASSERT_TRUE(packet.Create(100, 2).IsOk());
  const float left[] = {0.5f, 1.0f}, right[] = {-0.5f, 2.0f};
  ASSERT_TRUE(packet.SetAudioPayload(left, right).IsOk());
  EXPECT_EQ(Bytes(packet.GetPayload(), packet.GetPayload() + 12),
            (Bytes{0x3F, 0xFF, 0xFF, 0xC0, 0x00, 0x01, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}));

  // Beyond 32 bits there is no code: silence, on every processor. 256 is just short of that.
  const float infinity = std::numeric_limits<float>::infinity();
  std::vector<float> wild = {300, infinity, NAN, 0, 1e-40f, 3e38f, 100.3f};
  for (int32_t steps = -3; steps <= 3; ++steps)
    wild.push_back(Neighbour(256, steps));
  std::vector<float> negative;
  for (const float sample : wild)
    negative.push_back(-sample);
  ExpectCodes(wild, negative);
}

// The loop-back of a unit must be bit-exact. With any product in double precision half of the codes
// come back one lower. All codes, in blocks of odd lengths, and the floats next to each.
TEST(RtpPacket, EveryCodeSurvivesALoopBackAndItsNeighboursAreCutOff) {
  constexpr int32_t kFrames = 65'521;
  std::vector<float> left(kFrames), right(kFrames), single(kFrames);
  for (int32_t first = -(1 << 23); first < 1 << 23 && !HasFatalFailure(); first += 2 * kFrames) {
    RtpPacket sent;
    ASSERT_TRUE(sent.Create(100, kFrames).IsOk());
    wire::Frames frames;
    for (int32_t code = first; code < first + kFrames; ++code) {
      frames.push_back(
          {std::min(code, wire::kFullScale), std::min(code + kFrames, wire::kFullScale)});
    }
    const Bytes payload = PayloadOf(frames);
    std::copy(payload.begin(), payload.end(), sent.GetPayload());
    ASSERT_TRUE(sent.GetAudioPayload(left.data(), right.data()).IsOk());
    ASSERT_TRUE(sent.GetAudioPayloadChan(single.data(), 1, 1).IsOk());
    ASSERT_EQ(single, right);
    ASSERT_EQ(left[1], static_cast<float>(first + 1) * 1.1920930376163597e-07f);

    RtpPacket back;
    ASSERT_TRUE(back.Create(100, kFrames).IsOk());
    ASSERT_TRUE(back.SetAudioPayload(left.data(), right.data()).IsOk());
    ASSERT_TRUE(std::equal(payload.begin(), payload.end(), back.GetPayload()))
        << "from code " << first;
    for (size_t i = 0; i < left.size(); ++i) {
      left[i] = Neighbour(left[i], 1);
      right[i] = Neighbour(right[i], -1);
    }
    ExpectCodes(left, right);
  }
}

// A datagram may have any size. The bytes after it belong to nobody and must not be looked at.
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
  const auto samples = [](size_t payload, uint8_t type) {
    Bytes bytes = wire::EncodePacket({.payloadType = type}, {});
    bytes.resize(bytes.size() + payload);
    return Wrap(bytes).GetSmplCount();
  };
  EXPECT_EQ(samples(0, 100), 0u);
  EXPECT_EQ(samples(1152, 100), 192u);
  EXPECT_EQ(samples(1157, 101), 192u);
  EXPECT_EQ(samples(1152, 99), 0u);
}
