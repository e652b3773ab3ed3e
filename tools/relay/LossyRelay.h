// A bad network between one address and another: takes UDP datagrams at `listen`, hands them on to
// `target` as the faults will have it, and brings the answers back to who asked, through the same
// faults. Each sender gets a socket of its own towards the target, which therefore sees as many
// senders as there are.
//
// Receives on the worker of its NetManager; a thread of its own sends what is due. mutex_ guards
// all state and isn't held across a call of a socket.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "platform/event.h"
#include "relay/LossyLink.h"
#include "sockets/INetManager.h"

namespace relay {

struct RelayInfo {
  Network::NetAddr listen;  // its host also sends towards the target, from ports of its own
  Network::NetAddr target;
  uint64_t seed = 1;  // the same for several relays: they decide differently, by `number`
  uint64_t number = 0;
  LinkFaults faults;  // of both directions
};

class LossyRelay final : public Network::IUdpReceiver {
 public:
  static constexpr size_t kMaxFlows = 64;  // senders at a time
  static constexpr size_t kMaxBytesUnderWay = 64 * 1024 * 1024;

  // The manager must outlive the relay.
  explicit LossyRelay(Network::INetManager* netManager);
  ~LossyRelay();
  LossyRelay(const LossyRelay&) = delete;
  LossyRelay& operator=(const LossyRelay&) = delete;

  // A started one is stopped first. Fails when `listen` can't be had.
  ErrInfo Start(const RelayInfo& info);

  // What is under way is lost. Not from a callback of the manager.
  void Stop();

  // From the next datagram on; LinkFaults() heals the network. What is under way stays as it is.
  void SetFaults(const LinkFaults& faults);

  // Since Start: from the senders to the target, and back.
  LinkCounts CountsThere() const;
  LinkCounts CountsBack() const;

  void OnDatagramReceived(Network::IUdpSock* sock, std::shared_ptr<Network::Packet> packet,
                          const Network::NetAddr& from) override;
  void OnError(Network::IUdpSock* sock, ErrInfo err) override;

 private:
  using Sock = std::shared_ptr<Network::IUdpSock>;

  // One sender and its way to the target and back.
  struct Flow {
    Network::NetAddr sender;
    Sock towardsTarget;
    LossyLink there;
    LossyLink back;
    uint64_t lastUse = 0;
  };

  // A copy under way.
  struct Due {
    int64_t time = 0;    // counter, 100 ns ticks
    uint64_t order = 0;  // copies due together leave in the order of their coming
    Sock sock;
    Network::NetAddr to;
    std::vector<uint8_t> bytes;

    bool operator>(const Due& other) const {
      return time != other.time ? time > other.time : order > other.order;
    }
  };

  Flow* FindFlow(const Network::IUdpSock* sock, const Network::NetAddr& from);
  void AddFlow(const Network::NetAddr& sender);
  void Take(LossyLink& link, const Sock& sock, const Network::NetAddr& to,
            const Network::Packet& packet);
  void Run();
  uint32_t TakeDue(std::vector<Due>* due);

  Network::INetManager* const netManager_;
  RelayInfo info_;

  mutable std::mutex mutex_;
  Sock listening_;
  std::vector<std::unique_ptr<Flow>> flows_;
  std::priority_queue<Due, std::vector<Due>, std::greater<>> underWay_;
  size_t bytesUnderWay_ = 0;
  uint64_t order_ = 0;
  uint64_t flowsMade_ = 0;
  LinkCounts goneThere_;  // of the flows that have made room
  LinkCounts goneBack_;
  bool stop_ = false;

  platform::Event wake_{platform::Event::Mode::AutoReset};
  std::thread thread_;
};

}  // namespace relay
