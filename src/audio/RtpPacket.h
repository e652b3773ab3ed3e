// One datagram of an audio stream: its 12-byte header and its payload of samples, whose form stands
// in Format.h. A view of a shared Packet, without lock: one thread fills a packet before it is
// handed on.
//
// The form is that of RTP (RFC 3550) but for the first two bytes, whose bit fields stand in the
// opposite order: version 2 is the byte 0x02, payload type 100 without marker is 0xC8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "audio/Format.h"
#include "runtime/ErrInfo.h"
#include "sockets/Packet.h"

namespace Network {

// The header with its numbers in host order; on the wire they are big-endian.
struct RtpHeader {
  static constexpr size_t kSize = kHeaderBytes;  // bytes on the wire

  uint8_t VersionAndFlags = 0x02;  // bits 0-1: version; not looked at when receiving
  uint8_t MarkerAndType = 0;       // bit 0: marker, not looked at; bits 1-7: payload type
  uint16_t SeqNumber = 0;
  uint32_t Timestamp = 0;
  uint32_t Ssrc = 0;

  uint32_t PayloadType() const { return MarkerAndType >> 1; }
  void SetPayloadType(uint32_t type) { MarkerAndType = static_cast<uint8_t>(type << 1); }

  // Bytes of a datagram with so many samples per channel; 0 if the payload type isn't audio.
  uint64_t GetPacketSize(uint64_t sampleCount) const;
};

static_assert(sizeof(RtpHeader) == RtpHeader::kSize);

// A copy shares the bytes, so all copies see a new header. The getters never look beyond the
// datagram, however short it is.
class RtpPacket {
 public:
  RtpPacket() = default;  // empty: holds no buffer
  explicit RtpPacket(std::shared_ptr<Packet> packet) : packet_(std::move(packet)) {}
  virtual ~RtpPacket() = default;
  RtpPacket(const RtpPacket&) = default;
  RtpPacket(RtpPacket&&) noexcept = default;
  RtpPacket& operator=(const RtpPacket&) = default;
  RtpPacket& operator=(RtpPacket&&) noexcept = default;

  // A new buffer of silence with a default header of that payload type. Fails, and keeps what it
  // held, if the type isn't audio.
  ErrInfo Create(uint32_t payloadType, uint64_t sampleCount);

  bool IsEmpty() const { return !packet_; }
  const std::shared_ptr<Packet>& GetPacket() const { return packet_; }

  // A default header if the packet is empty or too short for one.
  RtpHeader GetHeader() const;
  ErrInfo SetHeader(const RtpHeader& header);

  uint8_t* GetPayload() const;      // null if empty or shorter than a header
  uint64_t GetPayloadSize() const;  // bytes after the header
  uint64_t GetSmplCount() const;    // whole samples per channel; 0 if the payload isn't audio

  // Both channels, GetSmplCount floats each: what a tick uses.
  ErrInfo SetAudioPayload(const float* left, const float* right);
  ErrInfo GetAudioPayload(float* left, float* right) const;

  // One channel alone, 0 left and 1 right; the floats lie `stride` apart.
  ErrInfo SetAudioPayloadChan(const float* source, uint32_t channel, uint32_t stride);
  ErrInfo GetAudioPayloadChan(float* destination, uint32_t channel, uint32_t stride) const;

 private:
  bool HasHeader() const { return packet_ && packet_->Size() >= RtpHeader::kSize; }

  std::shared_ptr<Packet> packet_;
};

}  // namespace Network
