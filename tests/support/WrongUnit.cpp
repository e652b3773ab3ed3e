#include "support/WrongUnit.h"

#include <algorithm>

#include "support/WireAudio.h"

namespace wire {

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr auto kRepeat = milliseconds(50);
constexpr auto kPacket = milliseconds(4);

Endpoint ToEndpoint(const std::string& text) {
  const size_t colon = text.find(':');
  return {text.substr(0, colon), static_cast<uint16_t>(std::stoi(text.substr(colon + 1)))};
}

}  // namespace

WrongUnit::WrongUnit(const std::string& address, Fault fault) : fault_(fault) {
  control_ = std::make_unique<Socket>(Endpoint{address, 0},
                                      [this](const Datagram& datagram) { OnControl(datagram); });
  repeater_ = std::thread([this] { Repeat(); });
  streamer_ = std::thread([this] { Stream(); });
}

WrongUnit::~WrongUnit() {
  stop_ = true;
  repeater_.join();
  streamer_.join();
  control_.reset();
}

void WrongUnit::OnControl(const Datagram& datagram) {
  const auto end = std::find(datagram.bytes.begin(), datagram.bytes.end(), uint8_t{0});
  const Json msg = Json::Parse(std::string(datagram.bytes.begin(), end));
  const std::string type = msg["msg"].string;
  const int64_t id = msg["msg_id"].integer;
  std::lock_guard lock(mutex_);
  if (type == "ack") {
    if (fault_ != Fault::RepeatsWithoutEnd) repeated_.erase(msg["ack_msg_id"].integer);
    return;
  }
  Acknowledge(id, datagram.from);
  if (id == lastReceived_) return;
  lastReceived_ = id;

  const auto carried = static_cast<int64_t>(datagram.bytes.end() - end) - 1;
  if (type == "attach") {
    if (msg["seg_number"].integer + 1 == msg["seg_count"].integer) Answer(held_, datagram.from);
  } else if (msg.Has("att") && carried < msg["att"].integer) {
    held_ = msg;
  } else {
    Answer(msg, datagram.from);
  }
}

void WrongUnit::Acknowledge(int64_t id, const Endpoint& to) {
  if (fault_ == Fault::NeverAcknowledges) return;
  if (fault_ == Fault::AcknowledgesLate) {
    lateAcks_.push_back({id, to, Clock::now() + milliseconds(200)});
    return;
  }
  if (fault_ == Fault::AcknowledgesWrongId) id += 1000;
  control_->Send(MakeDatagram("{\"ack_msg_id\":" + std::to_string(id) +
                              ",\"msg\":\"ack\",\"msg_id\":" + std::to_string(nextId_++) + "}"),
                 to);
}

void WrongUnit::Answer(const Json& request, const Endpoint& to) {
  const std::string type = request["msg"].string;
  if (type == "get_dev_info" || type == "dev_find") {
    SendMsg("dev_info",
            R"("audio_protocol":1,"control_protocol":1,"firmware":1,"hardware":1,"inputs":1,)"
            R"("outputs":1,"rtp_port":)" +
                std::to_string(Control().port + 2) +
                R"(,"software":1,"unit_id":"wrong","unit_type":"QZ610")",
            to);
  } else if (type == "get_inputs") {
    SendMsg("inputs", "\"inputs\":[" + Quoted(destination_) + "]", to);
  } else if (type == "set_inputs" && request.Has("inputs")) {
    const std::vector<std::string> inputs = request["inputs"].Strings();
    if (inputs.size() == 1 && !inputs[0].empty()) {
      destination_ = inputs[0] == "off" ? "" : inputs[0];
    }
  } else if (type == "get_fm_freq" || type == "set_fm_freq" || type == "get_fm_quality") {
    const int64_t id = request["msg_id"].integer + (fault_ == Fault::RefersToWrongId ? 1000 : 0);
    SendMsg("error",
            "\"code\":1,\"err_msg_id\":" + std::to_string(id) + ",\"txt\":\"Not supported\"", to);
  }
}

void WrongUnit::SendMsg(const std::string& type, const std::string& members, const Endpoint& to) {
  const int64_t id = nextId_++;
  const std::string text =
      "{" + members + ",\"msg\":" + Quoted(type) + ",\"msg_id\":" + std::to_string(id) + "}";
  const int more = fault_ == Fault::RepeatsWithoutEnd ? 1'000'000 : 4;
  repeated_[id] = {text, to, Clock::now() + kRepeat, more};
  control_->Send(MakeDatagram(text), to);
}

void WrongUnit::Repeat() {
  while (!stop_) {
    std::this_thread::sleep_for(milliseconds(1));
    std::lock_guard lock(mutex_);
    const Clock::time_point now = Clock::now();
    for (auto& [id, repeated] : repeated_) {
      if (repeated.left == 0 || now < repeated.due) continue;
      --repeated.left;
      repeated.due += kRepeat;
      control_->Send(MakeDatagram(repeated.text), repeated.to);
    }
    for (const LateAck& ack : lateAcks_) {
      if (now < ack.due) continue;
      control_->Send(MakeDatagram("{\"ack_msg_id\":" + std::to_string(ack.id) +
                                  ",\"msg\":\"ack\",\"msg_id\":" + std::to_string(nextId_++) + "}"),
                     ack.to);
    }
    std::erase_if(lateAcks_, [&](const LateAck& ack) { return now >= ack.due; });
  }
}

void WrongUnit::Stream() {
  uint16_t sequence = 0;
  uint32_t timestamp = 0;
  const uint8_t type = fault_ == Fault::WrongPayloadType ? uint8_t{96 << 1} : kType48000;
  for (auto due = Clock::now(); !stop_; due += kPacket) {
    std::this_thread::sleep_until(due);
    std::lock_guard lock(mutex_);
    const bool dropped = fault_ == Fault::DropsEveryTenth && sequence % 10 == 0;
    if (!destination_.empty() && !dropped) {
      control_->Send(MakeAudioDatagram(sequence, timestamp, type, Bytes(kPayloadSize)),
                     ToEndpoint(destination_));
    }
    ++sequence;
    timestamp += kFrames;
  }
}

}  // namespace wire
