// Taking an input's stream, and sending one to an output. On the thread of their loop, and only
// while that waits: see Loop.h.
//
//   wire::AudioReceiver receiver(loop, {"127.0.0.1", 0});
//   control.SetInputs({{true, receiver.Local()}});
//   EXPECT_TRUE(receiver.WaitCount(250));
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "wire/Audio.h"
#include "wire/Loop.h"

namespace wire {

// Keeps every datagram that comes to a port, with its time of arrival: the latest 50,000, some 200
// seconds of a stream.
class AudioReceiver {
 public:
  // Port 0 takes a free one. Throws SocketError.
  AudioReceiver(Loop& loop, const Endpoint& local);

  // What to give to the unit.
  const Endpoint& Local() const { return port_.Local(); }

  // Since the beginning or the latest Take or Clear, oldest first; what isn't audio too.
  const std::deque<StreamPacket>& Packets() const { return packets_; }
  std::deque<StreamPacket> Take() { return std::exchange(packets_, {}); }
  void Clear() { packets_.clear(); }

  // From the next datagram on each one goes on, as it came, to there too; to itself it doesn't.
  void PassOn(const std::optional<Endpoint>& to) { passOn_ = to; }

  // Datagrams that the system didn't take for that.
  uint64_t NotPassedOn() const { return notPassedOn_; }

  // Runs the loop until so many are there; false when they don't come in time.
  bool WaitCount(size_t count, Clock::duration limit = std::chrono::seconds(30));

 private:
  void Take(const Datagram& datagram);

  Loop& loop_;
  std::deque<StreamPacket> packets_;
  std::optional<Endpoint> passOn_;
  uint64_t notPassedOn_ = 0;
  UdpPort port_;
};

// Sends packets of 192 frames at the pace of a sample frequency. Where the loop was late it sends
// what is due at once, as the far end counts on the pace.
class AudioSender {
 public:
  // Asked once a packet, for up to 192 frames; fewer are filled up with silence, none end the
  // stream.
  using Source = std::function<Frames()>;

  // `ppm` makes the sender's clock run fast by that many millionths. The first packet goes out with
  // the loop's next turn. Throws SocketError.
  AudioSender(Loop& loop, const Endpoint& to, uint32_t sampleFreq, double ppm, Source source,
              const Endpoint& local = {});

  // Runs the loop until the source has ended; false when it hasn't in time.
  bool WaitEnd(Clock::duration limit);

  bool Ended() const { return ended_; }
  uint64_t Sent() const { return sent_; }      // packets
  uint64_t Failed() const { return failed_; }  // packets that the system didn't take

  // How long after its time a packet went out at worst.
  Clock::duration WorstLateness() const { return worst_; }

 private:
  Clock::time_point Due(uint64_t packet) const;
  void Turn();
  void Send(Frames frames);

  Loop& loop_;
  const Endpoint to_;
  const uint8_t payloadType_;
  const double periodNs_;  // of a packet
  const Source source_;
  const Clock::time_point start_ = Clock::now();
  uint64_t made_ = 0;  // packets
  uint64_t sent_ = 0;
  uint64_t failed_ = 0;
  Clock::duration worst_{};
  bool ended_ = false;
  UdpPort port_;
  Timer timer_;
};

// A sine on both channels at `level` dB of full scale.
AudioSender::Source ToneSource(double hertz, double level, uint32_t sampleFreq, uint64_t frames);

// Pattern() over and over.
AudioSender::Source PatternSource(uint64_t frames);

}  // namespace wire
