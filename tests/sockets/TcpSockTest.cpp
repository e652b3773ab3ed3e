#include "sockets/TcpSock.h"

#include <atomic>
#include <thread>

#include "SocketFixture.h"

using Network::ITcpListenSock;
using Network::ITcpReceiver;
using Network::ITcpSock;
using Network::NetAddr;
using Network::Packet;
using Network::TcpListenSockInfo;
using Network::TcpSockInfo;

namespace {

constexpr uint32_t kTcpPort = 9000;

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
    listenInfo.BindAddr = OwnAddr(kTcpPort);
    listenInfo.ListenReceiver = &acceptor;
    listener = manager->CreateTcpListenSock();
    ASSERT_EQ(FailureOf(listener->Open(listenInfo)).text, L"");
  }

  // A connection of a bare peer; the socket at this end is the latest of the acceptor's.
  ITcpSock* ConnectPeer(uint32_t receiveBuffer = 0) {
    peer.Connect(OwnAddr(kTcpPort), receiveBuffer);
    EXPECT_TRUE(acceptor.WaitAccepted(1));
    return acceptor.socks.at(0).get();
  }

  Failure Send(ITcpSock* sock, const Bytes& bytes) {
    return FailureOf(sock->Send(bytes.data(), bytes.size()));
  }

  TcpSockInfo InfoFor(ITcpReceiver* receiver) {
    TcpSockInfo info;
    info.PeerAddr = OwnAddr(kTcpPort);
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
  ASSERT_TRUE(acceptor.WaitAccepted(1));
  const Bytes question = Pattern(20000);
  const Bytes answer = Pattern(30001);
  EXPECT_EQ(Send(sock.get(), question).text, L"");
  EXPECT_EQ(FailureOf(acceptor.socks[0]->Send(PacketOf(answer))).text, L"");
  ASSERT_TRUE(acceptor.recorder.WaitData(question.size()));
  ASSERT_TRUE(recorder.WaitData(answer.size()));
  sock->Destroy();
  EXPECT_EQ(acceptor.recorder.data, question);
  EXPECT_EQ(recorder.data, answer);
  EXPECT_EQ(recorder.connected, 1);
  EXPECT_TRUE(recorder.errors.empty());
}

// A system takes a part of a packet and refuses the rest until the reader has made room. A refused
// Open drops what waits to be sent, but not the rest of a packet that has begun: the stream would
// be torn.
TEST_F(TcpSock, SendsThroughASlowReaderBitForBit) {
  Listen();
  ITcpSock* const sock = ConnectPeer(16 * 1024);
  const Bytes begun = Pattern(12 * 1024 * 1024);
  ASSERT_EQ(FailureOf(sock->Send(PacketOf(begun))).text, L"");
  ASSERT_EQ(Send(sock, BytesOf("dropped")).text, L"");
  ASSERT_FALSE(peer.Read(1).empty());
  ExpectTheWorkerRests();  // the rest waits for room
  EXPECT_TRUE(FailureOf(sock->Open(InfoFor(&acceptor.recorder))).Says(L"Can not reopen socket"));
  ASSERT_EQ(Send(sock, BytesOf("after")).text, L"");
  const Bytes rest = peer.ReadAll(begun.size() - 1);
  EXPECT_TRUE(std::equal(rest.begin(), rest.end(), begun.begin() + 1, begun.end()));
  EXPECT_EQ(peer.ReadAll(5), BytesOf("after"));
}

TEST_F(TcpSock, ReceivesWhatCameBeforeThePeerClosed) {
  listenInfo.RecvBufBytes = 100;
  Listen();
  const Bytes bytes = Pattern(5000);
  WhileTheWorkerIsHeld([&] {
    peer.Connect(OwnAddr(kTcpPort));
    EXPECT_TRUE(peer.socket.Send(bytes.data(), bytes.size()).Ok());
    peer.socket.Close();
  });
  ASSERT_TRUE(acceptor.recorder.WaitError());
  EXPECT_EQ(acceptor.recorder.data, bytes);
  EXPECT_TRUE(acceptor.recorder.errors[0].Says(L"Disconnected(FD_CLOSE)"));
}

TEST_F(TcpSock, RefusesAConnectionAndListensOn) {
  acceptor.onAccept = [&](ITcpListenSock*, ITcpSock*) -> ITcpReceiver* {
    return acceptor.socks.empty() ? nullptr : &acceptor.recorder;
  };
  Listen();
  ConnectPeer();
  EXPECT_TRUE(peer.Read(1).empty()) << "the connection is closed, though somebody still holds it";
  Peer second;
  second.Connect(OwnAddr(kTcpPort));
  EXPECT_TRUE(second.socket.Send("taken", 5).Ok());
  EXPECT_TRUE(acceptor.recorder.WaitData(5));
}

// A receiver may end its connection in each of its callbacks, and no other one comes then.
TEST_F(TcpSock, MayBeDestroyedInItsCallbacks) {
  TcpRecorder inData;
  inData.onData = [](ITcpSock* self, const std::shared_ptr<Packet>&) {
    self->Destroy();
    return true;
  };
  acceptor.onAccept = [&](ITcpListenSock* self, ITcpSock*) -> ITcpReceiver* {
    if (acceptor.socks.empty()) return &inData;
    self->Destroy();  // and the listener in its own
    return &acceptor.recorder;
  };
  Listen();
  TcpRecorder inConnected;
  inConnected.onConnected = [](ITcpSock* self) { self->Destroy(); };
  std::weak_ptr<ITcpSock> sock;
  WhileTheWorkerIsHeld([&] {
    peer.Connect(OwnAddr(kTcpPort));
    EXPECT_TRUE(peer.socket.Send("x", 1).Ok());
    const auto opened = manager->CreateTcpSock();
    EXPECT_EQ(FailureOf(opened->Open(InfoFor(&inConnected))).text, L"");
    sock = opened;
  });
  EXPECT_TRUE(inConnected.WaitConnected());
  EXPECT_TRUE(inData.WaitData(1));
  EXPECT_TRUE(acceptor.WaitAccepted(2));
  EXPECT_TRUE(peer.Read(1).empty());
  ExpectTheWorkerRests();
  EXPECT_FALSE(sock.lock());
  EXPECT_TRUE(inData.errors.empty());
}

// A socket without a receiver counts as idle, and yet all that it is given goes out.
// The other end is no socket of this worker, which would keep the rounds going.
TEST_F(TcpSock, DrainsItsQueueWithoutAReceiver) {
  platform::Socket bareListener;
  ASSERT_TRUE(bareListener.OpenTcp().Ok());
  ASSERT_TRUE(bareListener.Bind(OwnAddr(kTcpPort).Raw()).Ok());
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
