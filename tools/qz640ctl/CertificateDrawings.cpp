#include "CertificateDrawings.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <set>
#include <vector>

#include "Output.h"
#include "wire/Audio.h"

namespace ctl {

namespace {

std::string Coordinate(double value) {
  return FormatNumber(value, 1);
}

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

}  // namespace

const char* ClassOf(Verdict verdict) {
  return verdict == Verdict::Skip ? "skip" : Word(verdict);
}

std::string Counted(size_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
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

}  // namespace ctl
