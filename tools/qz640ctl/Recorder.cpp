#include "Recorder.h"

#include <utility>

namespace ctl {

void Recorder::Put(int64_t place, wire::Frames frames) {
  if (place >= next_) waiting_.emplace(place, std::move(frames));
}

wire::Frames Recorder::Take(bool all) {
  wire::Frames out;
  while (!waiting_.empty()) {
    const auto first = waiting_.begin();
    const int64_t highest = waiting_.rbegin()->first;
    if (first->first != next_) {
      if (!all && highest - next_ < kPatience) break;
      out.insert(out.end(), wire::kPacketFrames, wire::Frame());
    } else {
      out.insert(out.end(), first->second.begin(), first->second.end());
      waiting_.erase(first);
    }
    ++next_;
  }
  return out;
}

}  // namespace ctl
