// The working stream socket. Its user's threads only queue; the worker of its manager sends and
// receives, in the turns that it gives the socket.
//
// deliveryMutex_ is held during a turn with its callbacks; "TcpSock::_SockMutex" guards handle and
// options and isn't held during a callback. Taken in this order. The queue has a lock of its own,
// so that no turn and no connect holds up a Send.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "platform/socket.h"
#include "runtime/ConcurrentQueue.h"
#include "runtime/TrackedMutex.h"
#include "sockets/ITcpSock.h"

namespace Network {

class NetManager;

class TcpSock final : public ITcpSock {
 public:
  // The manager must live when Destroy is called, and only then.
  explicit TcpSock(NetManager* manager);

  // Takes over an accepted connection. Closed when the system can't watch it.
  TcpSock(NetManager* manager, platform::Socket connection, const TcpSockInfo& info);

  ~TcpSock() override;
  TcpSock(const TcpSock&) = delete;
  TcpSock& operator=(const TcpSock&) = delete;

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
  bool Watch(uint32_t* error);
  void CloseHandle();
  void EmptyQueue();
  void RunTurn(Turn* turn);
  void SendOne(Turn* turn);
  void ReceiveOne(Turn* turn);

  NetManager* const manager_;
  const std::shared_ptr<platform::WakeSet> event_;

  // Not tracked: it is held as long as a receiver takes. Recursive: a callback may close the
  // socket.
  std::recursive_mutex deliveryMutex_;

  TrackedRecursiveMutex sockMutex_{L"TcpSock::_SockMutex"};
  TcpSockInfo info_;
  platform::Socket socket_;
  std::atomic<bool> connected_{false};  // the worker serves it; false during Open's connect

  ConcurrentQueue<std::shared_ptr<Packet>> sendQueue_;
  std::atomic<uint32_t> sendChunkSize_{1};  // bytes, from info_

  // The rest is used in the turns alone.
  bool canSend_ = true;
  bool canRecv_ = true;
  std::shared_ptr<Packet> recvPacket_;
};

}  // namespace Network
