// Puts the packets of a stream in order: what comes late within a short wait finds its place, what
// never comes is silence. No lock, no clock.
#pragma once

#include <cstdint>
#include <map>

#include "wire/Audio.h"

namespace ctl {

class Recorder {
 public:
  // How many packets a gap is kept open for late ones (32 packets are about 130 ms).
  static constexpr int64_t kPatience = 32;

  // A packet's frames, with its place in the stream counted from 0. One from before the beginning
  // or whose place is written already is dropped.
  void Put(int64_t place, wire::Frames frames);

  // The frames that are in order by now; with `all`, everything, gaps as silence.
  wire::Frames Take(bool all);

 private:
  int64_t next_ = 0;  // place of the next packet to give out
  std::map<int64_t, wire::Frames> waiting_;
};

}  // namespace ctl
