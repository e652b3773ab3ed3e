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

constexpr uint32_t kBusyWaitMs = 1;    // with a datagram on its way
constexpr uint32_t kIdleWaitMs = 100;  // a lost wake-up costs this at most

}  // namespace

IJsonUdpConnect* IJsonUdpConnect::Create(const std::wstring& name, INetManager* netManager) {
  return new JsonUdpConnect(name, netManager);
}

bool OutgoingMsg::IsLastOfMessage() const {
  if (wire == leader && (leader->att == 0 || !leader->attachment.empty())) return true;
  const auto* segment = dynamic_cast<const JsonMsgAtt*>(wire.get());
  return segment && segment->seg_number == segment->seg_count - 1;
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
  stopFlag_ = false;
  try {
    thread_ = std::thread([this] { Run(); });
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
  if (!started_) return;
  stopFlag_ = true;
  wakeEvent_.Set();
  thread_.join();
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
  const size_t waiting = sendQueue_.Size();
  if (waiting >= kMaxWaiting) {
    return err.SetText(Format(L"Send queue full: %d datagrams wait, message dropped", waiting));
  }
  msg->att = msg->attachment.size();
  if (msg->att <= segmentSize_) {
    sendQueue_.Push({msg, msg, to});
  } else {
    const std::vector<OutgoingMsg> datagrams = CutIntoSegments(msg, to);
    // The head announces the full length and carries no bytes.
    msg->attachment.clear();
    sendQueue_.PushAll(datagrams);
  }
  wakeEvent_.Set();
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

void JsonUdpConnect::Run() {
  while (!stopFlag_) {
    wakeEvent_.Wait(IsWaitingForAck() ? kBusyWaitMs : kIdleWaitMs);
    if (stopFlag_) return;
    Pass();
  }
}

bool JsonUdpConnect::IsWaitingForAck() {
  std::lock_guard lock(stateMutex_);
  return pending_.IsValid();
}

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
  } catch (...) {
    // The receiver failed again while it was told, or threw what has no text. The thread goes on.
  }
}

// What is to go out in this pass, if anything. Throws when the datagram on its way is given up.
InternalMsg JsonUdpConnect::NextTransmission() {
  std::shared_ptr<JsonMsg> failed;
  {
    std::lock_guard lock(stateMutex_);
    if (pending_.IsValid()) {
      const int64_t now = ClockTicks100ns();
      if (now - lastSendTime_ <= ackTimeout_) return {};
      if (attempts_ < repeatCount_) {
        ++attempts_;
        lastSendTime_ = now;
        ++statistics_.RepeatMsgSent;
        return {pending_.wire, pending_.addr};
      }
      failed = std::exchange(pending_, {}).wire;
    } else {
      OutgoingMsg next = sendQueue_.TryPop();
      if (!next.IsValid()) return {};
      // Set before the datagram goes out: its acknowledgement may arrive at once.
      pending_ = std::move(next);
      lastSendTime_ = ClockTicks100ns();
      attempts_ = 1;
      return {pending_.wire, pending_.addr};
    }
  }
  DiscardSegmentsOf(*failed);
  wakeEvent_.Set();  // the rest of this pass is skipped, and what it had to do mustn't wait
  throw std::runtime_error("Protocol error. No ack received");
}

void JsonUdpConnect::DiscardSegmentsOf(const JsonMsg& failed) {
  const auto* failedSegment = dynamic_cast<const JsonMsgAtt*>(&failed);
  const uint32_t leader = failedSegment ? failedSegment->leader_id : failed.msg_id;
  for (;;) {
    OutgoingMsg next = sendQueue_.TryPop();
    if (!next.IsValid()) return;
    const auto* segment = dynamic_cast<const JsonMsgAtt*>(next.wire.get());
    if (segment && segment->leader_id == leader) continue;
    sendQueue_.PushFront(std::move(next));
    return;
  }
}

void JsonUdpConnect::Transmit(const InternalMsg& transmit) {
  ErrInfo err = manager_->SendDirect(transmit.msg, transmit.addr);
  if (!err.IsOk()) Report(err);
}

void JsonUdpConnect::DeliverSent() {
  const std::shared_ptr<JsonMsg> sent = sentQueue_.TryPop();
  if (!sent) return;
  wakeEvent_.Set();  // before the call, which may throw: more may wait behind this one
  if (info_.Receiver) info_.Receiver->OnMsgSent(this, sent);
}

void JsonUdpConnect::DeliverReceived() {
  const InternalMsg received = receivedQueue_.TryPop();
  if (!received.IsValid()) return;
  wakeEvent_.Set();
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
    wakeEvent_.Set();
    return;
  }

  // The acknowledgement comes before the filter: a repeat means that the first one was lost.
  ErrInfo err = manager_->SendDirect(std::make_shared<JsonMsgAck>(msg->msg_id), from);
  if (!err.IsOk()) Report(err);

  const bool duplicate = lastReceived_ && lastReceived_->msg_id == msg->msg_id;
  if (!duplicate) {
    lastReceived_ = msg;
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
  wakeEvent_.Set();
}

void JsonUdpConnect::OnAck(const JsonMsgAck& ack) {
  std::lock_guard lock(stateMutex_);
  if (!pending_.IsValid() || pending_.wire->msg_id != ack.ack_msg_id) {
    ++statistics_.DupAckReceived;
    return;
  }
  if (pending_.IsLastOfMessage()) sentQueue_.Push(pending_.leader);
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
  if (msg->att < msg->attachment.size()) {
    assembly_ = {msg, from};
    nextSegment_ = 0;
  } else {
    receivedQueue_.Push({msg, from});
  }
}

void JsonUdpConnect::Append(const JsonMsgAtt& segment) {
  JsonMsg& held = *assembly_.msg;
  const size_t size = segment.attachment.size();
  const bool fits = segment.seg_number == nextSegment_ && segment.att == size &&
                    size <= held.attachment.size() - held.att;
  if (!fits) {
    assembly_ = {};
    return;
  }
  std::copy(segment.attachment.begin(), segment.attachment.end(),
            held.attachment.begin() + static_cast<ptrdiff_t>(held.att));
  held.att += size;
  if (++nextSegment_ < segment.seg_count) return;

  InternalMsg whole = std::exchange(assembly_, {});
  if (whole.msg->att == whole.msg->attachment.size()) receivedQueue_.Push(std::move(whole));
}

}  // namespace Network
