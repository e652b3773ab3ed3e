// The page that "check --html" writes.
#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <set>
#include <utility>

#include "Certificate.h"
#include "Output.h"
#include "Printable.h"
#include "wire/Audio.h"

namespace ctl {

namespace {

const char kStyle[] = R"css(
:root { color-scheme: light dark; --paper: #fffdf8; --ink: #1d2433; --soft: #667085;
  --line: #d9d3c3; --desk: #ece8de; --pass: #14734a; --warn: #9a5b00; --fail: #b3261e;
  --skip: #667085; --dot: #2456a6; --grid: #e6e0d2; }
@media (prefers-color-scheme: dark) { :root { --paper: #161b24; --ink: #e8e6df; --soft: #98a2b3;
  --line: #3a4250; --desk: #0d1016; --pass: #4cc38a; --warn: #e0a13c; --fail: #ff7b72;
  --skip: #98a2b3; --dot: #7fb0ff; --grid: #2a313d; } }
* { box-sizing: border-box; }
body { margin: 0; background: var(--desk); color: var(--ink); overflow-wrap: anywhere;
  font: 15px/1.5 system-ui, "Segoe UI", Roboto, "DejaVu Sans", sans-serif; }
main { max-width: 62rem; margin: 2rem auto; padding: 3rem; background: var(--paper);
  border: 1px solid var(--line); outline: 3px double var(--line); outline-offset: -14px; }
header { display: flex; gap: 2rem; align-items: center; justify-content: space-between; }
h1, h2, .kicker { font-family: "Iowan Old Style", Palatino, "Palatino Linotype", Georgia,
  "DejaVu Serif", serif; font-weight: 600; line-height: 1.2; margin: 0; }
h1 { font-size: 2.5rem; letter-spacing: -.01em; }
h2 { font-size: 1.6rem; }
h3 { font-size: .8rem; letter-spacing: .12em; text-transform: uppercase; color: var(--soft);
  margin: 1.8rem 0 .3rem; font-weight: 600; }
.kicker { color: var(--soft); font-variant: small-caps; letter-spacing: .08em; font-size: 1.1rem; }
.lead { font-size: 1.05rem; margin: .8rem 0 0; max-width: 34rem; }
.seal { flex: none; width: 12.5rem; height: 12.5rem; color: var(--skip); }
.seal path { fill: none; stroke: currentColor; stroke-width: .55; }
.seal circle { fill: var(--paper); stroke: currentColor; }
.seal text { fill: currentColor; text-anchor: middle; font-family: Palatino, Georgia,
  "DejaVu Serif", serif; }
.pass { color: var(--pass); } .warn { color: var(--warn); } .fail { color: var(--fail); }
.skip { color: var(--skip); }
.stop { border-left: 4px solid var(--fail); padding: .6rem 1rem; margin: 1.5rem 0 0; }
dl { display: grid; grid-template-columns: repeat(auto-fill, minmax(11rem, 1fr));
  gap: .7rem 1.5rem; margin: 1.6rem 0 0; padding-top: 1.1rem; border-top: 1px solid var(--line); }
dl .wide { grid-column: 1 / -1; }
dt { color: var(--soft); font-size: .8rem; }
dd { margin: 0; font-variant-numeric: tabular-nums; }
code { font: .88em ui-monospace, Consolas, "DejaVu Sans Mono", monospace; }
section { margin-top: 3rem; padding-top: 1.6rem; border-top: 3px double var(--line); }
.head { display: flex; justify-content: space-between; gap: 1rem; align-items: baseline; }
.result { font-weight: 700; white-space: nowrap; }
table { width: 100%; border-collapse: collapse; font-variant-numeric: tabular-nums; }
th { text-align: left; color: var(--soft); font-size: .8rem; font-weight: 600; }
th, td { padding: .3rem .8rem .3rem 0; border-bottom: 1px solid var(--grid);
  vertical-align: top; }
td:first-child { white-space: nowrap; font-weight: 600; width: 7rem; }
.name { width: 30%; }
.small { color: var(--soft); font-size: .85rem; display: block; }
a { color: inherit; }
.plots { display: grid; grid-template-columns: 1fr 1fr; gap: 1.2rem 2rem; }
figure { margin: 0; }
figcaption { font-size: .9rem; margin-bottom: .2rem; }
figure svg { width: 100%; height: auto; display: block; }
figure text { font: 11px system-ui, "DejaVu Sans", sans-serif; fill: var(--soft); }
.grid { stroke: var(--grid); } .zero { stroke: var(--line); stroke-width: 1.5; }
.dots { stroke: var(--dot); stroke-width: 2.6; stroke-linecap: round; fill: none; opacity: .75; }
.lost { stroke: var(--fail); stroke-width: 1.5; fill: none; }
.bar { fill: var(--dot); }
footer { margin-top: 3rem; padding-top: 1rem; border-top: 1px solid var(--line);
  color: var(--soft); font-size: .85rem; }
@media (max-width: 44rem) { main { margin: 0; padding: 2rem 1.5rem; }
  header { flex-direction: column-reverse; align-items: flex-start; gap: 1rem; }
  h1 { font-size: 2rem; } .seal { width: 10rem; height: 10rem; align-self: center; }
  dl { grid-template-columns: repeat(auto-fill, minmax(8rem, 1fr)); }
  .plots { grid-template-columns: 1fr; } .few { display: none; } th, td { padding-right: .5rem; }
  .checks tr { display: grid; grid-template-columns: 5.5rem 1fr;
    border-bottom: 1px solid var(--grid); }
  .checks td { border: 0; padding: .25rem 0; } .checks .name { width: auto; font-weight: 600; }
  .checks .name + td { grid-column: 2; padding-top: 0; } }
@media print { :root { --paper: #fff; --desk: #fff; } main { margin: 0; border: 0; }
  section, figure, tr { break-inside: avoid; } }
)css";

// What came from the network stays a text, whatever stands in it.
std::string Html(const std::string& text) {
  std::string all;
  for (const char c : Printable(text)) {
    all += c == '&'    ? "&amp;"
           : c == '<'  ? "&lt;"
           : c == '>'  ? "&gt;"
           : c == '"'  ? "&quot;"
           : c == '\'' ? "&#39;"
                       : std::string(1, c);
  }
  return all;
}

const char* ClassOf(Verdict verdict) {
  return verdict == Verdict::Skip ? "skip" : Word(verdict);
}

const char* MarkOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::Pass:
      return "\u2713 pass";
    case Verdict::Warn:
      return "! warn";
    case Verdict::Fail:
      return "\u2715 fail";
    case Verdict::Skip:
      return "\u2013 not tested";
  }
  return "";
}

std::string Marked(Verdict verdict) {
  return std::string("<span class=\"") + ClassOf(verdict) + "\">" + MarkOf(verdict) + "</span>";
}

std::string Coordinate(double value) {
  return FormatNumber(value, 1);
}

std::string Counted(size_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string Fact(const char* name, const std::string& html, bool wide = false) {
  return std::string(wide ? "<div class=\"wide\">" : "<div>") + "<dt>" + name + "</dt><dd>" + html +
         "</dd></div>\n";
}

// -- The seal --

// Three rings of waves, turned against each other.
std::string Rosette() {
  std::string path;
  constexpr int kSteps = 360;
  constexpr double kTurn = 2 * std::numbers::pi;
  for (int ring = 0; ring < 3; ++ring) {
    for (int i = 0; i < kSteps; ++i) {
      const double angle = kTurn * i / kSteps;
      const double radius = 88 + 9 * std::cos(24 * angle + kTurn * ring / 3);
      path += (i == 0 ? "M" : "L") + Coordinate(100 + radius * std::cos(angle)) + " " +
              Coordinate(100 + radius * std::sin(angle));
    }
    path += "Z";
  }
  return path;
}

std::string Seal(const Certificate& certificate) {
  const Verdict worst = certificate.Worst();
  const CheckCounts counts = certificate.Counts();
  std::string word = worst == Verdict::Fail   ? "FAILED"
                     : worst == Verdict::Skip ? "NOT TESTED"
                                              : "PASSED";
  if (!certificate.ended.empty()) word = "UNFINISHED";
  const size_t good = counts.Of(Verdict::Pass) + counts.Of(Verdict::Warn);
  const Verdict shown = certificate.ended.empty() ? worst : std::max(worst, Verdict::Warn);
  std::string text = std::string("<svg class=\"seal ") + ClassOf(shown) +
                     "\" viewBox=\"0 0 200 200\" role=\"img\" aria-label=\"" + word +
                     "\"><path d=\"" + Rosette() + "\"/><circle cx=\"100\" cy=\"100\" r=\"76\"/>" +
                     "<circle cx=\"100\" cy=\"100\" r=\"72\" stroke-width=\".5\"/>" +
                     "<text x=\"100\" y=\"104\" font-size=\"" + (word.size() > 6 ? "17" : "26") +
                     "\" letter-spacing=\"1.5\">" + word + "</text>" +
                     "<text x=\"100\" y=\"124\" font-size=\"11\">" + std::to_string(good) +
                     (certificate.ended.empty() ? " of " + Counted(counts.All(), "check", "checks")
                                                : std::string(" checks passed")) +
                     "</text>";
  if (counts.Of(Verdict::Warn) > 0) {
    text += "<text x=\"100\" y=\"139\" font-size=\"11\">" +
            Counted(counts.Of(Verdict::Warn), "warning", "warnings") + "</text>";
  }
  return text +
         "<text x=\"100\" y=\"74\" font-size=\"11\" letter-spacing=\"1\">QZ-640</text></svg>\n";
}

// -- The plots --

// 0.5, 1, 2, 5, 10, 20, ...: the first that isn't below.
double NiceLimit(double value) {
  constexpr double kSteps[] = {2.0, 2.0, 2.5};
  double limit = 0.5;
  for (size_t i = 0; limit < value; ++i)
    limit *= kSteps[i % 3];
  return limit;
}

// A square in the plot's own coordinates, with room for the labels at the left and below.
struct Frame {
  static constexpr double kWidth = 360, kHeight = 170;
  static constexpr double kLeft = 46, kRight = 350, kTop = 8, kBottom = 142;

  double fromX = 0, toX = 1, fromY = 0, toY = 1;

  double X(double value) const {
    return kLeft + (std::clamp(value, fromX, toX) - fromX) / (toX - fromX) * (kRight - kLeft);
  }
  double Y(double value) const {
    return kBottom - (std::clamp(value, fromY, toY) - fromY) / (toY - fromY) * (kBottom - kTop);
  }
};

std::string Label(double x, double y, const char* anchor, const std::string& text) {
  return "<text x=\"" + Coordinate(x) + "\" y=\"" + Coordinate(y) + "\" text-anchor=\"" + anchor +
         "\">" + text + "</text>";
}

std::string Line(const char* style, double x1, double y1, double x2, double y2) {
  return std::string("<path class=\"") + style + "\" d=\"M" + Coordinate(x1) + " " +
         Coordinate(y1) + "L" + Coordinate(x2) + " " + Coordinate(y2) + "\"/>";
}

std::string Plot(const std::string& caption, const std::string& inner) {
  return "<figure><figcaption>" + caption + "</figcaption><svg viewBox=\"0 0 " +
         Coordinate(Frame::kWidth) + " " + Coordinate(Frame::kHeight) + "\" role=\"img\">" + inner +
         "</svg></figure>\n";
}

std::string Signed(double value, int decimals) {
  return (value > 0 ? "+" : value < 0 ? "\u2212" : "") + FormatNumber(std::fabs(value), decimals);
}

// A dot a packet over the time that its place in the stream has; a line where one is missing.
std::string ArrivalPlot(const StreamTrace& trace) {
  const double packet = static_cast<double>(wire::kPacketFrames) / trace.freq;
  double worst = 0;
  std::set<int64_t> places;
  for (const Arrival& arrival : trace.arrivals) {
    worst = std::max(worst, std::fabs(arrival.lateMs));
    places.insert(arrival.place);
  }
  const double limit = NiceLimit(worst);
  Frame frame;
  frame.fromX = static_cast<double>(*places.begin()) * packet;
  frame.toX = std::max(static_cast<double>(*places.rbegin()) * packet, frame.fromX + packet);
  frame.fromY = -limit;
  frame.toY = limit;
  std::string inner;
  for (const double y : {-limit, -limit / 2, 0.0, limit / 2, limit}) {
    inner += Line(y == 0 ? "zero" : "grid", Frame::kLeft, frame.Y(y), Frame::kRight, frame.Y(y)) +
             Label(Frame::kLeft - 6, frame.Y(y) + 4, "end", Signed(y, limit < 2 ? 2 : 1));
  }
  std::string lost;
  size_t missing = 0;
  for (int64_t place = *places.begin(); place < *places.rbegin(); ++place) {
    if (places.count(place) > 0) continue;
    ++missing;
    const double x = frame.X(static_cast<double>(place) * packet);
    lost += "M" + Coordinate(x) + " " + Coordinate(Frame::kTop) + "V" + Coordinate(Frame::kBottom);
  }
  if (missing > 0) inner += "<path class=\"lost\" d=\"" + lost + "\"/>";
  std::string dots;
  for (const Arrival& arrival : trace.arrivals) {
    dots += "M" + Coordinate(frame.X(static_cast<double>(arrival.place) * packet)) + " " +
            Coordinate(frame.Y(arrival.lateMs)) + "h0";
  }
  inner += "<path class=\"dots\" d=\"" + dots + "\"/>" +
           Label(Frame::kLeft, Frame::kHeight - 10, "start", FormatNumber(frame.fromX, 1) + " s") +
           Label(Frame::kRight, Frame::kHeight - 10, "end", FormatNumber(frame.toX, 1) + " s");
  return Plot(
      "<b>Input " + std::to_string(trace.input) + ", arrival in ms:</b> " +
          Counted(trace.arrivals.size(), "packet", "packets") +
          (missing > 0 ? ", <span class=\"fail\">" + std::to_string(missing) + " missing</span>"
                       : ""),
      inner);
}

// How often neighbours in the stream came so far apart. Rare distances show by the logarithm.
std::string SpacingPlot(const StreamTrace& trace) {
  constexpr int kBars = 41;
  std::map<int64_t, double> late;
  for (const Arrival& arrival : trace.arrivals)
    late.emplace(arrival.place, arrival.lateMs);
  std::vector<double> apart;  // ms farther than one packet's time; negative: nearer
  double worst = 0;
  for (const auto& [place, ms] : late) {
    const auto before = late.find(place - 1);
    if (before == late.end()) continue;
    apart.push_back(ms - before->second);
    worst = std::max(worst, std::fabs(apart.back()));
  }
  const double limit = NiceLimit(worst);
  std::vector<size_t> counts(kBars);
  for (const double ms : apart) {
    const double share = (ms + limit) / (2 * limit);
    ++counts[std::min<size_t>(static_cast<size_t>(share * kBars), kBars - 1)];
  }
  const size_t most = *std::max_element(counts.begin(), counts.end());
  Frame frame{-limit, limit, 0, std::log10(2.0 + static_cast<double>(most))};
  std::string inner;
  for (size_t count = 1; count <= std::max<size_t>(most, 1); count *= 10) {
    const double y = frame.Y(std::log10(1.0 + static_cast<double>(count)));
    inner += Line("grid", Frame::kLeft, y, Frame::kRight, y) +
             Label(Frame::kLeft - 6, y + 4, "end", std::to_string(count));
  }
  const double width = (Frame::kRight - Frame::kLeft) / kBars;
  for (size_t i = 0; i < counts.size(); ++i) {
    if (counts[i] == 0) continue;
    const double y = frame.Y(std::log10(1.0 + static_cast<double>(counts[i])));
    inner += "<rect class=\"bar\" x=\"" +
             Coordinate(Frame::kLeft + static_cast<double>(i) * width + 0.5) + "\" y=\"" +
             Coordinate(y) + "\" width=\"" + Coordinate(width - 1) + "\" height=\"" +
             Coordinate(Frame::kBottom - y) + "\"/>";
  }
  const double packetMs = wire::kPacketFrames * 1e3 / trace.freq;
  const int decimals = limit < 2 ? 2 : 1;
  inner += Line("zero", Frame::kLeft, Frame::kBottom, Frame::kRight, Frame::kBottom) +
           Label(Frame::kLeft, Frame::kHeight - 10, "start", Signed(-limit, decimals) + " ms") +
           Label(frame.X(0), Frame::kHeight - 10, "middle", FormatNumber(packetMs, 2) + " ms") +
           Label(Frame::kRight, Frame::kHeight - 10, "end", Signed(limit, decimals) + " ms");
  return Plot("<b>Jitter " + FormatNumber(trace.jitterMs, 2) + " ms:</b> packets by their distance",
              inner);
}

// Of each input the round with the most jitter.
std::string Plots(const CheckedUnit& checked) {
  std::map<uint32_t, const StreamTrace*> worst;
  for (const CheckRound& round : checked.rounds) {
    for (const StreamTrace& trace : round.traces) {
      const StreamTrace*& shown = worst[trace.input];
      if (trace.arrivals.size() > 1 && (!shown || trace.jitterMs > shown->jitterMs)) shown = &trace;
    }
  }
  std::string text;
  for (const auto& [input, trace] : worst) {
    if (trace) text += ArrivalPlot(*trace) + SpacingPlot(*trace);
  }
  if (text.empty()) return text;
  return std::string("<h3>Streams as they arrived") +
         (checked.rounds.size() > 1 ? ", the round with the most jitter" : "") +
         "</h3>\n<div class=\"plots\">\n" + text + "</div>\n";
}

// -- The tables --

// A check over all rounds.
struct Row {
  std::string part;
  std::string name;
  std::vector<Verdict> verdicts;
  Finding worst;
};

// In the order of the checks, part by part, also where only a later round came to a check.
std::vector<Row> RowsOf(const CheckedUnit& checked) {
  std::vector<std::vector<Row>> parts;
  for (const CheckRound& round : checked.rounds) {
    for (const CheckLine& line : round.lines) {
      auto part = std::find_if(parts.begin(), parts.end(), [&](const std::vector<Row>& rows) {
        return rows.front().part == line.part;
      });
      if (part == parts.end())
        part = parts.insert(part, {{line.part, line.name, {}, line.finding}});
      auto row = std::find_if(part->begin(), part->end(),
                              [&](const Row& candidate) { return candidate.name == line.name; });
      if (row == part->end()) row = part->insert(row, {line.part, line.name, {}, line.finding});
      row->verdicts.push_back(line.finding.verdict);
      if (line.finding.verdict > row->worst.verdict) row->worst = line.finding;
    }
  }
  std::vector<Row> rows;
  for (const std::vector<Row>& part : parts)
    rows.insert(rows.end(), part.begin(), part.end());
  return rows;
}

std::string Over(const Row& row, const std::vector<Spread>& spreads) {
  std::string text;
  for (const Spread& spread : spreads) {
    if (spread.check != row.name || spread.least == spread.most) continue;
    std::string name = spread.name;
    std::replace(name.begin(), name.end(), '_', ' ');
    const auto number = [](double value) {
      return FormatNumber(value, value == std::floor(value) ? 0 : 2);
    };
    text += (text.empty() ? "" : "; ") + name + " " + number(spread.least) + " to " +
            number(spread.most) + (name == spread.unit ? "" : " " + spread.unit) + ", median " +
            number(spread.median);
  }
  return text.empty() ? text : "<span class=\"small\">" + text + "</span>";
}

std::string Rounds(const Row& row) {
  if (row.verdicts.size() < 2) return {};
  std::map<Verdict, size_t> counts;
  for (const Verdict verdict : row.verdicts)
    ++counts[verdict];
  if (counts.size() == 1) return {};
  std::string text;
  for (const auto& [verdict, count] : counts)
    text += (text.empty() ? "" : ", ") + std::to_string(count) + " \u00D7 " + Word(verdict);
  return "<span class=\"small\">" + text + "</span>";
}

std::string Tables(const CheckedUnit& checked) {
  const std::vector<Spread> spreads = SpreadsOf(checked);
  std::string text;
  std::string part;
  for (const Row& row : RowsOf(checked)) {
    if (row.part != part) {
      text += (part.empty() ? "" : "</table>\n") + ("<h3>" + Html(row.part)) +
              "</h3>\n<table class=\"checks\">\n";
      part = row.part;
    }
    text += "<tr><td>" + Marked(row.worst.verdict) + "</td><td class=\"name\">" + Html(row.name) +
            "</td><td>" + Html(row.worst.figure) + Rounds(row) + Over(row, spreads) +
            "</td></tr>\n";
  }
  return part.empty() ? text : text + "</table>\n";
}

Verdict WorstOf(const CheckedUnit& checked) {
  Verdict worst = Verdict::Skip;
  for (const CheckRound& round : checked.rounds)
    worst = std::max(worst, round.Worst());
  return worst;
}

// What hasn't failed before the end came hasn't passed either.
std::string ResultOf(const Certificate& certificate, const CheckedUnit& checked) {
  const Verdict worst = WorstOf(checked);
  if (checked.IsDone(certificate.rounds) || worst == Verdict::Fail) return Marked(worst);
  return "<span class=\"warn\">\u2013 unfinished</span>";
}

std::string UnitSection(const Certificate& certificate, size_t number) {
  const CheckedUnit& checked = certificate.units[number];
  const wire::Unit& unit = checked.unit;
  std::string text =
      "<section id=\"unit-" + std::to_string(number) + "\">\n<div class=\"head\"><h2>" +
      Html(unit.id) + "</h2><span class=\"result\">" + ResultOf(certificate, checked) +
      "</span></div>\n<dl>\n" + Fact("Model", Html(unit.type)) +
      Fact("Control", unit.control.ToText()) + Fact("RTP port", std::to_string(unit.rtpPort)) +
      Fact("Inputs, outputs", std::to_string(unit.inputs) + ", " + std::to_string(unit.outputs)) +
      Fact("Hardware, firmware, software", std::to_string(unit.hardware) + ", " +
                                               std::to_string(unit.firmware) + ", " +
                                               std::to_string(unit.software)) +
      Fact("Protocols, audio and control",
           std::to_string(unit.audioProtocol) + ", " + std::to_string(unit.controlProtocol));
  if (!checked.heardAt.empty()) text += Fact("Heard at", checked.heardAt);
  if (checked.shared) text += Fact("Runs on", "the checking machine");
  return text + "</dl>\n" + Tables(checked) + Plots(checked) + "</section>\n";
}

std::string Overview(const Certificate& certificate) {
  if (certificate.units.size() < 2) return {};
  std::string text =
      "<h3>Units</h3>\n<table>\n<tr><th>Result</th><th>Unit</th><th class=\"few\">Model</th>"
      "<th>Control</th><th class=\"few\">Checks</th></tr>\n";
  for (size_t i = 0; i < certificate.units.size(); ++i) {
    const CheckedUnit& checked = certificate.units[i];
    CheckCounts counts;
    for (const CheckRound& round : checked.rounds)
      counts.Add(round);
    text += "<tr><td>" + ResultOf(certificate, checked) + "</td><td><a href=\"#unit-" +
            std::to_string(i) + "\">" + Html(checked.unit.id) + "</a></td><td class=\"few\">" +
            Html(checked.unit.type) + "</td><td>" + checked.unit.control.ToText() +
            "</td><td class=\"few\">" + counts.ToText() + "</td></tr>\n";
  }
  return text + "</table>\n";
}

}  // namespace

std::string ToPage(const Certificate& certificate) {
  std::string text =
      "<!doctype html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
      "style-src 'unsafe-inline'\">\n<title>Conformance certificate, " +
      certificate.begun + "</title>\n<style>" + kStyle +
      "</style>\n</head>\n<body>\n<main>\n<header><div>\n<p class=\"kicker\">QZ-640 network "
      "audio</p>"
      "\n<h1>Conformance certificate</h1>\n<p class=\"lead\">What " +
      Counted(certificate.units.size(), "unit", "units") +
      " did on the wire, measured from the other end: " + certificate.Counts().ToText() +
      ".</p>\n</div>\n" + Seal(certificate) + "</header>\n";
  if (!certificate.ended.empty()) {
    text += "<p class=\"stop\"><b>The check ended before it was done:</b> " +
            Html(certificate.ended) + "</p>\n";
  }
  text += "<dl>\n" + Fact("Begun", certificate.begun) +
          Fact("Took", FormatNumber(certificate.seconds, 0) + " s") +
          Fact("Rounds", std::to_string(certificate.rounds)) +
          Fact("Measured by", "qz640ctl " QZ_VERSION) +
          Fact("The same again", "<code>" + Html(certificate.command) + "</code>", true) +
          "</dl>\n" + Overview(certificate);
  for (size_t i = 0; i < certificate.units.size(); ++i)
    text += UnitSection(certificate, i);
  return text +
         "<footer>Each input was heard for two seconds. Jitter is the interarrival jitter of RFC "
         "3550, section 6.4.1: up to 2 ms passes, more than 20 ms fails. A packet is late by how "
         "much more than the median of its stream it came after its place in the stream. What a "
         "unit in use would have noticed, or an uneven machine couldn\u2019t judge, is not "
         "tested.</footer>\n</main>\n</body>\n</html>\n";
}

}  // namespace ctl
