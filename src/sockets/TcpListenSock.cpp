#include "sockets/TcpListenSock.h"

#include <utility>

#include "sockets/NetManager.h"
#include "sockets/TcpSock.h"

namespace Network {

namespace {
constexpr char kSourceFile[] = "src\\TcpListenSock";
}

TcpListenSock::TcpListenSock(NetManager* manager)
    : manager_(manager), event_(manager->GetEvent()) {}

TcpListenSock::~TcpListenSock() {
  Close();
}

ErrInfo TcpListenSock::Open(const TcpListenSockInfo& info) {
  if (socket_.IsOpen()) Close();
  ErrInfo err = ERR_HERE("Network::TcpListenSock::Open");
  ScopedLock lock(sockMutex_);
  info_ = info;

  platform::SocketResult result = socket_.OpenTcp();
  if (!result.Ok()) return err.SetCode(result.error, L"Create listen socket failed");

  if (!info_.BindAddr.IsDefined()) return err.SetCode(result.error, L"Undefined address");

  result = socket_.Bind(info_.BindAddr.Raw());
  if (!result.Ok()) {
    CloseHandle();
    return err.SetCode(result.error, L"bind socket failed");
  }
  result = socket_.Watch(event_, platform::kSocketAccept);
  if (!result.Ok()) {
    CloseHandle();
    return err.SetCode(result.error, L"WSAEventSelect socket failed");
  }
  result = socket_.Listen();
  if (!result.Ok()) {
    CloseHandle();
    return err.SetCode(result.error, L"listen socket failed");
  }
  return err;
}

void TcpListenSock::CloseHandle() {
  ScopedLock lock(sockMutex_);
  socket_.Close();
}

void TcpListenSock::Close() {
  CloseHandle();
  // No new turn begins on a closed handle; this waits for the one that runs.
  std::lock_guard delivery(deliveryMutex_);
}

void TcpListenSock::Destroy() {
  Close();
  manager_->RemoveTcpListenSock(this);
}

bool TcpListenSock::TryAccept() {
  if (!socket_.MayHavePending()) return false;

  std::lock_guard delivery(deliveryMutex_);
  ErrInfo err = ERR_HERE("Network::TcpListenSock::TryAccept");
  platform::Socket connection;
  TcpListenSockInfo info;
  {
    ScopedLock lock(sockMutex_);
    if (!socket_.IsOpen() || !info_.BindAddr.IsDefined()) return false;
    info = info_;
    const platform::Socket::Events pending = socket_.Pending();
    if (pending.error != 0) {
      err.SetCode(pending.error, L"WSAEnumNetworkEvents failed");
    } else if (!(pending.events & platform::kSocketAccept) || !info.ListenReceiver ||
               !socket_.Accept(&connection).Ok()) {
      // Under the lock: the handle's number may belong to another socket as soon as it is closed.
      return false;
    }
  }

  // Without the socket's lock, so that the receiver may use the socket.
  if (!err.IsOk()) {
    if (info.ListenReceiver) info.ListenReceiver->OnError(this, err);
    return false;
  }
  Hand(std::move(connection), info);
  return true;
}

// Hands a new connection to the receiver, and to the manager if it is taken.
void TcpListenSock::Hand(platform::Socket connection, const TcpListenSockInfo& info) {
  TcpSockInfo sockInfo;
  sockInfo.BindAddr = info.BindAddr;
  sockInfo.PeerAddr = info.PeerAddr;
  sockInfo.SendChunkSize = info.SendChunkSize;
  sockInfo.RecvBufBytes = info.RecvBufBytes;
  sockInfo.Receiver = info.Receiver;
  const auto sock = std::make_shared<TcpSock>(manager_, std::move(connection), sockInfo);

  ITcpReceiver* const receiver = info.ListenReceiver->OnAccept(this, sock);
  if (!receiver) {
    sock->Close();
    return;
  }
  sock->SetReceiver(receiver);
  manager_->AddTcpSock(sock);
}

}  // namespace Network
