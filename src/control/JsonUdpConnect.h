// An acknowledged, ordered stop-and-wait channel on one JsonUdpManager: what is sent is repeated
// until the peer acknowledges it, long attachments travel as segments, what is received is
// acknowledged at once, and a repeat of the latest message is filtered out.
//
// It sends, repeats and calls the receiver in passes, one at a time, on the threads that all
// connections share (PassThreads). The worker thread of the NetManager acknowledges, filters and
// puts segments together. stateMutex_ guards the datagram on its way and the counters; it isn't
// held across a send or a callback.
#pragma once

#include <atomic>
#include <mutex>
#include <optional>

#include "control/IJsonUdp.h"
#include "control/JsonMsgs.h"
#include "control/PassThreads.h"
#include "control/SendQueue.h"
#include "runtime/ConcurrentQueue.h"

namespace Network {

// A message with its destination or sender.
struct InternalMsg {
  std::shared_ptr<JsonMsg> msg;
  NetAddr addr;

  bool IsValid() const { return msg != nullptr; }
};

struct JsonUdpStatistics {
  uint32_t MsgSent = 0;         // datagrams acknowledged, leaders and segments each
  uint32_t MsgReceived = 0;     // datagrams accepted
  uint32_t RepeatMsgSent = 0;   // repeated transmissions
  uint32_t RepeatAckSent = 0;   // acknowledgements sent for duplicates
  uint32_t DupMsgReceived = 0;  // duplicates dropped
  uint32_t DupAckReceived = 0;  // acknowledgements that matched nothing
  uint32_t MaxAckMs = 0;        // longest from the latest transmission to its acknowledgement

  std::wstring ToString() const;
};

class JsonUdpConnect final : public IJsonUdpConnect, public IJsonUdpReceiver {
 public:
  JsonUdpConnect(const std::wstring& name, INetManager* netManager);
  ~JsonUdpConnect() override;
  JsonUdpConnect(const JsonUdpConnect&) = delete;
  JsonUdpConnect& operator=(const JsonUdpConnect&) = delete;

  ErrInfo Init(const JsonUdpInfo& info) override;

  // Resets the counters. What waited or was on its way before a Stop carries on.
  ErrInfo Start() override;

  // Not from a callback of this connection, whose end it waits for.
  void Stop() override;
  bool IsStarted() override { return started_; }
  ErrInfo SetDefaultSendAddr(const NetAddr& addr) override;
  ErrInfo SendDirect(const std::shared_ptr<JsonMsg>& msg, const NetAddr& to) override;
  ErrInfo Send(const std::shared_ptr<JsonMsg>& msg, const NetAddr& to) override;

  void OnMsgSent(IJsonUdpManager*, const std::shared_ptr<JsonMsg>&) override {}
  void OnMsgReceived(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg,
                     const NetAddr& from) override;
  void OnError(IJsonUdpManager* manager, ErrInfo err) override;

  // Since Start. Nothing writes them to the log unasked.
  JsonUdpStatistics Statistics();

  // The two halves of Start, for tests that play the threads: opens the socket; makes one pass,
  // which sends at most one datagram and delivers at most one message of each kind.
  ErrInfo Open();
  void Pass();

 private:
  void Wake() { threads_->Wake(client_); }
  int64_t NextDue();
  InternalMsg NextTransmission();
  void Transmit(const InternalMsg& transmit);
  void DeliverSent();
  void DeliverReceived();
  void SetError(const char* what);
  void Report(ErrInfo err);
  void OnAck(const JsonMsgAck& ack);
  void Assemble(const std::shared_ptr<JsonMsg>& msg, const NetAddr& from);
  void Append(const JsonMsgAtt& segment);
  std::vector<OutgoingMsg> CutIntoSegments(const std::shared_ptr<JsonMsg>& msg,
                                           const NetAddr& to) const;

  JsonUdpInfo info_;  // fixed while started
  const std::shared_ptr<IJsonUdpManager> manager_;

  SendQueue sendQueue_;
  ConcurrentQueue<InternalMsg> receivedQueue_;
  ConcurrentQueue<std::shared_ptr<JsonMsg>> sentQueue_;

  std::mutex stateMutex_;
  OutgoingMsg pending_;  // the one datagram on its way
  int64_t lastSendTime_ = 0;
  JsonUdpStatistics statistics_;

  uint32_t attempts_ = 0;  // transmissions of pending_; passes only

  // Worker thread only.
  std::optional<uint32_t> lastReceived_;  // number of the message last accepted
  InternalMsg assembly_;
  uint32_t nextSegment_ = 0;

  const int64_t ackTimeout_ = 500'000;  // 100 ns ticks: 50 ms
  const uint32_t repeatCount_ = 5;      // transmissions in all
  const uint32_t segmentSize_ = 1300;   // longest attachment in one datagram, bytes

  const std::shared_ptr<PassThreads> threads_ = PassThreads::OfProcess();
  PassThreads::Client client_{[this] {
    Pass();
    return NextDue();
  }};
  std::atomic<bool> started_{false};
};

}  // namespace Network
