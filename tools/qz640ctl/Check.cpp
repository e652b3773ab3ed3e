// The command "check": which units are toured, how often, and where the reports go.
#include "Check.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include "Commands.h"
#include "Loan.h"
#include "Printable.h"
#include "platform/advice.h"
#include "platform/startup.h"

namespace ctl {

using wire::Clock;
using wire::Unit;

namespace {

// A unit that answers but doesn't acknowledge is one to be checked, not one that isn't there.
Unit FindUnitToCheck(Session& session, const std::string& name) {
  const auto control = ControlOf(name);
  if (!control) return session.FindUnit(name);
  session.Link().Send(*control, "get_dev_info");
  const auto answer = session.Link().Take("dev_info", *control, session.Timeout());
  if (answer) {
    const Unit unit = wire::ToUnit(*answer);
    session.Found({unit});
    return unit;
  }
  throw Failure{kNoAnswer, name +
                               " has not answered \"get_dev_info\": is a unit running there, and "
                               "does a firewall let UDP through?"};
}

// Whether somebody hears the unit, with a line for people where that decides what is done. A unit
// that doesn't say so may be in use.
bool IsInUse(Session& session, const Unit& unit, bool intrusive) {
  std::vector<std::string> inUse;
  try {
    const auto inputs = session.Control(unit).GetInputs();
    for (uint32_t input = 0; input < inputs.size(); ++input) {
      if (inputs[input]) inUse.push_back(InUseText(unit, input, inputs[input]));
    }
  } catch (const wire::Interrupted&) {
    throw;
  } catch (const std::exception&) {
    session.Note("the unit doesn't say whether it is in use: it is taken to be");
    return true;
  }
  if (inUse.empty()) {
    session.Note(InUseLine(InUse::PassOn, inUse));
  } else if (intrusive) {
    session.Note(InUseLine(InUse::PassOn, inUse) + ", but for the noise of the loop-back");
  } else {
    session.Note(InUseLine(InUse::LeaveOut, inUse) +
                 ", and tuners and sample frequency of the unit with them; --intrusive tests all");
  }
  return !inUse.empty();
}

// All that answer the discovery, in the order of their addresses.
std::vector<Unit> FindAllUnits(Session& session) {
  std::vector<Unit> units = session.Find(session.DiscoverAt(), session.Timeout());
  if (units.empty()) {
    throw Failure{kNoAnswer,
                  "no unit answered the discovery; is one running, with \"AddrStr\" set to an "
                  "address of this network? (qz640ctl doctor looks closer)"};
  }
  return units;
}

void CheckAudio(Session& session, CheckedUnit& checked, CheckReport& report, bool careful,
                bool intrusive) {
  const Unit& unit = checked.unit;
  if (!careful) {
    if (!report.Wants(Part::Streams) && !report.Wants(Part::LoopBack)) return;
    checked.heardAt = session.LocalFor(unit).Ip();
    CheckStreams(session, unit, report, intrusive);
    return;
  }
  if (report.Begin(Part::Streams)) {
    for (uint32_t input = 0; input < unit.inputs; ++input)
      report.Add("input " + std::to_string(input) + " stream", Verdict::Skip, kLeftOut);
  }
  if (report.Begin(Part::LoopBack)) report.Add("loop-back", Verdict::Skip, kLeftOut);
}

// One round at one unit. What can't go on is a fault of the unit; others are checked all the same.
void CheckUnit(Session& session, CheckedUnit& checked, const PartSet& parts, bool intrusive,
               Output& out) {
  const auto begin = Clock::now();
  const Unit& unit = checked.unit;
  CheckRound& round = checked.rounds.emplace_back();
  const auto number = static_cast<unsigned>(checked.rounds.size());
  CheckReport report(session, unit, parts, number, round, out);
  PartSet harmless;
  harmless.set(static_cast<size_t>(Part::Discovery)).set(static_cast<size_t>(Part::Connection));
  try {
    const bool careful =
        (parts & ~harmless).any() && IsInUse(session, unit, intrusive) && !intrusive;
    CheckControl(session, unit, report, careful);
    CheckAudio(session, checked, report, careful, intrusive);
  } catch (const wire::Interrupted&) {
    throw;
  } catch (const Failure& failure) {
    report.Add("rest of the part", Verdict::Fail, failure.text);
  } catch (const std::exception& error) {
    report.Add("rest of the part", Verdict::Fail, session.ToFailure(error).text);
  }
  round.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  round.done = true;
  CheckCounts counts;
  counts.Add(round);
  out.Line(counts.ToText());
}

void CheckAll(Session& session, const CheckOptions& options, const PartSet& parts,
              Certificate& certificate, Output& out) {
  const std::vector<Unit> units = options.all
                                      ? FindAllUnits(session)
                                      : std::vector<Unit>{FindUnitToCheck(session, options.unit)};
  for (const Unit& unit : units)
    certificate.units.push_back({unit, "", IsOwn(unit.control), {}});
  for (unsigned number = 1; number <= options.repeat; ++number) {
    for (CheckedUnit& checked : certificate.units) {
      const Unit& unit = checked.unit;
      out.Line("checking " + Printable(unit.id) + " (" + Printable(unit.type) + ") at " +
               unit.control.ToText() +
               (options.repeat > 1
                    ? ", round " + std::to_string(number) + " of " + std::to_string(options.repeat)
                    : ""));
      CheckUnit(session, checked, parts, options.intrusive, out);
    }
  }
}

std::string CommandText(const Session& session, const CheckOptions& options) {
  std::string text = "qz640ctl check";
  if (options.all) text += " --all";
  if (!options.all) text += " " + platform::Quoted(options.unit);
  for (const std::string& part : options.parts)
    text += " " + platform::Quoted(part);
  if (options.repeat > 1) text += " --repeat " + std::to_string(options.repeat);
  if (options.intrusive) text += " --intrusive";
  for (const std::string& to : session.Common().to)
    text += " --to " + platform::Quoted(to);
  return text;
}

// Where a report goes. It is tried before the tour, which takes minutes; what the file held stays
// until the report takes its place.
class ReportFile {
 public:
  explicit ReportFile(std::string path) : path_(std::move(path)) { Write("", std::ios::app); }

  void Write(const std::string& text, std::ios::openmode mode = std::ios::trunc) const {
    if (path_.empty()) return;
    errno = 0;
    std::ofstream file(std::filesystem::path(path_), std::ios::binary | std::ios::out | mode);
    if (file << text && file.flush()) return;
    throw Failure{kRefused, "can't write the report \"" + path_ + "\": " +
                                (errno == 0 ? "the disk may be full"
                                            : std::generic_category().message(errno)) +
                                "; name a file in a folder that is yours"};
  }

 private:
  const std::string path_;
};

// What several rounds and several units come to.
void PrintSummary(const Certificate& certificate, Output& out) {
  std::vector<std::vector<std::string>> spreads{
      {"UNIT", "CHECK", "FIGURE", "LEAST", "MEDIAN", "MOST", ""}};
  std::vector<std::vector<std::string>> units{
      {"UNIT", "CONTROL", "RESULT", "PASSED", "WARNED", "FAILED", "NOT TESTED"}};
  for (const CheckedUnit& checked : certificate.units) {
    const Unit& unit = checked.unit;
    for (const Spread& spread : SpreadsOf(checked)) {
      out.Object(Fields()
                     .Add("spread", spread.name)
                     .Add("check", spread.check)
                     .Add("unit_id", unit.id)
                     .Add("control", unit.control.ToText())
                     .Add("count", spread.count)
                     .Add("least", spread.least)
                     .Add("median", spread.median)
                     .Add("most", spread.most)
                     .Add("unit", spread.unit));
      if (spread.least == spread.most) continue;  // nothing for people to look at
      spreads.push_back({PrintableCell(unit.id), spread.check, spread.name,
                         FormatNumber(spread.least, 2), FormatNumber(spread.median, 2),
                         FormatNumber(spread.most, 2), spread.unit});
    }
    CheckCounts counts;
    Verdict worst = Verdict::Skip;
    for (const CheckRound& round : checked.rounds) {
      counts.Add(round);
      worst = std::max(worst, round.Worst());
    }
    const auto count = [&](Verdict verdict) { return std::to_string(counts.Of(verdict)); };
    units.push_back({PrintableCell(unit.id), unit.control.ToText(),
                     out.Paint(ColourOf(worst), Word(worst)), count(Verdict::Pass),
                     count(Verdict::Warn), count(Verdict::Fail), count(Verdict::Skip)});
  }
  if (spreads.size() > 1) out.Line("\n" + FormatTable(spreads));
  if (units.size() > 2 || certificate.rounds > 1) out.Line("\n" + FormatTable(units));
  const CheckCounts all = certificate.Counts();
  out.Object(Fields()
                 .Add("summary", Word(certificate.Worst()))
                 .Add("units", certificate.units.size())
                 .Add("rounds", certificate.rounds)
                 .Add("checks", all.All())
                 .Add("pass", all.Of(Verdict::Pass))
                 .Add("warn", all.Of(Verdict::Warn))
                 .Add("fail", all.Of(Verdict::Fail))
                 .Add("could-not-test", all.Of(Verdict::Skip))
                 .Add("seconds", certificate.seconds));
}

}  // namespace

int RunCheck(Session& session, const CheckOptions& given, Output& out) {
  CheckOptions options = given;
  if (options.all && !options.unit.empty()) {  // then that word is a part's name
    options.parts.insert(options.parts.begin(), std::exchange(options.unit, ""));
  }
  if (!options.all && options.unit.empty()) {
    throw Failure{kUsage, "which unit? name one, or --all for every unit that answers"};
  }
  const PartSet parts = ParseParts(options.parts);
  const ReportFile junit(options.junit);
  const ReportFile page(options.html);
  Certificate certificate;
  certificate.begun = NowText();
  certificate.command = CommandText(session, options);
  certificate.rounds = options.repeat;
  const auto begin = Clock::now();
  const auto write = [&](const std::string& ended) {
    certificate.ended = ended;
    certificate.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    junit.Write(ToJUnit(certificate));
    page.Write(ToPage(certificate));
  };
  try {
    CheckAll(session, options, parts, certificate, out);
  } catch (const Failure& failure) {
    write(failure.text);
    throw;
  } catch (const std::exception& error) {
    write(session.ToFailure(error).text);
    throw;
  }
  write("");
  PrintSummary(certificate, out);
  return certificate.Worst() == Verdict::Fail ? kRefused : kDone;
}

}  // namespace ctl
