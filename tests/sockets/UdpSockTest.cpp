#include "sockets/UdpSock.h"

#include <atomic>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "SocketFixture.h"
#include "platform/errors.h"
#include "support/System.h"

using Network::IUdpSock;
using Network::NetAddr;
using Network::UdpSockInfo;

namespace {

constexpr uint32_t kPort = 18000;

class UdpSock : public SocketFixture {
 protected:
  void SetUp() override { peer.Open(OwnAddr(0)); }

  void Send(const std::string& text, uint32_t port = kPort) {
    ASSERT_TRUE(peer.SendTo(BytesOf(text), OwnAddr(port)).Ok());
  }

  Peer peer;
};

}  // namespace

TEST_F(UdpSock, DeliversABurstWholeAndInOrder) {
  UdpRecorder recorder;
  auto sock = OpenUdp(kPort, &recorder);
  WhileTheWorkerIsHeld([&] {
    for (int i = 0; i < 100; ++i)
      Send(std::to_string(i));
  });
  ASSERT_TRUE(recorder.WaitDatagrams(100));
  platform::SocketAddress local;
  ASSERT_TRUE(peer.socket.LocalAddress(&local).Ok());
  for (size_t i = 0; i < 100; ++i) {
    EXPECT_EQ(recorder.datagrams[i], BytesOf(std::to_string(i)));
    EXPECT_EQ(recorder.senders[i], NetAddr(local));
  }
  sock->Close();
}

// A flood on one socket must not starve its neighbours: each turn takes one datagram.
TEST_F(UdpSock, TakesTurnsWithItsNeighbours) {
  UdpRecorder recorder;
  std::string order;
  recorder.onDatagram = [&](IUdpSock*) {
    const Bytes& latest = recorder.datagrams.back();
    order += static_cast<char>(latest[0]);
  };
  auto first = OpenUdp(kPort, &recorder);
  auto second = OpenUdp(kPort + 2, &recorder);
  WhileTheWorkerIsHeld([&] {
    for (int i = 0; i < 3; ++i)
      Send("a");
    for (int i = 0; i < 3; ++i)
      Send("b", kPort + 2);
  });
  ASSERT_TRUE(recorder.WaitDatagrams(6));
  first->Close();
  second->Close();
  EXPECT_EQ(order, "ababab");
}

// Neither an empty nor an oversized datagram is delivered, and neither may hide what comes after
// it: the turn reports no work, yet the worker must come back at once and not in 100 seconds.
TEST_F(UdpSock, GoesOnBehindEmptyAndOversizedDatagrams) {
  UdpRecorder recorder;
  auto sock = OpenUdp(kPort, &recorder, 10);
  WhileTheWorkerIsHeld([&] {
    Send("");
    Send("");
    Send("12345678901");
    Send("1234567890");
    Send("");
    Send("end");
  });
  ASSERT_TRUE(recorder.WaitDatagrams(2));
  sock->Close();
  EXPECT_EQ(recorder.datagrams, (std::vector<Bytes>{BytesOf("1234567890"), BytesOf("end")}));
  ASSERT_EQ(recorder.errors.size(), 1u);
  EXPECT_TRUE(recorder.errors[0].Says(L"recv failed"));
  EXPECT_TRUE(recorder.errors[0].Says(L"Method=Network::UdpSock::TryReceive"));
  EXPECT_EQ(recorder.errors[0].code, platform::kMsgSize);
}

TEST_F(UdpSock, FailsOnATakenPortAndStaysClosed) {
  UdpRecorder recorder;
  auto sock = OpenUdp(kPort, &recorder);
  auto second = manager->CreateUdpSock();
  UdpSockInfo info;
  info.BindAddr = OwnAddr(kPort);
  const Failure failure = FailureOf(second->Open(info));
  EXPECT_TRUE(failure.Says(L"bind socket failed"));
  EXPECT_TRUE(failure.Says(L"Method=Network::UdpSock::Open"));
  EXPECT_TRUE(failure.Says(L"src\\UdpSock"));
  EXPECT_EQ(failure.code, platform::kAddrInUse);
  second->Close();
  const Bytes bytes = BytesOf("x");
  EXPECT_TRUE(FailureOf(second->Send(bytes.data(), bytes.size(), OwnAddr(kPort)))
                  .Says(L"Can not send UDP datagram"));

  // The first one hears its traffic all the same, and its port is free after it.
  Send("mine");
  EXPECT_TRUE(recorder.WaitDatagrams(1));
  sock->Close();
  EXPECT_EQ(FailureOf(second->Open(info)).text, L"");
}

TEST_F(UdpSock, SendsWithoutBeingBound) {
  UdpRecorder recorder;
  auto target = OpenUdp(kPort, &recorder);
  UdpRecorder neverUsed;
  auto sock = std::make_shared<Network::UdpSock>(manager->Home());
  UdpSockInfo info;
  info.Receiver = &neverUsed;
  ASSERT_EQ(FailureOf(sock->Open(info)).text, L"");
  const auto send = [&](const std::string& text, const NetAddr& to) {
    const Bytes bytes = BytesOf(text);
    return FailureOf(sock->Send(bytes.data(), bytes.size(), to));
  };

  EXPECT_EQ(send("given", OwnAddr(kPort)).text, L"");
  ASSERT_TRUE(recorder.WaitDatagrams(1));
  EXPECT_TRUE(send("nowhere", NetAddr()).Says(L"Send address undefined"));
  EXPECT_TRUE(sock->SetSendAddr(OwnAddr(kPort)).IsOk());
  EXPECT_EQ(send("default", NetAddr()).text, L"");
  ASSERT_TRUE(recorder.WaitDatagrams(2));
  EXPECT_EQ(recorder.datagrams[1], BytesOf("default"));

  // What comes back isn't heard.
  EXPECT_TRUE(peer.SendTo(BytesOf("answer"), recorder.senders[0]).Ok());
  EXPECT_FALSE(sock->TryReceive());
  EXPECT_TRUE(neverUsed.datagrams.empty());

  sock->Close();
  const Failure closed = send("closed", OwnAddr(kPort));
  EXPECT_TRUE(closed.Says(L"Can not send UDP datagram"));
  EXPECT_EQ(closed.code, platform::kSocketClosed);
  target->Close();
}

// Controllers find units by broadcast, and a unit is bound to the address of one interface.
TEST_F(UdpSock, HearsTheBroadcastsOfItsInterface) {
  NetAddr broadcast;
  ASSERT_TRUE(broadcast.SetFromTextAndPort(L"127.255.255.255", kPort));
  UdpRecorder recorder;
  auto sock = OpenUdp(kPort, &recorder);
  UdpSockInfo info;
  info.BindAddr = OwnAddr(0);
  auto sender = manager->CreateUdpSock();
  ASSERT_EQ(FailureOf(sender->Open(info)).text, L"");
  const Bytes bytes = BytesOf("dev_find " + std::to_string(OwnProcessId()));

  EXPECT_TRUE(FailureOf(sender->Send(bytes.data(), bytes.size(), broadcast))
                  .Says(L"Can not send UDP datagram"))
      << "without permission";
  sender->Close();
  info.Broadcast = true;
  ASSERT_EQ(FailureOf(sender->Open(info)).text, L"");
  EXPECT_EQ(FailureOf(sender->Send(bytes.data(), bytes.size(), broadcast)).text, L"");
  ASSERT_TRUE(recorder.WaitDatagrams(1));
  Send("unicast");

  // Other programs on this machine may use the same broadcast address: only the own ones count.
  const auto own = [&](const Bytes& datagram) {
    return datagram == bytes || datagram == BytesOf("unicast");
  };
  size_t seen = 0;
  for (size_t count = 1; seen < 2; ++count) {
    ASSERT_TRUE(recorder.WaitDatagrams(count));
    if (own(recorder.datagrams[count - 1])) ++seen;
  }
  sock->Close();
  EXPECT_EQ(std::count_if(recorder.datagrams.begin(), recorder.datagrams.end(), own), 2)
      << "each once";
}

TEST_F(UdpSock, MayBeUsedFromItsCallback) {
  UdpRecorder recorder;
  Watcher watcher;
  int done = 0;
  recorder.onDatagram = [&](IUdpSock* self) {
    const Bytes answer = BytesOf("answer");
    EXPECT_TRUE(self->Send(answer.data(), answer.size(), recorder.senders.back()).IsOk());
    if (recorder.datagrams.size() == 1) {
      UdpSockInfo info;
      info.BindAddr = OwnAddr(kPort + 1);
      info.Receiver = &recorder;
      EXPECT_TRUE(self->Open(info).IsOk());
    } else {
      self->Destroy();
    }
    watcher.Note([&] { ++done; });
  };
  std::weak_ptr<IUdpSock> sock = OpenUdp(kPort, &recorder);
  Send("open at another port");
  ASSERT_TRUE(watcher.WaitFor([&] { return done == 1; }));
  OpenUdp(kPort, nullptr)->Close();  // it is free again
  Send("destroy", kPort + 1);
  ASSERT_TRUE(watcher.WaitFor([&] { return done == 2; }));
  ExpectTheWorkerRests();  // and so has made rounds since
  EXPECT_FALSE(sock.lock()) << "nobody holds it any longer";
}

// The receiver dies after Close while the worker is still in its callback otherwise. Each round
// ends a socket with its receiver in the middle of a flood.
TEST_F(UdpSock, CloseWaitsForTheDeliveryThatRuns) {
  struct Receiver final : Network::IUdpReceiver {
    void OnDatagramReceived(IUdpSock*, std::shared_ptr<Network::Packet>, const NetAddr&) override {
      EXPECT_FALSE(closed) << "a delivery began after Close";
      ++deliveries;
      std::this_thread::yield();
      EXPECT_FALSE(closed) << "Close didn't wait";
    }
    void OnError(IUdpSock*, ErrInfo) override { ADD_FAILURE() << "closing is no error"; }

    std::atomic<bool> closed{false};
    std::atomic<int> deliveries{0};
  };

  const std::jthread flood([&](const std::stop_token& stop) {
    while (!stop.stop_requested())
      peer.SendTo(BytesOf("flood"), OwnAddr(kPort));
  });
  auto sock = manager->CreateUdpSock();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  int rounds = 0;
  for (; rounds < 1000 && std::chrono::steady_clock::now() < deadline; ++rounds) {
    auto receiver = std::make_unique<Receiver>();
    UdpSockInfo info;
    info.BindAddr = OwnAddr(kPort);
    info.Receiver = receiver.get();
    ASSERT_EQ(FailureOf(sock->Open(info)).text, L"");
    while (receiver->deliveries == 0 && rounds % 4 != 0)
      std::this_thread::yield();
    sock->Close();
    receiver->closed = true;
  }
  EXPECT_GT(rounds, 20);
}

TEST_F(UdpSock, OutlivesItsManager) {
  UdpRecorder recorder;
  auto sock = OpenUdp(kPort, &recorder);
  auto closed = manager->CreateUdpSock();
  manager.reset();
  Send("nobody serves it");
  const Bytes bytes = BytesOf("x");
  EXPECT_EQ(FailureOf(sock->Send(bytes.data(), bytes.size(), OwnAddr(kPort))).text, L"");
  sock->Destroy();
  UdpSockInfo info;
  info.BindAddr = OwnAddr(kPort);
  EXPECT_EQ(FailureOf(closed->Open(info)).text, L"") << "the port is free";
  EXPECT_TRUE(recorder.datagrams.empty());
}

TEST_F(UdpSock, WorkerSurvivesAReceiverThatThrows) {
  UdpRecorder thrower;
  thrower.onDatagram = [](IUdpSock*) { throw std::runtime_error("from a receiver"); };
  auto bad = OpenUdp(kPort, &thrower);
  UdpRecorder recorder;
  auto good = OpenUdp(kPort + 2, &recorder);
  Send("throw");
  ASSERT_TRUE(thrower.WaitDatagrams(1));
  Send("on", kPort + 2);
  EXPECT_TRUE(recorder.WaitDatagrams(1));
  Send("throw again");
  EXPECT_TRUE(thrower.WaitDatagrams(2));
  ExpectTheWorkerRests();
  for (int i = 0; i < 2; ++i)
    EXPECT_NE(Log().TryTake(L"A receiver threw: from a receiver Method=Network::NetManager::Run"),
              L"");
  bad->Close();
  good->Close();
}

TEST_F(UdpSock, DropsWhatComesWithoutAReceiver) {
  auto sock = OpenUdp(kPort, nullptr, 10);
  Send("dropped");
  Send("dropped, and too large");
  EXPECT_NE(Log().Take(L"recv failed"), L"") << "nobody took the failure, so the log has it";
  ExpectTheWorkerRests();
  sock->Destroy();
}

// Managers that share a worker are served side by side. One that ends takes nothing from the
// others, leaves none of its callbacks running and no socket that keeps the worker awake.
TEST_F(UdpSock, SharesAFewWorkers) {
  constexpr uint32_t kManagers = 12;
  struct Unit {
    UdpRecorder recorder;
    std::atomic<std::thread::id> worker;
    std::shared_ptr<IUdpSock> sock;
    std::unique_ptr<Network::INetManager> manager;  // ends first
  };
  Watcher watcher;
  bool ended = false;
  std::vector<std::unique_ptr<Unit>> units;
  for (uint32_t i = 0; i < kManagers; ++i) {
    units.push_back(std::make_unique<Unit>());
    Unit& unit = *units.back();
    unit.manager = Network::INetManager::Create(Network::NetWorker::Shared);
    unit.sock = unit.manager->CreateUdpSock();
    unit.recorder.onDatagram = [&](IUdpSock*) {
      unit.worker = std::this_thread::get_id();
      if (&unit != units[0].get() || unit.recorder.datagrams.size() < 2) return;
      for (uint32_t k = 1; k + 1 < kManagers; ++k)
        units[k]->manager.reset();
      watcher.Note([&] { ended = true; });
    };
    UdpSockInfo info;
    info.BindAddr = OwnAddr(kPort + i);
    info.Receiver = &unit.recorder;
    ASSERT_EQ(FailureOf(unit.sock->Open(info)).text, L"");
  }
  std::set<std::thread::id> workers;
  for (uint32_t i = 0; i < kManagers; ++i) {
    Send("to each", kPort + i);
    ASSERT_TRUE(units[i]->recorder.WaitDatagrams(1));
    while (units[i]->worker.load() == std::thread::id())
      std::this_thread::yield();
    workers.insert(units[i]->worker);
  }
  EXPECT_LE(workers.size(), 4u);

  Send("end all others but the last, in a callback of the first");
  ASSERT_TRUE(watcher.WaitFor([&] { return ended; }));
  for (uint32_t i = 1; i < kManagers; ++i)
    Send("who hears this?", kPort + i);
  ASSERT_TRUE(units.back()->recorder.WaitDatagrams(2));
  for (uint32_t i = 1; i + 1 < kManagers; ++i)
    EXPECT_EQ(units[i]->recorder.datagrams.size(), 1u);
}

// What is lost otherwise: the receiver dies after its manager while it is still called.
TEST_F(UdpSock, ManagerEndsAfterTheCallbackThatRuns) {
  const std::jthread flood([&](const std::stop_token& stop) {
    while (!stop.stop_requested())
      peer.SendTo(BytesOf("flood"), OwnAddr(kPort));
  });
  // As many as there may be workers: so the flooded one never has a worker alone, which would end
  // with it.
  std::unique_ptr<Network::INetManager> neighbours[4];
  for (auto& neighbour : neighbours)
    neighbour = Network::INetManager::Create(Network::NetWorker::Shared);
  for (int i = 0; i < 5; ++i) {
    auto flooded = Network::INetManager::Create(Network::NetWorker::Shared);
    Watcher watcher;
    bool held = false;
    std::atomic<bool> over{false};
    UdpRecorder recorder;
    recorder.onDatagram = [&](IUdpSock*) {
      EXPECT_FALSE(over) << "a callback began after the end";
      watcher.Note([&] { held = true; });
      std::this_thread::sleep_for(std::chrono::milliseconds(20));  // time for what mustn't happen
      EXPECT_FALSE(over) << "the end didn't wait";
    };
    UdpSockInfo info;
    info.BindAddr = OwnAddr(kPort);
    info.Receiver = &recorder;
    const auto sock = flooded->CreateUdpSock();
    ASSERT_EQ(FailureOf(sock->Open(info)).text, L"");
    ASSERT_TRUE(watcher.WaitFor([&] { return held; }));
    flooded.reset();
    over = true;
    sock->Close();
  }
}

TEST(NetManager, EndsAtOnceWithoutAnySocket) {
  for (int i = 0; i < 20; ++i)
    Network::INetManager::Create();
}
