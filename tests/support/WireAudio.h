// The audio of the wire, from the test's side: packets as bytes, the samples that the modes have to
// send, a receiver of one stream. Shares no code with the emulator.
#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/WireSocket.h"

namespace wire {

constexpr size_t kFrames = 192;               // samples per channel in a packet
constexpr size_t kPayloadSize = kFrames * 6;  // 24 bits, two channels
constexpr uint8_t kType48000 = 0xC8;          // second byte of the header: payload type 100
constexpr uint8_t kType44100 = 0xCA;          // payload type 101

// One packet as it came in.
struct AudioPacket {
  uint16_t sequence = 0;
  uint32_t timestamp = 0;
  Bytes header;  // 12 bytes
  Bytes payload;
  Clock::time_point time;
};

Bytes MakeAudioDatagram(uint16_t sequence, uint32_t timestamp, uint8_t typeByte,
                        const Bytes& payload);

// The 24-bit code that a sample goes out as.
int32_t CodeOf(float sample);

// Puts a code into a payload: frame from 0, channel 0 (left) or 1.
void PutCode(Bytes& payload, size_t frame, size_t channel, int32_t code);
int32_t GetCode(const Bytes& payload, size_t frame, size_t channel);

// What the modes 1 to 4 send: a ramp up to `level` on the left, and on the right if wanted.
Bytes RampPayload(float level, bool right);

// The pattern that an output recognises, made individual by `mark`, which is added to the first
// sample's code: marks of 0 to 9999 stay within what the recognition tolerates.
Bytes PatternPayload(int32_t mark = 0);

// The mark of a payload of PatternPayload; empty if it is something else.
std::optional<int32_t> MarkOf(const Bytes& payload);

// Receives a stream on any port of the address.
class StreamReceiver {
 public:
  explicit StreamReceiver(const std::string& address);

  const Endpoint& Local() const { return socket_.Local(); }

  std::vector<AudioPacket> Packets() const;
  void Clear();

  // Waits until so many packets have come in since the beginning or the latest Clear, and returns
  // what is there then.
  std::vector<AudioPacket> WaitPackets(size_t count, Clock::duration patience = kPatience) const;

  // Waits until `done`, which looks at all packets so far, says so. False if it never does.
  template <typename Done>
  bool Wait(Done done, Clock::duration patience = kPatience) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, patience, [&] { return done(packets_); });
  }

  // Datagrams that were too short for a header.
  size_t ShortCount() const;

 private:
  void OnDatagram(const Datagram& datagram);

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<AudioPacket> packets_;
  size_t shortCount_ = 0;

  Socket socket_;  // last: its thread uses the others
};

// Sends a stream to an output, from any port of the address.
class StreamSender {
 public:
  StreamSender(const std::string& address, Endpoint to);

  // The timestamp follows the sequence number: 192 a step.
  void Send(uint16_t sequence, const Bytes& payload, uint8_t typeByte = kType48000);
  void SendRaw(const Bytes& bytes) { socket_.Send(bytes, to_); }

 private:
  Endpoint to_;
  Socket socket_;
};

}  // namespace wire
