// Any bytes as a capture: frames and datagrams come from what the file has, and what `trace` makes
// of them counts each once.
#include <memory>
#include <sstream>
#include <string>

#include "CaptureFile.h"
#include "ExitStatus.h"
#include "Harness.h"
#include "Tracer.h"

using fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  size_t bytes = 0;
  uint64_t datagrams = 0, told = 0;
  ctl::Tracer tracer;
  tracer.onMessage = [&](const ctl::TracedMessage& message) {
    Require(message.transmissions > 0, "a message was sent");
    told += static_cast<uint64_t>(message.transmissions);
  };
  tracer.onStream = [&](const ctl::TracedStream& stream) {
    Require(stream.packets > 0 && stream.doubled + stream.outOfOrder <= stream.packets,
            "only packets are doubled or out of order");
    for (const double peak : stream.peak)
      Require(peak >= 0 && peak < 1.000001, "no sample is above full scale");
    told += stream.packets;
  };
  try {
    ctl::CaptureReader reader("capture", std::make_unique<std::istringstream>(std::string(
                                             reinterpret_cast<const char*>(data), size)));
    while (const auto frame = reader.Next()) {
      bytes += frame->bytes.size();
      Require(bytes <= size, "no frame out of nothing");
      Require(ctl::TimeText(frame->time).size() == 15, "a time of day");
      const auto datagram = ctl::ToDatagram(*frame);
      if (!datagram) continue;
      Require(datagram->payload.size() < frame->bytes.size(), "a datagram has headers");
      ++datagrams;
      tracer.Take(*datagram);
    }
  } catch (const ctl::Failure& failure) {
    Require(failure.status == ctl::kUsage && !failure.text.empty(), "a break has a word on it");
  }
  tracer.Settle(INT64_MAX);
  Require(told <= datagrams, "nothing is counted twice");
  return 0;
}
