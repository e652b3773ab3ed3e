// The pace of a stream on a machine that may stand still for some of it.
#pragma once

#include <algorithm>
#include <chrono>
#include <vector>

// Events a second, of the middle one of all spans of 100 events: a wrong pace shows in each span, a
// hold-up in those alone that begin or end in it. Takes more than 100 times, in their order.
template <typename Time>
double MiddleRate(const std::vector<Time>& times) {
  std::vector<typename Time::duration> spans;
  for (size_t i = 100; i < times.size(); ++i)
    spans.push_back(times[i] - times[i - 100]);
  const auto middle = spans.begin() + static_cast<std::ptrdiff_t>(spans.size() / 2);
  std::nth_element(spans.begin(), middle, spans.end());
  return 100 / std::chrono::duration<double>(*middle).count();
}
