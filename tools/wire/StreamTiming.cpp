#include "wire/StreamTiming.h"

#include <algorithm>
#include <cmath>

namespace wire {

namespace {

constexpr size_t kSeconds = 60;     // that the drift is taken from
constexpr size_t kFewSeconds = 5;   // before them it would be noise
constexpr double kRestartMs = 1e3;  // timestamps this far off are another stream's

}  // namespace

void StreamTiming::Add(const StreamHeader& header, Clock::time_point arrival) {
  if (!begun_ || header.payloadType != payloadType_) Restart(header, arrival);
  const double freq = SampleFreqOf(header.payloadType);
  frames_ += static_cast<int32_t>(header.timestamp - timestamp_);
  timestamp_ = header.timestamp;
  const double seconds = std::chrono::duration<double>(arrival - first_).count();
  double delayMs = 1e3 * (seconds - static_cast<double>(frames_) / freq);
  if (!seconds_.empty() && std::fabs(delayMs - seconds_.back().leastMs) > kRestartMs) {
    Restart(header, arrival);
    TakeDelay(0, 0);
    return;
  }
  delayMs = TakeDelay(seconds, delayMs);
  if (delayMs > 1e3 * kUsefulPackets * kPacketFrames / freq) ++late_;
  const auto limit = std::find_if(kLimitsMs.begin(), kLimitsMs.end(),
                                  [delayMs](double most) { return delayMs < most; });
  ++delays_[static_cast<size_t>(limit - kLimitsMs.begin())];
}

void StreamTiming::Restart(const StreamHeader& header, Clock::time_point arrival) {
  begun_ = true;
  payloadType_ = header.payloadType;
  first_ = arrival;
  timestamp_ = header.timestamp;
  frames_ = 0;
  seconds_.clear();
}

// Notes the delay and returns what it is beyond the least one of this second and the one before: a
// drift moves that by microseconds, a network that got slower for good is the new measure soon.
double StreamTiming::TakeDelay(double seconds, double delayMs) {
  const auto number = static_cast<int64_t>(seconds);
  if (seconds_.empty() || number > seconds_.back().number) {
    seconds_.push_back({number, seconds, delayMs});
    if (seconds_.size() > kSeconds + 1) seconds_.pop_front();
  }
  Second& now = seconds_.back();
  if (delayMs < now.leastMs) now = {now.number, seconds, delayMs};
  double least = now.leastMs;
  if (seconds_.size() > 1) {
    const Second& before = seconds_[seconds_.size() - 2];
    if (before.number + 1 == now.number) least = std::min(least, before.leastMs);
  }
  return delayMs - least;
}

// The slope of the least delays by the method of least squares; the second under way isn't over. A
// sender that runs fast is ever earlier.
std::optional<double> StreamTiming::DriftPpm() const {
  if (seconds_.size() <= kFewSeconds) return std::nullopt;
  const auto end = seconds_.end() - 1;
  const auto count = static_cast<double>(end - seconds_.begin());
  double meanSeconds = 0;
  double meanMs = 0;
  for (auto second = seconds_.begin(); second != end; ++second) {
    meanSeconds += second->seconds / count;
    meanMs += second->leastMs / count;
  }
  double products = 0;
  double squares = 0;
  for (auto second = seconds_.begin(); second != end; ++second) {
    products += (second->seconds - meanSeconds) * (second->leastMs - meanMs);
    squares += (second->seconds - meanSeconds) * (second->seconds - meanSeconds);
  }
  constexpr double kPpmOfMsPerSecond = 1000;
  return -kPpmOfMsPerSecond * products / squares;
}

}  // namespace wire
