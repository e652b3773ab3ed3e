// How the real-time path measures itself: series of time intervals that write one "STATISTICS" line
// a minute, and guards that log a piece of code or a lock (TrackedMutex.h) that took too long.
//
// No thread and no lock: each series is fed by one thread. A sample allocates nothing; text is made
// only when a line is written.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "runtime/IDebugLog.h"
#include "runtime/TrackedMutex.h"

// A gate that opens once in each wall-clock period.
class StatInterval {
 public:
  // At least 1; 0 becomes 1.
  void SetPeriod(uint32_t minutes);

  // True at the first call in a new period, but never at the very first call, which only notes the
  // period that runs.
  bool Due();

 private:
  uint64_t lastBucket_ = 0;  // start of the latest period seen, in minutes since 1970; 0: none yet
  uint32_t period_ = 1;
};

// A series of time intervals with a histogram. To measure the spacing of events, call Sample once
// per event; to measure durations, call Sample at each start and Finish at each end.
//
// Nothing is counted before Configure.
class StatSeries {
 public:
  enum Mode : uint32_t {
    kMeanAndSpread = 0,  // the line holds mean (E), mean deviation (J), standard deviation (S)
    kMeanOnly = 1        // it holds E alone
  };

  explicit StatSeries(std::wstring name);
  StatSeries(const StatSeries&) = delete;
  StatSeries& operator=(const StatSeries&) = delete;

  // `period`: minutes from line to line. `clockFrequency`: counts per second of the values given to
  // Sample and Finish, at least 1. Intervals are counted in 1/`unit` seconds, unit above 0, with
  // one bin for each value from `min` to `max`, min below max, and one more on either side for what
  // lies beyond. Forgets what was counted.
  void Configure(uint32_t mode, uint32_t period, int64_t clockFrequency, uint32_t unit, int32_t min,
                 int32_t max);

  // Closes and counts the open interval, if there is one, and opens a new one at counter value `t`.
  void Sample(int64_t t);

  // Closes the open interval at `t` and counts it. Writes the line when a new period has begun.
  void Finish(int64_t t);

  // Writes the line, unless nothing was counted, and starts anew without an open interval.
  void Flush();

  bool ShowHistogram = false;  // the line also holds each bin's share in per cent

 private:
  void Reset();
  int32_t ToUnits(int64_t ticks) const;
  void Evaluate();
  std::wstring Line() const;

  std::wstring name_;
  std::vector<uint64_t> histogram_;  // from minBin_ to maxBin_
  int64_t clockFrequency_ = 0;
  uint64_t unit_ = 0;
  int32_t minBin_ = 0;
  int32_t maxBin_ = 0;
  int64_t half_ = 0;   // half the clock frequency, to round to the nearest unit
  int64_t start_ = 0;  // counter value at which the open interval began; 0 when none is open
  uint64_t count_ = 0;
  double mean_ = 0;           // the last three are filled in when the line is written
  double meanDeviation_ = 0;  // mean of the absolute distances from the mean
  double standardDeviation_ = 0;
  double min_ = 0;  // exact, not cut to the bins
  double max_ = 0;
  platform::LocalTime maxTime_;
  uint32_t mode_ = kMeanAndSpread;
  StatInterval gate_;
  std::shared_ptr<IDebugLog> log_;
};

constexpr uint32_t DurationLimitMs = 5;

// Writes a "DURATION" line when its scope took DurationLimitMs or longer.
class ScopedDuration {
 public:
  // `name` isn't copied and must outlive the guard.
  explicit ScopedDuration(const wchar_t* name);
  ~ScopedDuration();
  ScopedDuration(const ScopedDuration&) = delete;
  ScopedDuration& operator=(const ScopedDuration&) = delete;

 private:
  const int64_t start_;
  const wchar_t* const name_;
};
