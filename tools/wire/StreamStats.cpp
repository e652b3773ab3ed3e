#include "wire/StreamStats.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

namespace wire {

namespace {

// A number this far from the highest one isn't loss or lateness: the sender started anew.
constexpr int64_t kJump = 1000;

// Packets a second between two arrivals.
double RateOf(uint64_t packets, Clock::duration time) {
  const std::chrono::duration<double> seconds = time;
  return static_cast<double>(packets) / seconds.count();
}

}  // namespace

std::optional<int64_t> StreamStats::Add(const StreamPacket& packet) {
  if (packet.FrameCount() == 0) {
    ++foreign;
    return std::nullopt;
  }
  const StreamHeader header = packet.Header();
  if (packets++ == 0) {
    highestSequence_ = header.sequence;
    seen_.set(0);
    expected_ = distinct_ = 1;
    firstArrival_ = newestArrival_ = packet.time;
    newestTimestamp_ = header.timestamp;
  }
  lastArrival_ = packet.time;
  MeasureLevel(packet);
  if (packets == 1) {
    timing_.Add(header, packet.time);
    return 0;
  }
  const int64_t before = highestPlace_;
  const uint64_t known = duplicates;
  const int64_t place = PlaceOf(header.sequence);
  if (highestPlace_ > before) MeasureJitter(header, packet.time);
  if (duplicates == known) timing_.Add(header, packet.time);
  return place;
}

int64_t StreamStats::PlaceOf(uint16_t sequence) {
  const auto step = static_cast<int16_t>(static_cast<uint16_t>(sequence - highestSequence_));
  if (step > kJump || step < -kJump) {
    // Goes on after the highest, so that the gap isn't taken for loss.
    ++jumps;
    seen_.reset();
    Advance(sequence, 1);
    begin_ = highestPlace_;
  } else if (step > 0) {
    Advance(sequence, step);
  } else {
    const int64_t place = highestPlace_ + step;
    if (place < begin_) {
      ++outOfOrder;  // from before the first: nobody expected it, and its place may be another's
      return place - begin_;
    }
    if (seen_.test(static_cast<size_t>(place) % kWindow)) {
      ++duplicates;
    } else {
      ++outOfOrder;
      ++distinct_;
      seen_.set(static_cast<size_t>(place) % kWindow);
    }
    return place;
  }
  return highestPlace_;
}

void StreamStats::Advance(uint16_t sequence, int64_t step) {
  for (int64_t i = 1; i <= step; ++i) {
    seen_.reset(static_cast<size_t>(highestPlace_ + i) % kWindow);
  }
  highestSequence_ = sequence;
  highestPlace_ += step;
  expected_ += static_cast<uint64_t>(step);
  ++distinct_;
  seen_.set(static_cast<size_t>(highestPlace_) % kWindow);
}

double StreamStats::Rate() const {
  if (packets < 2 || lastArrival_ == firstArrival_) return 0;
  return RateOf(packets - 1, lastArrival_ - firstArrival_);
}

double StreamStats::TakeRate() {
  // From arrival to arrival: counted by the clock of who asks, a packet more or less would show.
  const double rate = packetsTaken_ == 0 ? Rate()
                      : lastArrival_ == arrivalTaken_
                          ? 0
                          : RateOf(packets - packetsTaken_, lastArrival_ - arrivalTaken_);
  packetsTaken_ = packets;
  arrivalTaken_ = lastArrival_;
  return rate;
}

double StreamStats::TakePeak(int channel) {
  return std::exchange(peak_[channel & 1], 0.0);
}

void StreamStats::MeasureLevel(const StreamPacket& packet) {
  const Frames frames = packet.Audio();
  const uint64_t before[2] = {clipped[0], clipped[1]};
  int32_t most[2] = {0, 0};
  for (const Frame& frame : frames) {
    const int32_t size[2] = {std::abs(frame.left), std::abs(frame.right)};
    for (int channel = 0; channel < 2; ++channel) {
      most[channel] = std::max(most[channel], size[channel]);
      uint32_t& run = fullScaleRun_[channel];
      run = size[channel] >= kFullScale ? run + 1 : 0;
      if (run >= kClipRun) clipped[channel] = before[channel] + 1;
    }
  }
  for (int channel = 0; channel < 2; ++channel)
    peak_[channel] = std::max(peak_[channel], static_cast<double>(most[channel]) / kFullScale);
  patternRun_ = MarkOf(frames) ? patternRun_ + 1 : 0;
}

void StreamStats::MeasureJitter(const StreamHeader& header, Clock::time_point arrival) {
  const double dueMs = static_cast<int32_t>(header.timestamp - newestTimestamp_) * 1e3 /
                       SampleFreqOf(header.payloadType);
  const std::chrono::duration<double, std::milli> passed = arrival - newestArrival_;
  const double deviation = passed.count() - dueMs;
  jitterMs_ += (std::fabs(deviation) - jitterMs_) / 16.0;
  worstGapMs_ = std::max(worstGapMs_, deviation);
  newestTimestamp_ = header.timestamp;
  newestArrival_ = arrival;
}

}  // namespace wire
