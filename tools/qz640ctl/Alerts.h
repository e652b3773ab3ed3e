// What "watch" raises the alarm for: conditions of inputs, a log of when they held, and a command
// that is run then.
#pragma once

#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Session.h"
#include "Watched.h"
#include "platform/child.h"

namespace ctl {

// One --alert.
struct AlertRule {
  enum class Kind { Silence, Clip, Lost, Late, Drift, Jitter };

  Kind kind = Kind::Silence;
  double limit = 0;  // seconds, packets, ppm or milliseconds
  std::string text;  // as on the command line

  // A state that lasts begins and ends; the others happen.
  bool Lasts() const {
    return kind == Kind::Silence || kind == Kind::Drift || kind == Kind::Jitter;
  }
};

// "silence 10s", "clip", "lost 1", "late 5", "drift 50ppm", "jitter 5ms". Throws Failure (kUsage).
AlertRule ParseAlert(const std::string& text);

struct AlertOptions {
  std::vector<std::string> rules;
  std::string log;      // path; empty: none
  std::string command;  // for the system's shell; empty: none
};

class Alerts {
 public:
  // Throws Failure where a rule isn't understood or the log can't be written.
  Alerts(Session& session, Output& out, const AlertOptions& options);

  // To be called about once a second.
  void Judge(const std::vector<Figures>& rows);

  // The commands that still run get some seconds to come to their end.
  void Finish();

 private:
  // What is known of a rule at an input.
  struct State {
    bool holds = false;
    uint64_t counted = 0;  // of what happens: how many were there when it was reported last
  };

  void JudgeOne(const AlertRule& rule, const Figures& row, State& state);
  void Report(const AlertRule& rule, const Figures& row, const char* state, double value);
  void Log(const Fields& fields);
  void RunCommand(const AlertRule& rule, const Figures& row, const char* state,
                  const std::string& said);
  void Reap();

  Session& session_;
  Output& out_;
  const std::string command_;
  const std::string logPath_;
  std::ofstream log_;
  bool logFailed_ = false;
  std::vector<AlertRule> rules_;
  std::map<std::pair<size_t, size_t>, State> states_;  // by row and rule
  std::vector<std::unique_ptr<platform::Child>> children_;
};

}  // namespace ctl
