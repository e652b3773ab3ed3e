// The acknowledged connection as a script of datagrams, sends, passes of its thread and restarts.
// Beside it stands the protocol written another way, which says of each pass what has to go out,
// of each datagram what answers it, and in the end what the user had to hear.
#include <algorithm>
#include <deque>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "Harness.h"
#include "control/JsonMsgs.h"
#include "control/JsonUdpConnect.h"
#include "support/FakeNetwork.h"
#include "support/ManualClock.h"

using namespace Network;
using fuzz::Input;
using fuzz::Require;

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kLargestInput = 512;
constexpr int kMaxSends = 40;
constexpr int kTransmissions = 5;
constexpr int64_t kAckTimeoutMs = 50;
constexpr size_t kSegmentSize = 1300;
constexpr const wchar_t* kPeers[] = {L"10.4.5.6:7", L"10.1.2.3:4567", L"10.1.2.3:4568"};

// Byte `index` of each attachment that is sent: shows its place, so that a gap or a swap shows.
uint8_t ByteAt(size_t index) {
  return static_cast<uint8_t>(index ^ index >> 8);
}

// Messages that came up: number, attachment and sender.
using Delivered = std::vector<std::tuple<uint32_t, Bytes, std::wstring>>;

struct User final : IJsonUdpReceiver {
  void OnMsgSent(IJsonUdpManager*, const std::shared_ptr<JsonMsg>& msg) override {
    sent.push_back(msg->msg_id);
  }
  void OnMsgReceived(IJsonUdpManager*, const std::shared_ptr<JsonMsg>& msg,
                     const NetAddr& from) override {
    Require(msg->att == msg->attachment.size(), "only whole messages come up");
    received.emplace_back(msg->msg_id, msg->attachment, from.ToText());
  }
  void OnError(IJsonUdpManager*, ErrInfo) override { ++errors; }

  std::vector<uint32_t> sent;
  Delivered received;
  size_t errors = 0;
};

// The receiving side.
class ReceiveModel {
 public:
  void Take(const JsonMsg& msg, const std::wstring& from) {
    if (std::exchange(last_, msg.msg_id) == msg.msg_id) return;
    const auto* segment = dynamic_cast<const JsonMsgAtt*>(&msg);
    // What really came of the attachment.
    const Bytes came(msg.attachment.begin(),
                     msg.attachment.begin() + static_cast<std::ptrdiff_t>(msg.att));
    const bool whole = came.size() == msg.attachment.size();
    if (half_) {
      std::optional<Half> half = std::exchange(half_, std::nullopt);
      half->bytes.insert(half->bytes.end(), came.begin(), came.end());
      const bool fits = segment && whole && segment->seg_number == half->segments++ &&
                        half->bytes.size() <= half->announced;
      if (!fits) return;
      if (half->segments < segment->seg_count) {
        half_ = std::move(half);
      } else if (half->bytes.size() == half->announced) {
        delivered.emplace_back(half->id, half->bytes, half->from);
      }
    } else if (!segment && whole) {
      delivered.emplace_back(msg.msg_id, came, from);
    } else if (!segment) {
      half_ = Half{msg.msg_id, from, msg.attachment.size(), came, 0};
    }
  }

  Delivered delivered;

 private:
  struct Half {
    uint32_t id;
    std::wstring from;
    size_t announced;
    Bytes bytes;        // so far
    uint32_t segments;  // so far
  };
  std::optional<uint32_t> last_;
  std::optional<Half> half_;
};

// The sending side: the messages that wait, in the order in which they came, and the one that is
// being sent.
class SendModel {
 public:
  void Send(uint32_t leader, size_t attachment, const std::wstring& to) {
    const size_t segments =
        attachment > kSegmentSize ? (attachment + kSegmentSize - 1) / kSegmentSize : 0;
    Message message{
        leader, to, {{attachment, segments == 0 ? attachment : 0, 0, segments, leader}}};
    for (size_t i = 0; i < segments; ++i) {
      const size_t size = std::min(kSegmentSize, attachment - i * kSegmentSize);
      message.rows.push_back({size, size, i, segments, std::nullopt});
    }
    waiting_.push_back(message);
  }

  // What a pass has sent, null for nothing, is what it had to send.
  void Pass(int64_t nowMs, const JsonMsg* out, const std::wstring& to) {
    if (transmissions_ > 0 && nowMs - lastMs_ <= kAckTimeoutMs) {
      Require(!out, "nothing goes out while an acknowledgement may come");
    } else if (transmissions_ > 0 && left_ == 0) {
      Require(!out, "nothing goes out in the pass that gives up");
      ++givenUp;
      standing_[current_->to] = kLetOneRunOut;
      current_.reset();
      transmissions_ = 0;
    } else if (!current_ && waiting_.empty()) {
      Require(!out, "nothing goes out that wasn't sent");
    } else {
      Require(out != nullptr, "what waits goes out");
      if (!current_) Choose();
      Require(to == current_->to, "a message goes where it belongs, in its turn");
      RequireNext(*out);
      if (transmissions_ == 0) left_ = kTransmissions;
      ++transmissions_;
      --left_;
      lastMs_ = nowMs;
    }
  }

  // The number of the datagram on its way.
  std::optional<uint32_t> Current() const {
    return transmissions_ > 0 ? current_->rows.front().id : std::nullopt;
  }

  void Ack(uint32_t id) {
    if (Current() != id) return;
    standing_[current_->to] = kAcknowledges;
    current_->rows.pop_front();
    if (current_->rows.empty()) {
      sent.push_back(current_->leader);
      current_.reset();
    }
    transmissions_ = 0;
  }

  // What was on its way gets another five, at its time.
  void Restart() { left_ = kTransmissions; }

  std::vector<uint32_t> sent;
  size_t givenUp = 0;

 private:
  enum Standing { kAcknowledges = -1, kUnknown, kLetOneRunOut };

  // One datagram.
  struct Row {
    size_t announced;
    size_t bytes;  // that travel with it
    size_t number;
    size_t segments;             // of the message
    std::optional<uint32_t> id;  // a segment's is known when it has gone out
  };
  struct Message {
    uint32_t leader;
    std::wstring to;
    std::deque<Row> rows;
  };

  // The first of those whose destination stands best.
  void Choose() {
    const auto best = std::min_element(
        waiting_.begin(), waiting_.end(),
        [this](const Message& a, const Message& b) { return standing_[a.to] < standing_[b.to]; });
    current_ = *best;
    waiting_.erase(best);
  }

  void RequireNext(const JsonMsg& out) {
    Row& row = current_->rows.front();
    if (!row.id) row.id = out.msg_id;
    Require(out.msg_id == row.id, "messages and segments keep their order");
    Require(out.att == row.bytes && out.attachment.size() == row.announced,
            "an attachment is announced, and its part travels");
    for (size_t i = 0; i < out.att; ++i)
      Require(out.attachment[i] == ByteAt(row.number * kSegmentSize + i), "each byte in its place");
    const auto* segment = dynamic_cast<const JsonMsgAtt*>(&out);
    Require((segment != nullptr) == (row.id != current_->leader), "segments follow their head");
    if (!segment) return;
    Require(segment->leader_id == current_->leader && segment->seg_number == row.number &&
                segment->seg_count == row.segments,
            "a segment shows its place");
  }

  std::map<std::wstring, int> standing_;
  std::vector<Message> waiting_;
  std::optional<Message> current_;
  int transmissions_ = 0;  // of its first datagram; 0: that hasn't gone out
  int left_ = 0;           // transmissions before it is given up
  int64_t lastMs_ = 0;
};

std::unique_ptr<JsonMsg> Decode(const Bytes& bytes) {
  Packet packet(bytes.size());
  packet.Resize(bytes.size());
  std::copy(bytes.begin(), bytes.end(), packet.Data());
  return std::unique_ptr<JsonMsg>(JsonMsg::FromPacket(packet));
}

class Duel {
 public:
  Duel() {
    JsonUdpInfo info;
    info.Receiver = &user_;
    info.BindAddr = Addr(L"127.0.0.1:8000");
    connect_.Init(info);
    connect_.Open();
  }

  void Deliver(const Bytes& bytes) {
    const auto msg = Decode(bytes);
    const auto sock = net_.LastSock();
    sock->Deliver(bytes, peer_);
    const auto answers = TakeSent();
    if (const auto* ack = dynamic_cast<const JsonMsgAck*>(msg.get())) {
      Require(answers.empty(), "an acknowledgement is never acknowledged");
      sent_.Ack(ack->ack_msg_id);
    } else if (msg) {
      Require(answers.size() == 1, "each message is acknowledged at once");
      const auto* answer = dynamic_cast<const JsonMsgAck*>(answers[0].get());
      Require(answer && answer->ack_msg_id == msg->msg_id, "by its number");
      received_.Take(*msg, peer_.ToText());
    } else {
      Require(answers.empty(), "what can't be read isn't answered");
      ++unreadable_;
    }
  }

  void Deliver(JsonMsg& msg, size_t announced) {
    msg.att = announced;
    Packet packet(4096);
    Require(msg.ToPacket(packet).IsOk(), "a short message goes into a packet");
    latest_.assign(packet.Data(), packet.Data() + packet.Size());
    Deliver(latest_);
  }

  void DeliverAgain() { Deliver(latest_); }
  void AckCurrent() { Ack(sent_.Current().value_or(0)); }
  void Ack(uint32_t id) {
    JsonMsgAck ack(id);
    Deliver(ack, 0);
  }

  void Pass() {
    connect_.Pass();
    const auto out = TakeSent();
    Require(out.size() <= 1, "a pass sends one datagram at most");
    sent_.Pass(nowMs_, out.empty() ? nullptr : out[0].get(), sentTo_);
  }

  void Advance(uint32_t ms) {
    clock_.AdvanceMs(ms);
    nowMs_ += ms;
  }

  void SetPeer(const NetAddr& peer) { peer_ = peer; }

  void Send(size_t attachment) {
    if (++sends_ > kMaxSends) return;
    auto msg = std::make_shared<JsonMsgGetState>();
    for (size_t i = 0; i < attachment; ++i)
      msg->attachment.push_back(ByteAt(i));
    Require(connect_.Send(msg, peer_).IsOk(), "there is room for what is sent");
    sent_.Send(msg->msg_id, attachment, peer_.ToText());
  }

  void Restart() {
    connect_.Stop();
    connect_.Open();
    sent_.Restart();
  }

  void Finish() {
    const size_t most = received_.delivered.size() + sent_.sent.size();
    for (size_t i = 0; i < most; ++i)
      Pass();
    // A pass that gave up reported nothing else to the user.
    for (size_t i = 0; i < kMaxSends; ++i)
      Pass();
    Require(user_.received == received_.delivered, "what came up is what had to come up");
    Require(user_.sent == sent_.sent, "what was reported as sent is what was acknowledged");
    Require(user_.errors == unreadable_ + sent_.givenUp,
            "each failure is reported, and nothing else");
  }

 private:
  std::vector<std::unique_ptr<JsonMsg>> TakeSent() {
    std::vector<std::unique_ptr<JsonMsg>> messages;
    for (const SentDatagram& datagram : net_.LastSock()->Sent()) {
      messages.push_back(Decode(datagram.bytes));
      Require(messages.back() != nullptr, "what goes out can be read");
      sentTo_ = datagram.to.ToText();
    }
    net_.LastSock()->ClearSent();
    return messages;
  }

  ManualClock clock_;
  int64_t nowMs_ = 0;
  NetAddr peer_ = Addr(L"10.1.2.3:4567");
  FakeNetManager net_;
  User user_;
  JsonUdpConnect connect_{L"unit", &net_};
  ReceiveModel received_;
  SendModel sent_;
  Bytes latest_;
  std::wstring sentTo_;  // of the latest that was taken
  size_t unreadable_ = 0;
  int sends_ = 0;
};

void Step(Duel& duel, Input& input) {
  switch (input.U8() % 12) {
    case 0:  // anything
      duel.Deliver(input.Bytes(input.U8()));
      break;
    case 1: {  // a message, perhaps the head of a longer one; few numbers, so that they come again
      JsonMsgGetInputs msg;
      msg.msg_id = input.U8() % 16;
      msg.attachment = input.Bytes(input.U8() % 4);
      duel.Deliver(msg, msg.attachment.size() + input.U8() % 8);
      break;
    }
    case 2: {
      JsonMsgAtt msg;
      msg.msg_id = input.U8() % 16;
      const uint8_t place = input.U8();
      msg.seg_number = place % 4;
      msg.seg_count = place / 4 % 4;
      msg.attachment = input.Bytes(input.U8() % 8);
      duel.Deliver(msg, msg.attachment.size() + (place > 250 ? 1 : 0));
      break;
    }
    case 3:
      duel.DeliverAgain();
      break;
    case 4:
      duel.AckCurrent();
      break;
    case 5:
      duel.Ack(input.U8());
      break;
    case 6:
      duel.Send(input.U16() % 4000);
      break;
    case 7:
      duel.SetPeer(Addr(kPeers[input.U8() % std::size(kPeers)]));
      break;
    case 8:
      duel.Restart();
      break;
    case 9:
      duel.Advance(input.U8() % 64);
      break;
    case 10:  // into the time-out
      duel.Advance(static_cast<uint32_t>(kAckTimeoutMs) + 1);
      duel.Pass();
      break;
    default:
      duel.Pass();
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kLargestInput) return 0;
  Input input(data, size);
  Duel duel;
  while (input.Left() > 0)
    Step(duel, input);
  duel.Finish();
  return 0;
}
