#include "sockets/UdpSock.h"

namespace Network {

namespace {
constexpr char kSourceFile[] = "src\\UdpSock";
}

UdpSock::UdpSock(const std::shared_ptr<SocketHome>& home)
    : ManagedSocket(home, L"UdpSock::_SockMutex") {}

UdpSock::~UdpSock() {
  Close();
}

ErrInfo UdpSock::Open(const UdpSockInfo& info) {
  if (socket_.IsOpen()) Close();
  ErrInfo err = ERR_HERE("Network::UdpSock::Open");
  ScopedLock lock(sockMutex_);
  info_ = info;

  if (!Passed(socket_.OpenUdp(), L"Create socket failed", &err)) return err;
  if (info_.Broadcast && !Passed(socket_.SetBroadcast(), L"setsockopt SO_BROADCAST failed", &err))
    return err;
  if (!info_.BindAddr.IsDefined()) return err;
  if (Passed(socket_.Bind(info_.BindAddr.Raw()), L"bind socket failed", &err))
    Passed(socket_.Watch(event_, platform::kSocketRead), L"WSAEventSelect socket failed", &err);
  return err;
}

void UdpSock::Close() {
  CloseAndWait();
}

void UdpSock::Destroy() {
  Close();
  if (const auto home = home_.lock()) home->RemoveUdpSock(this);
}

ErrInfo UdpSock::SetSendAddr(const NetAddr& addr) {
  ScopedLock lock(sockMutex_);
  info_.SendAddr = addr;
  return ERR_HERE("Network::UdpSock::SetSendAddr");
}

ErrInfo UdpSock::Send(const uint8_t* data, uint64_t size, const NetAddr& to) {
  if (to.IsDefined()) return SendDirect(data, size, to);
  ScopedLock lock(sockMutex_);
  if (info_.SendAddr.IsDefined()) return SendDirect(data, size, info_.SendAddr);
  return ERR_HERE("Network::UdpSock::Send").SetText(L"Send address undefined");
}

ErrInfo UdpSock::SendDirect(const uint8_t* data, uint64_t size, const NetAddr& to) {
  ErrInfo err = ERR_HERE("Network::UdpSock::SendDirect");
  ScopedLock lock(sockMutex_);
  const platform::SocketResult result = socket_.SendTo(data, static_cast<size_t>(size), to.Raw());
  if (!result.Ok()) err.SetCode(result.error, L"Can not send UDP datagram");
  return err;
}

// The result says whether there may be more to do at once, and so whether the worker may sleep.
// An empty datagram and one that failed give false: the wake set reports the next one anyway, and a
// failure that stays must not keep a time-critical thread awake. The lock order is the one that
// Close relies on: handle and receiver are read under both locks, so a socket that Close has been
// called on is never received from, and its receiver never called.
bool UdpSock::TryReceive() {
  // Most sockets have nothing in most turns: this costs no lock and no system call.
  if (!socket_.MayHavePending()) return false;

  std::lock_guard delivery(deliveryMutex_);
  ErrInfo err = ERR_HERE("Network::UdpSock::TryReceive");
  std::shared_ptr<Packet> packet;
  platform::SocketAddress from;
  IUdpReceiver* receiver = nullptr;
  {
    ScopedLock lock(sockMutex_);
    if (!socket_.IsOpen() || !info_.BindAddr.IsDefined()) return false;
    receiver = info_.Receiver;
    const platform::Socket::Events pending = socket_.Pending();
    if (pending.error != 0) {
      err.SetCode(pending.error, L"WSAEnumNetworkEvents failed");
    } else if (!(pending.events & platform::kSocketRead)) {
      return false;
    } else {
      packet = std::make_shared<Packet>(info_.MaxPacketSize);
      packet->Resize(packet->Capacity());
      const platform::SocketResult result =
          socket_.RecvFrom(packet->Data(), packet->Capacity(), &from);
      if (result.wouldBlock) return false;  // the system dropped what it had announced
      if (!result.Ok()) {
        err.SetCode(result.error, L"recv failed");
      } else {
        packet->Resize(static_cast<size_t>(result.count));
        if (result.count == 0) return false;
      }
    }
  }

  // Without the socket's lock, so that the receiver may use the socket.
  if (!err.IsOk()) {
    if (receiver) receiver->OnError(this, err);
    return false;
  }
  if (receiver) receiver->OnDatagramReceived(this, packet, NetAddr(from));
  return true;
}

NetAddr UdpSock::LocalAddr() {
  ScopedLock lock(sockMutex_);
  platform::SocketAddress local;
  if (!info_.BindAddr.IsDefined() || !socket_.LocalAddress(&local).Ok()) return NetAddr();
  return NetAddr(local);
}

}  // namespace Network
