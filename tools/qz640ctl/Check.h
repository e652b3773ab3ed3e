// What the checks of "check" report to, and how they keep the machine that they run on apart from
// the unit that they judge.
#pragma once

#include <bitset>
#include <functional>
#include <string>
#include <vector>

#include "Certificate.h"
#include "Commands.h"

namespace ctl {

// What the command line can ask for by itself.
enum class Part { Discovery, Connection, Requests, Tuners, Streams, LoopBack };
constexpr size_t kPartCount = 6;
using PartSet = std::bitset<kPartCount>;

// A part's name, or "control" and "audio" for several; none at all are all of them. Throws Failure
// (kUsage).
PartSet ParseParts(const std::vector<std::string>& names);

// How a verdict stands on a terminal.
Colour ColourOf(Verdict verdict);

// "12.3 ms".
std::string MsText(double ms);
double ToMs(wire::Clock::duration time);

// A measurement that doesn't please is made again, so often in all, before the unit is blamed.
constexpr int kAttempts = 3;

// One round at one unit: prints a line a check and keeps it.
class CheckReport {
 public:
  // `number` is the round's, from 1.
  CheckReport(Session& session, const wire::Unit& unit, const PartSet& parts, unsigned number,
              CheckRound& round, Output& out);

  // From here on the checks are of that part; false where nobody asked for it.
  bool Begin(Part part);
  bool Wants(Part part) const { return parts_.test(static_cast<size_t>(part)); }

  // Throws once Ctrl-C has come.
  void Add(const std::string& name, const Finding& finding);
  void Add(const std::string& name, Verdict verdict, const std::string& figure,
           std::vector<Figure> figures = {}) {
    Add(name, {verdict, figure, std::move(figures)});
  }
  void Keep(StreamTrace trace) { round_.traces.push_back(std::move(trace)); }

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

 private:
  Session& session_;
  const wire::Unit& unit_;
  const PartSet parts_;
  const unsigned number_;
  CheckRound& round_;
  Output& out_;
  const bool shared_;
  wire::Pulse pulse_;
  std::string part_;
  wire::Clock::time_point lineBegan_ = wire::Clock::now();
};

// The control half of the tour: discovery, connection, requests, tuners. When `careful` it changes
// nothing at the unit, and adds what it leaves out as not tested.
void CheckControl(Session& session, const wire::Unit& unit, CheckReport& report, bool careful);

// The audio half of the tour: format, rate, jitter and loss of every input, loop-back of output 0.
// Gives the inputs back as they were. An input that somebody has begun to hear since is passed on,
// but for the noise of the loop-back, which comes over them only when the check is `intrusive`.
void CheckStreams(Session& session, const wire::Unit& unit, CheckReport& report, bool intrusive);

// What is said of a check that a unit in use would notice.
inline constexpr const char* kLeftOut = "left out, as the unit is in use (--intrusive)";

}  // namespace ctl
