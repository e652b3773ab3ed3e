// Taking an input's stream to this program, and sending one to an output.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "AudioFile.h"
#include "StreamStats.h"
#include "audio/ISyncManager.h"
#include "audio/RtpPacket.h"
#include "sockets/INetManager.h"

namespace ctl {

constexpr uint32_t kPacketFrames = 192;

// The frames of an audio packet, bit for bit.
std::vector<Frame> FramesOf(const Network::RtpPacket& packet);

// A local UDP port that keeps every packet with its time of arrival until it is taken.
class StreamReceiver final : public Network::IUdpReceiver {
 public:
  struct Arrival {
    Network::RtpPacket packet;
    int64_t time;  // counter, 100 ns ticks
  };

  // Binds to `local` (port 0: any free one). Throws Failure (kNoPort) when that can't be had.
  StreamReceiver(Network::INetManager& net, const Network::NetAddr& local);
  ~StreamReceiver();

  // The address to give to the unit.
  const Network::NetAddr& Address() const { return address_; }

  // The packets that have come since the latest call, waiting up to `waitMs` for the first.
  std::vector<Arrival> Take(uint32_t waitMs);

  void OnDatagramReceived(Network::IUdpSock*, std::shared_ptr<Network::Packet> packet,
                          const Network::NetAddr& from) override;
  void OnError(Network::IUdpSock*, ErrInfo) override {}

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Arrival> arrivals_;
  Network::NetAddr address_;
  std::shared_ptr<Network::IUdpSock> sock_;
};

// Sends one packet of 192 frames a tick to an address, paced by a SyncManager.
class StreamSender final : public Network::ISyncTarget {
 public:
  // Called on the sync thread for each tick: up to 192 frames; an empty result ends the stream.
  using Source = std::function<std::vector<Frame>()>;

  // `ppm` makes the sender's clock run fast by that many millionths. Throws Failure (kNoPort).
  StreamSender(Network::INetManager& net, const Network::NetAddr& to, uint32_t sampleFreq,
               double ppm, Source source);
  ~StreamSender();

  // Waits until the source has ended, at most `waitMs`. True when it has.
  bool WaitEnd(uint32_t waitMs);

  uint64_t Sent() const;    // packets
  uint64_t Failed() const;  // packets that the system didn't take

  void OnSync(Network::ISyncSource*, int64_t pos, uint32_t freq) override;

 private:
  const uint32_t payloadType_;
  const Source source_;
  std::shared_ptr<Network::IUdpSock> sock_;
  std::unique_ptr<Network::ISyncManager> sync_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  uint64_t sent_ = 0;
  uint64_t failed_ = 0;
  bool ended_ = false;
};

// A sine on both channels at `level` dB of full scale.
StreamSender::Source ToneSource(double hertz, double level, uint32_t sampleFreq, uint64_t frames);

// The pattern that units look for on output 0: a rising ramp left, a falling one right.
StreamSender::Source PatternSource(uint64_t frames);

// An audio file from start to end; the last packet is filled up with silence.
StreamSender::Source FileSource(std::shared_ptr<AudioReader> reader);

}  // namespace ctl
