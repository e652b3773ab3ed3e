// A bad network between one address and another: takes UDP datagrams at `listen`, hands them on to
// `target` as the faults will have it, and brings the answers back to who asked, through the same
// faults. Each sender gets a socket of its own towards the target, which therefore sees as many
// senders as there are. On the thread of its loop, and only while that waits: see Loop.h.
#pragma once

#include <functional>
#include <memory>
#include <queue>
#include <vector>

#include "wire/Loop.h"
#include "wire/LossyLink.h"

namespace wire {

struct RelayInfo {
  Endpoint listen;  // its host also sends towards the target, from ports of its own
  Endpoint target;
  uint64_t seed = 1;  // the same for several relays: they decide differently, by `number`
  uint64_t number = 0;
  LinkFaults faults{};     // of both directions
  bool anySource = false;  // towards the target from whatever address leads there
};

// A datagram that goes on its way.
struct Passed {
  Bytes bytes;
  Clock::duration delay{};  // beside those of the faults
};

class Relay {
 public:
  static constexpr size_t kMostFlows = 64;  // senders at a time; who was silent longest makes room
  static constexpr size_t kMostBytesUnderWay = 64 * 1024 * 1024;  // beyond, as a full router drops

  enum class Way { There, Back };

  // Sees each datagram before the network does and says what goes on in its place: the same,
  // another one, several, nothing. May send by sockets of its own meanwhile.
  using Tamper = std::function<std::vector<Passed>(Way way, const Datagram& datagram)>;

  // Throws SocketError when `listen` can't be had.
  Relay(Loop& loop, const RelayInfo& info);
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  // Where it listens, with the port that a `listen` of port 0 got.
  const Endpoint& Local() const { return listening_.Local(); }

  // To `sender`, as if the target had answered with it.
  void SendBack(const Endpoint& sender, const Datagram& datagram);

  // From the next datagram on; LinkFaults() heals the network. What is under way stays as it is.
  void SetFaults(const LinkFaults& faults);
  void SetTamper(Tamper tamper) { tamper_ = std::move(tamper); }

  // From the senders to the target, and back.
  LinkCounts CountsThere() const;
  LinkCounts CountsBack() const;

 private:
  // One sender and its way to the target and back.
  struct Flow {
    Endpoint sender;
    LossyLink there;
    LossyLink back;
    uint64_t lastUse = 0;
    std::unique_ptr<UdpPort> port;  // towards the target
  };

  // A copy under way.
  struct Due {
    Clock::time_point time;
    uint64_t order = 0;  // copies due together leave in the order of their coming
    std::weak_ptr<Flow> flow;
    Way way = Way::There;
    Bytes bytes;

    bool operator>(const Due& other) const {
      return time != other.time ? time > other.time : order > other.order;
    }
  };

  std::shared_ptr<Flow> FlowOf(const Endpoint& sender);
  void MakeRoom();
  void Take(const std::shared_ptr<Flow>& flow, Way way, const Datagram& datagram);
  void Pass(const std::shared_ptr<Flow>& flow, Way way, const Passed& passed,
            Clock::time_point from);
  void SendDue();

  Loop& loop_;
  RelayInfo info_;
  Tamper tamper_;
  std::vector<std::shared_ptr<Flow>> flows_;
  std::priority_queue<Due, std::vector<Due>, std::greater<>> underWay_;
  size_t bytesUnderWay_ = 0;
  uint64_t order_ = 0;
  uint64_t flowsMade_ = 0;
  LinkCounts goneThere_;  // of the flows that have made room
  LinkCounts goneBack_;
  Timer timer_;
  UdpPort listening_;
};

}  // namespace wire
