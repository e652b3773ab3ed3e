#include "Metrics.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/read_until.hpp>
#include <asio/steady_timer.hpp>
#include <asio/streambuf.hpp>
#include <asio/write.hpp>

#include "ExitStatus.h"
#include "Printable.h"

namespace ctl {

namespace {

using asio::ip::tcp;

constexpr size_t kMostConnections = 16;
constexpr size_t kLongestRequest = 8192;
constexpr auto kLongestTime = std::chrono::seconds(5);

// A label's value between quotes: no backslash, quote or line feed as it is.
std::string Label(const std::string& text) {
  std::string label;
  for (const char c : Printable(text)) {
    if (c == '\\' || c == '"') label += '\\';
    label += c;
  }
  return label;
}

std::string Answer(const std::string& status, const std::string& type, const std::string& body) {
  return "HTTP/1.1 " + status + "\r\nContent-Type: " + type +
         "; charset=utf-8\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

// One request and its answer. Lives as long as something of it is under way.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(tcp::socket socket, const std::function<std::string()>& text)
      : socket_(std::move(socket)), text_(text), limit_(socket_.get_executor()) {}

  void Begin() {
    limit_.expires_after(kLongestTime);
    limit_.async_wait([self = shared_from_this()](asio::error_code error) {
      if (!error) self->Close();
    });
    asio::async_read_until(
        socket_, request_, "\r\n\r\n",
        [self = shared_from_this()](asio::error_code error, size_t) { self->OnRequest(error); });
  }

 private:
  void OnRequest(const asio::error_code& error) {
    if (error) return Close();  // also where the request is too long
    std::string line;
    std::getline(std::istream(&request_), line);
    if (line.starts_with("GET /metrics ")) {
      answer_ = Answer("200 OK", "text/plain; version=0.0.4", text_());
    } else {
      answer_ = Answer("404 Not Found", "text/plain", "Only GET /metrics is answered here.\n");
    }
    asio::async_write(socket_, asio::buffer(answer_),
                      [self = shared_from_this()](asio::error_code, size_t) { self->Close(); });
  }

  void Close() {
    asio::error_code ignored;
    limit_.cancel();
    socket_.shutdown(tcp::socket::shutdown_both, ignored);
    socket_.close(ignored);
  }

  tcp::socket socket_;
  const std::function<std::string()>& text_;
  asio::steady_timer limit_;
  asio::streambuf request_{kLongestRequest};
  std::string answer_;
};

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

struct MetricsServer::Impl {
  explicit Impl(std::function<std::string()> ask) : text(std::move(ask)) {}

  void Accept() {
    accepting = true;
    acceptor.async_accept([this](asio::error_code error, tcp::socket socket) {
      accepting = false;  // where no descriptor is to be had, until the next Poll
      if (error) return;
      std::erase_if(connections, [](const auto& connection) { return connection.expired(); });
      if (connections.size() < kMostConnections) {
        const auto connection = std::make_shared<Connection>(std::move(socket), text);
        connections.push_back(connection);
        connection->Begin();
      }
      Accept();
    });
  }

  const std::function<std::string()> text;
  asio::io_context context;
  tcp::acceptor acceptor{context};
  std::vector<std::weak_ptr<Connection>> connections;
  bool accepting = false;
};

MetricsServer::MetricsServer(uint16_t port, std::function<std::string()> text)
    : impl_(std::make_unique<Impl>(std::move(text))) {
  try {
    impl_->acceptor.open(tcp::v4());
    // Else the answers of an earlier watch would keep the port for a minute.
    impl_->acceptor.set_option(tcp::acceptor::reuse_address(true));
    impl_->acceptor.bind({asio::ip::address_v4::loopback(), port});
    impl_->acceptor.listen();
  } catch (const std::system_error& error) {
    throw Failure{kNoPort, "can't serve metrics at 127.0.0.1:" + std::to_string(port) + ": " +
                               error.code().message() + "; name another port with --metrics"};
  }
  impl_->Accept();
}

MetricsServer::~MetricsServer() = default;

uint16_t MetricsServer::Port() const {
  return impl_->acceptor.local_endpoint().port();
}

void MetricsServer::Poll() {
  if (!impl_->accepting) impl_->Accept();
  impl_->context.poll();
}

}  // namespace ctl
