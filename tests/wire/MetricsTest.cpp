// What Prometheus is given, and what it takes to be given it; what the view holds on to.
#include "Metrics.h"

#include <gtest/gtest.h>

#include <asio/connect.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/write.hpp>

#include "LiveView.h"

namespace ctl {
namespace {

using asio::ip::tcp;

class MetricsTest : public testing::Test {
 protected:
  tcp::socket Connect() {
    tcp::socket socket(context_);
    socket.connect({asio::ip::address_v4::loopback(), server_.Port()});
    socket.non_blocking(true);
    return socket;
  }

  // All that comes until the server closes, which leaves the first word to its client.
  std::string Ask(const std::string& request) {
    tcp::socket socket = Connect();
    asio::error_code error;
    asio::write(socket, asio::buffer(request), error);
    socket.shutdown(tcp::socket::shutdown_send, error);
    std::string all;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
      server_.Poll();
      char part[4096];
      all.append(part, socket.read_some(asio::buffer(part), error));
      if (error && error != asio::error::would_block) break;
    }
    return all;
  }

  std::vector<Figures> rows_ = std::vector<Figures>(2);
  MetricsServer server_{0, [this] { return MetricsText(rows_); }};
  asio::io_context context_;
};

TEST_F(MetricsTest, AnswersAndSurvivesWhateverIsSent) {
  rows_[0].unit = "a\"b\\c\n";
  rows_[0].lostForGood = 12'000'000;
  rows_[1].driftPpm = -50.5;
  const std::string answer = Ask("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  for (const std::string part :
       {"HTTP/1.1 200 OK\r\n", "# TYPE qz640_lost_packets_total counter\n",
        R"(qz640_lost_packets_total{unit="a\"b\\c\\x0A",input="0"} 12000000)",
        R"(qz640_drift_ppm{unit="",input="0"} -50.500000)"}) {
    EXPECT_NE(answer.find(part), std::string::npos) << part << "\n" << answer;
  }
  EXPECT_EQ(Ask("POST /metrics HTTP/1.1\r\n\r\n").find("HTTP/1.1 404"), 0U);
  EXPECT_EQ(Ask(std::string(100'000, 'x')).find("HTTP/1.1 431"), 0U);
  // More that never say what they want than there is room for: they make room when they go.
  {
    std::vector<tcp::socket> silent;
    for (size_t i = 0; i < HttpServer::kMostConnections; ++i)
      silent.push_back(Connect());
    EXPECT_EQ(Ask("GET /metrics HTTP/1.1\r\n\r\n"), "");
  }
  server_.Poll();
  EXPECT_EQ(Ask("GET /metrics HTTP/1.1\r\n\r\n").find("HTTP/1.1 200"), 0U);
}

wire::StreamPacket Loud(uint16_t sequence) {
  const wire::Frames loud(wire::kPacketFrames, {wire::kFullScale / 2, wire::kFullScale / 2});
  return {EncodePacket({.payloadType = 100, .sequence = sequence}, loud), {}, {}};
}

// A peak is over before anybody has read it.
TEST(Watched, HoldsAPeakThatHasPassed) {
  Watched input({}, 0);
  input.Add({Loud(0)});
  input.Take();
  input.Add({});
  const Figures now = input.Take();
  EXPECT_EQ(now.channels[0].peak, 0);
  const std::string row = LevelTable({now}, 0, Output({.noColour = true})).at(1);
  EXPECT_NE(row.find(" .................|.. "), std::string::npos) << row;
  EXPECT_NE(row.find(" -6.0 "), std::string::npos) << row;
}

// Alarms are judged once a second: a silence in between is one too, but not the wait for the first
// sound.
TEST(Watched, RemembersASilenceThatHasPassed) {
  Watched input({}, 0);
  const auto soundAfterSilence = [&](uint16_t sequence) {
    while (input.Take().silentSeconds < 0.01) {
    }
    input.Add({Loud(sequence)});
    return input.Take();
  };
  const Figures first = soundAfterSilence(0);
  EXPECT_EQ(first.longestSilence, first.silentSeconds);
  EXPECT_GE(soundAfterSilence(1).longestSilence, 0.01);
  input.ForgetSilences();
  const Figures last = input.Take();
  EXPECT_EQ(last.longestSilence, last.silentSeconds);
}

TEST_F(MetricsTest, LeavesThePortFreeThoughAClientStaysConnected) {
  tcp::socket client(context_);
  uint16_t port = 0;
  {
    MetricsServer first(0, [] { return std::string(); });
    port = first.Port();
    client.connect({asio::ip::address_v4::loopback(), port});
    first.Poll();
  }
  EXPECT_NO_THROW(MetricsServer(port, [] { return std::string(); }));
}

}  // namespace
}  // namespace ctl
