#include "control/JsonUdpConnect.h"

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "runtime/Clocks.h"
#include "runtime/Format.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\JsonUdpConnect";

// Nobody is left to report to: the failure dies here, which writes it to the log. The thread goes
// on also when there is no memory for that.
void LogException(const char* what) noexcept {
  try {
    ERR_HERE("Network::JsonUdpConnect::Pass").SetText(what);
  } catch (const std::exception&) {
  }
}

}  // namespace

IJsonUdpConnect* IJsonUdpConnect::Create(const std::wstring& name, INetManager* netManager) {
  return new JsonUdpConnect(name, netManager);
}

std::wstring JsonUdpStatistics::ToString() const {
  return Format(
      L"MsgSent=%d, MsgReceived=%d, RepeatMsgSent=%d, RepeatAckSent=%d, DupMsgReceived=%d, "
      L"DupAckReceived=%d, MaxAckMs=%d",
      MsgSent, MsgReceived, RepeatMsgSent, RepeatAckSent, DupMsgReceived, DupAckReceived, MaxAckMs);
}

JsonUdpConnect::JsonUdpConnect(const std::wstring& name, INetManager* netManager)
    : manager_(IJsonUdpManager::Create(name, netManager)) {}

JsonUdpConnect::~JsonUdpConnect() {
  JsonUdpConnect::Stop();
}

ErrInfo JsonUdpConnect::Init(const JsonUdpInfo& info) {
  if (started_) Stop();
  info_ = info;
  JsonUdpInfo below = info;
  below.Receiver = this;
  return manager_->Init(below);
}

ErrInfo JsonUdpConnect::Start() {
  if (started_) Stop();
  ErrInfo err = Open();
  if (!err.IsOk()) {
    Stop();
    return err;
  }
  try {
    threads_->Add(client_);
  } catch (const std::system_error& error) {
    Stop();
    return ERR_HERE("Network::JsonUdpConnect::Start")
        .SetCode(static_cast<uint32_t>(error.code().value()), L"Can not start connection thread");
  }
  started_ = true;
  return ERR_HERE("Network::JsonUdpConnect::Start");
}

ErrInfo JsonUdpConnect::Open() {
  {
    std::lock_guard lock(stateMutex_);
    statistics_ = {};
  }
  // What was on its way before a Stop is transmitted another five times.
  attempts_ = 0;
  return manager_->Start();
}

void JsonUdpConnect::Stop() {
  // The socket first: nothing comes in any more and no call of the worker is left.
  manager_->Stop();
  threads_->Remove(client_);
  started_ = false;
}

ErrInfo JsonUdpConnect::SetDefaultSendAddr(const NetAddr& addr) {
  info_.SendAddr = addr;
  return manager_->SetDefaultSendAddr(addr);
}

ErrInfo JsonUdpConnect::SendDirect(const std::shared_ptr<JsonMsg>& msg, const NetAddr& to) {
  return manager_->SendDirect(msg, to);
}

ErrInfo JsonUdpConnect::Send(const std::shared_ptr<JsonMsg>& msg, const NetAddr& to) {
  ErrInfo err = ERR_HERE("Network::JsonUdpConnect::Send");
  if (!msg) return err.SetText(L"No message to send");
  msg->att = msg->attachment.size();
  std::vector<OutgoingMsg> datagrams{{msg, msg, to}};
  std::vector<uint8_t> cut;
  if (msg->att > segmentSize_) {
    datagrams = CutIntoSegments(msg, to);
    // The head announces the full length and carries no bytes.
    cut.swap(msg->attachment);
  }
  const SendQueue::PushResult pushed = sendQueue_.Push(std::move(datagrams));
  for (const OutgoingMsg& dropped : pushed.dropped) {
    ERR_HERE("Network::JsonUdpConnect::Send")
        .SetText(Format(L"Send queue full: %s to %s dropped, which doesn't acknowledge",
                        dropped.leader->msg, dropped.addr.ToText()));
  }
  if (pushed.full != 0) {
    if (!cut.empty()) msg->attachment.swap(cut);
    return err.SetText(Format(L"Send queue full: %d datagrams wait, message dropped", pushed.full));
  }
  Wake();
  return err;
}

std::vector<OutgoingMsg> JsonUdpConnect::CutIntoSegments(const std::shared_ptr<JsonMsg>& msg,
                                                         const NetAddr& to) const {
  const std::vector<uint8_t>& bytes = msg->attachment;
  const size_t count = (bytes.size() + segmentSize_ - 1) / segmentSize_;
  std::vector<OutgoingMsg> datagrams{{msg, msg, to}};
  datagrams.reserve(count + 1);
  for (size_t i = 0; i < count; ++i) {
    const auto begin = bytes.begin() + static_cast<ptrdiff_t>(i * segmentSize_);
    const size_t length = std::min<size_t>(segmentSize_, bytes.size() - i * segmentSize_);
    auto segment = std::make_shared<JsonMsgAtt>();
    segment->leader_id = msg->msg_id;
    segment->seg_number = static_cast<uint32_t>(i);
    segment->seg_count = static_cast<uint32_t>(count);
    segment->attachment.assign(begin, begin + static_cast<ptrdiff_t>(length));
    segment->att = length;
    datagrams.push_back({msg, segment, to});
  }
  return datagrams;
}

JsonUdpStatistics JsonUdpConnect::Statistics() {
  std::lock_guard lock(stateMutex_);
  return statistics_;
}

// The moment after which the datagram on its way is repeated or given up. All else wakes the
// connection.
int64_t JsonUdpConnect::NextDue() {
  std::lock_guard lock(stateMutex_);
  return pending_.IsValid() ? lastSendTime_ + ackTimeout_ + 1 : PassThreads::kNever;
}

// Sends at most one datagram and delivers at most one message of each kind, each step in the order
// in which a peer may have waited for it. What a step throws ends the pass, costs what that step
// had taken, and is reported; each delivery asks for another pass, which follows at once.
void JsonUdpConnect::Pass() {
  try {
    try {
      const InternalMsg transmit = NextTransmission();
      if (transmit.IsValid()) Transmit(transmit);
      DeliverSent();
      DeliverReceived();
    } catch (const std::exception& error) {
      SetError(error.what());
    }
  } catch (const std::exception& error) {
    LogException(error.what());  // of a receiver that failed again in OnError
  } catch (...) {
    LogException("Exception of an unknown type out of a receiver");
  }
}

// What is to go out in this pass, if anything. Throws when the datagram on its way is given up.
//
// One datagram is on its way at a time. While its acknowledgement may still come nothing goes out,
// then its repeat, and after the last one its message ends as a failure; the next message goes out
// in the next pass. An acknowledgement can come at any moment on the worker, so that each look at
// pending_ and the change that follows it are one step under the lock.
InternalMsg JsonUdpConnect::NextTransmission() {
  {
    std::lock_guard lock(stateMutex_);
    if (!pending_.IsValid()) {
      OutgoingMsg next = sendQueue_.TryPop();
      if (!next.IsValid()) return {};
      // Set before the datagram goes out: its acknowledgement may arrive at once.
      pending_ = std::move(next);
      lastSendTime_ = ClockTicks100ns();
      attempts_ = 1;
      return {pending_.wire, pending_.addr};
    }
    const int64_t now = ClockTicks100ns();
    if (now - lastSendTime_ <= ackTimeout_) return {};
    if (attempts_ < repeatCount_) {
      ++attempts_;
      lastSendTime_ = now;
      ++statistics_.RepeatMsgSent;
      return {pending_.wire, pending_.addr};
    }
    sendQueue_.RanOut(std::exchange(pending_, {}).addr);
  }
  // The exception ends this pass, also for what has been received and acknowledged: that mustn't
  // wait for the next time-out.
  Wake();
  throw std::runtime_error("Protocol error. No ack received");
}

void JsonUdpConnect::Transmit(const InternalMsg& transmit) {
  ErrInfo err = manager_->SendDirect(transmit.msg, transmit.addr);
  if (!err.IsOk()) Report(err);
}

void JsonUdpConnect::DeliverSent() {
  const std::shared_ptr<JsonMsg> sent = sentQueue_.TryPop();
  if (!sent) return;
  Wake();  // before the call, which may throw: more may wait after this one
  if (info_.Receiver) info_.Receiver->OnMsgSent(this, sent);
}

void JsonUdpConnect::DeliverReceived() {
  const InternalMsg received = receivedQueue_.TryPop();
  if (!received.IsValid()) return;
  Wake();
  if (info_.Receiver) info_.Receiver->OnMsgReceived(this, received.msg, received.addr);
}

void JsonUdpConnect::SetError(const char* what) {
  Report(ERR_HERE("Network::JsonUdpConnect::SetError").SetText(what));
}

// Without a receiver the failure dies here, and so ends in the log.
void JsonUdpConnect::Report(ErrInfo err) {
  if (info_.Receiver) info_.Receiver->OnError(this, err);
}

void JsonUdpConnect::OnError(IJsonUdpManager*, ErrInfo err) {
  Report(err);
}

void JsonUdpConnect::OnMsgReceived(IJsonUdpManager*, const std::shared_ptr<JsonMsg>& msg,
                                   const NetAddr& from) {
  if (const auto* ack = dynamic_cast<const JsonMsgAck*>(msg.get())) {
    OnAck(*ack);
    Wake();
    return;
  }

  // The acknowledgement comes before the filter: a repeat means that the first one was lost.
  ErrInfo err = manager_->SendDirect(std::make_shared<JsonMsgAck>(msg->msg_id), from);
  if (!err.IsOk()) Report(err);

  const bool duplicate = lastReceived_ == msg->msg_id;
  if (!duplicate) {
    lastReceived_ = msg->msg_id;
    Assemble(msg, from);
  }
  {
    std::lock_guard lock(stateMutex_);
    if (duplicate) {
      ++statistics_.DupMsgReceived;
      ++statistics_.RepeatAckSent;
    } else {
      ++statistics_.MsgReceived;
    }
  }
  Wake();
}

void JsonUdpConnect::OnAck(const JsonMsgAck& ack) {
  std::lock_guard lock(stateMutex_);
  if (!pending_.IsValid() || pending_.wire->msg_id != ack.ack_msg_id) {
    ++statistics_.DupAckReceived;
    return;
  }
  if (pending_.IsLastOfMessage()) sentQueue_.Push(pending_.leader);
  sendQueue_.Acknowledged(pending_.addr);
  pending_ = {};
  ++statistics_.MsgSent;
  const auto ms = static_cast<uint32_t>((ClockTicks100ns() - lastSendTime_) / 10'000);
  statistics_.MaxAckMs = std::max(statistics_.MaxAckMs, ms);
}

void JsonUdpConnect::Assemble(const std::shared_ptr<JsonMsg>& msg, const NetAddr& from) {
  const auto* segment = dynamic_cast<const JsonMsgAtt*>(msg.get());
  if (assembly_.IsValid()) {
    // Whatever doesn't continue the message ends it, and is lost with it.
    if (segment) {
      Append(*segment);
    } else {
      assembly_ = {};
    }
    return;
  }
  if (segment) return;
  if (msg->att == msg->announced) {
    receivedQueue_.Push({msg, from});
    return;
  }
  assembly_ = {msg, from};
  msg->attachment.resize(static_cast<size_t>(msg->att));
  nextSegment_ = 0;
}

// The memory of a message comes with its bytes: what it announces is only a number from the
// network.
void JsonUdpConnect::Append(const JsonMsgAtt& segment) {
  JsonMsg& held = *assembly_.msg;
  const bool fits = segment.seg_number == nextSegment_ && segment.att == segment.announced &&
                    segment.att <= held.announced - held.att;
  if (!fits) {
    assembly_ = {};
    return;
  }
  held.attachment.insert(held.attachment.end(), segment.attachment.begin(),
                         segment.attachment.end());
  held.att = held.attachment.size();
  if (++nextSegment_ < segment.seg_count) return;

  InternalMsg whole = std::exchange(assembly_, {});
  if (whole.msg->att == whole.msg->announced) receivedQueue_.Push(std::move(whole));
}

}  // namespace Network
