#include "sockets/TcpSock.h"

#include <atomic>
#include <thread>

#include "SocketFixture.h"
#include "platform/errors.h"

using Network::ITcpListenSock;
using Network::ITcpReceiver;
using Network::ITcpSock;
using Network::NetAddr;
using Network::Packet;
using Network::TcpListenSockInfo;
using Network::TcpSockInfo;

namespace {

constexpr uint32_t kPort = 9000;

class TcpRecorder final : public ITcpReceiver {
 public:
  void OnConnected(ITcpSock* sock) override {
    notes_.Note([&] { ++connected; });
    if (onConnected) onConnected(sock);
  }
  bool OnData(ITcpSock* sock, std::shared_ptr<Packet>& packet) override {
    const bool keep = onData && onData(sock, packet);
    notes_.Note([&] { data.insert(data.end(), packet->Data(), packet->Data() + packet->Size()); });
    return keep;
  }
  void OnError(ITcpSock*, ErrInfo err) override {
    notes_.Note([&] { errors.push_back(FailureOf(err)); });
  }

  bool WaitConnected() const {
    return notes_.WaitFor([&] { return connected > 0; });
  }
  bool WaitData(size_t size) const {
    return notes_.WaitFor([&] { return data.size() >= size; });
  }
  bool WaitError() const {
    return notes_.WaitFor([&] { return !errors.empty(); });
  }

  std::function<void(ITcpSock*)> onConnected;
  std::function<bool(ITcpSock*, const std::shared_ptr<Packet>&)> onData;  // true: keeps it

  // Read them when the worker has nothing to add any more.
  int connected = 0;
  Bytes data;
  std::vector<Failure> errors;

 private:
  Watcher notes_;
};

class Acceptor final : public Network::ITcpListenReceiver {
 public:
  ITcpReceiver* OnAccept(ITcpListenSock* listener, std::shared_ptr<ITcpSock> sock) override {
    ITcpReceiver* const receiver = onAccept ? onAccept(listener, sock.get()) : &recorder;
    notes_.Note([&] { socks.push_back(std::move(sock)); });
    return receiver;
  }
  void OnError(ITcpListenSock*, ErrInfo err) override { ADD_FAILURE() << err.Code(); }

  bool WaitAccepted(size_t count) const {
    return notes_.WaitFor([&] { return socks.size() >= count; });
  }

  TcpRecorder recorder;  // of all connections
  std::function<ITcpReceiver*(ITcpListenSock*, ITcpSock*)> onAccept;
  std::vector<std::shared_ptr<ITcpSock>> socks;

 private:
  Watcher notes_;
};

class TcpSock : public SocketFixture {
 protected:
  // Nothing may call the receivers of a test after its end.
  void TearDown() override { manager.reset(); }

  void Listen() {
    listenInfo.BindAddr = OwnAddr(kPort);
    listenInfo.ListenReceiver = &acceptor;
    listener = manager->CreateTcpListenSock();
    ASSERT_EQ(FailureOf(listener->Open(listenInfo)).text, L"");
  }

  // A connection of a bare peer; the socket at this end is the latest of the acceptor's.
  ITcpSock* ConnectPeer(uint32_t receiveBuffer = 0) {
    peer.Connect(OwnAddr(kPort), receiveBuffer);
    EXPECT_TRUE(acceptor.WaitAccepted(1));
    return acceptor.socks.at(0).get();
  }

  Failure Send(ITcpSock* sock, const Bytes& bytes) {
    return FailureOf(sock->Send(bytes.data(), bytes.size()));
  }

  TcpSockInfo InfoFor(ITcpReceiver* receiver) {
    TcpSockInfo info;
    info.PeerAddr = OwnAddr(kPort);
    info.Receiver = receiver;
    return info;
  }

  Acceptor acceptor;
  TcpListenSockInfo listenInfo;
  std::shared_ptr<ITcpListenSock> listener;
  Peer peer;
};

}  // namespace

TEST_F(TcpSock, TalksBothWays) {
  Listen();
  TcpRecorder recorder;
  auto sock = manager->CreateTcpSock();
  ASSERT_EQ(FailureOf(sock->Open(InfoFor(&recorder))).text, L"");
  ASSERT_TRUE(recorder.WaitConnected());
  ASSERT_TRUE(acceptor.WaitAccepted(1));

  const Bytes question = Pattern(20000);
  const Bytes answer = Pattern(30001);
  EXPECT_EQ(Send(sock.get(), question).text, L"");
  EXPECT_EQ(FailureOf(acceptor.socks[0]->Send(PacketOf(answer))).text, L"");
  ASSERT_TRUE(acceptor.recorder.WaitData(question.size()));
  ASSERT_TRUE(recorder.WaitData(answer.size()));
  sock->Destroy();
  ASSERT_TRUE(acceptor.recorder.WaitError());
  EXPECT_TRUE(acceptor.recorder.errors[0].Says(L"Disconnected(FD_CLOSE)"));
  EXPECT_EQ(acceptor.recorder.data, question);
  EXPECT_EQ(recorder.data, answer);
  EXPECT_EQ(recorder.connected, 1);
  EXPECT_EQ(acceptor.recorder.connected, 0) << "an accepted connection is no news";
  EXPECT_TRUE(recorder.errors.empty());
}

// A handle stays open after an undefined address; whatever else fails leaves the socket closed.
TEST_F(TcpSock, SaysWhyItCanNotOpenOrSend) {
  TcpRecorder recorder;
  auto sock = manager->CreateTcpSock();
  EXPECT_TRUE(Send(sock.get(), BytesOf("x")).Says(L"Socket is closed"));
  EXPECT_EQ(Send(sock.get(), {}).text, L"") << "nothing to send is no failure";
  EXPECT_FALSE(FailureOf(sock->Send(std::shared_ptr<Packet>())).text.empty());

  // Bound and not listening: nobody else can answer there.
  platform::Socket silent;
  ASSERT_TRUE(silent.OpenTcp().Ok());
  ASSERT_TRUE(silent.Bind(OwnAddr(kPort).Raw()).Ok());
  const Failure refused = FailureOf(sock->Open(InfoFor(&recorder)));
  EXPECT_TRUE(refused.Says(L"connect socket failed"));
  EXPECT_TRUE(refused.Says(L"Method=Network::TcpSock::Open"));
  EXPECT_TRUE(refused.Says(L"src\\TcpSock"));
  EXPECT_EQ(refused.code, platform::kConnRefused);
  silent.Close();

  Listen();
  auto second = manager->CreateTcpListenSock();
  const Failure taken = FailureOf(second->Open(listenInfo));
  EXPECT_TRUE(taken.Says(L"bind socket failed"));
  EXPECT_TRUE(taken.Says(L"Method=Network::TcpListenSock::Open"));
  EXPECT_TRUE(taken.Says(L"src\\TcpListenSock"));
  EXPECT_EQ(taken.code, platform::kAddrInUse);
  EXPECT_TRUE(FailureOf(second->Open(TcpListenSockInfo())).Says(L"Undefined address"));
  listener->Destroy();
  EXPECT_EQ(FailureOf(second->Open(listenInfo)).text, L"");

  TcpSockInfo bound = InfoFor(&recorder);
  bound.BindAddr = OwnAddr(kPort);
  EXPECT_TRUE(FailureOf(sock->Open(bound)).Says(L"bind socket failed"));
  EXPECT_TRUE(FailureOf(sock->Open(TcpSockInfo())).Says(L"Undefined address"));
  ExpectTheWorkerRests();
  EXPECT_TRUE(FailureOf(sock->Open(InfoFor(&recorder))).Says(L"Can not reopen socket"));
  sock->Close();
  bound.BindAddr = OwnAddr(kPort + 1);
  EXPECT_EQ(FailureOf(sock->Open(bound)).text, L"") << "closed, it opens again";
  EXPECT_TRUE(recorder.WaitConnected());
  EXPECT_TRUE(recorder.errors.empty());
}

// A turn sends one packet, so the rounds of the worker show how many there were.
TEST_F(TcpSock, CutsByteRangesIntoChunks) {
  listenInfo.SendChunkSize = 100;
  Listen();
  ITcpSock* const sock = ConnectPeer();
  const Bytes bytes = Pattern(1950);
  uint64_t before = 0;
  WhileTheWorkerIsHeld([&] {
    EXPECT_EQ(Send(sock, bytes).text, L"");
    before = manager->RoundCount();
  });
  EXPECT_EQ(peer.ReadAll(bytes.size()), bytes);
  const uint64_t rounds = manager->RoundCount() - before;
  EXPECT_GE(rounds, 19u);
  EXPECT_LE(rounds, 25u);
}

// A system takes a part of a packet and refuses the rest until the reader has made room.
TEST_F(TcpSock, SendsThroughASlowReaderBitForBit) {
  Listen();
  ITcpSock* const sock = ConnectPeer(16 * 1024);
  const Bytes bytes = Pattern(64 * 1024 * 1024);
  // Packets of all sizes, from one byte to more than any buffer holds.
  for (size_t begin = 0, size = 1; begin < bytes.size(); begin += size, size = size * 3 + 1) {
    size = std::min({size, bytes.size() - begin, size_t{16} * 1024 * 1024});
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(begin);
    const Bytes part(first, first + static_cast<std::ptrdiff_t>(size));
    ASSERT_EQ(FailureOf(sock->Send(PacketOf(part))).text, L"");
  }
  ASSERT_FALSE(peer.Read(1).empty());
  ExpectTheWorkerRests();  // the rest waits for room
  const Bytes rest = peer.ReadAll(bytes.size() - 1);
  ASSERT_EQ(rest.size(), bytes.size() - 1);
  EXPECT_TRUE(std::equal(rest.begin(), rest.end(), bytes.begin() + 1));
  sock->Close();
  EXPECT_TRUE(peer.Read(1).empty()) << "and nothing after it";
}

// A refused Open drops what waits to be sent, but not the rest of a packet that has begun: the
// stream would be torn.
TEST_F(TcpSock, RefusedOpenTearsNoPacket) {
  Listen();
  ITcpSock* const sock = ConnectPeer(16 * 1024);
  const Bytes begun = Pattern(12 * 1024 * 1024);
  ASSERT_EQ(FailureOf(sock->Send(PacketOf(begun))).text, L"");
  ASSERT_EQ(Send(sock, BytesOf("dropped")).text, L"");
  ASSERT_FALSE(peer.Read(1).empty());
  ExpectTheWorkerRests();
  EXPECT_TRUE(FailureOf(sock->Open(InfoFor(&acceptor.recorder))).Says(L"Can not reopen socket"));
  ASSERT_EQ(Send(sock, BytesOf("behind")).text, L"");
  const Bytes rest = peer.ReadAll(begun.size() - 1);
  EXPECT_TRUE(std::equal(rest.begin(), rest.end(), begun.begin() + 1, begun.end()));
  EXPECT_EQ(peer.ReadAll(6), BytesOf("behind"));
}

TEST_F(TcpSock, ReceivesWhatCameBeforeThePeerClosed) {
  listenInfo.RecvBufBytes = 100;
  Listen();
  const Bytes bytes = Pattern(5000);
  WhileTheWorkerIsHeld([&] {
    peer.Connect(OwnAddr(kPort));
    EXPECT_TRUE(peer.socket.Send(bytes.data(), bytes.size()).Ok());
    peer.socket.Close();
  });
  ASSERT_TRUE(acceptor.recorder.WaitError());
  EXPECT_EQ(acceptor.recorder.data, bytes);
  EXPECT_TRUE(acceptor.recorder.errors[0].Says(L"Disconnected(FD_CLOSE)"));
  EXPECT_TRUE(Send(acceptor.socks[0].get(), BytesOf("x")).Says(L"Socket is closed"));
  ExpectTheWorkerRests();
  EXPECT_EQ(acceptor.recorder.errors.size(), 1u);
}

TEST_F(TcpSock, RefusesAConnectionAndListensOn) {
  acceptor.onAccept = [&](ITcpListenSock*, ITcpSock*) -> ITcpReceiver* {
    return acceptor.socks.empty() ? nullptr : &acceptor.recorder;
  };
  Listen();
  ConnectPeer();
  EXPECT_TRUE(peer.Read(1).empty()) << "the connection is closed, though somebody still holds it";
  Peer second;
  second.Connect(OwnAddr(kPort));
  EXPECT_TRUE(second.socket.Send("taken", 5).Ok());
  EXPECT_TRUE(acceptor.recorder.WaitData(5));
}

// The system reports once connections that come together; all of them are taken all the same.
TEST_F(TcpSock, AcceptsABurstOfConnections) {
  Listen();
  std::vector<Peer> peers(50);
  WhileTheWorkerIsHeld([&] {
    for (Peer& each : peers)
      each.Connect(OwnAddr(kPort));
  });
  EXPECT_TRUE(acceptor.WaitAccepted(peers.size()));
}

TEST_F(TcpSock, ReusesThePacketThatTheReceiverLeaves) {
  std::vector<std::shared_ptr<Packet>> seen;
  acceptor.recorder.onData = [&](ITcpSock*, const std::shared_ptr<Packet>& packet) {
    seen.push_back(packet);
    return seen.size() == 2;  // keeps the second
  };
  Listen();
  ConnectPeer();
  for (size_t i = 1; i <= 4; ++i) {
    ASSERT_TRUE(peer.socket.Send("x", 1).Ok());
    ASSERT_TRUE(acceptor.recorder.WaitData(i));
  }
  EXPECT_EQ(seen[1], seen[0]);
  EXPECT_NE(seen[2], seen[1]);
  EXPECT_EQ(seen[3], seen[2]);
  EXPECT_EQ(seen[0]->Capacity(), 8192u);
}

// A receiver may end its connection in each of its callbacks, and no other one comes then.
TEST_F(TcpSock, MayBeDestroyedInItsCallbacks) {
  Listen();
  TcpRecorder inConnected;
  inConnected.onConnected = [](ITcpSock* self) { self->Destroy(); };
  std::weak_ptr<ITcpSock> sock;
  WhileTheWorkerIsHeld([&] {
    const auto opened = manager->CreateTcpSock();
    EXPECT_EQ(FailureOf(opened->Open(InfoFor(&inConnected))).text, L"");
    sock = opened;
  });
  EXPECT_TRUE(inConnected.WaitConnected());
  ASSERT_TRUE(acceptor.recorder.WaitError());
  ExpectTheWorkerRests();
  EXPECT_FALSE(sock.lock());

  TcpRecorder inData;
  inData.onData = [](ITcpSock* self, const std::shared_ptr<Packet>&) {
    self->Destroy();
    return true;
  };
  acceptor.onAccept = [&](ITcpListenSock* self, ITcpSock*) {
    self->Destroy();  // and the listener in its own
    return &inData;
  };
  peer.Connect(OwnAddr(kPort));
  EXPECT_TRUE(peer.socket.Send("x", 1).Ok());
  EXPECT_TRUE(peer.Read(1).empty());
  EXPECT_TRUE(inData.WaitData(1));
  EXPECT_TRUE(inData.errors.empty());
  listener = manager->CreateTcpListenSock();
  EXPECT_EQ(FailureOf(listener->Open(listenInfo)).text, L"") << "the address is free";
}

// Both would keep a worker awake that looked at what is possible instead of what is new.
TEST_F(TcpSock, LetsTheWorkerRest) {
  Listen();
  ConnectPeer();  // writable all the time
  TcpListenSockInfo unserved = listenInfo;
  unserved.BindAddr = OwnAddr(kPort + 1);
  unserved.ListenReceiver = nullptr;
  auto second = manager->CreateTcpListenSock();
  ASSERT_EQ(FailureOf(second->Open(unserved)).text, L"");
  Peer waiting;
  waiting.Connect(OwnAddr(kPort + 1));
  ExpectTheWorkerRests();
}

// A socket without a receiver counts as idle, and yet all that it is given goes out.
// The other end is no socket of this worker, which would keep the rounds going.
TEST_F(TcpSock, DrainsItsQueueWithoutAReceiver) {
  platform::Socket bareListener;
  ASSERT_TRUE(bareListener.OpenTcp().Ok());
  ASSERT_TRUE(bareListener.Bind(OwnAddr(kPort).Raw()).Ok());
  ASSERT_TRUE(bareListener.Listen().Ok());
  auto sock = manager->CreateTcpSock();
  const Bytes bytes = Pattern(100000);
  WhileTheWorkerIsHeld([&] {
    ASSERT_EQ(FailureOf(sock->Open(InfoFor(nullptr))).text, L"");
    ASSERT_EQ(Send(sock.get(), bytes).text, L"");
  });
  ASSERT_TRUE(bareListener.Accept(&peer.socket).Ok());
  ASSERT_TRUE(peer.Watch());
  EXPECT_EQ(peer.ReadAll(bytes.size()), bytes);
}

// What is lost otherwise: the receiver dies after Close while the worker is still in its callback.
TEST_F(TcpSock, CloseWaitsForTheCallbackThatRuns) {
  std::atomic<bool> closed{false};
  std::thread closer;
  acceptor.recorder.onData = [&](ITcpSock* sock, const std::shared_ptr<Packet>&) {
    closer = std::thread([&closed, sock] {
      sock->Close();
      closed = true;
    });
    while (Send(sock, BytesOf("x")).text.empty())  // until the handle is closed
      std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // time for what mustn't happen
    EXPECT_FALSE(closed);
    return false;
  };
  Listen();
  ConnectPeer();
  ASSERT_TRUE(peer.socket.Send("x", 1).Ok());
  ASSERT_TRUE(acceptor.recorder.WaitData(1));
  closer.join();
}
