#include "sockets/UdpSock.h"

#include "sockets/NetManager.h"

namespace Network {

namespace {
constexpr char kSourceFile[] = "src\\UdpSock";
}

UdpSock::UdpSock(NetManager* manager) : manager_(manager), event_(manager->GetEvent()) {}

UdpSock::~UdpSock() {
  Close();
}

ErrInfo UdpSock::Open(const UdpSockInfo& info) {
  if (socket_.IsOpen()) Close();
  ErrInfo err = ERR_HERE("Network::UdpSock::Open");
  ScopedLock lock(sockMutex_);
  info_ = info;

  platform::SocketResult result = socket_.OpenUdp();
  if (!result.Ok()) return err.SetCode(result.error, L"Create socket failed");

  if (info_.Broadcast) {
    result = socket_.SetBroadcast();
    if (!result.Ok()) {
      CloseHandle();
      return err.SetCode(result.error, L"setsockopt SO_BROADCAST failed");
    }
  }

  if (info_.BindAddr.IsDefined()) {
    result = socket_.Bind(info_.BindAddr.Raw());
    if (!result.Ok()) {
      CloseHandle();
      return err.SetCode(result.error, L"bind socket failed");
    }
    result = socket_.Watch(event_, platform::kSocketRead);
    if (!result.Ok()) {
      CloseHandle();
      return err.SetCode(result.error, L"WSAEventSelect socket failed");
    }
  }
  return err;
}

void UdpSock::CloseHandle() {
  ScopedLock lock(sockMutex_);
  socket_.Close();
}

void UdpSock::Close() {
  CloseHandle();
  // No new delivery begins on a closed handle; this waits for the one that runs.
  std::lock_guard delivery(deliveryMutex_);
}

void UdpSock::Destroy() {
  Close();
  manager_->RemoveUdpSock(this);
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

bool UdpSock::TryReceive() {
  // A manager may have hundreds of sockets, and most have nothing in most turns.
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
    return false;  // also without a receiver: a failure that stays mustn't keep the worker busy
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
