#include "Metrics.h"

#include <optional>
#include <system_error>
#include <utility>

#include "ExitStatus.h"
#include "Printable.h"

namespace ctl {

namespace {

constexpr uint32_t kLoopback = 0x7F000001;

// A label's value between quotes: no backslash, quote or line feed as it is.
std::string Label(const std::string& text) {
  std::string label;
  for (const char c : Printable(text)) {
    if (c == '\\' || c == '"') label += '\\';
    label += c;
  }
  return label;
}

HttpAnswer MetricsAnswer(std::string_view head, const std::function<std::string()>& text) {
  if (head.starts_with("GET /metrics ")) {
    return WholeAnswer("200 OK", "text/plain; version=0.0.4", {}, text());
  }
  return Refusal("404 Not Found", "Only GET /metrics is answered here.");
}

}  // namespace

std::string MetricsText(const std::vector<Figures>& rows) {
  std::string text;
  const auto family = [&](const std::string& name, const std::string& type, const char* help,
                          const auto& value) {
    text += "# HELP qz640_" + name + " " + help + "\n# TYPE qz640_" + name + " " + type + "\n";
    for (const Figures& row : rows) {
      const std::optional<double> number = value(row);
      if (!number) continue;
      text += "qz640_" + name + "{unit=\"" + Label(row.unit) + "\",input=\"" +
              std::to_string(row.input) + "\"} " +
              FormatNumber(*number, type == "counter" ? 0 : 6) + "\n";
    }
  };
  const auto counter = [&](const char* name, const char* help, const auto& count) {
    family(name, "counter", help,
           [&](const Figures& row) { return static_cast<double>(count(row)); });
  };
  counter("packets_total", "Packets that came.", [](const Figures& row) { return row.packets; });
  counter("lost_packets_total", "Packets that were missing for a second.",
          [](const Figures& row) { return row.lostForGood; });
  counter("late_packets_total", "Packets that came too late for a unit to play.",
          [](const Figures& row) { return row.late; });
  counter("duplicate_packets_total", "Packets that had come before.",
          [](const Figures& row) { return row.duplicates; });
  counter("out_of_order_packets_total", "Packets that came after one with a higher number.",
          [](const Figures& row) { return row.outOfOrder; });
  counter("clipped_packets_total", "Packets in which the left or the right channel clipped.",
          [](const Figures& row) { return row.channels[0].clipped + row.channels[1].clipped; });
  family("peak_left_dbfs", "gauge", "Highest level of the latest two seconds.",
         [](const Figures& row) { return ToDecibel(row.channels[0].hold); });
  family("peak_right_dbfs", "gauge", "Highest level of the latest two seconds.",
         [](const Figures& row) { return ToDecibel(row.channels[1].hold); });
  family("silent_seconds", "gauge", "How long below -80 dB of full scale, or without a packet.",
         [](const Figures& row) { return row.silentSeconds; });
  family("jitter_seconds", "gauge", "Interarrival jitter as in RFC 3550.",
         [](const Figures& row) { return row.jitterMs / 1e3; });
  family("drift_ppm", "gauge", "By how much the sender's clock runs fast.",
         [](const Figures& row) { return row.driftPpm; });
  family("pattern", "gauge", "1 where the test pattern is heard.",
         [](const Figures& row) { return row.pattern ? 1.0 : 0.0; });
  return text;
}

MetricsServer::MetricsServer(uint16_t port, std::function<std::string()> text) try
    : server_({kLoopback, port}, [text = std::move(text)](std::string_view head) {
        return MetricsAnswer(head, text);
      }) {
} catch (const std::system_error& error) {
  throw Failure{kNoPort, "can't serve metrics at 127.0.0.1:" + std::to_string(port) + ": " +
                             error.code().message() + "; name another port with --metrics"};
}

}  // namespace ctl
