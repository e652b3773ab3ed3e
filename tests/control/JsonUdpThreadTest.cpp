// The threads that connections share, on the real clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <stop_token>
#include <thread>
#include <vector>

#include "control/JsonUdpConnect.h"
#include "support/CapturedLog.h"
#include "support/ControlDoubles.h"
#include "support/FakeNetwork.h"
#include "support/ManualClock.h"

using namespace Network;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

const NetAddr kPeer = Addr(L"10.1.2.3:4567");

// One connection with all that it needs.
struct Unit {
  Unit() {
    JsonUdpInfo info;
    info.Receiver = &user;
    EXPECT_TRUE(connect.Init(info).IsOk());
  }
  void Start() { EXPECT_TRUE(connect.Start().IsOk()); }
  void Deliver(const JsonMsg& msg) { net.LastSock()->Deliver(ToDatagram(msg), kPeer); }
  bool WaitReceived(size_t count) const {
    return user.WaitUntil([count](const auto& u) { return u.Received().size() >= count; });
  }

  FakeNetManager net;
  RecordingReceiver user;
  JsonUdpConnect connect{L"unit", &net};
};

// Its handler may wait for `release`.
struct SlowUnit : Unit {
  ~SlowUnit() {
    release.Set();
    connect.Stop();
  }
  platform::Event release{platform::Event::Mode::ManualReset};
};

// Whoever forgets to ask for a further pass leaves for ever what waits after it.
TEST(ConnectionThreads, DeliverAllThatWaits) {
  Unit unit;
  unit.Start();
  for (int i = 0; i < 200; ++i)
    unit.Deliver(JsonMsgGetState());
  EXPECT_TRUE(unit.WaitReceived(200));
  unit.net.LastSock()->ClearSent();  // the acknowledgements
  EXPECT_TRUE(unit.connect.Send(std::make_shared<JsonMsgGetState>(), kPeer).IsOk());
  EXPECT_TRUE(unit.net.LastSock()->WaitSent(1));
}

// The pass that gives a message up ends there, with a request of the peer still to be delivered.
TEST(ConnectionThreads, AGivenUpMessageHoldsUpNothing) {
  Log().Allow(L"No ack received");
  ManualClock clock;
  Unit unit;
  unit.Start();
  EXPECT_TRUE(unit.connect.Send(std::make_shared<JsonMsgGetState>(), kPeer).IsOk());
  for (size_t transmission = 1; transmission <= 5; ++transmission) {
    ASSERT_TRUE(unit.net.LastSock()->WaitSent(transmission));
    clock.AdvanceMs(51);
    if (transmission < 5) unit.Deliver(JsonMsgAck(0));  // a stray one: wakes, and is nothing more
  }
  unit.Deliver(JsonMsgGetState());
  EXPECT_TRUE(unit.WaitReceived(1));
  EXPECT_TRUE(unit.user.WaitUntil([](const auto& user) { return user.Errors().size() == 1; }));
}

// A unit that restarts its audio takes a thread for a while, three take three. The others are
// served by the one that is left, and in time.
void RepeatBesideSlowHandlers() {
  std::atomic<size_t> met{0};
  // With its first message each unit waits until there is one on every thread, so that all are up;
  // with the next a slow one takes its time.
  const auto meet = [&met] {
    ++met;
    while (met < PassThreads::kMostThreads)
      std::this_thread::yield();
  };
  std::vector<std::unique_ptr<SlowUnit>> slow(PassThreads::kMostThreads - 1);
  for (auto& unit : slow) {
    unit = std::make_unique<SlowUnit>();
    unit->user.onReceived = [&, self = unit.get()](const auto&, const NetAddr&) {
      if (self->user.Received().size() == 1) return meet();
      self->release.Wait(20'000);
    };
    unit->Start();
    unit->Deliver(JsonMsgGetState());
  }
  Unit quick;
  quick.user.onReceived = [&](const auto&, const NetAddr&) { meet(); };
  quick.Start();
  quick.Deliver(JsonMsgGetState());
  while (met < PassThreads::kMostThreads)
    std::this_thread::yield();

  const auto send = [&quick] {
    const auto msg = std::make_shared<JsonMsgGetState>();
    quick.net.LastSock()->ClearSent();
    EXPECT_TRUE(quick.connect.Send(msg, kPeer).IsOk());
    EXPECT_TRUE(quick.net.LastSock()->WaitSent(1));
    return msg->msg_id;
  };
  // Its repeat is due on a thread that a slow one then takes.
  const uint32_t first = send();
  for (auto& unit : slow) {
    unit->Deliver(JsonMsgGetState());
    EXPECT_TRUE(unit->WaitReceived(2));
  }
  EXPECT_TRUE(quick.net.LastSock()->WaitSent(2));
  quick.Deliver(JsonMsgAck(first));

  // The best of some tries: a busy machine may spoil the others.
  auto best = steady_clock::duration::max();
  for (int i = 0; i < 20 && best > milliseconds(80); ++i) {
    const uint32_t id = send();
    const auto sent = steady_clock::now();
    EXPECT_TRUE(quick.net.LastSock()->WaitSent(2));
    best = std::min(best, steady_clock::now() - sent);
    quick.Deliver(JsonMsgAck(id));
  }
  EXPECT_LT(best, milliseconds(80)) << "a repeat is due after 50 ms";
}

TEST(ConnectionThreads, SlowHandlersHoldUpNobodyElse) {
  Log().Allow(L"No ack received");  // on a busy machine
  // Several times, as it depends on which threads sleep when the slow ones come.
  for (int round = 0; round < 4; ++round)
    RepeatBesideSlowHandlers();
}

TEST(ConnectionThreads, AreFewForManyConnections) {
  std::mutex mutex;
  std::set<std::thread::id> threads;
  std::vector<std::unique_ptr<Unit>> units(40);
  for (auto& unit : units) {
    unit = std::make_unique<Unit>();
    unit->user.onReceived = [&](const auto&, const NetAddr&) {
      std::lock_guard lock(mutex);
      threads.insert(std::this_thread::get_id());
    };
    unit->Start();
    unit->Deliver(JsonMsgGetState());
  }
  for (auto& unit : units)
    EXPECT_TRUE(unit->WaitReceived(1));
  units.clear();
  EXPECT_LE(threads.size(), PassThreads::kMostThreads);
}

TEST(ConnectionThreads, StopAtOnceAndStartAgain) {
  Unit unit;
  for (int i = 0; i < 40; ++i) {
    unit.Start();
    unit.Start();  // of a started one: from anew
    unit.connect.Stop();
    unit.connect.Stop();
    EXPECT_FALSE(unit.connect.IsStarted());
  }
  unit.Start();
  EXPECT_TRUE(unit.connect.Init(JsonUdpInfo()).IsOk());
  EXPECT_FALSE(unit.connect.IsStarted()) << "Init stops";
}

// Hands the newest socket of a network requests, heads and segments of long messages, and
// acknowledgements for all that was sent, without end.
void RunTraffic(const std::stop_token& stop, const FakeNetManager& net,
                std::atomic<int>& deliveries) {
  // Prepared: reading and writing texts would be most of the work.
  std::array<DatagramBytes, 8> datagrams;
  for (uint32_t i = 0; i < datagrams.size(); ++i) {
    JsonMsgGetInputs request;
    JsonMsgAtt segment;
    segment.seg_count = 2;
    segment.seg_number = i / 4;
    segment.attachment = PatternBytes(10);
    segment.att = 10;
    request.att = i % 4 == 0 ? 20 : 0;  // a head, whose segments may or may not come
    datagrams[i] = i % 4 == 1 ? ToDatagram(segment) : ToDatagram(request);
  }
  for (size_t i = 0; !stop.stop_requested(); ++i) {
    const auto sock = net.LastSock();
    if (!sock) continue;
    for (const SentDatagram& sent : sock->Sent())
      if (const auto msg = FromDatagram(sent.bytes); msg && msg->msg != L"ack")
        sock->Deliver(ToDatagram(JsonMsgAck(msg->msg_id)), kPeer);
    sock->ClearSent();
    if (sock->Deliver(datagrams[i % datagrams.size()], kPeer)) ++deliveries;
  }
}

// Stop and the end of a connection come in the middle of traffic; after them nobody is called. Some
// faults only the sanitizers see.
TEST(ConnectionThreads, StopAndDieWhileTrafficRuns) {
  Log().Allow(L"Bad socket");  // an acknowledgement in the moment of the end
  Log().Allow(L"send failed");
  Log().Allow(L"No ack received");  // on a slow machine
  FakeNetManager net;
  std::atomic<int> deliveries{0};
  const std::jthread traffic(
      [&](const std::stop_token& stop) { RunTraffic(stop, net, deliveries); });
  const auto waitDeliveries = [&](int count) {
    for (const int until = deliveries + count; deliveries < until;)
      std::this_thread::yield();
  };
  size_t received = 0;
  const auto end = steady_clock::now() + milliseconds(700);
  for (int round = 0; round < 100 || steady_clock::now() < end; ++round) {
    RecordingReceiver user;
    JsonUdpInfo info;
    info.Receiver = &user;
    const auto calls = [&] {
      return user.Sent().size() + user.Received().size() + user.Errors().size();
    };
    {
      JsonUdpConnect connect(L"unit", &net);
      ASSERT_TRUE(connect.Init(info).IsOk());
      ASSERT_TRUE(connect.Start().IsOk());
      ASSERT_TRUE(connect.Send(std::make_shared<JsonMsgGetState>(), kPeer).IsOk());
      waitDeliveries(round % 7);
      if (round % 2 == 0) {
        connect.Stop();
        const size_t before = calls();
        ASSERT_TRUE(connect.Send(std::make_shared<JsonMsgGetState>(), kPeer).IsOk());
        ASSERT_EQ(calls(), before) << "Stop returned too early";
        ASSERT_TRUE(connect.Start().IsOk());
        waitDeliveries(round % 3);
      }
    }
    // The connection is dead now: a delivery that comes all the same uses freed memory.
    received += user.Received().size();
  }
  EXPECT_GT(received, 0U);
}

}  // namespace
