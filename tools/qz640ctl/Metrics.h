// The figures of "watch" for Prometheus, over HTTP on this machine's own address.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "HttpServer.h"
#include "Watched.h"

namespace ctl {

// Prometheus's text format, version 0.0.4.
std::string MetricsText(const std::vector<Figures>& rows);

// Serves GET /metrics at 127.0.0.1. On one thread, and only while that is in Poll.
class MetricsServer {
 public:
  // `text` is asked for each answer. Port 0 takes a free one. Throws Failure (kNoPort).
  MetricsServer(uint16_t port, std::function<std::string()> text);

  uint16_t Port() const { return server_.Local().port; }

  // Answers what has come by now; never waits. To be called some ten times a second.
  void Poll() { server_.Poll(); }

 private:
  HttpServer server_;
};

}  // namespace ctl
