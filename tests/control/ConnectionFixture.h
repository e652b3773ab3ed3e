// A connection whose thread the test plays, on a network and a clock that it moves by hand.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "control/JsonUdpConnect.h"
#include "support/CapturedLog.h"
#include "support/ControlDoubles.h"
#include "support/FakeNetwork.h"
#include "support/ManualClock.h"

constexpr int64_t kAckTimeout = 500'000;  // 50 ms in ticks of 100 ns

class Connection : public testing::Test {
 protected:
  Connection() {
    info.Receiver = &user;
    info.BindAddr = Addr(L"127.0.0.1:8000");
    EXPECT_TRUE(connect.Init(info).IsOk());
    EXPECT_TRUE(connect.Open().IsOk());
  }

  FakeUdpSock& Sock() { return *net.LastSock(); }

  // As many passes as anything could need.
  void Settle() {
    for (int i = 0; i < 20; ++i)
      connect.Pass();
  }

  // Past the time-out, and the one transmission that is due then.
  void RunIntoTimeout() {
    clock.AdvanceTicks(kAckTimeout + 1);
    connect.Pass();
  }

  // From the first transmission, which has gone out, to the failure.
  void LoseAllAcks() {
    for (int i = 0; i < 5; ++i)
      RunIntoTimeout();
    EXPECT_NE(Log().TryTake(L"Protocol error. No ack received "
                            L"Method=Network::JsonUdpConnect::SetError"),
              L"");
  }

  void Send(const std::shared_ptr<Network::JsonMsg>& msg) {
    EXPECT_TRUE(connect.Send(msg, peer).IsOk());
  }

  // What has gone out since the latest call.
  std::vector<std::shared_ptr<Network::JsonMsg>> Out() {
    std::vector<std::shared_ptr<Network::JsonMsg>> messages;
    for (const SentDatagram& datagram : Sock().Sent())
      messages.push_back(FromDatagram(datagram.bytes));
    Sock().ClearSent();
    return messages;
  }

  // The one datagram that a pass sends; null if it sends none.
  std::shared_ptr<Network::JsonMsg> PassOut() {
    connect.Pass();
    const auto out = Out();
    EXPECT_LE(out.size(), 1U);
    return out.empty() ? nullptr : out[0];
  }

  void Ack(uint32_t id) { Deliver(Network::JsonMsgAck(id)); }

  void Deliver(const Network::JsonMsg& msg) { EXPECT_TRUE(Sock().Deliver(ToDatagram(msg), peer)); }

  // A request of the peer with that number.
  void Request(uint32_t id) {
    Network::JsonMsgGetInputs msg;
    msg.msg_id = id;
    Deliver(msg);
  }

  ManualClock clock;
  const Network::NetAddr peer = Addr(L"10.1.2.3:4567");
  FakeNetManager net;
  RecordingReceiver user;
  Network::JsonUdpInfo info;
  Network::JsonUdpConnect connect{L"unit", &net};
};
