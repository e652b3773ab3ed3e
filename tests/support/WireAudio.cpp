#include "support/WireAudio.h"

#include <algorithm>
#include <iterator>

namespace wire {

namespace {

// Whole numbers up to this are the range of a sample: 1.0 goes out as 0x7FFFFF.
constexpr float kScale = 8388607.0f;
constexpr size_t kHeaderSize = 12;
constexpr int32_t kMarks = 10000;

uint32_t BigEndian(const Bytes& bytes, size_t at, size_t count) {
  uint32_t value = 0;
  for (size_t i = 0; i < count; ++i)
    value = value << 8 | bytes[at + i];
  return value;
}

}  // namespace

Bytes MakeAudioDatagram(uint16_t sequence, uint32_t timestamp, uint8_t typeByte,
                        const Bytes& payload) {
  const auto byte = [](uint32_t value) { return static_cast<uint8_t>(value & 0xFF); };
  const uint8_t header[] = {0x02,
                            typeByte,
                            byte(sequence >> 8U),
                            byte(sequence),
                            byte(timestamp >> 24),
                            byte(timestamp >> 16),
                            byte(timestamp >> 8),
                            byte(timestamp),
                            0,
                            0,
                            0,
                            0};
  Bytes bytes(sizeof header + payload.size());
  std::copy(std::begin(header), std::end(header), bytes.begin());
  std::copy(payload.begin(), payload.end(), bytes.begin() + sizeof header);
  return bytes;
}

int32_t CodeOf(float sample) {
  // Rounded to single precision before the fraction is cut off.
  const float scaled = sample * kScale;
  return static_cast<int32_t>(scaled);
}

void PutCode(Bytes& payload, size_t frame, size_t channel, int32_t code) {
  const size_t at = frame * 6 + channel * 3;
  const auto bits = static_cast<uint32_t>(code);
  payload[at] = static_cast<uint8_t>(bits >> 16 & 0xFF);
  payload[at + 1] = static_cast<uint8_t>(bits >> 8 & 0xFF);
  payload[at + 2] = static_cast<uint8_t>(bits & 0xFF);
}

int32_t GetCode(const Bytes& payload, size_t frame, size_t channel) {
  const uint32_t bits = BigEndian(payload, frame * 6 + channel * 3, 3);
  return static_cast<int32_t>(bits << 8) >> 8;
}

Bytes RampPayload(float level, bool right) {
  Bytes payload(kPayloadSize);
  for (size_t frame = 0; frame < kFrames; ++frame) {
    const float scaled = static_cast<float>(frame + 1) * level;
    const float sample = scaled / 192.0f;
    PutCode(payload, frame, 0, CodeOf(sample));
    if (right) PutCode(payload, frame, 1, CodeOf(sample));
  }
  return payload;
}

Bytes PatternPayload(int32_t mark) {
  Bytes payload(kPayloadSize);
  for (size_t frame = 0; frame < kFrames; ++frame) {
    PutCode(payload, frame, 0, CodeOf(static_cast<float>(frame + 1) / 192.0f));
    PutCode(payload, frame, 1, CodeOf(static_cast<float>(192 - frame) / 192.0f));
  }
  PutCode(payload, 0, 0, GetCode(payload, 0, 0) + mark);
  return payload;
}

std::optional<int32_t> MarkOf(const Bytes& payload) {
  if (payload.size() != kPayloadSize) return std::nullopt;
  const int32_t mark = GetCode(payload, 0, 0) - CodeOf(1.0f / 192.0f);
  if (mark < 0 || mark >= kMarks || payload != PatternPayload(mark)) return std::nullopt;
  return mark;
}

StreamReceiver::StreamReceiver(const std::string& address)
    : socket_({address, 0}, [this](const Datagram& datagram) { OnDatagram(datagram); }) {}

std::vector<AudioPacket> StreamReceiver::Packets() const {
  std::lock_guard lock(mutex_);
  return packets_;
}

void StreamReceiver::Clear() {
  std::lock_guard lock(mutex_);
  packets_.clear();
}

std::vector<AudioPacket> StreamReceiver::WaitPackets(size_t count, Clock::duration patience) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, patience, [&] { return packets_.size() >= count; });
  return packets_;
}

size_t StreamReceiver::ShortCount() const {
  std::lock_guard lock(mutex_);
  return shortCount_;
}

void StreamReceiver::OnDatagram(const Datagram& datagram) {
  std::lock_guard lock(mutex_);
  if (datagram.bytes.size() < kHeaderSize) {
    ++shortCount_;
  } else {
    const auto payload = datagram.bytes.begin() + kHeaderSize;
    packets_.push_back({static_cast<uint16_t>(BigEndian(datagram.bytes, 2, 2)),
                        BigEndian(datagram.bytes, 4, 4), Bytes(datagram.bytes.begin(), payload),
                        Bytes(payload, datagram.bytes.end()), datagram.time});
  }
  changed_.notify_all();
}

StreamSender::StreamSender(const std::string& address, Endpoint to)
    : to_(std::move(to)), socket_({address, 0}, [](const Datagram&) {}) {}

void StreamSender::Send(uint16_t sequence, const Bytes& payload, uint8_t typeByte) {
  SendRaw(MakeAudioDatagram(sequence, sequence * 192U, typeByte, payload));
}

}  // namespace wire
