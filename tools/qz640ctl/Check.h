// What the checks of "check" report to, and how they keep the machine that they run on apart from
// the unit that they judge.
#pragma once

#include <array>
#include <functional>
#include <string>

#include "Commands.h"

namespace ctl {

// In the order of badness.
enum class Verdict { Skip, Pass, Warn, Fail };

// What one measurement says.
struct Finding {
  Verdict verdict = Verdict::Fail;
  std::string figure;
};

// "12.3 ms".
std::string MsText(double ms);
double ToMs(wire::Clock::duration time);

// A measurement that doesn't please is made again, so often in all, before the unit is blamed.
constexpr int kAttempts = 3;

// Prints a line a check and keeps the worst.
class CheckReport {
 public:
  CheckReport(Session& session, const wire::Unit& unit, Output& out)
      : session_(session), out_(out), shared_(IsOwn(unit.control)), pulse_(session.Loop()) {}

  // Throws once Ctrl-C has come.
  void Add(const std::string& name, const Finding& finding);
  void Add(const std::string& name, Verdict verdict, const std::string& figure) {
    Add(name, {verdict, figure});
  }

  // For what goes by the clock. A machine that stands still for a moment makes every unit look bad:
  // what doesn't pass is measured again where this program was later than `tolerated`, or the unit
  // runs on this machine too. Where this program was late each time, the unit isn't judged.
  void Judge(const std::string& name, wire::Clock::duration tolerated,
             const std::function<Finding()>& measure);

  // The finding when this program was late, by so much: not judged.
  static Finding TooUneven(double lateMs, const Finding& instead);

  // The unit runs on this machine, and stands still when it does.
  bool Shared() const { return shared_; }

  // How late this program itself was since the latest Clear.
  wire::Pulse& Machine() { return pulse_; }

  void Summarise();
  Verdict Worst() const { return worst_; }

 private:
  Session& session_;
  Output& out_;
  const bool shared_;
  wire::Pulse pulse_;
  Verdict worst_ = Verdict::Skip;
  std::array<unsigned, 4> counts_{};
};

// The audio half of the tour: format, rate, jitter and loss of every input, loop-back of output 0.
// Gives the inputs back as they were. An input that somebody has begun to hear since is passed on,
// but for the noise of the loop-back, which comes over them only when the check is `intrusive`.
void CheckStreams(Session& session, const wire::Unit& unit, CheckReport& report, bool intrusive);

// What is said of a check that a unit in use would notice.
inline constexpr const char* kLeftOut = "left out, as the unit is in use (--intrusive)";

}  // namespace ctl
