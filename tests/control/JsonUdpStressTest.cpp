// The overlaps of the connection's thread with the worker of its NetManager and with its user.
// Each test provokes one of them thousands of times; some faults only the sanitizers see.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "control/JsonUdpConnect.h"
#include "support/CapturedLog.h"
#include "support/ControlDoubles.h"
#include "support/FakeNetwork.h"
#include "support/ManualClock.h"

using namespace Network;

namespace {

// Counts, and keeps nothing: the recording one would slow the race down.
class CountingReceiver final : public IJsonUdpReceiver {
 public:
  void OnMsgSent(IJsonUdpManager*, const std::shared_ptr<JsonMsg>&) override { Count(sent); }
  void OnMsgReceived(IJsonUdpManager*, const std::shared_ptr<JsonMsg>&, const NetAddr&) override {
    Count(received);
  }
  void OnError(IJsonUdpManager*, ErrInfo) override { Count(errors); }

  std::atomic<int> sent{0};
  std::atomic<int> received{0};
  std::atomic<int> errors{0};

  std::atomic<bool> stopped{false};  // set by the test when no call may come
  std::atomic<int> callsWhenStopped{0};

 private:
  void Count(std::atomic<int>& count) {
    ++count;
    if (stopped) ++callsWhenStopped;
  }
};

// Thousands of rounds; on a machine that has no time to spare, those of four seconds.
class Rounds {
 public:
  explicit Rounds(int most) : most_(most) {}
  bool More() {
    const bool late = std::chrono::steady_clock::now() > end_;
    return ++done_ <= (late ? kLeast : most_);
  }

 private:
  static constexpr int kLeast = 100;
  const int most_;
  int done_ = 0;
  const std::chrono::steady_clock::time_point end_ =
      std::chrono::steady_clock::now() + std::chrono::seconds(4);
};

template <typename Condition>
bool SpinUntil(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

// Lets two threads go at the same moment, again and again. std::barrier of mingw's library sleeps,
// and has been seen not to wake up.
class StartLine {
 public:
  void ArriveAndWait() {
    const int round = round_;
    if (++arrived_ == 2) {
      arrived_ = 0;
      ++round_;
    }
    while (round_ == round)
      std::this_thread::yield();
  }

 private:
  std::atomic<int> arrived_{0};
  std::atomic<int> round_{0};
};

JsonUdpInfo InfoFor(IJsonUdpReceiver* receiver) {
  JsonUdpInfo info;
  info.Receiver = receiver;
  info.BindAddr = Addr(L"127.0.0.1:8000");
  return info;
}

const wchar_t kPeer[] = L"10.1.2.3:4567";

// The acknowledgement of a message arrives in the moment in which its repeat, or its end, is due.
// Whoever wins: the message ends once, either way, and each acknowledgement counts once.
TEST(ConnectionStress, AcknowledgementRacesWithTheRepeatAndTheEnd) {
  Log().Allow(L"No ack received");
  ManualClock clock;
  FakeNetManager net;
  CountingReceiver user;
  JsonUdpConnect connect(L"unit", &net);
  ASSERT_TRUE(connect.Init(InfoFor(&user)).IsOk());
  ASSERT_TRUE(connect.Open().IsOk());
  FakeUdpSock& sock = *net.LastSock();

  StartLine line;
  DatagramBytes ack;
  bool stop = false;
  std::thread worker([&] {
    for (;;) {
      line.ArriveAndWait();
      if (stop) return;
      sock.Deliver(ack, Addr(kPeer));
      line.ArriveAndWait();
    }
  });

  int round = 0;
  for (Rounds rounds(5000); rounds.More(); ++round) {
    const auto msg = std::make_shared<JsonMsgGetState>();
    ack = ToDatagram(JsonMsgAck(msg->msg_id));
    EXPECT_TRUE(connect.Send(msg, Addr(kPeer)).IsOk());
    connect.Pass();
    const int repeats = round % 2 == 0 ? 4 : round % 4;  // the end is due, or one more repeat
    for (int i = 0; i < repeats; ++i) {
      clock.AdvanceMs(51);
      connect.Pass();
    }
    clock.AdvanceMs(51);
    line.ArriveAndWait();
    connect.Pass();
    line.ArriveAndWait();
    connect.Pass();  // tells of the acknowledgement, if the end hasn't come before
    if (user.sent + user.errors == round + 1) continue;
    ADD_FAILURE() << "message " << round << " ended twice or not at all";
    break;
  }
  stop = true;
  line.ArriveAndWait();
  worker.join();

  const JsonUdpStatistics counted = connect.Statistics();
  EXPECT_EQ(counted.MsgSent, static_cast<uint32_t>(user.sent));
  EXPECT_EQ(counted.DupAckReceived, static_cast<uint32_t>(user.errors));
}

// A worker that hands the newest socket of a network requests, and acknowledgements for all that
// was sent, without end.
class Traffic {
 public:
  explicit Traffic(FakeNetManager& net) : net_(net), thread_([this] { Run(); }) {}
  ~Traffic() {
    stop_ = true;
    thread_.join();
  }

  bool WaitDeliveries(int count) const {
    const int until = deliveries_ + count;
    return SpinUntil([&] { return deliveries_ >= until; });
  }

 private:
  void Run() {
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
    for (size_t i = 0; !stop_; ++i) {
      const auto sock = net_.LastSock();
      if (!sock) continue;
      for (const SentDatagram& sent : sock->Sent())
        if (const auto msg = FromDatagram(sent.bytes); msg && msg->msg != L"ack")
          sock->Deliver(ToDatagram(JsonMsgAck(msg->msg_id)), Addr(kPeer));
      sock->ClearSent();
      if (sock->Deliver(datagrams[i % datagrams.size()], Addr(kPeer))) ++deliveries_;
    }
  }

  FakeNetManager& net_;
  std::atomic<bool> stop_{false};
  std::atomic<int> deliveries_{0};
  std::thread thread_;
};

// Stop and the end of a connection come in the middle of traffic; after them nobody is called.
TEST(ConnectionStress, StopsAndDiesWhileTrafficRuns) {
  Log().Allow(L"Bad socket");  // an acknowledgement in the moment of the end
  Log().Allow(L"send failed");
  Log().Allow(L"No ack received");  // on a slow machine
  FakeNetManager net;
  Traffic traffic(net);
  int round = 0;
  int received = 0;
  for (Rounds rounds(2000); rounds.More(); ++round) {
    CountingReceiver user;
    {
      JsonUdpConnect connect(L"unit", &net);
      ASSERT_TRUE(connect.Init(InfoFor(&user)).IsOk());
      ASSERT_TRUE(connect.Start().IsOk());
      ASSERT_TRUE(connect.Send(std::make_shared<JsonMsgGetState>(), Addr(kPeer)).IsOk());
      ASSERT_TRUE(traffic.WaitDeliveries(round % 7));
      if (round % 2 == 0) {
        connect.Stop();
        user.stopped = true;
        ASSERT_TRUE(connect.Send(std::make_shared<JsonMsgGetState>(), Addr(kPeer)).IsOk());
        user.stopped = false;
        ASSERT_TRUE(connect.Start().IsOk());
        ASSERT_TRUE(traffic.WaitDeliveries(round % 3));
      }
    }
    received += user.received;
    // Both are dead now; a delivery that comes all the same is a use of freed memory.
    ASSERT_EQ(user.callsWhenStopped, 0) << "Stop returned too early";
  }
  EXPECT_GT(received, 0);
}

}  // namespace
