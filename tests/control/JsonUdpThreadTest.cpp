// The threads that connections share, on the real clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
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

// Whoever forgets to ask for a further pass leaves what waits behind it for ever.
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
  unit.net.failOpen = true;
  EXPECT_FALSE(unit.connect.Start().IsOk());
  EXPECT_NE(Log().TryTake(L"open failed"), L"");
  EXPECT_FALSE(unit.connect.IsStarted());
  unit.net.failOpen = false;
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

}  // namespace
