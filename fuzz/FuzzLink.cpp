// What comes in at a link, as a script of datagrams from two peers. A model of the assembly must
// agree on each message that the link hands on; each message is acknowledged, and whatever else
// came is complained of.
#include <map>
#include <optional>
#include <set>
#include <tuple>

#include "Harness.h"
#include "wire/Link.h"

using fuzz::Input;
using fuzz::Require;
using wire::Bytes;
using wire::Json;

namespace {

constexpr size_t kLargestInput = 512;
constexpr uint32_t kHost = 0x7F000001;

// By peer, message number, attachment.
using Whole = std::tuple<size_t, uint32_t, Bytes>;

class Model {
 public:
  void Take(size_t peer, const wire::Message& message) {
    if (!seen_.emplace(peer, message.id).second) return;
    std::optional<Half>& half = half_[peer];
    const uint32_t announced =
        message.body.contains("att") ? message.body["att"].get<uint32_t>() : 0;
    if (message.type == "attach") {
      TakeSegment(peer, message);
    } else if (half) {
      half.reset();
      ++complaints;
    } else if (message.attachment.size() == announced) {
      whole.emplace_back(peer, message.id, message.attachment);
    } else if (announced <= 1 << 20) {
      half = Half{message.id, announced, 0, message.attachment};
    } else {
      ++complaints;
    }
  }

  std::vector<Whole> whole;
  size_t complaints = 0;

 private:
  struct Half {
    uint32_t id;
    size_t announced;
    uint32_t next;  // segment
    Bytes bytes;
  };

  void TakeSegment(size_t peer, const wire::Message& segment) {
    std::optional<Half>& half = half_[peer];
    const auto number = [&segment](const char* key) -> int64_t {
      try {
        return wire::NumberAt(segment.body, key);
      } catch (const wire::BadMessage&) {
        return -1;
      }
    };
    const int64_t count = number("seg_count");
    const bool readable = count >= 0 && number("leader_id") >= 0 && number("seg_number") >= 0;
    if (!half || !readable) {
      ++complaints;
      return;
    }
    half->bytes.insert(half->bytes.end(), segment.attachment.begin(), segment.attachment.end());
    const bool fits = number("leader_id") == half->id && number("seg_number") == half->next &&
                      half->next < count && half->bytes.size() <= half->announced;
    const bool ends = ++half->next == count;
    if (fits && !ends) return;
    if (fits && half->bytes.size() == half->announced) {
      whole.emplace_back(peer, half->id, half->bytes);
    } else {
      ++complaints;
    }
    half.reset();
  }

  std::set<std::pair<size_t, uint32_t>> seen_;
  std::map<size_t, std::optional<Half>> half_;
};

class Play {
 public:
  void Use(size_t peer) { peer_ = peer % 2; }

  void Deliver(const Bytes& bytes) {
    latest_ = bytes;
    try {
      const wire::Message message = wire::Decode(bytes);
      Require(wire::Decode(wire::Encode(message.body, message.attachment)).body == message.body,
              "what was taken in can be written and taken in again");
      if (message.type == "ack") {
        wire::NumberAt(message.body, "ack_msg_id");
        ++acks_;
      } else {
        due_[peer_].push_back(message.id);
        ++messages_;
        model_.Take(peer_, message);
      }
    } catch (const wire::BadMessage&) {
      ++model_.complaints;
    }
    peers_[peer_].Send(bytes, link_.Local());
    Require(loop_.RunUntil(
                [this] {
                  return link_.Acks().size() == acks_ && link_.Received().size() == messages_ &&
                         link_.Complaints().size() == model_.complaints &&
                         acknowledged_[0] == due_[0] && acknowledged_[1] == due_[1];
                },
                std::chrono::seconds(5)),
            "each message is acknowledged to who sent it, and all else complained of");
  }

  void Deliver(Json object, const Bytes& attachment, uint8_t more) {
    if (!attachment.empty() || more > 0) object["att"] = attachment.size() + more;
    Deliver(wire::Encode(object, attachment));
  }

  void DeliverAgain() { Deliver(Bytes(latest_)); }

  void Finish() {
    for (const auto& [peer, id, attachment] : model_.whole) {
      const auto message = link_.TakeIf([](const wire::Message&) { return true; }, {});
      Require(message && message->from == peers_[peer].Local() && message->id == id &&
                  message->attachment == attachment,
              "whole messages come up once, in their order");
    }
    Require(!link_.TakeIf([](const wire::Message&) { return true; }, {}), "and nothing else");
  }

 private:
  wire::UdpPort::Handler OnAck(size_t peer) {
    return [this, peer](const wire::Datagram& datagram) {
      acknowledged_[peer].push_back(
          wire::NumberAt(wire::Decode(datagram.bytes).body, "ack_msg_id"));
    };
  }

  wire::Loop loop_;
  wire::Link link_{loop_, {kHost, 0}};
  wire::UdpPort peers_[2] = {{loop_, {kHost, 0}, OnAck(0)}, {loop_, {kHost, 0}, OnAck(1)}};
  size_t peer_ = 0;
  Bytes latest_;
  Model model_;
  size_t acks_ = 0;
  size_t messages_ = 0;
  std::vector<uint32_t> due_[2];
  std::vector<uint32_t> acknowledged_[2];
};

void Step(Play& play, Input& input) {
  switch (input.U8() % 6) {
    case 0:  // anything
      play.Deliver(input.Bytes(input.U8()));
      break;
    case 1: {  // a message, perhaps the head of a longer one; few numbers, so that they come again
      const uint32_t id = input.U8() % 16;
      const Bytes attachment = input.Bytes(input.U8() % 4);
      play.Deliver({{"msg", "get_inputs"}, {"msg_id", id}}, attachment, input.U8() % 8);
      break;
    }
    case 2: {
      const uint32_t id = input.U8() % 16;
      const uint32_t leader = input.U8() % 16;
      const uint8_t place = input.U8();
      Json segment{{"msg", "attach"}, {"msg_id", id}, {"leader_id", leader}};
      if (place < 250) segment["seg_count"] = place / 4 % 4;
      if (place < 253) segment["seg_number"] = place % 4;
      play.Deliver(segment, input.Bytes(input.U8() % 8), 0);
      break;
    }
    case 3:
      play.DeliverAgain();
      break;
    case 4:
      play.Deliver({{"msg", "ack"}, {"msg_id", 1}, {"ack_msg_id", input.U8()}}, {}, 0);
      break;
    default:
      play.Use(input.U8());
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kLargestInput) return 0;
  Input input(data, size);
  Play play;
  while (input.Left() > 0)
    Step(play, input);
  play.Finish();
  return 0;
}
