// When the packets of a stream came, against when their timestamps say: what came too late to be of
// use, how the delays spread, and how far the sender's clock drifts from this machine's. Plain
// arithmetic.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <optional>

#include "wire/Audio.h"

namespace wire {

class StreamTiming {
 public:
  // The delays' upper limits, in milliseconds; one class more holds what is beyond.
  static constexpr std::array kLimitsMs = {0.1, 0.25, 0.5, 1.0, 2.0, 5.0, 10.0, 20.0};

  // A receiving unit waits for so many packets' time, 20 ms at 48000 Hz.
  static constexpr uint32_t kUsefulPackets = 5;

  // A packet of a known sample frequency that hasn't come before, in the order of arrival.
  void Add(const StreamHeader& header, Clock::time_point arrival);

  // Packets that came more than kUsefulPackets after their time: a unit would have played silence.
  uint64_t Late() const { return late_; }

  // Millionths by which the sender's clock runs fast. From the least delay of each second, a minute
  // back: to about 1 ppm after half of it. Nothing in the first five seconds of a stream.
  std::optional<double> DriftPpm() const;

  // How many packets were delayed by so much, each against the least delayed one of its time: what
  // a receiver would have to buffer (packet delay variation, RFC 5481). Its time is a second or
  // two, so that a sender that is 100 ppm slow seems up to 0.2 ms late.
  const std::array<uint64_t, kLimitsMs.size() + 1>& Delays() const { return delays_; }

 private:
  struct Second {
    int64_t number;  // from the first arrival on
    double seconds;  // when the least delayed packet came
    double leastMs;  // its delay
  };

  void Restart(const StreamHeader& header, Clock::time_point arrival);
  double TakeDelay(double seconds, double delayMs);

  bool begun_ = false;
  uint8_t payloadType_ = 0;
  Clock::time_point first_;
  uint32_t timestamp_ = 0;  // of the packet before
  int64_t frames_ = 0;      // from the first packet's timestamp to that one
  std::deque<Second> seconds_;
  uint64_t late_ = 0;
  std::array<uint64_t, kLimitsMs.size() + 1> delays_{};
};

}  // namespace wire
