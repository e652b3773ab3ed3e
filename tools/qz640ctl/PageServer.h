// Shows one page to browsers, and sends it what is new as server-sent events. HTTP/1.1, read only:
// there is GET / and GET /events, and nothing that a request could change.
//
// Runs on a thread of its own, so that a page opens at once whatever the command waits for.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "wire/Endpoint.h"

namespace ctl {

// What a request gets: whole for an error or the page, the head alone for the events.
struct HttpAnswer {
  bool events = false;  // the connection stays open for them
  std::string bytes;
};

// `head` is a request's head up to its empty line. Another site's script that had its name lead to
// this server would be let in by the browser, so it is to be asked for by address or as localhost,
// and by nobody else's page.
HttpAnswer AnswerTo(std::string_view head, std::string_view page);

class PageServer {
 public:
  static constexpr size_t kMostConnections = 64;
  static constexpr size_t kMostViewers = 16;
  static constexpr size_t kMostHead = 16 * 1024;  // bytes of a request

  // `page` has to live as long. Throws wire::SocketError when the port can't be had.
  PageServer(const wire::Endpoint& local, std::string_view page);
  ~PageServer();
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;

  // With the port that port 0 got.
  const wire::Endpoint& Local() const { return local_; }

  // Pages that are open now.
  size_t Viewers() const;

  // Sends a line to all of them. Who hasn't taken the previous one yet gets the latest alone, and
  // who takes nothing for ten seconds is let go.
  void Publish(std::string line);

  struct Impl;

 private:
  const std::unique_ptr<Impl> impl_;
  wire::Endpoint local_;
  std::thread thread_;
};

}  // namespace ctl
