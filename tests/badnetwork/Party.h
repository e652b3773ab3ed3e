// One end of the control path on a bad network: sends requests or answers them, keeps the rules of
// the path while it does, and remembers what was promised. Any thread.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "badnetwork/RunSeed.h"
#include "control/JsonUdpConnect.h"
#include "support/ControlDoubles.h"

// What a party may rely on.
struct Rules {
  bool segments = false;   // some attachments are longer than a datagram
  bool corrupted = false;  // what arrives may be anything
  bool flooded = false;    // others ask more than can be answered
};

class Party final : public Network::IJsonUdpReceiver {
 public:
  enum class Role { Controller, Unit };

  Party(Network::INetManager* net, Role role, const Rules& rules)
      : role_(role), rules_(rules), connect_(role == Role::Unit ? L"unit" : L"controller", net) {}

  void Init(const Network::NetAddr& addr) {
    Network::JsonUdpInfo info;
    info.Receiver = this;
    info.BindAddr = addr;
    EXPECT_TRUE(connect_.Init(info).IsOk());
  }

  Network::JsonUdpConnect& Connection() { return connect_; }

  // A request that no other has the number of.
  uint32_t Request(const Network::NetAddr& to) {
    const uint32_t number = ++requests_;
    auto msg = std::make_shared<Network::JsonMsgSetState>();
    msg->device_freq = number;
    Send(msg, number, to);
    return number;
  }

  bool IsAnswered(uint32_t number) const {
    std::lock_guard lock(mutex_);
    return answered_.count(number) != 0;
  }

  // Messages that were neither acknowledged nor given up.
  size_t Open() const {
    std::lock_guard lock(mutex_);
    return sent_.size() - acknowledged_.size() - givenUp_;
  }

  size_t Acknowledged() const {
    std::lock_guard lock(mutex_);
    return acknowledged_.size();
  }
  size_t GivenUp() const {
    std::lock_guard lock(mutex_);
    return givenUp_;
  }

  // Messages that anybody still holds, sent or received. To be asked when nothing is under way.
  size_t AliveMessages() const {
    std::lock_guard lock(mutex_);
    const auto alive = [](const auto& msg) { return !msg.expired(); };
    return static_cast<size_t>(
        std::count_if(received_.begin(), received_.end(), alive) +
        std::count_if(sent_.begin(), sent_.end(), [&](const Promise& p) { return alive(p.msg); }));
  }

  // Whether all that `sender` saw acknowledged has come up at `receiver`. One exception is the
  // protocol's own: the datagram that comes next ends a half-finished message, which stays behind
  // when a message in segments is given up, and is lost with it.
  static void ExpectPromisesKept(const Party& sender, const Party& receiver) {
    const std::set<uint32_t> delivered = receiver.Delivered();
    std::lock_guard lock(sender.mutex_);
    bool halfMessage = false;
    for (const Promise& promise : sender.sent_) {
      if (sender.acknowledged_.count(promise.id) == 0) {
        halfMessage = halfMessage || promise.segmented;
        continue;
      }
      EXPECT_TRUE(delivered.count(promise.id) != 0 || halfMessage)
          << "message " << promise.id << " was acknowledged and never came up";
      halfMessage = false;
    }
  }

  void OnMsgSent(Network::IJsonUdpManager*, const std::shared_ptr<Network::JsonMsg>& msg) override {
    std::lock_guard lock(mutex_);
    EXPECT_TRUE(acknowledged_.insert(msg->msg_id).second) << "reported twice";
  }

  void OnMsgReceived(Network::IJsonUdpManager*, const std::shared_ptr<Network::JsonMsg>& msg,
                     const Network::NetAddr& from) override {
    EXPECT_EQ(msg->att, msg->attachment.size()) << "an incomplete message came up";
    const uint32_t number = NumberOf(*msg);
    {
      std::lock_guard lock(mutex_);
      received_.push_back(msg);
      delivered_.insert(msg->msg_id);
      answered_.insert(number);
      if (!rules_.corrupted) {
        EXPECT_NE(msg->msg_id, latest_) << "delivered twice in a row";
        EXPECT_EQ(msg->attachment, PatternBytes(SizeOf(number), number)) << "torn";
      }
      latest_ = msg->msg_id;
    }
    if (role_ != Role::Unit) return;
    auto answer = std::make_shared<Network::JsonMsgState>();
    answer->device_freq = number;
    Send(answer, number, from);
  }

  void OnError(Network::IJsonUdpManager*, ErrInfo err) override {
    std::lock_guard lock(mutex_);
    if (err.ToString().find(L"No ack received") != std::wstring::npos) ++givenUp_;
  }

 private:
  struct Promise {
    uint32_t id;
    bool segmented;
    std::weak_ptr<Network::JsonMsg> msg;
  };

  static uint32_t NumberOf(const Network::JsonMsg& msg) {
    if (const auto* request = dynamic_cast<const Network::JsonMsgSetState*>(&msg))
      return request->device_freq;
    if (const auto* answer = dynamic_cast<const Network::JsonMsgState*>(&msg))
      return answer->device_freq;
    return 0;
  }

  // Of the attachment of request or answer number `number`.
  size_t SizeOf(uint32_t number) const {
    if (rules_.segments && number % 3 == 0) return 1301 + number * 7919 % 6000;
    return number % 2 == 0 ? number * 31 % 1301 : 0;
  }

  void Send(const std::shared_ptr<Network::JsonMsg>& msg, uint32_t number,
            const Network::NetAddr& to) {
    const size_t size = SizeOf(number);
    msg->attachment = PatternBytes(size, number);
    {
      std::lock_guard lock(mutex_);
      sent_.push_back({msg->msg_id, size > 1300, msg});
    }
    EXPECT_TRUE(connect_.Send(msg, to).IsOk() || rules_.flooded);
  }

  std::set<uint32_t> Delivered() const {
    std::lock_guard lock(mutex_);
    return delivered_;
  }

  const Role role_;
  const Rules rules_;
  uint32_t requests_ = 0;

  mutable std::mutex mutex_;
  std::vector<Promise> sent_;  // in their order
  std::set<uint32_t> acknowledged_;
  size_t givenUp_ = 0;
  std::vector<std::weak_ptr<Network::JsonMsg>> received_;
  std::set<uint32_t> delivered_;
  std::set<uint32_t> answered_;
  uint32_t latest_ = 0;

  Network::JsonUdpConnect connect_;  // last: it calls the rest
};
