// What the checks of "check" report to.
#pragma once

#include <array>
#include <string>

#include "Commands.h"

namespace ctl {

// In the order of badness.
enum class Verdict { Skip, Pass, Warn, Fail };

// Prints a line a check and keeps the worst.
class CheckReport {
 public:
  explicit CheckReport(Output& out) : out_(out) {}

  // Throws Failure once Ctrl-C has come.
  void Add(const std::string& name, Verdict verdict, const std::string& figure);
  void Summarise();
  Verdict Worst() const { return worst_; }

 private:
  Output& out_;
  Verdict worst_ = Verdict::Skip;
  std::array<unsigned, 4> counts_{};
};

// The audio half of the tour: format, rate, jitter and loss of every input, loop-back of output 0.
// Gives the inputs back as they were.
void CheckStreams(const Unit& unit, const CommonOptions& common, CheckReport& report);

}  // namespace ctl
