// Makes sense of datagrams that others send each other: which are control messages, how they were
// acknowledged, and how streams run. Plain arithmetic on what was captured; one thread.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <tuple>

#include "CaptureFile.h"
#include "wire/Message.h"
#include "wire/StreamStats.h"

namespace ctl {

// One control message and what became of it. Times in nanoseconds since 1970.
struct TracedMessage {
  enum class Fate {
    Acknowledged,
    NotAcknowledged,
    NeedsNone,  // a discovery's question
    Bad         // a unit would drop it
  };

  CapturedDatagram datagram;  // the first of its transmissions
  std::string type;           // of a bad one what could be read; may be empty
  uint32_t id = 0;
  wire::Json body;        // empty of a bad one
  int transmissions = 1;  // how often it came until it was settled
  Fate fate = Fate::NotAcknowledged;
  int64_t acknowledgedAfter = 0;
  std::string why;  // of a bad one
};

// A second of a stream.
struct TracedStream {
  wire::Endpoint from;
  wire::Endpoint to;
  int64_t time = 0;      // of its first packet
  uint32_t freq = 0;     // Hz
  uint64_t packets = 0;  // in this second, as are the next three
  uint64_t lost = 0;
  uint64_t outOfOrder = 0;
  uint64_t doubled = 0;
  double jitterMs = 0;
  double peak[2] = {0, 0};  // 1.0 is full scale
};

class Tracer {
 public:
  // Longer than a sender goes on repeating: 5 transmissions 50 ms apart.
  static constexpr int64_t kSettled = 500'000'000;

  std::function<void(const TracedMessage&)> onMessage;  // once each, when its fate is known
  std::function<void(const TracedStream&)> onStream;

  // In the order of their times.
  void Take(const CapturedDatagram& datagram);

  // Settles what has had its time by then; at the end by INT64_MAX.
  void Settle(int64_t now);

 private:
  static constexpr size_t kMostStreams = 4096;
  static constexpr size_t kMostPending = 65536;

  using Key = std::tuple<wire::Endpoint, wire::Endpoint, uint32_t>;  // from, to, number

  struct Stream {
    wire::StreamStats stats;
    TracedStream second;
    uint64_t lostBefore = 0;
    uint64_t outOfOrderBefore = 0;
    uint64_t doubledBefore = 0;
  };

  void TakeMessage(const CapturedDatagram& datagram);
  void TakePacket(const CapturedDatagram& datagram);
  void EndSecond(Stream& stream);

  int64_t nextSettle_ = 0;
  std::map<Key, TracedMessage> pending_;
  std::map<std::pair<wire::Endpoint, wire::Endpoint>, Stream> streams_;
};

// "12:04:05.250123", UTC.
std::string TimeText(int64_t nanoseconds);

}  // namespace ctl
