#include "LoopBack.h"

#include <map>
#include <set>
#include <utility>

namespace ctl {

using wire::Frames;

Frames Noise(uint64_t number) {
  uint64_t state = number * 0x9E3779B97F4A7C15 + 1;
  const auto next = [&state] {
    state = state * 6364136223846793005 + 1442695040888963407;
    return static_cast<int32_t>(static_cast<int64_t>(state >> 41) % wire::kFullScale) -
           (state & 1 ? 0 : 4194303);
  };
  Frames frames(wire::kPacketFrames);
  for (wire::Frame& frame : frames)
    frame = {next(), next()};
  return frames;
}

Returned SortNoise(const std::deque<wire::StreamPacket>& packets) {
  std::map<std::pair<int32_t, int32_t>, uint64_t> byFirst;  // its first frame names each packet
  for (uint64_t number = 0; number < kNoisePackets; ++number) {
    const wire::Frame first = Noise(number).front();
    byFirst[{first.left, first.right}] = number;
  }
  Returned returned;
  std::set<uint64_t> seen;
  for (const wire::StreamPacket& packet : packets) {
    const Frames frames = packet.Audio();
    if (frames == Frames(frames.size())) continue;
    const auto found = byFirst.find({frames.front().left, frames.front().right});
    if (found == byFirst.end() || frames != Noise(found->second)) {
      ++returned.altered;
      continue;
    }
    const bool inOrder = seen.empty() || found->second > *seen.rbegin();
    if (!seen.insert(found->second).second) {
      ++returned.repeated;
    } else {
      ++(inOrder ? returned.exact : returned.reordered);
    }
  }
  return returned;
}

}  // namespace ctl
