// Two connections over real sockets, as a controller and a unit.
#include <gtest/gtest.h>

#include "INetManager.h"
#include "JsonUdpConnect.h"
#include "platform/text.h"
#include "support/ControlDoubles.h"
#include "support/WireSocket.h"

using namespace Network;

namespace {

class LoopbackConnection : public testing::Test {
 protected:
  LoopbackConnection() {
    Start(controller, controllerUser, ControllerAddr());
    Start(unit, unitUser, UnitAddr());
  }

  // Ports of this process alone too: a bound socket also hears what other tests broadcast.
  static NetAddr OwnAddr(uint32_t port) {
    NetAddr addr;
    EXPECT_TRUE(addr.SetFromTextAndPort(Utf8ToWide(wire::OwnAddress()), port));
    return addr;
  }
  static NetAddr ControllerAddr() { return OwnAddr(wire::OwnBroadcastPort() + 10'000U); }
  static NetAddr UnitAddr() { return OwnAddr(wire::OwnBroadcastPort()); }

  static void Start(JsonUdpConnect& connect, RecordingReceiver& user, const NetAddr& addr) {
    JsonUdpInfo info;
    info.Receiver = &user;
    info.BindAddr = addr;
    EXPECT_TRUE(connect.Init(info).IsOk());
    EXPECT_TRUE(connect.Start().IsOk());
  }

  const std::unique_ptr<INetManager> net = INetManager::Create();
  RecordingReceiver controllerUser;
  RecordingReceiver unitUser;
  JsonUdpConnect controller{L"controller", net.get()};
  JsonUdpConnect unit{L"unit", net.get()};
};

TEST_F(LoopbackConnection, RequestsAndAnswersInOrder) {
  constexpr uint32_t kRequests = 300;
  unitUser.onReceived = [this](const std::shared_ptr<JsonMsg>& msg, const NetAddr& from) {
    auto answer = std::make_shared<JsonMsgState>();
    answer->device_freq = std::dynamic_pointer_cast<JsonMsgSetState>(msg)->device_freq;
    EXPECT_TRUE(unit.Send(answer, from).IsOk());
  };
  for (uint32_t i = 0; i < kRequests; ++i) {
    auto request = std::make_shared<JsonMsgSetState>();
    request->device_freq = i;
    EXPECT_TRUE(controller.Send(request, UnitAddr()).IsOk());
  }
  ASSERT_TRUE(controllerUser.WaitUntil([](const RecordingReceiver& user) {
    return user.Received().size() == kRequests && user.Sent().size() == kRequests;
  }));
  for (uint32_t i = 0; i < kRequests; ++i) {
    const ReceivedMsg answer = controllerUser.Received()[i];
    EXPECT_EQ(std::dynamic_pointer_cast<JsonMsgState>(answer.msg)->device_freq, i);
    EXPECT_EQ(answer.from, UnitAddr());
  }
  EXPECT_TRUE(unitUser.WaitUntil(
      [](const RecordingReceiver& user) { return user.Sent().size() == kRequests; }));
}

TEST_F(LoopbackConnection, CarriesALongAttachmentBothWaysAtOnce) {
  const DatagramBytes there = PatternBytes(200'000, 1);
  const DatagramBytes back = PatternBytes(150'001, 2);
  const auto request = std::make_shared<JsonMsgGetState>();
  request->attachment = there;
  const auto answer = std::make_shared<JsonMsgState>();
  answer->attachment = back;
  EXPECT_TRUE(controller.Send(request, UnitAddr()).IsOk());
  EXPECT_TRUE(unit.Send(answer, ControllerAddr()).IsOk());

  const auto done = [](const RecordingReceiver& user) {
    return user.Received().size() == 1 && user.Sent().size() == 1;
  };
  ASSERT_TRUE(controllerUser.WaitUntil(done));
  ASSERT_TRUE(unitUser.WaitUntil(done));
  EXPECT_EQ(unitUser.Received()[0].msg->attachment, there);
  EXPECT_EQ(controllerUser.Received()[0].msg->attachment, back);
}

}  // namespace
