// What "check" has found, and the two files that are made of it: JUnit XML for a CI server and a
// page for people. Plain values.
#pragma once

#include <string>
#include <vector>

#include "wire/Units.h"

namespace ctl {

// In the order of badness.
enum class Verdict { Skip, Pass, Warn, Fail };

// "could-not-test", "pass", "warn", "fail".
const char* Word(Verdict verdict);

// A measured number; `unit` as it is written after a number: "ms", "packets/s", "packets".
struct Figure {
  std::string name;
  double value = 0;
  std::string unit;
};

// What one measurement says: in words, and the numbers in them.
struct Finding {
  Verdict verdict = Verdict::Fail;
  std::string figure;  // may hold texts from the network
  std::vector<Figure> figures;
  bool certain = false;  // also where this machine stood still meanwhile
};

struct CheckLine {
  std::string part;
  std::string name;
  Finding finding;
  double seconds = 0;  // that it took
};

// A packet of a stream: its place from 0 for the first, and how much later it came than its place
// says, the median being 0.
struct Arrival {
  int64_t place = 0;
  double lateMs = 0;
};

// An input as it was heard, in the order of arrival.
struct StreamTrace {
  uint32_t input = 0;
  uint32_t freq = 48000;  // Hz
  double jitterMs = 0;
  std::vector<Arrival> arrivals;
};

struct CheckRound {
  std::vector<CheckLine> lines;
  std::vector<StreamTrace> traces;
  double seconds = 0;
  bool done = false;  // went through to its end

  Verdict Worst() const;
};

struct CheckedUnit {
  wire::Unit unit;
  std::string heardAt;  // the address that its streams came to; empty: none did
  bool shared = false;  // it runs on the machine that judges it
  std::vector<CheckRound> rounds;

  bool IsDone(unsigned wanted) const {
    return rounds.size() == wanted && (rounds.empty() || rounds.back().done);
  }
};

// A figure of one check over all rounds.
struct Spread {
  std::string check;
  std::string name;
  std::string unit;
  size_t count = 0;
  double least = 0;
  double median = 0;
  double most = 0;
};

// In the order of the checks; of what was measured twice or more.
std::vector<Spread> SpreadsOf(const CheckedUnit& unit);

struct CheckCounts {
  size_t verdicts[4] = {};

  void Add(const CheckRound& round);
  size_t Of(Verdict verdict) const { return verdicts[static_cast<size_t>(verdict)]; }
  size_t All() const;
  std::string ToText() const;  // "18 passed, 0 warned, 0 failed, 0 could not be tested"
};

struct Certificate {
  std::string begun;    // "2026-03-01 12:00:00 UTC"
  std::string command;  // that makes the same again
  double seconds = 0;
  unsigned rounds = 1;  // that were asked for
  std::vector<CheckedUnit> units;
  std::string ended;  // why it ended before it was done; empty: it was done

  Verdict Worst() const;
  CheckCounts Counts() const;
};

// A suite a unit and round, a case a check. What warns has passed, with the warning as its output;
// what ended early has an error of its own.
std::string ToJUnit(const Certificate& certificate);

// One page that stands alone: no script, nothing from elsewhere. Texts that came from the network
// stay texts.
std::string ToPage(const Certificate& certificate);

// UTC, as in Certificate::begun.
std::string NowText();

}  // namespace ctl
