// A UDP socket of the test's own, which shares no code with the emulator. A thread of its own
// receives, so that nothing is lost while the test does something else.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace wire {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

// How long a test waits for what has to come. Generous, as nobody waits that long when all is well.
constexpr auto kPatience = std::chrono::seconds(30);

struct Endpoint {
  std::string ip;
  uint16_t port = 0;

  std::string ToText() const { return ip + ":" + std::to_string(port); }
  bool operator==(const Endpoint&) const = default;
};

struct Datagram {
  Bytes bytes;
  Endpoint from;
  Clock::time_point time;
};

class Socket {
 public:
  // Called on the socket's own thread, one datagram at a time.
  using Handler = std::function<void(const Datagram&)>;

  // Binds to `local`; port 0 takes a free one. Throws std::runtime_error if that can't be had.
  Socket(const Endpoint& local, Handler handler);

  // By then the handler runs no more.
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  const Endpoint& Local() const;

  // To a broadcast address too. Throws std::runtime_error if the datagram can't be sent.
  void Send(const Bytes& bytes, const Endpoint& to);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// A loopback address that no test process beside this one uses.
std::string OwnAddress();

}  // namespace wire
