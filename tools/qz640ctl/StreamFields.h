// What programs learn of a stream.
#pragma once

#include "Output.h"
#include "wire/StreamStats.h"

namespace ctl {

inline void AddStats(Fields& fields, const wire::StreamStats& stats) {
  fields.Add("packets", stats.packets)
      .Add("jitter_ms", stats.JitterMs())
      .Add("lost", stats.Lost())
      .Add("late", stats.late)
      .Add("duplicates", stats.duplicates);
}

}  // namespace ctl
