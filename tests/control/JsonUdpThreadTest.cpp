#include <gtest/gtest.h>

#include <chrono>

#include "control/JsonUdpConnect.h"
#include "support/CapturedLog.h"
#include "support/ControlDoubles.h"
#include "support/FakeNetwork.h"

using namespace Network;

namespace {

// The thread itself, on the real clock.
class ConnectionThread : public testing::Test {
 protected:
  ConnectionThread() {
    info.Receiver = &user;
    EXPECT_TRUE(connect.Init(info).IsOk());
  }

  const NetAddr peer = Addr(L"10.1.2.3:4567");
  FakeNetManager net;
  RecordingReceiver user;
  JsonUdpInfo info;
  JsonUdpConnect connect{L"unit", &net};
};

TEST_F(ConnectionThread, DeliversManyWithoutWaitingBetweenThem) {
  EXPECT_TRUE(connect.Start().IsOk());
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 200; ++i)
    net.LastSock()->Deliver(ToDatagram(JsonMsgGetState()), peer);
  EXPECT_TRUE(user.WaitUntil([](const auto& u) { return u.Received().size() == 200; }));
  // A lost wake-up costs 100 ms, each pass without its own one too: 20 s in all. A busy machine
  // needs some seconds.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

TEST_F(ConnectionThread, StopsAtOnceAndStartsAgain) {
  net.failOpen = true;
  EXPECT_FALSE(connect.Start().IsOk());
  EXPECT_NE(Log().TryTake(L"open failed"), L"");
  EXPECT_FALSE(connect.IsStarted());
  net.failOpen = false;
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 40; ++i) {
    EXPECT_TRUE(connect.Start().IsOk());
    EXPECT_TRUE(connect.Start().IsOk()) << "of a started one: from anew";
    connect.Stop();
    connect.Stop();
    EXPECT_FALSE(connect.IsStarted());
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4))
      << "Stop waits for the idle thread's next look, 100 ms each";
}

}  // namespace
