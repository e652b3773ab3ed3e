#include "StreamStats.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace ctl {

namespace {

constexpr size_t kHeaderBytes = 12;
constexpr size_t kFrameBytes = 6;  // two channels of three bytes

// A number this far from the highest one isn't loss or lateness: the sender started anew.
constexpr int64_t kJump = 1000;

double Magnitude(const uint8_t* sample) {
  const uint32_t bits =
      (uint32_t{sample[0]} << 24) | (uint32_t{sample[1]} << 16) | (uint32_t{sample[2]} << 8);
  return std::fabs(static_cast<double>(static_cast<int32_t>(bits) >> 8) / 8388607.0);
}

}  // namespace

std::optional<int64_t> StreamStats::Add(const Network::RtpPacket& packet, int64_t arrival) {
  if (packet.GetSmplCount() == 0) {
    ++foreign;
    return std::nullopt;
  }
  const Network::RtpHeader header = packet.GetHeader();
  if (packets++ == 0) {
    highestSeq_ = header.SeqNumber;
    seen_.set(0);
    expected_ = distinct_ = 1;
    firstArrival_ = newestArrival_ = arrival;
    newestTimestamp_ = header.Timestamp;
  }
  lastArrival_ = arrival;
  MeasureLevel(packet);
  if (packets == 1) return 0;

  const int64_t before = highestPlace_;
  const int64_t place = PlaceOf(header.SeqNumber);
  if (highestPlace_ > before) MeasureJitter(header, arrival);
  return place;
}

int64_t StreamStats::PlaceOf(uint16_t seq) {
  const auto step = static_cast<int16_t>(static_cast<uint16_t>(seq - highestSeq_));
  if (step > kJump || step < -kJump) {
    // Goes on behind the highest, so that the gap isn't taken for loss.
    ++jumps;
    seen_.reset();
    Advance(seq, 1);
  } else if (step > 0) {
    Advance(seq, step);
  } else {
    const int64_t place = highestPlace_ + step;
    if (place < 0) {
      ++late;  // from before the first: nobody expected it
    } else if (seen_.test(static_cast<size_t>(place) % kWindow)) {
      ++duplicates;
    } else {
      ++late;
      ++distinct_;
      seen_.set(static_cast<size_t>(place) % kWindow);
    }
    return place;
  }
  return highestPlace_;
}

void StreamStats::Advance(uint16_t seq, int64_t step) {
  for (int64_t i = 1; i <= step; ++i) {
    seen_.reset(static_cast<size_t>(highestPlace_ + i) % kWindow);
  }
  highestSeq_ = seq;
  highestPlace_ += step;
  expected_ += static_cast<uint64_t>(step);
  ++distinct_;
  seen_.set(static_cast<size_t>(highestPlace_) % kWindow);
}

double StreamStats::Rate() const {
  if (packets < 2 || lastArrival_ == firstArrival_) return 0;
  return static_cast<double>(packets - 1) * 1e7 / static_cast<double>(lastArrival_ - firstArrival_);
}

double StreamStats::TakeRate() {
  // From arrival to arrival: counted by the clock of who asks, a packet more or less would show.
  const double rate = packetsTaken_ == 0 ? Rate()
                      : lastArrival_ == arrivalTaken_
                          ? 0
                          : static_cast<double>(packets - packetsTaken_) * 1e7 /
                                static_cast<double>(lastArrival_ - arrivalTaken_);
  packetsTaken_ = packets;
  arrivalTaken_ = lastArrival_;
  return rate;
}

double StreamStats::TakePeak(int channel) {
  return std::exchange(peak_[channel & 1], 0.0);
}

void StreamStats::MeasureLevel(const Network::RtpPacket& packet) {
  const uint8_t* frame = packet.GetPayload();
  const size_t frames = (packet.GetPacket()->Size() - kHeaderBytes) / kFrameBytes;
  for (size_t i = 0; i < frames; ++i, frame += kFrameBytes) {
    peak_[0] = std::max(peak_[0], Magnitude(frame));
    peak_[1] = std::max(peak_[1], Magnitude(frame + 3));
  }
}

void StreamStats::MeasureJitter(const Network::RtpHeader& header, int64_t arrival) {
  const double due = static_cast<int32_t>(header.Timestamp - newestTimestamp_) * 1e7 /
                     FreqOfPayloadType(header.PayloadType());
  const double deviation = std::fabs(static_cast<double>(arrival - newestArrival_) - due);
  jitterTicks_ += (deviation - jitterTicks_) / 16.0;
  newestTimestamp_ = header.Timestamp;
  newestArrival_ = arrival;
}

}  // namespace ctl
