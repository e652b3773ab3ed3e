#include <winsock2.h>
#include <ws2tcpip.h>

#include <array>
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
  std::array<char, 64> text{};
  inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
  return {text.data(), ntohs(address.sin_port)};
}

[[noreturn]] void Fail(const std::string& what, const Endpoint& endpoint) {
  throw std::runtime_error(what + " " + endpoint.ToText() + ": error " +
                           std::to_string(WSAGetLastError()));
}

}  // namespace

struct Socket::Impl {
  SOCKET handle = INVALID_SOCKET;
  WSAEVENT arrived = WSA_INVALID_EVENT;
  WSAEVENT stop = WSA_INVALID_EVENT;
  Endpoint local;
  Handler handler;
  std::thread thread;

  ~Impl() {
    if (handle != INVALID_SOCKET) closesocket(handle);
    if (arrived != WSA_INVALID_EVENT) WSACloseEvent(arrived);
    if (stop != WSA_INVALID_EVENT) WSACloseEvent(stop);
  }
  void Open(const Endpoint& wanted);
  void Receive();
};

void Socket::Impl::Open(const Endpoint& wanted) {
  static WSADATA data;
  static const int started = WSAStartup(MAKEWORD(2, 2), &data);
  if (started != 0) throw std::runtime_error("WSAStartup failed");
  handle = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  arrived = WSACreateEvent();
  stop = WSACreateEvent();
  if (handle == INVALID_SOCKET) Fail("can't open a socket for", wanted);
  const int yes = 1;
  const int bufferSize = 4 << 20;
  setsockopt(handle, SOL_SOCKET, SO_BROADCAST, reinterpret_cast<const char*>(&yes), sizeof yes);
  setsockopt(handle, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char*>(&bufferSize),
             sizeof bufferSize);
  sockaddr_in address = ToSystem(wanted);
  if (bind(handle, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    Fail("can't bind to", wanted);
  }
  int length = sizeof address;
  getsockname(handle, reinterpret_cast<sockaddr*>(&address), &length);
  local = FromSystem(address);
  WSAEventSelect(handle, arrived, FD_READ);
}

void Socket::Impl::Receive() {
  Bytes buffer(65536);
  const WSAEVENT events[] = {stop, arrived};
  for (;;) {
    const DWORD woken = WSAWaitForMultipleEvents(2, events, FALSE, WSA_INFINITE, FALSE);
    if (woken == WSA_WAIT_EVENT_0) return;
    WSAResetEvent(arrived);
    for (;;) {
      sockaddr_in from{};
      int length = sizeof from;
      const int got =
          recvfrom(handle, reinterpret_cast<char*>(buffer.data()), static_cast<int>(buffer.size()),
                   0, reinterpret_cast<sockaddr*>(&from), &length);
      const Clock::time_point now = Clock::now();
      // A report about an earlier send isn't the end of what is there.
      if (got < 0 && WSAGetLastError() == WSAECONNRESET) continue;
      if (got < 0) break;
      handler({Bytes(buffer.begin(), buffer.begin() + got), FromSystem(from), now});
    }
  }
}

Socket::Socket(const Endpoint& local, Handler handler) : impl_(std::make_unique<Impl>()) {
  impl_->handler = std::move(handler);
  impl_->Open(local);
  impl_->thread = std::thread([this] { impl_->Receive(); });
}

Socket::~Socket() {
  WSASetEvent(impl_->stop);
  impl_->thread.join();
}

const Endpoint& Socket::Local() const {
  return impl_->local;
}

void Socket::Send(const Bytes& bytes, const Endpoint& to) {
  const sockaddr_in address = ToSystem(to);
  for (;;) {
    const int sent = sendto(impl_->handle, reinterpret_cast<const char*>(bytes.data()),
                            static_cast<int>(bytes.size()), 0,
                            reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (sent >= 0) return;
    if (WSAGetLastError() != WSAEWOULDBLOCK) Fail("can't send to", to);
    std::this_thread::yield();
  }
}

}  // namespace wire
