#include "Tracer.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "wire/Explain.h"

namespace ctl {

using wire::Clock;
using wire::Json;
using wire::StreamPacket;

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kSettlePause = 50'000'000;

StreamPacket ToPacket(const CapturedDatagram& datagram) {
  return {datagram.payload, datagram.from,
          Clock::time_point(std::chrono::duration_cast<Clock::duration>(
              std::chrono::nanoseconds(datagram.time)))};
}

// A stream's packet and a message can't be taken for each other: a message begins with a brace, or
// with white space before one.
bool LooksLikeMessage(const wire::Bytes& bytes) {
  const auto first = std::find_if(bytes.begin(), bytes.end(), [](uint8_t byte) {
    return byte != ' ' && byte != '\t' && byte != '\r' && byte != '\n';
  });
  return first != bytes.end() && *first == '{';
}

bool LooksLikeStream(const StreamPacket& packet) {
  const size_t count = packet.FrameCount();
  return count > 0 && packet.Header().first == 2 &&
         packet.bytes.size() == wire::kHeaderBytes + count * wire::kFrameBytes;
}

}  // namespace

void Tracer::Take(const CapturedDatagram& datagram) {
  Settle(datagram.time);
  if (LooksLikeMessage(datagram.payload)) {
    TakeMessage(datagram);
  } else if (LooksLikeStream(ToPacket(datagram))) {
    TakePacket(datagram);
  }
}

void Tracer::TakeMessage(const CapturedDatagram& datagram) {
  const wire::Explanation explanation = wire::Explain(datagram.payload);
  TracedMessage message;
  message.datagram = datagram;
  message.type = explanation.name;
  message.id = explanation.id.value_or(0);
  try {
    if (!explanation.refused.empty()) throw wire::BadMessage(explanation.refused.front());
    message.body = wire::Decode(datagram.payload).body;
  } catch (const wire::BadMessage& error) {
    message.fate = TracedMessage::Fate::Bad;
    message.why = error.what();
    onMessage(message);
    return;
  }
  if (message.type == "ack") {
    // From the address that the message went to. A broadcast is answered from another address.
    const uint32_t id = wire::NumberAt(message.body, "ack_msg_id");
    const auto found = pending_.find({datagram.to, datagram.from, id});
    if (found == pending_.end() || found->second.fate == TracedMessage::Fate::Acknowledged) return;
    found->second.fate = TracedMessage::Fate::Acknowledged;
    found->second.acknowledgedAfter = datagram.time - found->second.datagram.time;
    return;
  }
  if (message.type == "dev_find") {
    message.fate = TracedMessage::Fate::NeedsNone;
    onMessage(message);
    return;
  }
  const auto [at, isNew] = pending_.try_emplace({datagram.from, datagram.to, message.id}, message);
  if (!isNew) ++at->second.transmissions;
  if (pending_.size() > kMostPending) Settle(INT64_MAX);
}

// A message stays for a while after its acknowledgement too: that may get lost on its way, and then
// the message comes again.
void Tracer::Settle(int64_t now) {
  // Looking at all that waits is for now and then.
  if (now < nextSettle_ && now > nextSettle_ - kSecond) return;
  nextSettle_ = now == INT64_MAX ? 0 : now + kSettlePause;
  std::vector<TracedMessage> settled;
  for (auto at = pending_.begin(); at != pending_.end();) {
    const bool due = now == INT64_MAX || at->second.datagram.time + kSettled <= now;
    if (due) settled.push_back(std::move(at->second));
    at = due ? pending_.erase(at) : std::next(at);
  }
  std::sort(settled.begin(), settled.end(), [](const TracedMessage& a, const TracedMessage& b) {
    return a.datagram.time < b.datagram.time;
  });
  for (const TracedMessage& message : settled)
    onMessage(message);
  for (auto at = streams_.begin(); at != streams_.end();) {
    const TracedStream& second = at->second.second;
    const bool over = now == INT64_MAX || now - second.time >= kSecond;
    if (over && second.packets > 0) EndSecond(at->second);
    const bool gone = now == INT64_MAX || now - second.time >= 10 * kSecond;
    at = gone ? streams_.erase(at) : std::next(at);
  }
}

void Tracer::TakePacket(const CapturedDatagram& datagram) {
  const std::pair key(datagram.from, datagram.to);
  if (streams_.size() >= kMostStreams && !streams_.contains(key)) return;
  Stream& stream = streams_[key];
  const bool over = datagram.time - stream.second.time >= kSecond;
  if (over && stream.second.packets > 0) EndSecond(stream);
  if (stream.second.packets++ == 0) {
    stream.second.from = datagram.from;
    stream.second.to = datagram.to;
    stream.second.time = datagram.time;
  }
  const StreamPacket packet = ToPacket(datagram);
  stream.stats.Add(packet);
  stream.second.freq = wire::SampleFreqOf(packet.Header().payloadType);
}

void Tracer::EndSecond(Stream& stream) {
  TracedStream& second = stream.second;
  // A late packet takes back a loss of the second before.
  const uint64_t lost = stream.stats.Lost();
  second.lost = lost - std::min(lost, std::exchange(stream.lostBefore, lost));
  second.outOfOrder =
      stream.stats.outOfOrder - std::exchange(stream.outOfOrderBefore, stream.stats.outOfOrder);
  second.doubled =
      stream.stats.duplicates - std::exchange(stream.doubledBefore, stream.stats.duplicates);
  second.jitterMs = stream.stats.JitterMs();
  for (const int channel : {0, 1})
    second.peak[channel] = stream.stats.TakePeak(channel);
  onStream(second);
  second.packets = 0;
}

std::string TimeText(int64_t nanoseconds) {
  const int64_t microseconds = nanoseconds / 1000 % (INT64_C(86'400) * 1'000'000);
  const auto digits = [](int64_t number, size_t count) {
    const std::string text = std::to_string(number);
    return std::string(count - std::min(count, text.size()), '0') + text;
  };
  const int64_t seconds = microseconds / 1'000'000;
  return digits(seconds / 3600, 2) + ":" + digits(seconds / 60 % 60, 2) + ":" +
         digits(seconds % 60, 2) + "." + digits(microseconds % 1'000'000, 6);
}

}  // namespace ctl
