#include "Watched.h"

#include <algorithm>
#include <utility>

namespace ctl {

using wire::Clock;

namespace {

constexpr double kSilence = 1e-4;  // -80 dB: real units have noise
constexpr auto kHoldTime = std::chrono::seconds(2);
constexpr auto kWaitForLost = std::chrono::seconds(1);

double SecondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

}  // namespace

void Watched::Add(const std::deque<wire::StreamPacket>& packets) {
  for (const wire::StreamPacket& packet : packets)
    stats_.Add(packet);
  const auto now = Clock::now();
  for (int channel = 0; channel < 2; ++channel) {
    const double peak = stats_.TakePeak(channel);
    peaks_[channel] = std::max(peaks_[channel], peak);
    Hold& hold = holds_[channel];
    if (peak >= hold.peak || now - hold.since > kHoldTime) hold = {peak, now};
    if (peak < kSilence) continue;
    // Until the first sound the input is on its way here, which is no silence of the unit.
    if (heard_) endedSilence_ = std::max(endedSilence_, SecondsBetween(lastSound_, now));
    heard_ = true;
    lastSound_ = now;
  }
  if (now - lostAsked_ < kWaitForLost) return;
  // A packet that comes after a later one was missing for a moment.
  lostForGood_ = std::max(lostForGood_, std::min(lostBefore_, stats_.Lost()));
  lostBefore_ = stats_.Lost();
  lostAsked_ = now;
}

void Watched::Reset() {
  stats_ = {};
  holds_[0] = holds_[1] = {};
  lostBefore_ = lostForGood_ = 0;
}

Figures Watched::Take() {
  Figures figures;
  figures.unit = unit_;
  figures.input = input_;
  figures.passedOnTo = passedOnTo_;
  for (int channel = 0; channel < 2; ++channel) {
    figures.channels[channel] = {std::exchange(peaks_[channel], 0.0), holds_[channel].peak,
                                 stats_.clipped[channel]};
  }
  figures.rate = stats_.TakeRate();
  figures.jitterMs = stats_.JitterMs();
  figures.driftPpm = stats_.Timing().DriftPpm();
  figures.packets = stats_.packets;
  figures.lost = stats_.Lost();
  figures.lostForGood = lostForGood_;
  figures.late = stats_.Timing().Late();
  figures.duplicates = stats_.duplicates;
  figures.outOfOrder = stats_.outOfOrder;
  figures.pattern = stats_.HasPattern();
  figures.silentSeconds = SecondsBetween(lastSound_, Clock::now());
  figures.longestSilence = std::max(endedSilence_, figures.silentSeconds);
  figures.delays = stats_.Timing().Delays();
  return figures;
}

Fields ToFields(const Figures& figures) {
  Fields fields;
  fields.Add("unit_id", figures.unit)
      .Add("input", figures.input)
      .Add("passed_on_to", figures.passedOnTo)
      .Add("peak_left_db", ToDecibel(figures.channels[0].peak))
      .Add("peak_right_db", ToDecibel(figures.channels[1].peak))
      .Add("clipped_left", figures.channels[0].clipped)
      .Add("clipped_right", figures.channels[1].clipped)
      .Add("pattern", figures.pattern)
      .Add("rate", figures.rate)
      .Add("packets", figures.packets)
      .Add("jitter_ms", figures.jitterMs)
      .Add("drift_ppm", figures.driftPpm)
      .Add("lost", figures.lost)
      .Add("late", figures.late)
      .Add("duplicates", figures.duplicates)
      .Add("out_of_order", figures.outOfOrder);
  return fields;
}

}  // namespace ctl
