#include <algorithm>

#include "Check.h"
#include "Printable.h"

namespace ctl {

using wire::Clock;
using wire::Unit;

namespace {

// In the order of Part.
struct PartInfo {
  const char* name;
  const char* group;
  const char* what;
};
constexpr PartInfo kParts[kPartCount] = {
    {"discovery", "control", "is found by dev_find"},
    {"connection", "control", "acknowledgements, repeats, repeats dropped, segments"},
    {"requests", "control", "get_dev_info, get_inputs, set_inputs, set_state"},
    {"tuners", "control", "the FM requests, or their refusal"},
    {"streams", "audio", "format, rate, jitter and loss of every input"},
    {"loop-back", "audio", "noise sent to output 0 comes back bit for bit"},
};

}  // namespace

Colour ColourOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::Pass:
      return Colour::Green;
    case Verdict::Warn:
      return Colour::Yellow;
    case Verdict::Fail:
      return Colour::Red;
    case Verdict::Skip:
      return Colour::Dim;
  }
  return Colour::None;
}

std::string MsText(double ms) {
  return FormatNumber(ms, 1) + " ms";
}

double ToMs(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

PartSet ParseParts(const std::vector<std::string>& names) {
  PartSet parts;
  if (names.empty()) return parts.set();
  for (const std::string& name : names) {
    bool known = false;
    for (size_t i = 0; i < kPartCount; ++i) {
      if (name != kParts[i].name && name != kParts[i].group) continue;
      parts.set(i);
      known = true;
    }
    if (known) continue;
    std::string all;
    for (const PartInfo& part : kParts)
      all += std::string(part.name) + ", ";
    throw Failure{kUsage, "\"" + name + "\" is no part of a check; there are " + all +
                              "control and audio (UNIT comes first, and not with --all)"};
  }
  return parts;
}

std::string CheckPartsHelp() {
  std::vector<std::vector<std::string>> rows;
  for (const PartInfo& part : kParts)
    rows.push_back({"  " + std::string(part.name), part.group, part.what});
  return "Parts, and the names for several of them:\n" + FormatTable(rows);
}

CheckReport::CheckReport(Session& session, const Unit& unit, const PartSet& parts, unsigned number,
                         CheckRound& round, Output& out)
    : session_(session),
      unit_(unit),
      parts_(parts),
      number_(number),
      round_(round),
      out_(out),
      shared_(IsOwn(unit.control)),
      pulse_(session.Loop()) {}

bool CheckReport::Begin(Part part) {
  part_ = kParts[static_cast<size_t>(part)].name;
  return Wants(part);
}

void CheckReport::Add(const std::string& name, const Finding& finding) {
  session_.CheckStop();
  const auto now = Clock::now();
  round_.lines.push_back(
      {part_, name, finding, std::chrono::duration<double>(now - lineBegan_).count()});
  lineBegan_ = now;
  std::string word = Word(finding.verdict);
  Fields figures;
  for (const Figure& figure : finding.figures) {
    figures.Add(figure.name.c_str(), Fields().Add("value", figure.value).Add("unit", figure.unit));
  }
  out_.Object(Fields()
                  .Add("check", name)
                  .Add("part", part_)
                  .Add("result", word)
                  .Add("figure", finding.figure)
                  .Add("figures", figures)
                  .Add("unit_id", unit_.id)
                  .Add("control", unit_.control.ToText())
                  .Add("round", number_));
  word.resize(16, ' ');
  std::string padded = name;
  padded.resize(std::max<size_t>(padded.size(), 26), ' ');
  out_.Line(out_.Paint(ColourOf(finding.verdict), word) + padded + "  " +
            Printable(finding.figure));
}

void CheckReport::Judge(const std::string& name, Clock::duration tolerated,
                        const std::function<Finding()>& measure) {
  for (int attempt = 1;; ++attempt) {
    pulse_.Clear();
    const Finding finding = measure();
    const bool late = !finding.certain && pulse_.Worst() > tolerated;
    const bool again = finding.verdict != Verdict::Pass && (late || shared_);
    if (again && attempt < kAttempts) continue;
    Add(name, finding.verdict == Verdict::Pass || !late ? finding
                                                        : TooUneven(ToMs(pulse_.Worst()), finding));
    return;
  }
}

Finding CheckReport::TooUneven(double lateMs, const Finding& instead) {
  return {Verdict::Skip,
          "this machine is too uneven to judge: it stood still for " + MsText(lateMs) + " (" +
              instead.figure + ")",
          {}};
}

}  // namespace ctl
