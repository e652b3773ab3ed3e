// What a unit is to do wrong, as people write it: "ack of set_inputs: lost 3 times". Plain values.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "wire/Endpoint.h"

namespace wire {

// A text that is no fault. Says what in it isn't understood, and what would be.
struct BadFault : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Fault {
  enum class Subject {
    Message,  // datagrams with a message of that name
    Ack,      // acknowledgements of such
    Input,    // packets from an input on their way to where it goes
    Output,   // packets on their way to an output
    Unit
  };
  enum class Effect {
    Lost,
    Doubled,
    Late,
    Jitter,
    Damaged,
    Silent,   // packets of a stream whose samples are all 0
    Drift,    // a stream by a clock of its own
    Error,    // a request isn't carried out, but answered with "error"
    Ignored,  // a request is acknowledged and not carried out
    Reboot,   // a unit is gone for a while and has forgotten what it was asked for
    Gone      // a unit is gone
  };

  std::string text;         // as it was written
  std::string unit;         // id; empty: every unit
  Clock::duration after{};  // from when it was given to when it begins
  Subject subject = Subject::Unit;
  std::string message;             // of Message and Ack; empty: every one
  std::optional<uint32_t> stream;  // of Input and Output, from 0; none: every one
  Effect effect = Effect::Lost;

  Clock::duration delay{};  // of Late; of Jitter the longest
  uint32_t code = 0;        // of Error
  double ppm = 0;           // of Drift: how much faster than the unit

  // What it is limited to.
  std::optional<uint64_t> times;  // datagrams
  double percent = 100;           // of the datagrams
  Clock::duration length{};       // from its begin; 0: for good
  Clock::duration period{};       // begins again each time that this is over; 0: never
};

// "300ms", "1.5s", "2min" or "1h"; nothing for any other text. Throws BadFault beyond a year.
std::optional<Clock::duration> ParseTime(std::string_view word);

// Throws BadFault.
Fault ParseFault(std::string_view text);

// One fault a line; empty lines and those that begin with # are none. Throws BadFault with the
// line's number.
std::vector<Fault> ParseFaultScript(std::string_view script);

// The language, for people: some lines without an end of line at the last.
std::string_view FaultHelp();

}  // namespace wire
