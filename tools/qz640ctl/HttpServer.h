// Answers GET requests over HTTP/1.1, and sends server-sent events to pages that ask. Bounded
// in connections, bytes and time, whatever is sent there. It has no thread of its own: it serves on
// the one that is in Run or Poll.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "wire/Endpoint.h"

namespace ctl {

// What a request gets: all of it, or the head alone where events follow.
struct HttpAnswer {
  bool events = false;  // the connection stays open for them
  std::string bytes;
};

// `status` as in "200 OK"; `more` are further fields of the head, each with its line end.
HttpAnswer WholeAnswer(const char* status, const char* type, const std::string& more,
                       const std::string& body);

// One line of plain text.
HttpAnswer Refusal(const char* status, const std::string& text, const std::string& more = {});

class HttpServer {
 public:
  static constexpr size_t kMostConnections = 64;
  static constexpr size_t kMostViewers = 16;
  static constexpr size_t kMostHead = 16 * 1024;  // bytes of a request

  // Is given a request's head up to its empty line, on the thread that serves.
  using Answerer = std::function<HttpAnswer(std::string_view head)>;

  // Port 0 takes a free one. Throws std::system_error when the port can't be had.
  HttpServer(const wire::Endpoint& local, Answerer answerer);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // With the port that port 0 got.
  const wire::Endpoint& Local() const { return local_; }

  // Serves until Stop, which any thread may call.
  void Run();
  void Stop();

  // Answers what has come by now; never waits. In place of Run, some ten times a second.
  void Poll();

  // Connections that get events now. On any thread.
  size_t Viewers() const;

  // Sends a line to all of them, from any thread. A page that hasn't taken the previous one
  // yet gets the latest alone, and one that takes nothing for ten seconds is let go.
  void Publish(std::string line);

  struct Impl;

 private:
  const std::unique_ptr<Impl> impl_;
  wire::Endpoint local_;
};

}  // namespace ctl
