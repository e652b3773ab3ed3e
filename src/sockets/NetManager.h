// The working network manager: one thread that serves all the sockets made through it, one turn
// each, every time it wakes.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "sockets/INetManager.h"
#include "sockets/SocketHome.h"

namespace Network {

class NetManager final : public INetManager {
 public:
  // Throws std::system_error when the system has no room for the worker.
  NetManager();
  ~NetManager() override;
  NetManager(const NetManager&) = delete;
  NetManager& operator=(const NetManager&) = delete;

  std::shared_ptr<IUdpSock> CreateUdpSock() override;
  std::shared_ptr<ITcpSock> CreateTcpSock() override;
  std::shared_ptr<ITcpListenSock> CreateTcpListenSock() override;

  // Where its sockets live. They keep it only weakly.
  const std::shared_ptr<SocketHome>& Home() const { return home_; }

  // Rounds that the worker has begun. An idle worker begins none.
  uint64_t RoundCount() const { return roundCount_; }

 private:
  struct Lists;

  void Run();
  bool RunRound(Lists* lists);

  const std::shared_ptr<SocketHome> home_;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> roundCount_{0};
  std::thread worker_;  // last: it uses all of the above
};

}  // namespace Network
