// Any text as a script of faults. What is taken in keeps its bounds and is taken in again, as the
// same, from its own text.
#include <algorithm>
#include <cmath>
#include <string_view>
#include <tuple>

#include "Harness.h"
#include "wire/Fault.h"

using fuzz::Require;
using wire::Fault;

namespace {

auto Parts(const Fault& fault) {
  return std::tie(fault.text, fault.unit, fault.after, fault.subject, fault.message, fault.stream,
                  fault.effect, fault.delay, fault.code, fault.ppm, fault.times, fault.percent,
                  fault.length, fault.period);
}

void RequireBounds(const Fault& fault) {
  using Subject = Fault::Subject;
  using Effect = Fault::Effect;
  constexpr wire::Clock::duration zero{};
  constexpr auto year = std::chrono::hours(365 * 24);
  for (const auto time : {fault.after, fault.delay, fault.length, fault.period})
    Require(time >= zero && time <= year, "a time is from 0 to a year");
  Require(fault.period == zero || (zero < fault.length && fault.length < fault.period),
          "what comes again ends before");
  Require(fault.percent >= 0 && fault.percent <= 100 && fault.times != 0U, "shares and counts");
  Require(std::fabs(fault.ppm) <= 100'000, "a drift that a stream can have");
  const bool stream = fault.subject == Subject::Input || fault.subject == Subject::Output;
  Require(stream || !fault.stream, "streams alone have numbers");
  Require(stream || (fault.effect != Effect::Silent && fault.effect != Effect::Drift),
          "what streams alone can do");
  Require((fault.effect == Effect::Reboot || fault.effect == Effect::Gone) ==
              (fault.subject == Subject::Unit),
          "what units alone can do");
  Require(fault.effect != Effect::Reboot || fault.length > zero, "a reboot ends");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view script(reinterpret_cast<const char*>(data), size);
  try {
    const std::vector<Fault> faults = wire::ParseFaultScript(script);
    const auto lines = std::count(script.begin(), script.end(), '\n') + 1;
    Require(faults.size() <= static_cast<size_t>(lines), "a fault a line at most");
    for (const Fault& fault : faults) {
      RequireBounds(fault);
      Require(Parts(wire::ParseFault(fault.text)) == Parts(fault), "its text is the same fault");
    }
  } catch (const wire::BadFault& error) {
    Require(std::string_view(error.what()).starts_with("line "), "it is said where");
  }
  return 0;
}
