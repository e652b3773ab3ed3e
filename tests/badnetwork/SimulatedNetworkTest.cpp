// The control path over a bad network in virtual time: both connections, both directions and the
// clock on the test's own thread, so that a minute takes a second and a seed gives
// the same run again, to the datagram.
#include <gtest/gtest.h>

#include <array>
#include <queue>
#include <vector>

#include "badnetwork/Party.h"
#include "support/CapturedLog.h"
#include "support/FakeNetwork.h"
#include "support/ManualClock.h"
#include "wire/LossyLink.h"

using namespace Network;
using wire::LinkFaults;

namespace {

class SimulatedNetwork {
 public:
  SimulatedNetwork(uint64_t seed, const Rules& rules)
      : controller_(rules, Party::Role::Controller, Addr(L"10.0.0.1:8001"), seed, 0),
        unit_(rules, Party::Role::Unit, Addr(L"10.0.0.2:8000"), seed, 1) {
    Log().Allow(L"No ack received");
    if (rules.corrupted) Log().Allow(L"Bad message received");
  }

  Party& Controller() { return controller_.party; }
  Party& Unit() { return unit_.party; }

  void SetFaults(const LinkFaults& faults) {
    controller_.link.SetFaults(faults);
    unit_.link.SetFaults(faults);
  }

  // A request every 20 ms, unless too much waits already.
  void RunTraffic(int64_t ms) {
    for (int64_t t = 0; t < ms; ++t) {
      if (t % 20 == 0 && Controller().Open() + Unit().Open() < 4) Controller().Request(unit_.addr);
      Step();
    }
  }

  // Sends a request every 300 ms until one is answered; the time that this took.
  int64_t Exchange() {
    std::vector<uint32_t> numbers;
    for (int64_t t = 0; t < 10'000; ++t) {
      if (t % 300 == 0) numbers.push_back(Controller().Request(unit_.addr));
      Step();
      for (const uint32_t number : numbers)
        if (Controller().IsAnswered(number)) return t;
    }
    return 10'000;
  }

  // From now on `count` others, of whom nobody acknowledges, ask the unit every `ms` milliseconds.
  void AddDeadPeers(uint32_t count, int64_t ms) {
    dead_ = count;
    deadMs_ = ms;
  }

  void RunIdle(int64_t ms) {
    for (int64_t t = 0; t < ms; ++t)
      Step();
  }

 private:
  struct Side {
    Side(const Rules& rules, Party::Role role, const NetAddr& address, uint64_t seed,
         uint64_t number)
        : addr(address), party(&net, role, rules), link(seed, number) {
      party.Init(addr);
      EXPECT_TRUE(party.Connection().Open().IsOk());
    }

    const NetAddr addr;
    FakeNetManager net;
    Party party;
    wire::LossyLink link;  // away from here
  };

  struct UnderWay {
    int64_t time;
    uint64_t order;
    Side* to;
    NetAddr from;
    DatagramBytes bytes;

    bool operator>(const UnderWay& other) const {
      return time != other.time ? time > other.time : order > other.order;
    }
  };

  // One millisecond, with all that follows from one another in it.
  void Step() {
    clock_.AdvanceMs(1);
    if (dead_ != 0 && ++ms_ % deadMs_ == 0) AskFromDeadPeers();
    for (int turn = 0; turn < 6; ++turn) {
      while (!underWay_.empty() && underWay_.top().time <= clock_.Counter()) {
        const UnderWay datagram = underWay_.top();
        underWay_.pop();
        datagram.to->net.LastSock()->Deliver(datagram.bytes, datagram.from);
      }
      controller_.party.Connection().Pass();
      unit_.party.Connection().Pass();
      TakeSent(controller_, unit_);
      TakeSent(unit_, controller_);
    }
  }

  void AskFromDeadPeers() {
    for (uint32_t i = 0; i < dead_; ++i) {
      NetAddr from;
      from.SetFromTextAndPort(L"10.0.1." + std::to_wstring(i), 4567);
      unit_.net.LastSock()->Deliver(ToDatagram(JsonMsgSetState()), from);
    }
  }

  void TakeSent(Side& from, Side& to) {
    const auto sock = from.net.LastSock();
    for (const SentDatagram& datagram : sock->Sent()) {
      if (datagram.to != to.addr) continue;
      for (const wire::Fate& fate : from.link.Next()) {
        const int64_t due = clock_.Counter() + fate.delay / std::chrono::nanoseconds(100);
        UnderWay copy{due, ++order_, &to, from.addr, datagram.bytes};
        if (fate.damage != 0) wire::Damage(fate.damage, copy.bytes);
        underWay_.push(std::move(copy));
      }
    }
    sock->ClearSent();
  }

  ManualClock clock_;
  Side controller_;
  Side unit_;
  std::priority_queue<UnderWay, std::vector<UnderWay>, std::greater<>> underWay_;
  uint64_t order_ = 0;
  uint32_t dead_ = 0;
  int64_t deadMs_ = 1;
  int64_t ms_ = 0;
};

// Weather and fine spells in turn. Each time the network heals, the next exchange takes less than a
// second, and in between nobody keeps more messages than are under way.
void RunThroughWeather(SimulatedNetwork& network, const LinkFaults& weather) {
  for (int spell = 0; spell < 12; ++spell) {
    network.SetFaults(weather);
    network.RunTraffic(5000);
    EXPECT_LE(network.Controller().AliveMessages() + network.Unit().AliveMessages(), 10U);
    network.SetFaults({});
    EXPECT_LT(network.Exchange(), 1000);
  }
}

// Nothing may be left when all is quiet.
void ExpectNothingPilesUp(SimulatedNetwork& network) {
  network.RunIdle(5000);
  EXPECT_EQ(network.Controller().Open(), 0U);
  EXPECT_EQ(network.Unit().Open(), 0U);
  EXPECT_EQ(network.Controller().AliveMessages(), 0U);
  EXPECT_EQ(network.Unit().AliveMessages(), 0U);
}

class BadNetwork : public testing::TestWithParam<int> {
 protected:
  const double loss = GetParam();
};

// Datagrams are lost, doubled, late and out of order.
TEST_P(BadNetwork, SingleDatagramsKeepTheirPromises) {
  SimulatedNetwork network(RunSeed(), {});
  RunThroughWeather(network, {loss, 10, 10, 0, 1, 20});
  EXPECT_GT(network.Unit().Acknowledged(), 100U) << "hardly any traffic";
  ExpectNothingPilesUp(network);
  Party::ExpectPromisesKept(network.Controller(), network.Unit());
  Party::ExpectPromisesKept(network.Unit(), network.Controller());
  EXPECT_TRUE(loss > 0 || network.Controller().GivenUp() == 0);
}

// Messages in segments, on a network that loses and doubles but keeps the order: a late repeat of
// one message's segment would be taken for another's, as nothing in the protocol distinguishes
// them.
TEST_P(BadNetwork, SegmentedMessagesArriveWholeOrNotAtAll) {
  SimulatedNetwork network(RunSeed(), {.segments = true});
  RunThroughWeather(network, {loss, 10, 0, 0, 1, 0});
  ExpectNothingPilesUp(network);
  Party::ExpectPromisesKept(network.Controller(), network.Unit());
  Party::ExpectPromisesKept(network.Unit(), network.Controller());
}

// Everything at once. Nothing can be promised but that it goes on, and is well again afterwards.
TEST_P(BadNetwork, CorruptionPassesAndLeavesNothingBehind) {
  SimulatedNetwork network(RunSeed(), {.segments = true, .corrupted = true});
  RunThroughWeather(network, {loss, 10, 10, 20, 1, 20});
  ExpectNothingPilesUp(network);
}

// One dead peer that asks 1,000 times a second, and fifty that ask at once, again and again and
// soon more than the queue holds. A controller that acknowledges is kept from its answer by the one
// message on its way (250 ms), or by none.
TEST(DeadPeers, DoNotKeepAnAcknowledgingControllerWaiting) {
  for (const auto& [count, ms] : {std::pair<uint32_t, int64_t>{1, 1}, {50, 1000}, {50, 25}}) {
    SCOPED_TRACE(count);
    SimulatedNetwork network(RunSeed(), {.flooded = true});
    Log().Allow(L"Send queue full");
    EXPECT_LT(network.Exchange(), 10);
    network.AddDeadPeers(count, ms);
    for (int i = 0; i < 20; ++i) {
      network.RunIdle(233);
      EXPECT_LT(network.Exchange(), 300);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Loss, BadNetwork, testing::Values(0, 10, 20, 30, 40),
                         testing::PrintToStringParamName());

}  // namespace
