#include "sockets/TcpListenSock.h"

#include <utility>

#include "sockets/TcpSock.h"

namespace Network {

namespace {
constexpr char kSourceFile[] = "src\\TcpListenSock";
}

TcpListenSock::TcpListenSock(const std::shared_ptr<SocketHome>& home)
    : ManagedSocket(home, L"TcpListenSock::_SockMutex") {}

TcpListenSock::~TcpListenSock() {
  Close();
}

ErrInfo TcpListenSock::Open(const TcpListenSockInfo& info) {
  if (socket_.IsOpen()) Close();
  ErrInfo err = ERR_HERE("Network::TcpListenSock::Open");
  ScopedLock lock(sockMutex_);
  info_ = info;

  const platform::SocketResult opened = socket_.OpenTcp();
  if (!Passed(opened, L"Create listen socket failed", &err)) return err;
  // The one failure that leaves the handle open; Close or the next Open ends it.
  if (!info_.BindAddr.IsDefined()) return err.SetCode(opened.error, L"Undefined address");

  if (Passed(socket_.Bind(info_.BindAddr.Raw()), L"bind socket failed", &err) &&
      Passed(socket_.Watch(event_, platform::kSocketAccept), L"WSAEventSelect socket failed", &err))
    Passed(socket_.Listen(), L"listen socket failed", &err);
  return err;
}

void TcpListenSock::Close() {
  CloseAndWait();
}

void TcpListenSock::Destroy() {
  Close();
  if (const auto home = home_.lock()) home->RemoveTcpListenSock(this);
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

// Hands a new connection to the receiver, and to the manager if it is taken. The home is there, as
// the manager that gives this turn ends only after it.
void TcpListenSock::Hand(platform::Socket connection, const TcpListenSockInfo& info) {
  const std::shared_ptr<SocketHome> home = home_.lock();
  TcpSockInfo sockInfo;
  sockInfo.BindAddr = info.BindAddr;
  sockInfo.PeerAddr = info.PeerAddr;
  sockInfo.SendChunkSize = info.SendChunkSize;
  sockInfo.RecvBufBytes = info.RecvBufBytes;
  sockInfo.Receiver = info.Receiver;
  const auto sock = std::make_shared<TcpSock>(home, std::move(connection), sockInfo);

  ITcpReceiver* const receiver = info.ListenReceiver->OnAccept(this, sock);
  if (!receiver) {
    sock->Close();
    return;
  }
  sock->SetReceiver(receiver);
  home->AddTcpSock(sock);
}

}  // namespace Network
