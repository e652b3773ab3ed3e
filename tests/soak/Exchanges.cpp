#include "soak/Exchanges.h"

#include <algorithm>

#include "support/WireController.h"
#include "support/WireJson.h"

namespace soak {

namespace {

using wire::Clock;

constexpr auto kRepeatAfter = std::chrono::milliseconds(50);
constexpr auto kLook = std::chrono::milliseconds(5);
constexpr auto kGiveUp = std::chrono::seconds(10);
constexpr size_t kMaxComplaints = 5;

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

double Milliseconds(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

}  // namespace

void RoundTrips::Add(Clock::duration time) {
  const double ms = Milliseconds(time);
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

Exchanges::Exchanges(const std::string& address, const std::vector<Unit>& units)
    : socket_({address, 0}, [this](const wire::Datagram& datagram) { OnDatagram(datagram); }) {
  std::lock_guard lock(mutex_);
  for (const Unit& unit : units)
    peers_.push_back({.unit = unit, .begun = {}, .sent = {}});
  for (Peer& peer : peers_)
    Begin(peer);
  thread_ = std::thread([this] { RunRepeats(); });
}

Exchanges::~Exchanges() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

Exchanges::Result Exchanges::SoFar() const {
  std::lock_guard lock(mutex_);
  return result_;
}

RoundTrips Exchanges::AcknowledgementTimes() const {
  std::lock_guard lock(mutex_);
  return acks_;
}

RoundTrips Exchanges::AnswerTimes() const {
  std::lock_guard lock(mutex_);
  return answers_;
}

void Exchanges::Pause(bool yes) {
  std::lock_guard lock(mutex_);
  paused_ = yes;
  for (Peer& peer : peers_)
    if (!yes && peer.idle) Begin(peer);
}

double Exchanges::WaitAllAnswer(Clock::duration patience) {
  const Clock::time_point begun = Clock::now();
  std::unique_lock lock(mutex_);
  // The exchange on its way has begun earlier.
  std::vector<uint64_t> wanted;
  for (const Peer& peer : peers_)
    wanted.push_back(peer.complete + 2);
  changed_.wait_for(lock, patience, [&] {
    for (size_t i = 0; i < peers_.size(); ++i)
      if (peers_[i].complete < wanted[i]) return false;
    return true;
  });
  return Milliseconds(Clock::now() - begun);
}

void Exchanges::Begin(Peer& peer) {
  peer.idle = paused_;
  if (paused_) return;
  peer.kind = (peer.kind + 1) % std::size(kRequests);
  peer.id = nextId_++;
  peer.acknowledged = false;
  peer.answered = false;
  peer.begun = Clock::now();
  Transmit(peer);
}

void Exchanges::Transmit(Peer& peer) {
  peer.sent = Clock::now();
  socket_.Send(wire::MakeDatagram(std::string(R"({"msg":")") + kRequests[peer.kind].type +
                                  R"(","msg_id":)" + std::to_string(peer.id) + "}"),
               peer.unit.control);
}

void Exchanges::OnDatagram(const wire::Datagram& datagram) {
  std::lock_guard lock(mutex_);
  const auto peer = std::find_if(peers_.begin(), peers_.end(), [&](const Peer& each) {
    return each.unit.control == datagram.from;
  });
  if (peer == peers_.end()) return;
  try {
    const std::string text(datagram.bytes.begin(), datagram.bytes.end());
    const wire::Json message = wire::Json::Parse(text.substr(0, text.find('\0')));
    const auto id = static_cast<uint32_t>(message["msg_id"].integer);
    const std::string& type = message["msg"].string;
    if (type == "ack") {
      OnAck(*peer, static_cast<uint32_t>(message["ack_msg_id"].integer), datagram.time);
    } else {
      socket_.Send(
          wire::MakeDatagram(R"({"ack_msg_id":)" + std::to_string(id) +
                             R"(,"msg":"ack","msg_id":)" + std::to_string(nextId_++) + "}"),
          datagram.from);
      OnAnswer(*peer, type, id, datagram.time);
    }
  } catch (const std::runtime_error& error) {
    if (result_.complaints.size() < kMaxComplaints) result_.complaints.push_back(error.what());
  }
}

void Exchanges::OnAck(Peer& peer, uint32_t id, Clock::time_point time) {
  if (peer.idle || id != peer.id || peer.acknowledged) return;
  peer.acknowledged = true;
  acks_.Add(time - peer.begun);
  EndIfComplete(peer);
}

void Exchanges::OnAnswer(Peer& peer, const std::string& type, uint32_t id, Clock::time_point time) {
  if (id == peer.lastAnswer) return;
  peer.lastAnswer = id;
  const Request& request = kRequests[peer.kind];
  if (type != (peer.unit.tuner ? request.tunersAnswer : request.othersAnswer)) return;
  if (peer.idle || peer.answered) return;
  peer.answered = true;
  answers_.Add(time - peer.begun);
  EndIfComplete(peer);
}

void Exchanges::EndIfComplete(Peer& peer) {
  if (!peer.acknowledged || !peer.answered) return;
  ++peer.complete;
  ++result_.complete;
  changed_.notify_all();
  Begin(peer);
}

void Exchanges::Repeat() {
  const Clock::time_point now = Clock::now();
  for (Peer& peer : peers_) {
    if (peer.idle) continue;
    if (now - peer.begun > kGiveUp) {
      ++(peer.acknowledged ? result_.lost : result_.unacknowledged);
      Begin(peer);
    } else if (!peer.acknowledged && now - peer.sent > kRepeatAfter) {
      ++result_.repeats;
      Transmit(peer);
    }
  }
}

void Exchanges::RunRepeats() {
  std::unique_lock lock(mutex_);
  while (!changed_.wait_for(lock, kLook, [this] { return stop_; }))
    Repeat();
}

}  // namespace soak
