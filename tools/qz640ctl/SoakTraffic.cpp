#include "SoakTraffic.h"

#include <algorithm>
#include <utility>

#include "wire/Audio.h"

namespace ctl {

using wire::Bytes;
using wire::Clock;
using wire::Endpoint;
using wire::Json;

namespace {

constexpr auto kPace = std::chrono::milliseconds(5);
constexpr auto kAskAgain = std::chrono::milliseconds(250);
constexpr auto kGiveUp = std::chrono::seconds(10);
constexpr auto kPatience = std::chrono::seconds(20);
constexpr auto kRequestPause = std::chrono::seconds(1);
constexpr size_t kLargestDatagram = 65507;  // UDP over IPv4, RFC 768 and RFC 791

// In turn, so that an answer of the wrong type shows that it belongs to an earlier request.
struct Request {
  const char* type;
  const char* tunersAnswer;
  const char* othersAnswer;
};
constexpr Request kRequests[] = {
    {"get_dev_info", "dev_info", "dev_info"},
    {"get_fm_freq", "fm_freq", "error"},
    {"get_inputs", "inputs", "inputs"},
};

double ToMs(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

Bytes MessageOf(const char* type, uint32_t id, Json members = Json::object(),
                const Bytes& attachment = {}) {
  members["msg"] = type;
  members["msg_id"] = id;
  return wire::Encode(members, attachment);
}

}  // namespace

void RoundTrips::Add(Clock::duration time) {
  const double ms = ToMs(time);
  ++counts_[std::min(static_cast<size_t>(ms * 100), counts_.size() - 1)];
  ++total_;
  max_ = std::max(max_, ms);
}

double RoundTrips::Percentile(double part) const {
  uint64_t below = 0;
  for (size_t i = 0; i < counts_.size(); ++i) {
    below += counts_[i];
    if (static_cast<double>(below) >= part * static_cast<double>(total_)) {
      return static_cast<double>(i) / 100;
    }
  }
  return max_;
}

Exchanges::Exchanges(wire::Loop& loop, const std::vector<wire::Unit>& units)
    : loop_(loop),
      port_(loop, {}, [this](const wire::Datagram& datagram) { OnDatagram(datagram); }),
      timer_(loop, [this] { Repeat(); }) {
  for (const wire::Unit& unit : units) {
    Peer peer;
    peer.control = unit.control;
    peer.tuner = wire::FindModel(unit.type).tuners > 0;
    peers_.push_back(peer);
  }
  for (Peer& peer : peers_)
    Begin(peer);
  timer_.At(Clock::now() + kPace);
}

void Exchanges::Pause(bool yes) {
  paused_ = yes;
  for (Peer& peer : peers_)
    if (!yes && peer.idle) Begin(peer);
}

double Exchanges::WaitAllAnswer() {
  const auto begun = Clock::now();
  std::vector<uint64_t> wanted;
  for (const Peer& peer : peers_)
    wanted.push_back(peer.complete + 2);  // the exchange on its way has begun earlier
  loop_.RunUntil(
      [&] {
        return std::equal(peers_.begin(), peers_.end(), wanted.begin(),
                          [](const Peer& peer, uint64_t want) { return peer.complete >= want; });
      },
      kPatience);
  return ToMs(Clock::now() - begun);
}

void Exchanges::Begin(Peer& peer) {
  peer.idle = paused_;
  if (paused_) return;
  peer.kind = (peer.kind + 1) % std::size(kRequests);
  peer.id = nextId_++;
  peer.acknowledged = peer.answered = false;
  peer.begun = Clock::now();
  Transmit(peer);
}

void Exchanges::Transmit(Peer& peer) {
  peer.sent = Clock::now();
  port_.TrySend(MessageOf(kRequests[peer.kind].type, peer.id), peer.control);
}

void Exchanges::OnDatagram(const wire::Datagram& datagram) {
  const auto peer = std::find_if(peers_.begin(), peers_.end(),
                                 [&](const Peer& each) { return each.control == datagram.from; });
  if (peer == peers_.end()) return;
  try {
    const wire::Message message = wire::Decode(datagram.bytes, datagram.from, datagram.time);
    if (message.type != "ack") {
      port_.TrySend(MessageOf("ack", nextId_++, {{"ack_msg_id", message.id}}), message.from);
      OnAnswer(*peer, message);
    } else if (!peer->idle && !peer->acknowledged &&
               wire::NumberAt(message.body, "ack_msg_id") == peer->id) {
      peer->acknowledged = true;
      ackTimes.Add(message.time - peer->begun);
      EndIfComplete(*peer);
    }
  } catch (const wire::BadMessage& error) {
    if (complaint.empty()) complaint = datagram.from.ToText() + ": " + error.what();
  }
}

void Exchanges::OnAnswer(Peer& peer, const wire::Message& message) {
  if (message.id == peer.lastAnswer) return;
  peer.lastAnswer = message.id;
  const Request& request = kRequests[peer.kind];
  if (message.type != (peer.tuner ? request.tunersAnswer : request.othersAnswer)) return;
  if (peer.idle || peer.answered) return;
  peer.answered = true;
  answerTimes.Add(message.time - peer.begun);
  EndIfComplete(peer);
}

void Exchanges::EndIfComplete(Peer& peer) {
  if (!peer.acknowledged || !peer.answered) return;
  ++peer.complete;
  ++complete;
  Begin(peer);
}

void Exchanges::Repeat() {
  const auto now = Clock::now();
  for (Peer& peer : peers_) {
    if (peer.idle) continue;
    if (now - peer.begun > kGiveUp) {
      ++(peer.acknowledged ? lost : unacknowledged);
      Begin(peer);
    } else if (peer.acknowledged && now - peer.sent > kAskAgain) {
      ++askedAgain;
      peer.acknowledged = false;
      peer.id = nextId_++;
      Transmit(peer);
    } else if (!peer.acknowledged && now - peer.sent > wire::kAckTimeout) {
      ++repeats;
      Transmit(peer);
    }
  }
  timer_.At(now + kPace);
}

Flood::Flood(Kind kind, uint64_t seed, std::vector<Endpoint> targets)
    : kind_(kind),
      targets_(std::move(targets)),
      random_(seed),
      largest_(RandomBytes(kLargestDatagram)),
      port_(loop_, {}, nullptr),
      thread_([this] { Run(); }) {}

void Flood::Stop() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

void Flood::Run() {
  while (!stop_) {
    if (paused_ || targets_.empty()) {
      loop_.RunFor(kPace);
    } else if (kind_ == Kind::Control) {
      NextControl();
    } else {
      NextRtp();
    }
  }
}

void Flood::Send(const Bytes& bytes, const Endpoint& to) {
  port_.TrySend(bytes, to);
  ++sent_;
}

Bytes Flood::RandomBytes(size_t size) {
  Bytes bytes(size);
  for (uint8_t& byte : bytes)
    byte = static_cast<uint8_t>(random_());
  return bytes;
}

void Flood::NextControl() {
  const auto now = Clock::now();
  const Endpoint& to = targets_[Below(targets_.size())];
  const uint32_t id = nextId_++;
  if (now - lastRequest_ > kRequestPause) {
    lastRequest_ = now;
    Send(MessageOf("get_dev_info", id), to);
    return;
  }
  switch (Below(8)) {
    case 0:
      Send(RandomBytes(1 + Below(200)), to);
      return;
    case 1:
      // Around the largest numbers of 32 bits, as attachments and as everything that counts them.
      Send(MessageOf("get_dev_info", id, {{"att", (1ULL << 32) - 2 + Below(4)}}), to);
      return;
    case 2:
      SendHalfAnAssembly(to);
      return;
    case 3:
      if (Below(16) != 0) return;  // each costs as much as fifty others
      largest_[Below(largest_.size())] = static_cast<uint8_t>(id);
      Send(largest_, to);
      return;
    default:
      Send(BrokenJson(), to);
  }
}

// A message or not, with some bytes changed, doubled or cut off.
Bytes Flood::BrokenJson() {
  static const std::string kTexts[] = {
      R"({"msg":"state","msg_id":1,"device_freq":1e400,"input_freq":[[[]]]})",
      R"({"msg":"error","msg_id":2,"code":1,"err_msg_id":1,"txt":"\ud800"})",
      R"({"msg":"ack","msg_id":4294967295,"ack_msg_id":-1})",
      R"({"msg":"attach","msg_id":3,"leader_id":3,"seg_number":-1,"seg_count":0,"att":1})",
      std::string(1000, '['),
      R"({"msg":{"msg":{"msg":{"msg":[1,2,3,{"msg":"ack"}]}}},"msg_id":"x"})",
      "",
  };
  const std::string& text = kTexts[Below(std::size(kTexts))];
  Bytes bytes(text.begin(), text.end());
  bytes.push_back(0);
  for (uint64_t changes = 1 + Below(4); changes > 0 && !bytes.empty(); --changes) {
    const size_t at = Below(bytes.size());
    switch (Below(3)) {
      case 0:
        bytes[at] = static_cast<uint8_t>(Below(256));
        break;
      case 1:
        bytes.resize(at);
        break;
      default: {
        const Bytes front(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
        bytes.insert(bytes.end(), front.begin(), front.end());
      }
    }
  }
  return bytes;
}

// Mostly a head with a few segments, sometimes nearly a whole mebibyte; never the last segment.
// The message that comes next is lost with it. 15 times in 16 that is one of this flood, which
// nobody answers; the other times it is somebody else's. Were it always somebody else's, an honest
// peer would lose every second request, and ten in a row once in a thousand times.
void Flood::SendHalfAnAssembly(const Endpoint& to) {
  const uint64_t segments = Below(1000) == 0 ? 800 : 2 + Below(3);
  const uint32_t leader = nextId_++;
  Send(MessageOf("get_state", leader, {{"att", segments * wire::kSegmentBytes}}), to);
  const Bytes attachment(wire::kSegmentBytes, 0x55);
  for (uint64_t number = 0; number + 1 < segments; ++number) {
    Send(MessageOf("attach", nextId_++,
                   {{"att", attachment.size()},
                    {"leader_id", leader},
                    {"seg_count", segments},
                    {"seg_number", number}},
                   attachment),
         to);
  }
  if (Below(16) == 0) return;
  Send(MessageOf("error", nextId_++, {{"code", 0}, {"err_msg_id", leader}, {"txt", "half"}}), to);
}

void Flood::NextRtp() {
  const Endpoint& to = targets_[Below(targets_.size())];
  static const wire::Frames kSilence(wire::kPacketFrames);
  wire::StreamHeader header;
  header.sequence = static_cast<uint16_t>(Below(65536));
  switch (Below(4)) {
    case 0:
      header.timestamp = static_cast<uint32_t>(Below(1ULL << 32));
      header.payloadType = static_cast<uint8_t>(100 + Below(2));
      Send(wire::EncodePacket(header, kSilence), to);
      return;
    case 1:
      for (int i = 0; i < 4; ++i) {
        ++header.sequence;
        header.timestamp = header.sequence * wire::kPacketFrames;
        Send(wire::EncodePacket(header, kSilence), to);
      }
      return;
    default: {
      Bytes bytes = RandomBytes(wire::kHeaderBytes);
      bytes.resize(Below(2000));
      Send(bytes, to);
    }
  }
}

}  // namespace ctl
