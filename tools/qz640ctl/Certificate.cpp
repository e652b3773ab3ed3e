#include "Certificate.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <tuple>
#include <utility>

#include "Output.h"
#include "Printable.h"

namespace ctl {

namespace {

// A text within XML 1.0. What is Printable has no control characters; the two code points that no
// XML may hold are written out as well.
std::string Xml(const std::string& text) {
  static const std::map<std::string, std::string> kInstead = {{"&", "&amp;"},
                                                              {"<", "&lt;"},
                                                              {">", "&gt;"},
                                                              {"\"", "&quot;"},
                                                              {"\xEF\xBF\xBE", "\\uFFFE"},
                                                              {"\xEF\xBF\xBF", "\\uFFFF"}};
  std::string all = Printable(text);
  for (size_t i = 0; i < all.size();) {
    const size_t length = all[i] == '\xEF' ? 3 : 1;
    const auto instead = kInstead.find(all.substr(i, length));
    if (instead == kInstead.end()) {
      ++i;
      continue;
    }
    all.replace(i, length, instead->second);
    i += instead->second.size();
  }
  return all;
}

std::string Attribute(const char* name, const std::string& value) {
  return std::string(" ") + name + "=\"" + Xml(value) + "\"";
}

std::string Case(const CheckedUnit& checked, const CheckLine& line) {
  const Finding& finding = line.finding;
  std::string text = "    <testcase" + Attribute("classname", checked.unit.id + "." + line.part) +
                     Attribute("name", line.name) +
                     Attribute("time", FormatNumber(line.seconds, 3)) + ">";
  if (finding.verdict == Verdict::Fail) {
    text += "<failure" + Attribute("message", finding.figure) + "/>";
  } else if (finding.verdict == Verdict::Skip) {
    text += "<skipped" + Attribute("message", finding.figure) + "/>";
  } else {
    text += "<system-out>" + Xml(std::string(Word(finding.verdict)) + ": " + finding.figure) +
            "</system-out>";
  }
  return text + "</testcase>\n";
}

std::string Suite(const Certificate& certificate, const CheckedUnit& checked, size_t number) {
  const CheckRound& round = checked.rounds[number];
  CheckCounts counts;
  counts.Add(round);
  std::string name = checked.unit.id + " at " + checked.unit.control.ToText();
  if (certificate.rounds > 1) {
    name += ", round " + std::to_string(number + 1) + " of " + std::to_string(certificate.rounds);
  }
  std::string text =
      "  <testsuite" + Attribute("name", name) + Attribute("tests", std::to_string(counts.All())) +
      Attribute("failures", std::to_string(counts.Of(Verdict::Fail))) +
      Attribute("skipped", std::to_string(counts.Of(Verdict::Skip))) + Attribute("errors", "0") +
      Attribute("time", FormatNumber(round.seconds, 3)) + ">\n";
  for (const CheckLine& line : round.lines)
    text += Case(checked, line);
  return text + "  </testsuite>\n";
}

}  // namespace

const char* Word(Verdict verdict) {
  switch (verdict) {
    case Verdict::Pass:
      return "pass";
    case Verdict::Warn:
      return "warn";
    case Verdict::Fail:
      return "fail";
    case Verdict::Skip:
      return "could-not-test";
  }
  return "";
}

Verdict CheckRound::Worst() const {
  Verdict worst = Verdict::Skip;
  for (const CheckLine& line : lines)
    worst = std::max(worst, line.finding.verdict);
  return worst;
}

std::vector<Spread> SpreadsOf(const CheckedUnit& unit) {
  std::vector<Spread> spreads;
  std::map<std::pair<std::string, std::string>, std::vector<double>> values;
  for (const CheckRound& round : unit.rounds) {
    for (const CheckLine& line : round.lines) {
      for (const Figure& figure : line.finding.figures) {
        auto& all = values[{line.name, figure.name}];
        if (all.empty()) spreads.push_back({line.name, figure.name, figure.unit});
        all.push_back(figure.value);
      }
    }
  }
  for (Spread& spread : spreads) {
    auto& all = values[{spread.check, spread.name}];
    std::sort(all.begin(), all.end());
    spread.count = all.size();
    spread.least = all.front();
    spread.median = (all[(all.size() - 1) / 2] + all[all.size() / 2]) / 2;
    spread.most = all.back();
  }
  std::erase_if(spreads, [](const Spread& spread) { return spread.count < 2; });
  return spreads;
}

void CheckCounts::Add(const CheckRound& round) {
  for (const CheckLine& line : round.lines)
    ++verdicts[static_cast<size_t>(line.finding.verdict)];
}

size_t CheckCounts::All() const {
  return verdicts[0] + verdicts[1] + verdicts[2] + verdicts[3];
}

std::string CheckCounts::ToText() const {
  return std::to_string(Of(Verdict::Pass)) + " passed, " + std::to_string(Of(Verdict::Warn)) +
         " warned, " + std::to_string(Of(Verdict::Fail)) + " failed, " +
         std::to_string(Of(Verdict::Skip)) + " could not be tested";
}

Verdict Certificate::Worst() const {
  Verdict worst = Verdict::Skip;
  for (const CheckedUnit& unit : units) {
    for (const CheckRound& round : unit.rounds)
      worst = std::max(worst, round.Worst());
  }
  return worst;
}

CheckCounts Certificate::Counts() const {
  CheckCounts counts;
  for (const CheckedUnit& unit : units) {
    for (const CheckRound& round : unit.rounds)
      counts.Add(round);
  }
  return counts;
}

std::string ToJUnit(const Certificate& certificate) {
  const CheckCounts counts = certificate.Counts();
  const size_t errors = certificate.ended.empty() ? 0 : 1;
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites" +
                     Attribute("name", certificate.command) +
                     Attribute("tests", std::to_string(counts.All() + errors)) +
                     Attribute("failures", std::to_string(counts.Of(Verdict::Fail))) +
                     Attribute("skipped", std::to_string(counts.Of(Verdict::Skip))) +
                     Attribute("errors", std::to_string(errors)) +
                     Attribute("time", FormatNumber(certificate.seconds, 3)) + ">\n";
  for (const CheckedUnit& unit : certificate.units) {
    for (size_t round = 0; round < unit.rounds.size(); ++round)
      text += Suite(certificate, unit, round);
  }
  if (errors > 0) {
    text +=
        "  <testsuite name=\"check\" tests=\"1\" failures=\"0\" skipped=\"0\" errors=\"1\">\n"
        "    <testcase classname=\"check\" name=\"is done\"><error" +
        Attribute("message", certificate.ended) + "/></testcase>\n  </testsuite>\n";
  }
  return text + "</testsuites>\n";
}

std::string NowText() {
  using namespace std::chrono;
  const auto now = floor<seconds>(system_clock::now());
  const year_month_day day(floor<days>(now));
  const hh_mm_ss time(now - floor<days>(now));
  const auto two = [](auto number) {
    const std::string text = std::to_string(number);
    return text.size() < 2 ? "0" + text : text;
  };
  return std::to_string(static_cast<int>(day.year())) + "-" +
         two(static_cast<unsigned>(day.month())) + "-" + two(static_cast<unsigned>(day.day())) +
         " " + two(time.hours().count()) + ":" + two(time.minutes().count()) + ":" +
         two(time.seconds().count()) + " UTC";
}

}  // namespace ctl
