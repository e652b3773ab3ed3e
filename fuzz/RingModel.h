// What the receive side of RtpManager has to do, written a second time and another way: a packet is
// kept under the number of the tick at which it comes out, so no ring is ever shifted. Holds the
// log lines and position reports that are due; the caller compares and clears them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

class RingModel {
 public:
  static constexpr int kNothing = -1;  // in place of a mark: no packet came out

  explicit RingModel(std::wstring name) : name_(std::move(name)) {}

  // New channels with empty rings; the position is kept.
  void Init(size_t channels, int64_t bufSize, int64_t bufPos) {
    channels_.assign(channels, {});
    bufSize_ = bufSize;
    bufPos_ = bufPos;
  }

  // `mark` stands for the packet.
  void Packet(size_t channel, uint16_t seqBits, uint32_t tsBits, int mark) {
    const int64_t oldNewest = newest_;
    const int64_t oldTs = ts_;
    const bool first = !anchored_;
    int64_t seq = seqBits;
    bool lost = true;
    if (!first) {
      seq = Nearest(newest_, seqBits, 1LL << 16);
      newest_ = seq > newest_ ? seq : newest_;
      const int64_t ts = Nearest(ts_, tsBits, 1LL << 32);
      ts_ = ts > ts_ ? ts : ts_;
      const bool ranDry = newest_ < Pos();
      const bool ranAhead = seq > Pos() + bufSize_ - 1;
      lost = ranDry || ranAhead;
      if (lost)
        lines.push_back(name_ + L": Stream ERROR. SeqNumPos=" + N(Pos()) + L", SeqNum=" +
                        N(newest_) + L", seq_num=" + N(seq) + L", old_seq_num=" + N(oldNewest) +
                        L", PosInBuf=" + N(seq - Pos()));
    }
    const bool moved = first || ts_ != oldTs;
    if (lost) {
      reports.push_back(-1);
      anchored_ = true;
      seq = newest_ = seqBits;
      ts_ = tsBits;
      origin_ = newest_ - bufPos_ - tick_;
      lines.push_back(name_ + L": Stream OK. SeqNumPos=" + N(Pos()) + L", SeqNum=" + N(newest_) +
                      L", PosInBuf=" + N(bufPos_));
    }
    const int64_t wait = seq - Pos();  // ticks before it comes out
    if (wait >= 0 && wait < bufSize_) channels_[channel].due[tick_ + wait] = mark;
    if (moved) reports.push_back(ts_);
  }

  // The marks that come out, one a channel.
  std::vector<int> Tick() {
    std::vector<int> out;
    for (size_t i = 0; i < channels_.size(); ++i) {
      Channel& channel = channels_[i];
      const auto found = channel.due.find(tick_);
      const bool ok = found != channel.due.end();
      out.push_back(ok ? found->second : kNothing);
      if (ok) channel.due.erase(found);
      if (ok != channel.ok)
        lines.push_back(name_ + L".Recv." + std::to_wstring(i) +
                        (ok ? L": Stream OK" : L": Stream ERROR"));
      channel.ok = ok;
    }
    ++tick_;
    return out;
  }

  std::vector<std::wstring> lines;
  std::vector<int64_t> reports;

 private:
  struct Channel {
    std::map<int64_t, int> due;  // mark by the tick at which it comes out
    bool ok = false;
  };

  // The number that is `bits` modulo `modulus` and lies from half of it below `last` to just less
  // than half of it above.
  static int64_t Nearest(int64_t last, int64_t bits, int64_t modulus) {
    const int64_t lowest = last - modulus / 2;
    const int64_t above = (bits - lowest) % modulus;
    return lowest + (above < 0 ? above + modulus : above);
  }

  static std::wstring N(int64_t number) { return std::to_wstring(number); }

  int64_t Pos() const { return origin_ + tick_; }

  const std::wstring name_;
  std::vector<Channel> channels_;
  int64_t bufSize_ = 9;
  int64_t bufPos_ = 5;
  bool anchored_ = false;
  int64_t tick_ = 0;    // ticks so far
  int64_t origin_ = 0;  // the sequence number of the first tick, as the stream counts now
  int64_t newest_ = 0;
  int64_t ts_ = 0;
};
