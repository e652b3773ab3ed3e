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

  static Failure SendFrom(IUdpSock& sock, const std::string& text, const NetAddr& to) {
    const Bytes bytes = BytesOf(text);
    return FailureOf(sock.Send(bytes.data(), bytes.size(), to));
  }

  Peer peer;
};

}  // namespace

// A burst comes whole and in its order, and a flood on one socket doesn't starve its neighbour:
// each turn takes one datagram.
TEST_F(UdpSock, DeliversABurstWholeAndInTurnWithItsNeighbour) {
  UdpRecorder recorder;
  auto first = OpenUdp(kPort, &recorder);
  auto second = OpenUdp(kPort + 2, &recorder);
  WhileTheWorkerIsHeld([&] {
    for (const uint32_t port : {kPort, kPort + 2})
      for (uint32_t i = 0; i < 100; ++i)
        Send(std::to_string(port + i), port);
  });
  ASSERT_TRUE(recorder.WaitDatagrams(200));
  first->Close();
  second->Close();
  platform::SocketAddress local;
  ASSERT_TRUE(peer.socket.LocalAddress(&local).Ok());
  for (size_t i = 0; i < 200; ++i) {
    EXPECT_EQ(recorder.datagrams[i], BytesOf(std::to_string(kPort + i % 2 * 2 + i / 2)));
    EXPECT_EQ(recorder.senders[i], NetAddr(local));
  }
}

// Neither an empty nor an oversized datagram is delivered, and neither may hide what comes after
// it: the turn reports no work, yet the worker must come back at once and not in 100 seconds.
TEST_F(UdpSock, GoesOnAfterEmptyAndOversizedDatagrams) {
  UdpRecorder recorder;
  auto sock = OpenUdp(kPort, &recorder, 10);
  auto deaf = OpenUdp(kPort + 2, nullptr, 10);
  WhileTheWorkerIsHeld([&] {
    for (const char* text : {"", "", "12345678901", "1234567890", "", "end"}) {
      Send(text);
      Send(text, kPort + 2);
    }
  });
  ASSERT_TRUE(recorder.WaitDatagrams(2));
  ExpectTheWorkerRests();
  sock->Close();
  EXPECT_NE(Log().Take(L"recv failed"), L"") << "no receiver took the failure, so the log has it";
  EXPECT_EQ(recorder.datagrams, (std::vector<Bytes>{BytesOf("1234567890"), BytesOf("end")}));
  ASSERT_EQ(recorder.errors.size(), 1u);
  EXPECT_TRUE(recorder.errors[0].Says(L"recv failed Method=Network::UdpSock::TryReceive"));
  EXPECT_EQ(recorder.errors[0].code, platform::kMsgSize);
}

TEST_F(UdpSock, FailsOnATakenPortAndStaysClosed) {
  UdpRecorder recorder;
  auto sock = OpenUdp(kPort, &recorder);
  auto second = manager->CreateUdpSock();
  UdpSockInfo info;
  info.BindAddr = OwnAddr(kPort);
  const Failure failure = FailureOf(second->Open(info));
  EXPECT_TRUE(failure.Says(L"bind socket failed Method=Network::UdpSock::Open File=src\\UdpSock"));
  EXPECT_EQ(failure.code, platform::kAddrInUse);
  EXPECT_EQ(SendFrom(*second, "x", OwnAddr(kPort)).code, platform::kSocketClosed);

  // The first one hears its traffic all the same, and its port is free after it.
  Send("mine");
  EXPECT_TRUE(recorder.WaitDatagrams(1));
  sock->Close();
  EXPECT_EQ(FailureOf(second->Open(info)).text, L"");
}

TEST_F(UdpSock, SendsWithoutBeingBound) {
  UdpRecorder recorder;
  auto target = OpenUdp(kPort, &recorder);
  auto sock = std::make_shared<Network::UdpSock>(manager->Home());
  UdpSockInfo info;
  info.Receiver = &recorder;
  ASSERT_EQ(FailureOf(sock->Open(info)).text, L"");
  EXPECT_EQ(SendFrom(*sock, "given", OwnAddr(kPort)).text, L"");
  ASSERT_TRUE(recorder.WaitDatagrams(1));
  EXPECT_TRUE(SendFrom(*sock, "nowhere", NetAddr()).Says(L"Send address undefined"));
  EXPECT_TRUE(sock->SetSendAddr(OwnAddr(kPort)).IsOk());
  EXPECT_EQ(SendFrom(*sock, "default", NetAddr()).text, L"");
  ASSERT_TRUE(recorder.WaitDatagrams(2));
  target->Close();
  EXPECT_EQ(recorder.datagrams[1], BytesOf("default"));

  // What comes back isn't heard.
  EXPECT_TRUE(peer.SendTo(BytesOf("answer"), recorder.senders[0]).Ok());
  EXPECT_FALSE(sock->TryReceive());
  sock->Close();
  EXPECT_TRUE(SendFrom(*sock, "x", OwnAddr(kPort)).Says(L"Can not send UDP datagram"));
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
  const std::string text = "dev_find " + std::to_string(OwnProcessId());
  EXPECT_NE(SendFrom(*sender, text, broadcast).text, L"") << "without permission";
  info.Broadcast = true;
  ASSERT_EQ(FailureOf(sender->Open(info)).text, L"");
  EXPECT_EQ(SendFrom(*sender, text, broadcast).text, L"");

  // Other programs on this machine may use the same broadcast address: only the own ones count.
  const auto heard = [&](const std::string& sent) {
    return std::count(recorder.datagrams.begin(), recorder.datagrams.end(), BytesOf(sent));
  };
  ASSERT_TRUE(recorder.WaitUntil([&] { return heard(text) > 0; }));
  Send("unicast");
  ASSERT_TRUE(recorder.WaitUntil([&] { return heard("unicast") > 0; }));
  sock->Close();
  EXPECT_EQ(heard(text), 1) << "each once";
  EXPECT_EQ(heard("unicast"), 1);
}

TEST_F(UdpSock, MayBeUsedFromItsCallback) {
  UdpRecorder recorder;
  recorder.onDatagram = [&](IUdpSock* self) {
    if (recorder.datagrams.size() == 2) return self->Destroy();
    UdpSockInfo info;
    info.BindAddr = OwnAddr(kPort + 1);
    info.Receiver = &recorder;
    EXPECT_TRUE(self->Open(info).IsOk());
    EXPECT_EQ(SendFrom(*self, "to the new port", info.BindAddr).text, L"");
  };
  std::weak_ptr<IUdpSock> sock = OpenUdp(kPort, &recorder);
  Send("open at another port");
  ASSERT_TRUE(recorder.WaitDatagrams(2));
  OpenUdp(kPort, nullptr)->Close();  // it is free again
  ExpectTheWorkerRests();            // and so has made rounds since
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

  auto sock = manager->CreateUdpSock();
  // What the socket itself sends makes the worker wait for its lock with data in sight, which is
  // where Close has to come first.
  const std::jthread flood([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      peer.SendTo(BytesOf("flood"), OwnAddr(kPort));
      SendFrom(*sock, "flood", OwnAddr(kPort));
    }
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(700);
  int rounds = 0;
  for (; std::chrono::steady_clock::now() < deadline; ++rounds) {
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
  EXPECT_EQ(SendFrom(*sock, "nobody serves it", OwnAddr(kPort)).text, L"");
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
  for (size_t i = 1; i <= 2; ++i) {
    Send("throw");
    ASSERT_TRUE(thrower.WaitDatagrams(i));
  }
  ExpectTheWorkerRests();
  for (int i = 0; i < 2; ++i)
    EXPECT_NE(Log().TryTake(L"A receiver threw: from a receiver Method=Network::NetManager::Run"),
              L"");
  bad->Close();
}

// Managers that share a worker are served side by side. One that ends takes nothing from the
// others, and leaves none of its callbacks running.
TEST_F(UdpSock, SharesAFewWorkers) {
  constexpr uint32_t kManagers = 12;
  struct Unit {
    UdpRecorder recorder;
    std::shared_ptr<IUdpSock> sock;
    std::unique_ptr<Network::INetManager> manager;  // ends first
  };
  Watcher watcher;
  std::set<std::thread::id> workers;
  bool ended = false;
  std::vector<Unit> units(kManagers);
  for (uint32_t i = 0; i < kManagers; ++i) {
    units[i].manager = Network::INetManager::Create(Network::NetWorker::Shared);
    units[i].sock = units[i].manager->CreateUdpSock();
    units[i].recorder.onDatagram = [&, i](IUdpSock*) {
      watcher.Note([&] { workers.insert(std::this_thread::get_id()); });
      if (i != 0 || units[0].recorder.datagrams.size() < 2) return;
      for (uint32_t k = 1; k + 1 < kManagers; ++k)
        units[k].manager.reset();
      watcher.Note([&] { ended = true; });
    };
    UdpSockInfo info;
    info.BindAddr = OwnAddr(kPort + i);
    info.Receiver = &units[i].recorder;
    ASSERT_EQ(FailureOf(units[i].sock->Open(info)).text, L"");
    Send("to each", kPort + i);
    ASSERT_TRUE(units[i].recorder.WaitDatagrams(1));
  }

  Send("end all others but the last, in a callback of the first");
  ASSERT_TRUE(watcher.WaitFor([&] { return ended; }));
  EXPECT_TRUE(watcher.WaitFor([&] { return workers.size() <= 4; }));
  for (uint32_t i = 1; i < kManagers; ++i)
    Send("who hears this?", kPort + i);
  ASSERT_TRUE(units.back().recorder.WaitDatagrams(2));
  for (uint32_t i = 1; i + 1 < kManagers; ++i)
    EXPECT_EQ(units[i].recorder.datagrams.size(), 1u);
}

// What is lost otherwise: the receiver dies after its manager while it is still called.
TEST_F(UdpSock, ManagerEndsAfterTheCallbackThatRuns) {
  // As many as there may be workers: so the one that ends never has a worker alone, which would end
  // with it.
  std::unique_ptr<Network::INetManager> neighbours[4];
  for (auto& neighbour : neighbours)
    neighbour = Network::INetManager::Create(Network::NetWorker::Shared);
  auto ends = Network::INetManager::Create(Network::NetWorker::Shared);
  std::atomic<bool> over{false};
  UdpRecorder recorder;
  recorder.onDatagram = [&](IUdpSock*) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // time for what mustn't happen
    EXPECT_FALSE(over) << "the end didn't wait";
  };
  UdpSockInfo info;
  info.BindAddr = OwnAddr(kPort);
  info.Receiver = &recorder;
  const auto sock = ends->CreateUdpSock();
  ASSERT_EQ(FailureOf(sock->Open(info)).text, L"");
  Send("held");
  ASSERT_TRUE(recorder.WaitDatagrams(1));
  ends.reset();
  over = true;
  sock->Close();
}

TEST(NetManager, EndsAtOnceWithoutAnySocket) {
  for (int i = 0; i < 20; ++i)
    Network::INetManager::Create();
}
