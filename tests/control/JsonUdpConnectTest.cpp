#include <stdexcept>

#include "control/ConnectionFixture.h"

using namespace Network;

namespace {

using Restarting = Connection;

TEST_F(Restarting, RemembersTheLatestNumberAndTheHalfMessage) {
  Request(12);
  connect.Stop();
  EXPECT_TRUE(connect.Open().IsOk());
  Request(12);
  Settle();
  EXPECT_EQ(Out().size(), 1U) << "acknowledged";
  EXPECT_EQ(user.Received().size(), 1U) << "but not delivered again";

  JsonMsgGetInputs head;
  head.att = 3;
  Deliver(head);
  EXPECT_TRUE(connect.Open().IsOk());
  JsonMsgAtt segment;
  segment.seg_count = 1;
  segment.attachment = {1, 2, 3};
  segment.att = 3;
  Deliver(segment);
  Settle();
  ASSERT_EQ(user.Received().size(), 2U);
  EXPECT_EQ(user.Received()[1].msg->attachment, segment.attachment);
}

// Each thing that a user may throw costs its own message and nothing else.
TEST_F(Connection, SurvivesAThrowingUser) {
  user.onReceived = [](const std::shared_ptr<JsonMsg>& msg, const NetAddr&) {
    if (msg->msg_id == 1) throw std::runtime_error("handler failed: \xC3\xA4");
    if (msg->msg_id == 2) throw 2;
  };
  user.onSent = [](const auto&) { throw std::runtime_error("handler failed"); };
  user.onError = [](const std::wstring&) { throw std::runtime_error("error handler failed"); };
  Log().Allow(L"handler failed");
  Log().Allow(L"of an unknown type");
  Send(std::make_shared<JsonMsgGetState>());
  connect.Pass();
  Ack(Out()[0]->msg_id);
  for (uint32_t id = 1; id <= 3; ++id)
    Request(id);
  Settle();
  EXPECT_EQ(user.Sent().size(), 1U);
  EXPECT_EQ(user.Received().size(), 3U);
  EXPECT_EQ(Log().Count(L"handler failed: \x00E4 Method=Network::JsonUdpConnect::SetError"), 1U);
  EXPECT_EQ(Log().Count(L"error handler failed Method=Network::JsonUdpConnect::Pass"), 2U);
  EXPECT_EQ(Log().Count(L"of an unknown type out of a receiver"), 1U);
}

TEST_F(Connection, WithoutReceiverItAcknowledgesAndLogs) {
  info.Receiver = nullptr;
  EXPECT_TRUE(connect.Init(info).IsOk());
  EXPECT_TRUE(connect.Open().IsOk());
  Request(12);
  Settle();
  EXPECT_EQ(Out().size(), 1U);
  Send(std::make_shared<JsonMsgGetState>());
  connect.Pass();
  LoseAllAcks();
}

}  // namespace
