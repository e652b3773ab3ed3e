// The working network manager: serves all the sockets made through it from one worker thread, one
// turn each, every time one of them has news.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "sockets/INetManager.h"
#include "sockets/SocketHome.h"
#include "sockets/SocketWorker.h"

namespace Network {

class NetManager final : public INetManager, private SocketWorker::Client {
 public:
  explicit NetManager(NetWorker worker = NetWorker::Own);
  ~NetManager() override;
  NetManager(const NetManager&) = delete;
  NetManager& operator=(const NetManager&) = delete;

  std::shared_ptr<IUdpSock> CreateUdpSock() override;
  std::shared_ptr<ITcpSock> CreateTcpSock() override;
  std::shared_ptr<ITcpListenSock> CreateTcpListenSock() override;

  // Where its sockets live. They keep it only weakly.
  const std::shared_ptr<SocketHome>& Home() const { return home_; }

  // Rounds that the worker has begun. A manager without news gets none.
  uint64_t RoundCount() const { return roundCount_; }

 private:
  bool RunRound() override;

  // The worker's copies of the registries. They keep a socket that was removed during a round alive
  // until the next one.
  std::vector<std::shared_ptr<UdpSock>> udpSocks_;
  std::vector<std::shared_ptr<TcpSock>> tcpSocks_;
  std::vector<std::shared_ptr<TcpListenSock>> tcpListenSocks_;

  std::atomic<uint64_t> roundCount_{0};
  std::unique_ptr<SocketWorker::Place> place_;
  const std::shared_ptr<SocketHome> home_;
};

}  // namespace Network
