// The page that "check --html" writes.
#include <algorithm>
#include <cmath>
#include <map>

#include "Certificate.h"
#include "CertificateDrawings.h"
#include "Output.h"
#include "Printable.h"

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

std::string Fact(const char* name, const std::string& html, bool wide = false) {
  return std::string(wide ? "<div class=\"wide\">" : "<div>") + "<dt>" + name + "</dt><dd>" + html +
         "</dd></div>\n";
}

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
