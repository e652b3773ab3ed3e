#include "Recorder.h"

#include "Streams.h"

namespace ctl {

void Recorder::Put(int64_t place, std::vector<Frame> frames) {
  if (place >= next_) waiting_.emplace(place, std::move(frames));
}

std::vector<Frame> Recorder::Take(bool all) {
  std::vector<Frame> out;
  while (!waiting_.empty()) {
    const auto first = waiting_.begin();
    const int64_t highest = waiting_.rbegin()->first;
    if (first->first != next_) {
      if (!all && highest - next_ < kPatience) break;
      out.insert(out.end(), kPacketFrames, Frame());
    } else {
      out.insert(out.end(), first->second.begin(), first->second.end());
      waiting_.erase(first);
    }
    ++next_;
  }
  return out;
}

}  // namespace ctl
