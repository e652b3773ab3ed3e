#include "audio/RtpPacket.h"

#include <bit>
#include <cfloat>
#include <limits>
#include <utility>

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\RtpPacket";

// Samples are part of the wire format. Every product is rounded to single precision: with more
// precision half of all codes would come back one lower after a loop-back.
static_assert(FLT_EVAL_METHOD == 0);
constexpr float kCodeOfSample = 8388607.0f;                                  // full scale, 2^23 - 1
constexpr float kSampleOfCode = std::bit_cast<float>(uint32_t{0x34000001});  // 1 / full scale

struct PayloadFormat {
  uint32_t type;
  uint32_t frequency;
  uint32_t channels;
  uint32_t sampleBytes;
};

constexpr PayloadFormat kFormats[] = {{100, 48000, 2, 3}, {101, 44100, 2, 3}};
constexpr uint64_t kSampleBytes = 3;
constexpr uint64_t kFrameBytes = 6;

const PayloadFormat* FindFormat(uint32_t type) {
  for (const PayloadFormat& format : kFormats)
    if (format.type == type) return &format;
  return nullptr;
}

void Put16(uint8_t* bytes, uint16_t value) {
  bytes[0] = static_cast<uint8_t>(value >> 8);
  bytes[1] = static_cast<uint8_t>(value);
}

void Put32(uint8_t* bytes, uint32_t value) {
  Put16(bytes, static_cast<uint16_t>(value >> 16));
  Put16(bytes + 2, static_cast<uint16_t>(value));
}

uint16_t Get16(const uint8_t* bytes) {
  return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

uint32_t Get32(const uint8_t* bytes) {
  return uint32_t{Get16(bytes)} << 16 | Get16(bytes + 2);
}

// What no 32-bit integer can hold, and what is no number, becomes the lowest integer, as the
// processors' own conversion has it; its low 24 bits are silence.
uint32_t CodeOf(float sample) {
  const float product = sample * kCodeOfSample;
  constexpr float kLimit = 2147483648.0f;  // 2^31
  if (!(product > -kLimit && product < kLimit)) return uint32_t{1} << 31;
  return static_cast<uint32_t>(static_cast<int32_t>(product));
}

void PutSample(uint8_t* bytes, float sample) {
  const uint32_t code = CodeOf(sample);
  bytes[0] = static_cast<uint8_t>(code >> 16);
  bytes[1] = static_cast<uint8_t>(code >> 8);
  bytes[2] = static_cast<uint8_t>(code);
}

float GetSample(const uint8_t* bytes) {
  // Built in the upper three bytes, so that the shift down extends the sign.
  const uint32_t upper =
      uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8;
  return static_cast<float>(static_cast<int32_t>(upper) >> 8) * kSampleOfCode;
}

}  // namespace

bool IsAudioPayloadType(uint32_t payloadType) {
  return FindFormat(payloadType) != nullptr;
}

uint32_t PayloadChanCount(uint32_t payloadType) {
  const PayloadFormat* format = FindFormat(payloadType);
  return format ? format->channels : 0;
}

uint32_t PayloadSmplBytes(uint32_t payloadType) {
  const PayloadFormat* format = FindFormat(payloadType);
  return format ? format->sampleBytes : 0;
}

uint32_t PayloadTypeFromFreq(uint32_t frequency) {
  for (const PayloadFormat& format : kFormats)
    if (format.frequency == frequency) return format.type;
  return 0;
}

uint64_t RtpHeader::GetPacketSize(uint64_t sampleCount) const {
  const PayloadFormat* format = FindFormat(PayloadType());
  return format ? sampleCount * format->sampleBytes * format->channels + kSize : 0;
}

ErrInfo RtpPacket::Create(uint32_t payloadType, uint64_t sampleCount) {
  if (!IsAudioPayloadType(payloadType))
    return ERR_HERE("Network::RtpPacket::Create").SetText(L"Payload type is not audio");
  RtpHeader header;
  header.SetPayloadType(payloadType);
  const uint64_t size = header.GetPacketSize(sampleCount);
  packet_ = std::make_shared<Packet>(size);
  packet_->Resize(size);
  return SetHeader(header);
}

RtpHeader RtpPacket::GetHeader() const {
  RtpHeader header;
  if (!HasHeader()) return header;
  const uint8_t* bytes = packet_->Data();
  header.VersionAndFlags = bytes[0];
  header.MarkerAndType = bytes[1];
  header.SeqNumber = Get16(bytes + 2);
  header.Timestamp = Get32(bytes + 4);
  header.Ssrc = Get32(bytes + 8);
  return header;
}

ErrInfo RtpPacket::SetHeader(const RtpHeader& header) {
  if (IsEmpty()) return ERR_HERE("Network::RtpPacket::SetHeader").SetText(L"Empty packet");
  if (!HasHeader())
    return ERR_HERE("Network::RtpPacket::SetHeader").SetText(L"Packet shorter than its header");
  uint8_t* bytes = packet_->Data();
  bytes[0] = header.VersionAndFlags;
  bytes[1] = header.MarkerAndType;
  Put16(bytes + 2, header.SeqNumber);
  Put32(bytes + 4, header.Timestamp);
  Put32(bytes + 8, header.Ssrc);
  return ERR_HERE("Network::RtpPacket::SetHeader");
}

uint8_t* RtpPacket::GetPayload() const {
  return HasHeader() ? packet_->Data() + RtpHeader::kSize : nullptr;
}

uint64_t RtpPacket::GetPayloadSize() const {
  return HasHeader() ? packet_->Size() - RtpHeader::kSize : 0;
}

uint64_t RtpPacket::GetSmplCount() const {
  return IsAudioPayloadType(GetHeader().PayloadType()) ? GetPayloadSize() / kFrameBytes : 0;
}

// The misspelt texts of the next two tell the two operations apart in logs; they are relied on.
ErrInfo RtpPacket::SetAudioPayloadChan(const float* source, uint32_t channel, uint32_t stride) {
  ErrInfo err = ERR_HERE("Network::RtpPacket::SetAudioPayloadChan");
  if (IsEmpty()) return err.SetText(L"Empty packet");
  const uint32_t type = GetHeader().PayloadType();
  if (!IsAudioPayloadType(type)) return err.SetText(L"Updefined payloadType");
  if (channel >= PayloadChanCount(type)) return err.SetText(L"Incorrect channel index");

  const uint64_t count = GetSmplCount();
  uint8_t* bytes = GetPayload() + channel * kSampleBytes;
  for (uint64_t i = 0; i < count; ++i)
    PutSample(bytes + i * kFrameBytes, source[i * stride]);
  return err;
}

ErrInfo RtpPacket::GetAudioPayloadChan(float* destination, uint32_t channel,
                                       uint32_t stride) const {
  ErrInfo err = ERR_HERE("Network::RtpPacket::GetAudioPayloadChan");
  if (IsEmpty()) return err.SetText(L"Empty packet");
  const uint32_t type = GetHeader().PayloadType();
  if (!IsAudioPayloadType(type)) return err.SetText(L"Updafined payloadType");
  if (channel >= PayloadChanCount(type)) return err.SetText(L"Incorrect channel index");

  const uint64_t count = GetSmplCount();
  const uint8_t* bytes = GetPayload() + channel * kSampleBytes;
  for (uint64_t i = 0; i < count; ++i)
    destination[i * stride] = GetSample(bytes + i * kFrameBytes);
  return err;
}

}  // namespace Network
