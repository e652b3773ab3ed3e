// Sockets over WSAEventSelect. All sockets of a wake set signal its one event, so after a wake-up
// each is asked what happened to it (WSAEnumNetworkEvents without the event, which would reset it
// for the others). The system reports an event once and again only after the call that answers it.
#include "platform/socket.h"

#include <atomic>
#include <bit>
#include <climits>
#include <utility>

#include "platform/win32/wakeset.h"

namespace platform {

namespace {

SocketResult Failure(int error) {
  SocketResult result;
  result.error = static_cast<uint32_t>(error);
  result.wouldBlock = error == WSAEWOULDBLOCK;
  return result;
}

// The result of a socket call that gives a count or SOCKET_ERROR.
SocketResult Outcome(int count) {
  if (count == SOCKET_ERROR) return Failure(WSAGetLastError());
  SocketResult result;
  result.count = count;
  return result;
}

// Both are the same 16 bytes.
sockaddr_in ToSystem(const SocketAddress& address) {
  return std::bit_cast<sockaddr_in>(address);
}
SocketAddress FromSystem(const sockaddr_in& address) {
  return std::bit_cast<SocketAddress>(address);
}

int SetOption(SOCKET handle, int level, int option, int value) {
  return setsockopt(handle, level, option, reinterpret_cast<const char*>(&value), sizeof(value));
}

int SetNonBlocking(SOCKET handle) {
  u_long on = 1;
  return ioctlsocket(handle, static_cast<long>(FIONBIO), &on);
}

int Length(size_t size) {
  return size > INT_MAX ? INT_MAX : static_cast<int>(size);
}

}  // namespace

struct Socket::Impl {
  std::atomic<SOCKET> handle{INVALID_SOCKET};
  std::shared_ptr<WakeSet> wakeSet;  // that watches the socket
  std::atomic<bool> watched{false};
  bool stream = false;
  bool connected = false;   // Connect wasn't reported yet
  uint32_t announced = 0;   // events that the system reported, and that nobody has acted on yet
  bool closeWaits = false;  // the peer has closed, and data is left to receive
  uint32_t closeError = 0;  // of that closing
  size_t sent = 0;          // bytes that the system took of the present Send

  SocketResult Open(int type, int protocol) {
    StartSockets();
    const SOCKET opened = socket(AF_INET, type, protocol);
    if (opened == INVALID_SOCKET) return Failure(WSAGetLastError());
    // Not inherited by child processes, as CreateProcess hands on every inheritable handle.
    SetHandleInformation(reinterpret_cast<HANDLE>(opened), HANDLE_FLAG_INHERIT, 0);
    handle = opened;
    stream = type == SOCK_STREAM;
    return {};
  }

  bool HasData() const {
    u_long waiting = 0;
    return ioctlsocket(handle, static_cast<long>(FIONREAD), &waiting) == 0 && waiting > 0;
  }
};

Socket::Socket() : impl_(std::make_unique<Impl>()) {}
Socket::~Socket() {
  if (impl_) Close();
}
Socket::Socket(Socket&&) noexcept = default;

bool Socket::IsOpen() const {
  return impl_->handle != INVALID_SOCKET;
}

SocketResult Socket::OpenUdp() {
  Close();
  const SocketResult result = impl_->Open(SOCK_DGRAM, IPPROTO_UDP);
  if (!result.Ok() || SetNonBlocking(impl_->handle) == 0) return result;
  const SocketResult failure = Failure(WSAGetLastError());
  Close();
  return failure;
}

// Stays blocking until Connect or Listen.
SocketResult Socket::OpenTcp() {
  Close();
  return impl_->Open(SOCK_STREAM, IPPROTO_TCP);
}

void Socket::Close() {
  const SOCKET handle = impl_->handle.exchange(INVALID_SOCKET);
  if (handle == INVALID_SOCKET) return;
  if (impl_->watched) WSAEventSelect(handle, nullptr, 0);
  closesocket(handle);
  impl_->wakeSet.reset();
  impl_->watched = false;
  impl_->connected = false;
  impl_->announced = 0;
  impl_->closeWaits = false;
  impl_->sent = 0;
}

SocketResult Socket::SetBroadcast() {
  return Outcome(SetOption(impl_->handle, SOL_SOCKET, SO_BROADCAST, 1));
}

SocketResult Socket::SetReceiveBuffer(uint32_t bytes) {
  return Outcome(SetOption(impl_->handle, SOL_SOCKET, SO_RCVBUF, static_cast<int>(bytes)));
}

SocketResult Socket::Bind(const SocketAddress& local) {
  // Else another process could take the port too and steal what arrives.
  SetOption(impl_->handle, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, 1);
  const sockaddr_in address = ToSystem(local);
  return Outcome(bind(impl_->handle, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
}

SocketResult Socket::LocalAddress(SocketAddress* local) const {
  sockaddr_in address{};
  int length = sizeof(address);
  const SocketResult result =
      Outcome(getsockname(impl_->handle, reinterpret_cast<sockaddr*>(&address), &length));
  if (result.Ok()) *local = FromSystem(address);
  return result;
}

SocketResult Socket::Connect(const SocketAddress& peer) {
  const sockaddr_in address = ToSystem(peer);
  const SocketResult result =
      Outcome(connect(impl_->handle, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  if (!result.Ok()) return result;
  impl_->connected = true;
  return Outcome(SetNonBlocking(impl_->handle));
}

SocketResult Socket::Listen() {
  const SocketResult result = Outcome(SetNonBlocking(impl_->handle));
  return result.Ok() ? Outcome(listen(impl_->handle, SOMAXCONN)) : result;
}

SocketResult Socket::Accept(Socket* connection) {
  impl_->announced &= ~uint32_t{kSocketAccept};
  const SOCKET accepted = accept(impl_->handle, nullptr, nullptr);
  if (accepted == INVALID_SOCKET) return Failure(WSAGetLastError());
  // It comes with the listener's selection of events, which Watch replaces.
  WSAEventSelect(accepted, nullptr, 0);
  SetHandleInformation(reinterpret_cast<HANDLE>(accepted), HANDLE_FLAG_INHERIT, 0);
  connection->Close();
  connection->impl_->handle = accepted;
  connection->impl_->stream = true;
  return Outcome(SetNonBlocking(accepted));
}

SocketResult Socket::Watch(const std::shared_ptr<WakeSet>& wakeSet, uint32_t events) {
  // Before the system may signal: the worker that it wakes mustn't pass this socket over, as there
  // is no second signal.
  impl_->wakeSet = wakeSet;
  impl_->watched = true;
  // The bits of SocketEvent are those of the system (FD_READ and so on).
  const SocketResult result = Outcome(
      WSAEventSelect(impl_->handle, wakeSet->GetImpl().event->handle, static_cast<long>(events)));
  if (!result.Ok()) {
    impl_->watched = false;
    impl_->wakeSet.reset();
    return result;
  }
  // What came before the selection has no event of its own any more.
  if (impl_->connected) wakeSet->Signal();
  return result;
}

bool Socket::MayHavePending() const {
  return impl_->watched;
}

Socket::Events Socket::Pending() {
  Events events;
  WSANETWORKEVENTS reported{};
  if (WSAEnumNetworkEvents(impl_->handle, nullptr, &reported) == SOCKET_ERROR) {
    events.error = static_cast<uint32_t>(WSAGetLastError());
    return events;
  }
  constexpr uint32_t kUntilTaken = kSocketRead | kSocketAccept;
  constexpr uint32_t kPlain = kUntilTaken | kSocketWrite;
  // The system reports data, or a connection that waits, once until somebody receives it. A turn
  // that ended before that, for lack of memory, must find it again.
  impl_->announced |= static_cast<uint32_t>(reported.lNetworkEvents) & kUntilTaken;
  events.events = (static_cast<uint32_t>(reported.lNetworkEvents) & kPlain) | impl_->announced;
  if (std::exchange(impl_->connected, false)) events.events |= kSocketConnect;
  if (reported.lNetworkEvents & FD_CLOSE) {
    impl_->closeWaits = true;
    impl_->closeError = static_cast<uint32_t>(reported.iErrorCode[FD_CLOSE_BIT]);
  }
  if (impl_->closeWaits) {
    // A peer that has sent and closed: its data is received first. After a broken connection
    // nothing is received any more.
    if (impl_->closeError != 0) events.events &= ~uint32_t{kSocketRead};
    const bool drained = impl_->closeError != 0 || !impl_->HasData();
    events.events |= drained ? kSocketClose : kSocketRead;
  }
  return events;
}

SocketResult Socket::SendTo(const void* data, size_t size, const SocketAddress& to) {
  const sockaddr_in address = ToSystem(to);
  return Outcome(sendto(impl_->handle, static_cast<const char*>(data), Length(size), 0,
                        reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
}

SocketResult Socket::RecvFrom(void* data, size_t capacity, SocketAddress* from) {
  impl_->announced &= ~uint32_t{kSocketRead};
  sockaddr_in sender{};
  int length = sizeof(sender);
  const SocketResult result =
      Outcome(recvfrom(impl_->handle, static_cast<char*>(data), Length(capacity), 0,
                       reinterpret_cast<sockaddr*>(&sender), &length));
  if (result.Ok()) *from = FromSystem(sender);
  return result;
}

SocketResult Socket::Send(const void* data, size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (impl_->sent < size) {
    const SocketResult part =
        Outcome(send(impl_->handle, bytes + impl_->sent, Length(size - impl_->sent), 0));
    if (!part.Ok()) {
      if (!part.wouldBlock) impl_->sent = 0;
      return part;
    }
    impl_->sent += static_cast<size_t>(part.count);
  }
  SocketResult whole;
  whole.count = static_cast<int64_t>(size);
  impl_->sent = 0;
  return whole;
}

bool Socket::SendUnfinished() const {
  return impl_->sent != 0;
}

SocketResult Socket::Recv(void* data, size_t capacity) {
  impl_->announced &= ~uint32_t{kSocketRead};
  return Outcome(recv(impl_->handle, static_cast<char*>(data), Length(capacity), 0));
}

}  // namespace platform
