// Speaks the control protocol one datagram at a time, to see what a unit really sends: nothing is
// repeated, filtered or acknowledged unless the caller says so.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "Units.h"
#include "sockets/INetManager.h"

namespace ctl {

class Probe final : public Network::IJsonUdpReceiver {
 public:
  struct Arrival {
    std::shared_ptr<Network::JsonMsg> msg;
    Network::NetAddr from;
    int64_t time;  // counter, 100 ns ticks
  };
  using Test = std::function<bool(const Arrival&)>;

  // Throws Failure (kNoPort) when no socket can be had.
  Probe();
  ~Probe();

  // With it every message that isn't an acknowledgement is acknowledged as it comes. On at first.
  void SetAcknowledge(bool on);

  // Sends one datagram; the counter when it went out.
  int64_t Send(const std::shared_ptr<Network::JsonMsg>& msg, const Network::NetAddr& to);

  // Forgets what has come.
  void Clear();

  // Waits for the first arrival that passes `test`.
  std::optional<Arrival> Wait(const Test& test, uint32_t milliseconds);

  // Waits the whole time and gives all that came and passes `test`.
  std::vector<Arrival> Collect(const Test& test, uint32_t milliseconds);

  void OnMsgSent(Network::IJsonUdpManager*, const std::shared_ptr<Network::JsonMsg>&) override {}
  void OnMsgReceived(Network::IJsonUdpManager* manager,
                     const std::shared_ptr<Network::JsonMsg>& msg,
                     const Network::NetAddr& from) override;
  void OnError(Network::IJsonUdpManager*, ErrInfo) override {}

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Arrival> arrivals_;
  bool acknowledge_ = true;
  std::unique_ptr<Network::INetManager> net_;
  std::shared_ptr<Network::IJsonUdpManager> manager_;
};

// Tests for Wait and Collect.
template <typename Msg>
Probe::Test Is() {
  return [](const Probe::Arrival& arrival) {
    return dynamic_cast<const Msg*>(arrival.msg.get()) != nullptr;
  };
}

}  // namespace ctl
