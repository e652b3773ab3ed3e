// The relay on real sockets, and real connections through it.
#include "relay/LossyRelay.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "badnetwork/Party.h"
#include "platform/text.h"
#include "support/CapturedLog.h"
#include "support/WireSocket.h"

using namespace Network;
using relay::LinkFaults;
using relay::LossyRelay;
using std::chrono::steady_clock;

namespace {

// Ports of this process alone: a bound socket also hears what other tests broadcast.
wire::Endpoint OwnEndpoint(uint32_t offset) {
  return {wire::OwnAddress(), static_cast<uint16_t>(wire::OwnBroadcastPort() + offset)};
}

NetAddr AddrOf(const wire::Endpoint& endpoint) {
  NetAddr addr;
  EXPECT_TRUE(addr.SetFromText(Utf8ToWide(endpoint.ToText())));
  return addr;
}

bool WaitFor(std::chrono::milliseconds limit, const std::function<bool()>& condition) {
  const auto end = steady_clock::now() + limit;
  while (!condition()) {
    if (steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

constexpr std::chrono::seconds kPatience{20};

// A target that answers each datagram with the same bytes, and senders that count their answers.
class Relay : public testing::Test {
 protected:
  struct Sender {
    explicit Sender(uint32_t offset)
        : socket(OwnEndpoint(offset), [this](const wire::Datagram& datagram) {
            if (datagram.bytes == own && datagram.from == OwnEndpoint(10000)) ++answers;
          }) {}

    // Sends bytes that are its own.
    void Send() { socket.Send(own, OwnEndpoint(10000)); }

    const wire::Bytes own = PatternBytes(1000, ++made);
    std::atomic<int> answers{0};
    wire::Socket socket;
    static inline uint32_t made = 0;
  };

  ErrInfo Start(const LinkFaults& faults) {
    return relay.Start({AddrOf(OwnEndpoint(10000)), AddrOf(target.Local()), 1, 0, faults});
  }

  std::unique_ptr<INetManager> net = INetManager::Create();
  wire::Socket target{OwnEndpoint(10001), [this](const wire::Datagram& datagram) {
                        target.Send(datagram.bytes, datagram.from);
                      }};
  LossyRelay relay{net.get()};
};

TEST_F(Relay, BringsAnswersBackToWhoAsked) {
  ASSERT_TRUE(Start({}).IsOk());
  Sender first(10002);
  Sender second(10003);
  for (int i = 1; i <= 50; ++i) {
    first.Send();
    second.Send();
    ASSERT_TRUE(WaitFor(kPatience, [&] { return first.answers == i && second.answers == i; }));
  }
  EXPECT_EQ(relay.CountsThere().taken, 100U);
  EXPECT_EQ(relay.CountsBack().taken, 100U);
}

TEST_F(Relay, LosesDoublesAndHeals) {
  ASSERT_TRUE(Start({.loss = 100}).IsOk());
  Sender sender(10002);
  for (int i = 0; i < 20; ++i)
    sender.Send();
  EXPECT_TRUE(WaitFor(kPatience, [&] { return relay.CountsThere().lost == 20; }));

  relay.SetFaults({.duplicate = 100});
  sender.Send();
  EXPECT_TRUE(WaitFor(kPatience, [&] { return sender.answers == 4; }));

  relay.SetFaults({});
  sender.Send();
  EXPECT_TRUE(WaitFor(kPatience, [&] { return sender.answers == 5; }));
  EXPECT_EQ(relay.CountsThere().lost, 20U);
}

TEST_F(Relay, DelaysBothWays) {
  ASSERT_TRUE(Start({.delayMs = 60}).IsOk());
  Sender sender(10002);
  const auto begin = steady_clock::now();
  sender.Send();
  EXPECT_TRUE(WaitFor(kPatience, [&] { return sender.answers == 1; }));
  EXPECT_GE(steady_clock::now() - begin, std::chrono::milliseconds(120));
}

TEST_F(Relay, CorruptsButKeepsTheLength) {
  ASSERT_TRUE(Start({.corrupt = 100}).IsOk());
  std::atomic<int> changed{0};
  wire::Socket sender(OwnEndpoint(10002), [&](const wire::Datagram& datagram) {
    if (datagram.bytes.size() == 100 && datagram.bytes != wire::Bytes(100, 'x')) ++changed;
  });
  sender.Send(wire::Bytes(100, 'x'), OwnEndpoint(10000));
  EXPECT_TRUE(WaitFor(kPatience, [&] { return changed == 1; }));
}

TEST_F(Relay, FailsOnATakenPortAndStartsAgain) {
  ASSERT_TRUE(Start({}).IsOk());
  LossyRelay other(net.get());
  EXPECT_FALSE(other.Start({AddrOf(OwnEndpoint(10000)), AddrOf(target.Local()), 1, 0, {}}).IsOk());
  EXPECT_NE(Log().TryTake(L"bind socket failed"), L"");
  Sender sender(10002);
  for (int i = 1; i <= 20; ++i) {
    ASSERT_TRUE(Start({}).IsOk()) << "a started one begins anew";
    sender.Send();
    ASSERT_TRUE(WaitFor(kPatience, [&] { return sender.answers == i; }));
    EXPECT_EQ(relay.CountsThere().taken, 1U);
  }
}

// More senders than there is room for: who was silent longest makes room, and nobody is turned
// away.
TEST_F(Relay, MakesRoomForNewSenders) {
  ASSERT_TRUE(Start({}).IsOk());
  for (size_t i = 0; i < LossyRelay::kMaxFlows + 20; ++i) {
    std::atomic<bool> answered{false};
    wire::Socket sender({wire::OwnAddress(), 0}, [&](const wire::Datagram&) { answered = true; });
    sender.Send({1, 2, 3}, OwnEndpoint(10000));
    ASSERT_TRUE(WaitFor(kPatience, [&] { return answered.load(); }));
  }
  EXPECT_EQ(relay.CountsThere().taken, LossyRelay::kMaxFlows + 20);
}

// Controllers and units with their threads and sockets, each pair through a relay of its own.
class RealNetwork : public testing::TestWithParam<Rules> {
 protected:
  struct Pair {
    Pair(INetManager* net, uint32_t index, const LinkFaults& faults, const Rules& rules)
        : controller(net, Party::Role::Controller, rules),
          unit(net, Party::Role::Unit, rules),
          relay(net),
          front(AddrOf(OwnEndpoint(10000 + 3 * index))) {
      controller.Init(AddrOf(OwnEndpoint(10001 + 3 * index)));
      const NetAddr unitAddr = AddrOf(OwnEndpoint(10002 + 3 * index));
      unit.Init(unitAddr);
      EXPECT_TRUE(relay.Start({front, unitAddr, RunSeed(), index, faults}).IsOk());
      EXPECT_TRUE(controller.Connection().Start().IsOk());
      EXPECT_TRUE(unit.Connection().Start().IsOk());
    }

    ~Pair() {
      controller.Connection().Stop();
      unit.Connection().Stop();
    }

    Party controller;
    Party unit;
    LossyRelay relay;
    const NetAddr front;
  };

  // A request every 300 ms until one is answered. The bound is for a machine that is busy with
  // other things; the promise, a second, is held in virtual time.
  static bool Exchange(Pair& pair) {
    std::vector<uint32_t> numbers;
    auto next = steady_clock::now();
    return WaitFor(std::chrono::seconds(5), [&] {
      if (steady_clock::now() >= next) {
        numbers.push_back(pair.controller.Request(pair.front));
        next += std::chrono::milliseconds(300);
      }
      return std::any_of(numbers.begin(), numbers.end(),
                         [&](uint32_t number) { return pair.controller.IsAnswered(number); });
    });
  }
};

TEST_P(RealNetwork, GoesOnAndHeals) {
  const Rules rules = GetParam();
  Log().Allow(L"No ack received");
  if (rules.corrupted) Log().Allow(L"Bad message received");
  LinkFaults faults{40, 10, 10, 0, 1, 20};
  if (rules.corrupted) faults.corrupt = 20;

  const auto net = INetManager::Create();
  std::vector<std::unique_ptr<Pair>> pairs;
  for (uint32_t i = 0; i < 6; ++i)
    pairs.push_back(std::make_unique<Pair>(net.get(), i, faults, rules));

  const auto end = steady_clock::now() + std::chrono::seconds(3);
  while (steady_clock::now() < end) {
    WaitFor(std::chrono::milliseconds(20), [] { return false; });
    for (const auto& pair : pairs)
      if (pair->controller.Open() + pair->unit.Open() < 3) pair->controller.Request(pair->front);
  }

  for (const auto& pair : pairs)
    pair->relay.SetFaults({});
  for (const auto& pair : pairs) {
    EXPECT_TRUE(Exchange(*pair)) << "not well again";
    EXPECT_TRUE(
        WaitFor(kPatience, [&] { return pair->controller.Open() == 0 && pair->unit.Open() == 0; }));
    EXPECT_GT(pair->controller.Acknowledged(), 1U);
  }
  for (const auto& pair : pairs) {
    pair->controller.Connection().Stop();
    pair->unit.Connection().Stop();
    EXPECT_LE(pair->controller.AliveMessages(), 1U);
    EXPECT_LE(pair->unit.AliveMessages(), 1U);
    if (rules.corrupted) continue;
    Party::ExpectPromisesKept(pair->controller, pair->unit);
    Party::ExpectPromisesKept(pair->unit, pair->controller);
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, RealNetwork,
                         testing::Values(Rules{}, Rules{.segments = true, .corrupted = true}),
                         [](const auto& test) {
                           return std::string(test.param.corrupted ? "Corrupted" : "Lossy");
                         });

}  // namespace
