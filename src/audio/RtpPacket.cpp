#include "audio/RtpPacket.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\RtpPacket";

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

}  // namespace

uint64_t RtpHeader::GetPacketSize(uint64_t sampleCount) const {
  return IsAudioPayloadType(PayloadType()) ? sampleCount * kFrameBytes + kSize : 0;
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

// The misspelt texts of the next two distinguish the two operations in logs; they are relied on.
ErrInfo RtpPacket::SetAudioPayloadChan(const float* source, uint32_t channel, uint32_t stride) {
  ErrInfo err = ERR_HERE("Network::RtpPacket::SetAudioPayloadChan");
  if (IsEmpty()) return err.SetText(L"Empty packet");
  const uint32_t type = GetHeader().PayloadType();
  if (!IsAudioPayloadType(type)) return err.SetText(L"Updefined payloadType");
  if (channel >= PayloadChanCount(type)) return err.SetText(L"Incorrect channel index");

  PackChannel(source, stride, GetSmplCount(), GetPayload() + channel * kSampleBytes);
  return err;
}

ErrInfo RtpPacket::GetAudioPayloadChan(float* destination, uint32_t channel,
                                       uint32_t stride) const {
  ErrInfo err = ERR_HERE("Network::RtpPacket::GetAudioPayloadChan");
  if (IsEmpty()) return err.SetText(L"Empty packet");
  const uint32_t type = GetHeader().PayloadType();
  if (!IsAudioPayloadType(type)) return err.SetText(L"Updafined payloadType");
  if (channel >= PayloadChanCount(type)) return err.SetText(L"Incorrect channel index");

  UnpackChannel(GetPayload() + channel * kSampleBytes, GetSmplCount(), destination, stride);
  return err;
}

// What can't be packed fails as the packing of its first channel does.
ErrInfo RtpPacket::SetAudioPayload(const float* left, const float* right) {
  if (!IsAudioPayloadType(GetHeader().PayloadType())) return SetAudioPayloadChan(left, 0, 1);
  PackFrames(left, right, GetSmplCount(), GetPayload());
  return ERR_HERE("Network::RtpPacket::SetAudioPayload");
}

ErrInfo RtpPacket::GetAudioPayload(float* left, float* right) const {
  if (!IsAudioPayloadType(GetHeader().PayloadType())) return GetAudioPayloadChan(left, 0, 1);
  UnpackFrames(GetPayload(), GetSmplCount(), left, right);
  return ERR_HERE("Network::RtpPacket::GetAudioPayload");
}

}  // namespace Network
