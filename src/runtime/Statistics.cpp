#include "runtime/Statistics.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <locale>
#include <sstream>
#include <utility>

#include "runtime/Clocks.h"
#include "runtime/Environment.h"
#include "runtime/Format.h"

void StatInterval::SetPeriod(uint32_t minutes) {
  period_ = std::max(minutes, 1u);
}

bool StatInterval::Due() {
  const uint64_t minute = static_cast<uint64_t>(platform::GetClock().WallSeconds()) / 60;
  const uint64_t bucket = minute / period_ * period_;
  if (bucket == lastBucket_) return false;
  return std::exchange(lastBucket_, bucket) != 0;
}

StatSeries::StatSeries(std::wstring name) : name_(std::move(name)), log_(GetDebugLog()) {}

void StatSeries::Configure(uint32_t mode, uint32_t period, int64_t clockFrequency, uint32_t unit,
                           int32_t min, int32_t max) {
  mode_ = mode;
  clockFrequency_ = clockFrequency;
  half_ = clockFrequency / 2;
  unit_ = unit;
  minBin_ = min - 1;
  maxBin_ = max + 1;
  histogram_.resize(static_cast<size_t>(maxBin_ - minBin_ + 1));
  gate_.SetPeriod(period);
  Reset();
}

void StatSeries::Reset() {
  std::fill(histogram_.begin(), histogram_.end(), 0);
  start_ = 0;
  count_ = 0;
  mean_ = meanDeviation_ = standardDeviation_ = 0;
  min_ = std::numeric_limits<int32_t>::max();
  max_ = std::numeric_limits<int32_t>::min();
}

void StatSeries::Sample(int64_t t) {
  if (start_ != 0) Finish(t);
  start_ = t;
}

int32_t StatSeries::ToUnits(int64_t ticks) const {
  int64_t value = ticks;
  const auto unit = static_cast<int64_t>(unit_);
  if (clockFrequency_ != unit) {
    // Cut what the product couldn't hold: the result is far beyond 32 bits then anyway.
    const int64_t limit = (std::numeric_limits<int64_t>::max() - half_) / unit;
    value = (std::clamp(ticks, -limit, limit) * unit + half_) / clockFrequency_;
  }
  return static_cast<int32_t>(std::clamp<int64_t>(value, std::numeric_limits<int32_t>::min(),
                                                  std::numeric_limits<int32_t>::max()));
}

void StatSeries::Finish(int64_t t) {
  if (histogram_.empty()) return;
  const int32_t value = ToUnits(SaturatingSub(t, std::exchange(start_, 0)));
  if (value > max_) {
    max_ = value;
    maxTime_ = platform::GetClock().Local();
  }
  if (value < min_) min_ = value;
  ++histogram_[static_cast<size_t>(std::clamp(value, minBin_, maxBin_) - minBin_)];
  ++count_;
  if (gate_.Due()) Flush();
}

void StatSeries::Flush() {
  if (count_ != 0) {
    Evaluate();
    if (log_) log_->Write(Line());
  }
  Reset();
}

void StatSeries::Evaluate() {
  const auto total = static_cast<double>(count_);
  const auto average = [&](auto&& ofBin) {
    double sum = 0;
    for (size_t i = 0; i < histogram_.size(); ++i) {
      const double bin = minBin_ + static_cast<double>(i);
      sum += ofBin(bin) * static_cast<double>(histogram_[i]);
    }
    return sum / total;
  };
  mean_ = average([](double bin) { return bin; });
  meanDeviation_ = average([this](double bin) { return std::fabs(bin - mean_); });
  standardDeviation_ =
      std::sqrt(average([this](double bin) { return (bin - mean_) * (bin - mean_); }));
}

namespace {

void PutPadded(std::wostream& out, int value, int width) {
  const std::wstring digits = std::to_wstring(value);
  for (auto i = static_cast<int>(digits.size()); i < width; ++i)
    out << L'0';
  out << digits;
}

void PutTime(std::wostream& out, const platform::LocalTime& time) {
  PutPadded(out, time.hour, 2);
  out << L':';
  PutPadded(out, time.minute, 2);
  out << L':';
  PutPadded(out, time.second, 2);
  out << L'.';
  PutPadded(out, time.millisecond, 3);
}

}  // namespace

std::wstring StatSeries::Line() const {
  std::wostringstream out;
  out.imbue(std::locale::classic());  // no grouping of digits, whatever the program's locale
  out << L"STATISTICS: " << name_ << L": N=" << count_ << L", E=" << mean_;
  if (mode_ == kMeanAndSpread) out << L", J=" << meanDeviation_ << L", S=" << standardDeviation_;
  out << L", Min=" << min_ << L", Max=" << max_ << L'(';
  PutTime(out, maxTime_);
  out << L"), Unit=1/" << unit_;

  if (ShowHistogram) {
    out << L" Histogram: ";
    for (size_t i = 0; i < histogram_.size(); ++i) {
      if (histogram_[i] == 0) continue;
      if (i == 0) {
        out << L" least:";
      } else if (i + 1 == histogram_.size()) {
        out << L" greatest:";
      } else {
        out << L" [" << minBin_ + static_cast<int64_t>(i) << L"]:";
      }
      out << static_cast<double>(histogram_[i]) * 100 / static_cast<double>(count_);
    }
  }
  return out.str();
}

ScopedDuration::ScopedDuration(const wchar_t* name) : start_(ClockRead(nullptr)), name_(name) {}

ScopedDuration::~ScopedDuration() {
  uint32_t frequency = 0;
  const int64_t end = ClockRead(&frequency);
  // As in the "LOCK" lines: a difference of 32 bits (429 s), products of 64.
  const uint64_t ticks = static_cast<uint32_t>(end - start_);
  if (ticks < uint64_t{DurationLimitMs} * frequency / 1000) return;
  try {
    if (const auto log = GetDebugLog())
      log->Write(Format(L"DURATION: %d ms : %s", ticks * 1000 / frequency, name_));
  } catch (...) {
    // Out of memory: the line is lost, the caller's work isn't.
  }
}
