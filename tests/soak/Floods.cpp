#include "soak/Floods.h"

#include <algorithm>
#include <utility>

#include "support/WireAudio.h"
#include "support/WireController.h"

namespace soak {

namespace {

constexpr size_t kLargestDatagram = 65507;  // UDP over IPv4, RFC 768 and RFC 791
constexpr size_t kSegment = 1300;
constexpr auto kRequestPause = std::chrono::seconds(1);
constexpr auto kPauseLook = std::chrono::milliseconds(20);

std::string Message(const std::string& type, uint32_t id, const std::string& members) {
  return R"({"msg":")" + type + R"(","msg_id":)" + std::to_string(id) + members + "}";
}

}  // namespace

Flood::Flood(const std::string& address, uint64_t seed)
    : random_(seed), socket_({address, 0}, [](const wire::Datagram&) {}) {}

void Flood::Start() {
  thread_ = std::thread([this] {
    while (!stop_) {
      if (paused_) {
        std::this_thread::sleep_for(kPauseLook);
      } else {
        sent_ += Next();
      }
    }
  });
}

void Flood::Stop() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

wire::Bytes Flood::RandomBytes(size_t size) {
  wire::Bytes bytes(size);
  for (uint8_t& byte : bytes)
    byte = static_cast<uint8_t>(random_());
  return bytes;
}

ControlFlood::ControlFlood(const std::string& address, uint64_t seed,
                           std::vector<wire::Endpoint> controls, wire::Endpoint discovery)
    : Flood(address, seed),
      controls_(std::move(controls)),
      discovery_(std::move(discovery)),
      largest_(RandomBytes(kLargestDatagram)) {}

uint64_t ControlFlood::Next() {
  const wire::Clock::time_point now = wire::Clock::now();
  const uint64_t place = Below(controls_.size() + 1);
  const wire::Endpoint& to = place < controls_.size() ? controls_[place] : discovery_;
  const uint32_t id = nextId_++;
  if (now - lastRequest_ > kRequestPause) {
    lastRequest_ = now;
    Send(wire::MakeDatagram(Message("get_dev_info", id, "")), to);
    return 1;
  }
  switch (Below(8)) {
    case 0:
      Send(RandomBytes(1 + Below(200)), to);
      return 1;
    case 1: {
      // Around the largest numbers of 32 bits, as attachments and as everything that counts them.
      const std::string size = std::to_string((1ULL << 32) - 2 + Below(4));
      Send(wire::MakeDatagram(Message("get_dev_info", id, R"(,"att":)" + size)), to);
      return 1;
    }
    case 2:
      return SendHalfAnAssembly(to);
    case 3:
      if (Below(16) != 0) return 0;  // each costs as much as fifty others
      largest_[Below(largest_.size())] = static_cast<uint8_t>(id);
      Send(largest_, to);
      return 1;
    default:
      Send(BrokenJson(), to);
      return 1;
  }
}

// A message or not, with some bytes changed, doubled or cut off.
wire::Bytes ControlFlood::BrokenJson() {
  static const std::string kTexts[] = {
      Message("state", 1, R"(,"device_freq":1e400,"input_freq":[[[]]])"),
      Message("set_inputs", 2, R"(,"inputs":["\ud800","127.0.0.1:99999",{}])"),
      Message("ack", 4294967295U, R"(,"ack_msg_id":-1)"),
      Message("attach", 3, R"(,"leader_id":3,"seg_number":-1,"seg_count":0,"att":1)"),
      std::string(1000, '['),
      R"({"msg":{"msg":{"msg":{"msg":[1,2,3,{"msg":"ack"}]}}},"msg_id":"x"})",
      "",
  };
  wire::Bytes bytes = wire::MakeDatagram(kTexts[Below(std::size(kTexts))]);
  for (uint64_t changes = 1 + Below(4); changes > 0 && !bytes.empty(); --changes) {
    const size_t at = Below(bytes.size());
    switch (Below(3)) {
      case 0:
        bytes[at] = static_cast<uint8_t>(Below(256));
        break;
      case 1:
        bytes.resize(at);
        break;
      default:
        bytes.insert(bytes.end(), bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(at));
    }
  }
  return bytes;
}

// Mostly a head with a few segments, sometimes nearly a whole mebibyte; never the last segment.
uint64_t ControlFlood::SendHalfAnAssembly(const wire::Endpoint& to) {
  const uint64_t segments = Below(1000) == 0 ? 800 : 2 + Below(3);
  const uint32_t leader = nextId_++;
  Send(wire::MakeDatagram(
           Message("state", leader, R"(,"att":)" + std::to_string(segments * kSegment))),
       to);
  static const wire::Bytes attachment(kSegment, 0x55);
  for (uint64_t number = 0; number + 1 < segments; ++number) {
    Send(wire::MakeDatagram(
             Message("attach", nextId_++,
                     R"(,"att":)" + std::to_string(kSegment) + R"(,"leader_id":)" +
                         std::to_string(leader) + R"(,"seg_count":)" + std::to_string(segments) +
                         R"(,"seg_number":)" + std::to_string(number)),
             attachment),
         to);
  }
  return segments;
}

RtpFlood::RtpFlood(const std::string& address, uint64_t seed, std::vector<wire::Endpoint> outputs)
    : Flood(address, seed), outputs_(std::move(outputs)) {}

uint64_t RtpFlood::Next() {
  turn_ = (turn_ + 1) % outputs_.size();
  const wire::Endpoint& to = outputs_[turn_];
  static const wire::Bytes silence(wire::kPayloadSize);
  switch (Below(4)) {
    case 0:
      Send(wire::MakeAudioDatagram(static_cast<uint16_t>(Below(65536)),
                                   static_cast<uint32_t>(Below(1ULL << 32)),
                                   Below(2) ? wire::kType48000 : wire::kType44100, silence),
           to);
      return 1;
    case 1:
      for (int i = 0; i < 4; ++i) {
        ++sequence_;
        Send(wire::MakeAudioDatagram(sequence_, sequence_ * 192U, wire::kType48000, silence), to);
      }
      return 4;
    default: {
      wire::Bytes bytes = RandomBytes(12);
      bytes.resize(Below(2000));
      Send(bytes, to);
      return 1;
    }
  }
}

}  // namespace soak
