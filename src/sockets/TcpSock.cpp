#include "sockets/TcpSock.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Network {

namespace {
constexpr char kSourceFile[] = "src\\TcpSock";
}

// What one turn finds and does, for the callbacks after it.
struct TcpSock::Turn {
  ErrInfo err;
  ITcpReceiver* receiver = nullptr;
  bool connected = false;
  bool received = false;
  bool busy = false;
};

TcpSock::TcpSock(const std::shared_ptr<SocketHome>& home)
    : ManagedSocket(home, L"TcpSock::_SockMutex") {}

TcpSock::TcpSock(const std::shared_ptr<SocketHome>& home, platform::Socket connection,
                 const TcpSockInfo& info)
    : ManagedSocket(home, L"TcpSock::_SockMutex", std::move(connection)) {
  TakeOptions(info);
  if (!Watch().Ok()) TcpSock::CloseHandle();
}

TcpSock::~TcpSock() {
  Close();
}

ErrInfo TcpSock::Open(const TcpSockInfo& info) {
  ScopedLock lock(sockMutex_);
  TakeOptions(info);
  EmptyQueue();
  if (socket_.IsOpen()) return ERR_HERE("Network::TcpSock::Open").SetText(L"Can not reopen socket");
  return Connect();
}

void TcpSock::TakeOptions(const TcpSockInfo& info) {
  info_ = info;
  // A chunk of no byte would never use up what is to be sent.
  sendChunkSize_ = std::max(info.SendChunkSize, 1u);
}

ErrInfo TcpSock::Connect() {
  ErrInfo err = ERR_HERE("Network::TcpSock::Open");
  const platform::SocketResult opened = socket_.OpenTcp();
  if (!Passed(opened, L"Create socket failed", &err)) return err;
  // The one failure that leaves the handle open: the next Open says so until somebody closes it.
  if (!info_.PeerAddr.IsDefined()) return err.SetCode(opened.error, L"Undefined address");

  if (info_.BindAddr.IsDefined() &&
      !Passed(socket_.Bind(info_.BindAddr.Raw()), L"bind socket failed", &err))
    return err;
  if (Passed(socket_.Connect(info_.PeerAddr.Raw()), L"connect socket failed", &err))
    Passed(Watch(), L"WSAEventSelect socket failed", &err);
  return err;
}

platform::SocketResult TcpSock::Watch() {
  connected_ = true;  // first: the worker may come at once
  return socket_.Watch(event_, platform::kSocketRead | platform::kSocketWrite |
                                   platform::kSocketConnect | platform::kSocketClose);
}

void TcpSock::CloseHandle() {
  ScopedLock lock(sockMutex_);
  connected_ = false;
  ManagedSocket::CloseHandle();
  sendQueue_.Clear();
}

void TcpSock::EmptyQueue() {
  // A packet that the system has taken in part is sent to its end, or the stream would be torn.
  std::shared_ptr<Packet> begun;
  if (socket_.SendUnfinished()) begun = sendQueue_.TryPop();
  sendQueue_.Clear();
  if (begun) sendQueue_.PushFront(begun);
}

void TcpSock::Close() {
  CloseAndWait();
}

void TcpSock::Destroy() {
  Close();
  if (const auto home = home_.lock()) home->RemoveTcpSock(this);
}

void TcpSock::SetReceiver(ITcpReceiver* receiver) {
  ScopedLock lock(sockMutex_);
  info_.Receiver = receiver;
}

ErrInfo TcpSock::Send(std::shared_ptr<Packet> packet) {
  ErrInfo err = ERR_HERE("Network::TcpSock::Send");
  if (!packet) return err.SetText(L"No packet to send");
  if (!socket_.IsOpen()) return err.SetText(L"Socket is closed");
  sendQueue_.Push(std::move(packet));
  event_->Signal();
  return err;
}

ErrInfo TcpSock::Send(const uint8_t* data, uint64_t size) {
  while (size > 0) {
    const size_t count = static_cast<size_t>(std::min<uint64_t>(size, sendChunkSize_));
    auto packet = std::make_shared<Packet>(count);
    packet->Resize(count);
    std::memcpy(packet->Data(), data, count);
    const ErrInfo err = Send(std::move(packet));
    if (!err.IsOk()) return err;
    data += count;
    size -= count;
  }
  return ERR_HERE("Network::TcpSock::Send");
}

bool TcpSock::TrySendAndReceive() {
  // Also keeps the worker off the lock that Open holds while it connects.
  if (!connected_) return false;

  std::lock_guard delivery(deliveryMutex_);
  Turn turn{.err = ERR_HERE("Network::TcpSock::TrySendAndReceive")};
  {
    ScopedLock lock(sockMutex_);
    if (!connected_) return false;
    turn.receiver = info_.Receiver;
    RunTurn(&turn);
    if (!turn.err.IsOk()) CloseHandle();
  }

  // Without the socket's lock, so that the receiver may use the socket.
  if (!turn.receiver) {
    // A socket without a receiver answers false, also when it did work. False lets the worker sleep
    // until the next event, and none may come: a stream that can be written to all the time reports
    // that once. With ten packets queued, nine would stay. So the worker wakes itself.
    if (turn.busy) event_->Signal();
    return false;
  }
  if (!turn.err.IsOk()) {
    turn.receiver->OnError(this, turn.err);
    return false;
  }
  if (turn.connected) {
    turn.receiver->OnConnected(this);
    turn.busy = true;
  }
  // OnConnected may have closed the socket, and then its receiver may be gone.
  if (turn.received && socket_.IsOpen()) {
    if (turn.receiver->OnData(this, recvPacket_)) recvPacket_.reset();
  }
  return turn.busy;
}

void TcpSock::RunTurn(Turn* turn) {
  const platform::Socket::Events pending = socket_.Pending();
  if (pending.error != 0) {
    turn->err.SetCode(pending.error, L"WSAEnumNetworkEvents failed");
    return;
  }
  if (pending.events & platform::kSocketClose) {
    turn->err.SetText(L"Disconnected(FD_CLOSE)");
    return;
  }
  turn->connected = (pending.events & platform::kSocketConnect) != 0;
  if (pending.events & platform::kSocketWrite) canSend_ = true;
  if (pending.events & platform::kSocketRead) canRecv_ = true;
  if (canSend_) SendOne(turn);
  if (canRecv_) ReceiveOne(turn);
}

void TcpSock::SendOne(Turn* turn) {
  const std::shared_ptr<Packet> packet = sendQueue_.TryPop();
  if (!packet) return;
  const platform::SocketResult result = socket_.Send(packet->Data(), packet->Size());
  if (result.Ok()) {
    turn->busy = true;
  } else if (result.wouldBlock) {
    sendQueue_.PushFront(packet);
    canSend_ = false;
  } else {
    turn->err.SetCode(result.error, L"Can not send TCP packet");
  }
}

void TcpSock::ReceiveOne(Turn* turn) {
  if (!recvPacket_) recvPacket_ = std::make_shared<Packet>(std::max(info_.RecvBufBytes, 1u));
  recvPacket_->Resize(recvPacket_->Capacity());
  const platform::SocketResult result = socket_.Recv(recvPacket_->Data(), recvPacket_->Capacity());
  if (result.Ok()) {
    recvPacket_->Resize(static_cast<size_t>(result.count));
    turn->received = true;
    turn->busy = true;
  } else if (result.wouldBlock) {
    canRecv_ = false;
  } else {
    turn->err.SetCode(result.error, L"Can not receive TCP data");
  }
}

}  // namespace Network
