#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "support/WireSocket.h"

namespace wire {

namespace {

sockaddr_in ToSystem(const Endpoint& endpoint) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(endpoint.port);
  if (inet_pton(AF_INET, endpoint.ip.c_str(), &address.sin_addr) != 1) {
    throw std::runtime_error("no address: " + endpoint.ip);
  }
  return address;
}

Endpoint FromSystem(const sockaddr_in& address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
  return {text.data(), ntohs(address.sin_port)};
}

[[noreturn]] void Fail(const std::string& what, const Endpoint& endpoint) {
  const std::string reason = std::strerror(errno);
  throw std::runtime_error(what + " " + endpoint.ToText() + ": " + reason);
}

}  // namespace

struct Socket::Impl {
  int fd = -1;
  int stop = -1;  // eventfd
  Endpoint local;
  Handler handler;
  std::thread thread;

  ~Impl() {
    if (fd >= 0) close(fd);
    if (stop >= 0) close(stop);
  }
  void Open(const Endpoint& wanted);
  void Receive();
};

void Socket::Impl::Open(const Endpoint& wanted) {
  fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  stop = eventfd(0, EFD_CLOEXEC);
  if (fd < 0 || stop < 0) Fail("can't open a socket for", wanted);
  const int yes = 1;
  const int bufferSize = 4 << 20;  // as much as the system gives; it cuts the number down
  setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &yes, sizeof yes);
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
  sockaddr_in address = ToSystem(wanted);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    Fail("can't bind to", wanted);
  }
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  local = FromSystem(address);
}

void Socket::Impl::Receive() {
  Bytes buffer(65536);
  for (;;) {
    std::array<pollfd, 2> waits{pollfd{fd, POLLIN, 0}, pollfd{stop, POLLIN, 0}};
    if (poll(waits.data(), waits.size(), -1) < 0) continue;
    if (waits[1].revents != 0) return;
    sockaddr_in from{};
    socklen_t length = sizeof from;
    const ssize_t got =
        recvfrom(fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
    const Clock::time_point now = Clock::now();
    if (got < 0) continue;  // nothing there after all, or a report about an earlier send
    handler({Bytes(buffer.begin(), buffer.begin() + got), FromSystem(from), now});
  }
}

Socket::Socket(const Endpoint& local, Handler handler) : impl_(std::make_unique<Impl>()) {
  impl_->handler = std::move(handler);
  impl_->Open(local);
  impl_->thread = std::thread([this] { impl_->Receive(); });
}

Socket::~Socket() {
  const uint64_t one = 1;
  while (write(impl_->stop, &one, sizeof one) < 0 && errno == EINTR) {
  }
  impl_->thread.join();
}

const Endpoint& Socket::Local() const {
  return impl_->local;
}

void Socket::Send(const Bytes& bytes, const Endpoint& to) {
  const sockaddr_in address = ToSystem(to);
  for (;;) {
    const ssize_t sent = sendto(impl_->fd, bytes.data(), bytes.size(), 0,
                                reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (sent >= 0) return;
    if (errno == EAGAIN) {
      pollfd room{impl_->fd, POLLOUT, 0};
      poll(&room, 1, -1);
    } else if (errno != EINTR && errno != ECONNREFUSED) {
      Fail("can't send to", to);
    }
  }
}

}  // namespace wire
