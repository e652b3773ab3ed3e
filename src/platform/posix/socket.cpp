// Sockets over epoll. A datagram descriptor is watched level-triggered: a turn that gave nothing
// isn't "nothing left", so it must wake again. Streams and listeners are watched edge-triggered: a
// stream is writable most of the time and a listener may be left unserved, and neither may keep a
// time-critical worker awake.
#include "platform/socket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/interfaces.h"
#include "platform/posix/wakeset.h"

namespace platform {

namespace {

SocketResult Failure(int error) {
  SocketResult result;
  result.error = static_cast<uint32_t>(error);
  result.wouldBlock = error == EAGAIN || error == EWOULDBLOCK;
  return result;
}

// The result of a system call that gives a count or -1.
SocketResult Outcome(ssize_t count) {
  if (count < 0) return Failure(errno);
  SocketResult result;
  result.count = count;
  return result;
}

// Repeats a system call that a signal handler interrupted.
template <typename Call>
auto Uninterrupted(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR)
    result = call();
  return result;
}

// Both are the same 16 bytes.
sockaddr_in ToSystem(const SocketAddress& address) {
  return std::bit_cast<sockaddr_in>(address);
}
SocketAddress FromSystem(const sockaddr_in& address) {
  return std::bit_cast<SocketAddress>(address);
}

int BindTo(int fd, const SocketAddress& local) {
  const sockaddr_in address = ToSystem(local);
  return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

int SetOption(int fd, int level, int option, int value) {
  return setsockopt(fd, level, option, &value, sizeof value);
}

// One datagram; a cut one is a failure.
SocketResult ReceiveDatagram(int fd, void* data, size_t capacity, SocketAddress* from) {
  sockaddr_in sender{};
  socklen_t length = sizeof sender;
  const ssize_t count = Uninterrupted([&] {
    // With MSG_TRUNC the system reports the datagram's true length, otherwise it cuts in silence.
    return recvfrom(fd, data, capacity, MSG_TRUNC, reinterpret_cast<sockaddr*>(&sender), &length);
  });
  if (count > 0 && static_cast<size_t>(count) > capacity) return Failure(EMSGSIZE);
  if (count >= 0) *from = FromSystem(sender);
  return Outcome(count);
}

}  // namespace

struct Socket::Impl {
  enum class Kind { Datagram, Stream, Listener };

  void OpenCompanions(const SocketAddress& local);
  void OpenCompanion(WatchedDescriptor& companion, const SocketAddress& local,
                     const std::string& interface);
  void Release(WatchedDescriptor& descriptor);

  Kind kind = Kind::Datagram;
  WatchedDescriptor main;

  // A datagram socket bound to one interface's address hears no broadcast here, unlike on
  // Windows. So these stand beside it, bound to the interface's broadcast address and to
  // 255.255.255.255. They only receive: exactly the broadcasts, while `main` gets the rest.
  std::array<WatchedDescriptor, 2> companions;

  size_t nextTurn = 0;  // where RecvFrom begins, so that a flood on one starves no other
  std::atomic<bool> connected{false};  // connect wasn't reported yet
  size_t sent = 0;                     // bytes that the system took of the present Send
  std::shared_ptr<WakeSet> wakeSet;    // that watches the descriptors
};

void Socket::Impl::Release(WatchedDescriptor& descriptor) {
  if (descriptor.fd == -1) return;
  if (descriptor.watch != 0) wakeSet->GetImpl().Remove(descriptor);
  close(descriptor.fd);
  descriptor.fd = -1;
  descriptor.ready = 0;
}

void Socket::Impl::OpenCompanions(const SocketAddress& local) {
  constexpr uint8_t kLoopbackNet = 127;  // every address of 127.0.0.0/8 is this host's own
  for (const Interface& interface : ListInterfaces()) {
    const bool own =
        std::memcmp(interface.address.address, local.address, sizeof local.address) == 0 ||
        (interface.loopback && local.address[0] == kLoopbackNet);
    if (!own) continue;
    SocketAddress broadcast;  // 255.255.255.255, which never arrives at the loopback
    std::memcpy(broadcast.port, local.port, sizeof broadcast.port);
    if (!interface.loopback) OpenCompanion(companions[1], broadcast, interface.name);
    if (interface.broadcast == SocketAddress()) return;
    std::memcpy(broadcast.address, interface.broadcast.address, sizeof broadcast.address);
    OpenCompanion(companions[0], broadcast, interface.name);
    return;
  }
}

// As far as the system permits it: without a companion the socket hears no such broadcast.
void Socket::Impl::OpenCompanion(WatchedDescriptor& companion, const SocketAddress& local,
                                 const std::string& interface) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP);
  if (fd == -1) return;
  // Shared by all that listen for broadcasts on the port: each gets a copy.
  SetOption(fd, SOL_SOCKET, SO_REUSEADDR, 1);
  // An alias such as eth0:1 belongs to the device in front of the colon.
  const std::string device = interface.substr(0, interface.find(':'));
  setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, device.c_str(),
             static_cast<socklen_t>(device.size()));
  if (BindTo(fd, local) == -1) {
    close(fd);
    return;
  }
  companion.fd = fd;
}

Socket::Socket() : impl_(std::make_unique<Impl>()) {}

Socket::~Socket() {
  if (impl_) Close();
}

Socket::Socket(Socket&&) noexcept = default;

bool Socket::IsOpen() const {
  return impl_->main.fd != -1;
}

SocketResult Socket::OpenUdp() {
  Close();
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP);
  if (fd == -1) return Failure(errno);
  // Never "don't fragment": a large datagram goes out in pieces rather than not at all.
  SetOption(fd, IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DONT);
  impl_->kind = Impl::Kind::Datagram;
  impl_->main.fd = fd;
  return {};
}

SocketResult Socket::OpenTcp() {
  Close();
  // Blocking until it is connected.
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (fd == -1) return Failure(errno);
  impl_->kind = Impl::Kind::Stream;
  impl_->main.fd = fd;
  return {};
}

void Socket::Close() {
  impl_->Release(impl_->main);
  for (WatchedDescriptor& companion : impl_->companions)
    impl_->Release(companion);
  impl_->wakeSet.reset();
  impl_->nextTurn = 0;
  impl_->connected = false;
  impl_->sent = 0;
}

SocketResult Socket::SetBroadcast() {
  return Outcome(SetOption(impl_->main.fd, SOL_SOCKET, SO_BROADCAST, 1));
}

SocketResult Socket::SetReceiveBuffer(uint32_t bytes) {
  return Outcome(SetOption(impl_->main.fd, SOL_SOCKET, SO_RCVBUF, static_cast<int>(bytes)));
}

SocketResult Socket::Bind(const SocketAddress& local) {
  // With address reuse two datagram sockets could hold one port, and the second would take the
  // traffic of the first in silence. On a stream it only forgives connections that are over.
  if (impl_->kind != Impl::Kind::Datagram) SetOption(impl_->main.fd, SOL_SOCKET, SO_REUSEADDR, 1);
  if (BindTo(impl_->main.fd, local) == -1) return Failure(errno);
  SocketAddress bound;
  if (impl_->kind == Impl::Kind::Datagram && LocalAddress(&bound).Ok())
    impl_->OpenCompanions(bound);
  return {};
}

SocketResult Socket::LocalAddress(SocketAddress* local) const {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (getsockname(impl_->main.fd, reinterpret_cast<sockaddr*>(&address), &length) == -1)
    return Failure(errno);
  *local = FromSystem(address);
  return {};
}

SocketResult Socket::Connect(const SocketAddress& peer) {
  const int fd = impl_->main.fd;
  const sockaddr_in address = ToSystem(peer);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
    if (errno != EINTR) return Failure(errno);
    // The interrupted call goes on in the system; a second one would only be refused.
    pollfd wait{fd, POLLOUT, 0};
    if (Uninterrupted([&] { return poll(&wait, 1, -1); }) == -1) return Failure(errno);
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == -1) return Failure(errno);
    if (error != 0) return Failure(error);
  }
  if (fcntl(fd, F_SETFL, O_NONBLOCK) == -1) return Failure(errno);
  impl_->connected = true;
  return {};
}

SocketResult Socket::Listen() {
  if (fcntl(impl_->main.fd, F_SETFL, O_NONBLOCK) == -1) return Failure(errno);
  impl_->kind = Impl::Kind::Listener;
  return Outcome(listen(impl_->main.fd, 0x7FFFFFFF));  // the system cuts it to what it allows
}

SocketResult Socket::Accept(Socket* connection) {
  WatchedDescriptor& main = impl_->main;
  const uint32_t ready = main.ready.exchange(0);
  int fd = -1;
  do {
    fd = accept4(main.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    // One that was given up while it waited says nothing about those after it.
  } while (fd == -1 && (errno == EINTR || errno == ECONNABORTED));
  if (fd == -1 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Failure(errno);
  const SocketResult result = fd == -1 ? Failure(errno) : SocketResult();
  // There may be more, and the system doesn't report it again.
  main.ready.fetch_or(ready | EPOLLIN);
  if (fd == -1) return result;
  connection->Close();
  connection->impl_->kind = Impl::Kind::Stream;
  connection->impl_->main.fd = fd;
  return result;
}

SocketResult Socket::Watch(const std::shared_ptr<WakeSet>& wakeSet, uint32_t events) {
  uint32_t mask = 0;
  if (events & (kSocketRead | kSocketAccept)) mask |= EPOLLIN;
  if (events & (kSocketWrite | kSocketConnect)) mask |= EPOLLOUT;
  if (events & kSocketClose) mask |= EPOLLRDHUP;
  if (impl_->kind != Impl::Kind::Datagram) mask |= EPOLLET;
  impl_->wakeSet = wakeSet;
  const uint32_t error = wakeSet->GetImpl().Add(impl_->main, mask);
  if (error != 0) return Failure(static_cast<int>(error));
  for (WatchedDescriptor& companion : impl_->companions) {
    if (companion.fd != -1 && wakeSet->GetImpl().Add(companion, mask) != 0)
      impl_->Release(companion);
  }
  return {};
}

bool Socket::MayHavePending() const {
  return impl_->main.ready != 0 || impl_->companions[0].ready != 0 ||
         impl_->companions[1].ready != 0 || impl_->connected;
}

Socket::Events Socket::Pending() {
  Events result;
  WatchedDescriptor& main = impl_->main;
  if (main.fd == -1) {
    result.error = EBADF;
    return result;
  }
  // Of datagrams and listeners the bits in `ready` stay here: RecvFrom and Accept clear them when
  // they look whether something is there, so a report that nobody acts on isn't lost.
  if (impl_->kind == Impl::Kind::Datagram) {
    if (MayHavePending()) result.events = kSocketRead;
    return result;
  }
  if (impl_->kind == Impl::Kind::Listener) {
    if (main.ready != 0) result.events = kSocketAccept;
    return result;
  }

  if (impl_->connected.exchange(false)) result.events |= kSocketConnect;
  const uint32_t ready = main.ready.exchange(0);
  if (ready & EPOLLIN) result.events |= kSocketRead;
  if (ready & EPOLLOUT) result.events |= kSocketWrite;
  if (ready & EPOLLERR) {
    result.events |= kSocketClose;
  } else if (ready & (EPOLLRDHUP | EPOLLHUP)) {
    int unread = 0;
    if (ioctl(main.fd, FIONREAD, &unread) == -1) {
      result.error = static_cast<uint32_t>(errno);
    } else if (unread == 0) {
      result.events |= kSocketClose;
    } else {
      result.events |= kSocketRead;
      main.ready.fetch_or(ready);  // asked again when the data has been received
    }
  }
  return result;
}

SocketResult Socket::SendTo(const void* data, size_t size, const SocketAddress& to) {
  const sockaddr_in address = ToSystem(to);
  return Outcome(Uninterrupted([&] {
    return sendto(impl_->main.fd, data, size, MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }));
}

SocketResult Socket::RecvFrom(void* data, size_t capacity, SocketAddress* from) {
  WatchedDescriptor* const descriptors[] = {&impl_->main, &impl_->companions[0],
                                            &impl_->companions[1]};
  constexpr size_t kCount = std::size(descriptors);
  // First those that the wake set has reported; all of them only when that was in vain.
  for (const bool reported : {true, false}) {
    for (size_t i = 0; i < kCount; ++i) {
      const size_t turn = (impl_->nextTurn + i) % kCount;
      WatchedDescriptor& descriptor = *descriptors[turn];
      if (turn != 0 && descriptor.fd == -1) continue;
      if ((descriptor.ready.exchange(0) != 0) != reported) continue;
      const SocketResult result = ReceiveDatagram(descriptor.fd, data, capacity, from);
      if (result.wouldBlock) continue;
      impl_->nextTurn = (turn + 1) % kCount;
      return result;
    }
  }
  return Failure(EAGAIN);
}

SocketResult Socket::Send(const void* data, size_t size) {
  const char* const bytes = static_cast<const char*>(data);
  while (impl_->sent < size) {
    const ssize_t count = Uninterrupted([&] {
      return send(impl_->main.fd, bytes + impl_->sent, size - impl_->sent, MSG_NOSIGNAL);
    });
    if (count == -1) return Failure(errno);
    impl_->sent += static_cast<size_t>(count);
  }
  impl_->sent = 0;
  return Outcome(static_cast<ssize_t>(size));
}

bool Socket::SendUnfinished() const {
  return impl_->sent != 0;
}

SocketResult Socket::Recv(void* data, size_t capacity) {
  return Outcome(Uninterrupted([&] { return recv(impl_->main.fd, data, capacity, 0); }));
}

}  // namespace platform
