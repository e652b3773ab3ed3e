// The working stream socket. Its user's threads only queue; the worker of its manager sends and
// receives, in the turns that it gives the socket.
//
// The locks are those of ManagedSocket; the socket's own is "TcpSock::_SockMutex". The queue has a
// lock of its own, so that no turn and no connect holds up a Send.
#pragma once

#include <atomic>
#include <memory>

#include "runtime/ConcurrentQueue.h"
#include "sockets/ITcpSock.h"
#include "sockets/ManagedSocket.h"

namespace Network {

class TcpSock final : public ITcpSock, private ManagedSocket {
 public:
  explicit TcpSock(const std::shared_ptr<SocketHome>& home);

  // Takes over an accepted connection. Closed when the system can't watch it.
  TcpSock(const std::shared_ptr<SocketHome>& home, platform::Socket connection,
          const TcpSockInfo& info);

  ~TcpSock() override;

  ErrInfo Open(const TcpSockInfo& info) override;
  void Close() override;
  void Destroy() override;
  ErrInfo Send(std::shared_ptr<Packet> packet) override;
  ErrInfo Send(const uint8_t* data, uint64_t size) override;

  void SetReceiver(ITcpReceiver* receiver);

  // One turn on the worker: sends one packet and receives one at most. True when there may be more
  // to do.
  bool TrySendAndReceive();

 private:
  struct Turn;

  void TakeOptions(const TcpSockInfo& info);
  ErrInfo Connect();
  platform::SocketResult Watch();
  void CloseHandle() override;
  void EmptyQueue();
  void RunTurn(Turn* turn);
  void SendOne(Turn* turn);
  void ReceiveOne(Turn* turn);

  TcpSockInfo info_;
  std::atomic<bool> connected_{false};  // the worker serves it; false during Open's connect

  ConcurrentQueue<std::shared_ptr<Packet>> sendQueue_;
  std::atomic<uint32_t> sendChunkSize_{1};  // bytes, from info_

  // The rest is used in the turns alone.
  bool canSend_ = true;
  bool canRecv_ = true;
  std::shared_ptr<Packet> recvPacket_;
};

}  // namespace Network
