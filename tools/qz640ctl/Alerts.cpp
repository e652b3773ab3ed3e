#include "Alerts.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "Printable.h"
#include "wire/Fault.h"

namespace ctl {

namespace {

using Kind = AlertRule::Kind;

// A command that hangs must not fill the machine with its like.
constexpr size_t kMostChildren = 8;
constexpr auto kLastWords = std::chrono::seconds(5);

// What begins at a limit ends a little below it, or an input that stands there would flutter.
constexpr double kHysteresis = 0.9;

constexpr struct {
  const char* word;
  Kind kind;
  const char* unit;  // of the limit; null: there is no limit
} kRules[] = {{"silence", Kind::Silence, "s"}, {"clip", Kind::Clip, nullptr},
              {"lost", Kind::Lost, ""},        {"late", Kind::Late, ""},
              {"drift", Kind::Drift, "ppm"},   {"jitter", Kind::Jitter, "ms"}};

// A time may have any unit of time; the unit of all else may be left out.
std::optional<double> ParseLimit(Kind kind, std::string text, const std::string& unit) {
  if (kind == Kind::Silence || kind == Kind::Jitter) {
    const auto time = wire::ParseTime(text);
    if (!time) return std::nullopt;
    const double seconds = std::chrono::duration<double>(*time).count();
    return kind == Kind::Silence ? seconds : 1e3 * seconds;
  }
  if (text.ends_with(unit)) text.resize(text.size() - unit.size());
  double number = 0;
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number);
  if (parsed.ec != std::errc() || parsed.ptr != end || !std::isfinite(number)) return std::nullopt;
  return number;
}

// What is held against the limit. `holds`: it was at the limit when judged before; else a silence
// counts that has come and gone since then.
double ValueOf(Kind kind, const Figures& row, bool holds) {
  switch (kind) {
    case Kind::Silence:
      return holds ? row.silentSeconds : row.longestSilence;
    case Kind::Clip:
      return static_cast<double>(row.channels[0].clipped + row.channels[1].clipped);
    case Kind::Lost:
      return static_cast<double>(row.lostForGood);
    case Kind::Late:
      return static_cast<double>(row.late);
    case Kind::Drift:
      return row.driftPpm.value_or(0);
    case Kind::Jitter:
      return row.jitterMs;
  }
  return 0;
}

std::string ValueText(Kind kind, double value) {
  switch (kind) {
    case Kind::Silence:
      return "silent for " + FormatNumber(value, value < 10 ? 1 : 0) + " s";
    case Kind::Clip:
      return "clipped in " + FormatNumber(value, 0) + " packets";
    case Kind::Lost:
      return FormatNumber(value, 0) + " packets lost";
    case Kind::Late:
      return FormatNumber(value, 0) + " packets late";
    case Kind::Drift:
      return "drift " + FormatNumber(value, 0) + " ppm";
    case Kind::Jitter:
      return "jitter " + FormatNumber(value, 2) + " ms";
  }
  return {};
}

// ISO 8601, to the second: "2026-11-23T02:10:00Z".
std::string UtcNow() {
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  const auto day = std::chrono::floor<std::chrono::days>(now);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss time(now - day);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                static_cast<int>(time.seconds().count()));
  return text;
}

}  // namespace

AlertRule ParseAlert(const std::string& text) {
  const size_t blank = text.find(' ');
  const std::string word = text.substr(0, blank);
  const std::string rest = blank == std::string::npos ? "" : text.substr(blank + 1);
  for (const auto& rule : kRules) {
    if (word != rule.word) continue;
    if (!rule.unit && rest.empty()) return {rule.kind, 1, text};
    if (!rule.unit) break;
    const auto limit = ParseLimit(rule.kind, rest, rule.unit);
    if (limit && *limit > 0) return {rule.kind, *limit, text};
  }
  throw Failure{kUsage,
                "--alert \"" + text +
                    "\" isn't understood; it reads silence TIME, clip, lost N, late N, "
                    "drift Nppm or jitter TIME, such as \"silence 10s\" or \"drift 50ppm\""};
}

Alerts::Alerts(Session& session, Output& out, const AlertOptions& options)
    : session_(session), out_(out), command_(options.command), logPath_(options.log) {
  for (const std::string& text : options.rules)
    rules_.push_back(ParseAlert(text));
  if (logPath_.empty()) return;
  log_.open(std::filesystem::path(logPath_), std::ios::app | std::ios::binary);
  if (!log_) throw Failure{kRefused, "can't write " + logPath_ + "; name another file with --log"};
}

void Alerts::Judge(const std::vector<Figures>& rows) {
  Reap();
  for (size_t row = 0; row < rows.size(); ++row) {
    for (size_t rule = 0; rule < rules_.size(); ++rule)
      JudgeOne(rules_[rule], rows[row], states_[{row, rule}]);
  }
}

void Alerts::JudgeOne(const AlertRule& rule, const Figures& row, State& state) {
  const double value = ValueOf(rule.kind, row, state.holds);
  if (rule.Lasts()) {
    const double limit = rule.limit * (state.holds ? kHysteresis : 1);
    const bool holds = std::fabs(value) >= limit;
    if (holds == state.holds) return;
    state.holds = holds;
    Report(rule, row, holds ? "begins" : "ends", value);
    return;
  }
  const auto count = static_cast<uint64_t>(value);
  if (count < state.counted) state.counted = 0;  // the user has begun anew
  const uint64_t more = count - state.counted;
  if (static_cast<double>(more) < rule.limit) return;
  state.counted = count;
  Report(rule, row, "happens", static_cast<double>(more));
}

void Alerts::Report(const AlertRule& rule, const Figures& row, const char* state, double value) {
  const std::string said =
      Printable(row.unit) + " " + std::to_string(row.input) + ": " +
      (std::string(state) == "ends" ? "over: " + rule.text : ValueText(rule.kind, value));
  Fields fields;
  fields.Add("time", UtcNow())
      .Add("alert", rule.text)
      .Add("state", state)
      .Add("unit_id", row.unit)
      .Add("input", row.input)
      .Add("value", value);
  session_.Note(said);
  out_.Object(fields);
  Log(fields);
  RunCommand(rule, row, state, said);
}

// A full disk ends no watch of a night: it is said once, and the next line is tried again.
void Alerts::Log(const Fields& fields) {
  if (logPath_.empty()) return;
  log_.clear();
  log_ << fields.ToText() + "\n" << std::flush;
  if (!log_ && !logFailed_) session_.Note("can't write " + logPath_ + "; is the disk full?");
  logFailed_ = !log_;
}

void Alerts::RunCommand(const AlertRule& rule, const Figures& row, const char* state,
                        const std::string& said) {
  if (command_.empty()) return;
  if (children_.size() >= kMostChildren) {
    session_.Note("not run, as " + std::to_string(kMostChildren) + " still run: " + command_);
    return;
  }
  platform::ChildOptions options;
  options.shellLine = command_;
  options.environment = {{"QZ640_ALERT", rule.text},
                         {"QZ640_ALERT_STATE", state},
                         {"QZ640_ALERT_UNIT", Printable(row.unit)},
                         {"QZ640_ALERT_INPUT", std::to_string(row.input)},
                         {"QZ640_ALERT_TEXT", said}};
  options.silent = true;
  auto child = std::make_unique<platform::Child>();
  if (child->Start(options) != 0) {
    session_.Note("can't start the system's shell for: " + command_);
    return;
  }
  children_.push_back(std::move(child));
}

void Alerts::Reap() {
  std::erase_if(children_, [this](const auto& child) {
    const auto status = child->Wait(0);
    if (status && *status != 0) {
      session_.Note("status " + std::to_string(*status) + " of: " + command_);
    }
    return status.has_value();
  });
}

void Alerts::Finish() {
  const auto end = wire::Clock::now() + kLastWords;
  while (!children_.empty() && wire::Clock::now() < end) {
    children_.front()->Wait(50);
    Reap();
  }
}

}  // namespace ctl
