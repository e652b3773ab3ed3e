// Shows one page to browsers, and sends it what is new as server-sent events. HTTP/1.1, read only:
// there is GET / and GET /events, and nothing that a request could change.
//
// Runs on a thread of its own, so that a page opens at once whatever the command waits for.
#pragma once

#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "HttpServer.h"

namespace ctl {

class PageServer {
 public:
  // `page` has to live as long. Throws wire::SocketError when the port can't be had.
  PageServer(const wire::Endpoint& local, std::string_view page);
  ~PageServer();
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;

  // With the port that port 0 got.
  const wire::Endpoint& Local() const { return server_.Local(); }

  // Pages that are open now.
  size_t Viewers() const { return server_.Viewers(); }

  // Sends a line to all of them.
  void Publish(std::string line) { server_.Publish(std::move(line)); }

 private:
  HttpServer server_;
  std::thread thread_;
};

}  // namespace ctl
