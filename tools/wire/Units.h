// Units as a controller meets them: discovery, and every request with its answer.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "wire/Link.h"
#include "wire/Models.h"

namespace wire {

// What a unit says of itself in "dev_info", and where it listens for control messages.
struct Unit {
  Endpoint control;
  std::string id;    // UTF-8
  std::string type;  // model name, UTF-8
  uint32_t hardware = 0;
  uint32_t firmware = 0;
  uint32_t software = 0;
  uint32_t audioProtocol = 0;
  uint32_t controlProtocol = 0;
  uint16_t rtpPort = 0;
  uint32_t inputs = 0;
  uint32_t outputs = 0;

  // Where RTP for that output goes.
  Endpoint Output(uint32_t output) const;
};

// Throws BadMessage for a "dev_info" that lacks something or can't be: ports beyond 65535.
Unit ToUnit(const Message& devInfo);

// Where an input's stream goes; nothing: the input is off.
using Destination = std::optional<Endpoint>;
std::string ToText(const Destination& destination);  // a.b.c.d:port, or "off"

// What "set_inputs" does with one input.
struct InputChange {
  bool set = false;  // false leaves it as it is
  Destination to;
};

// One element a tuner.
struct FmQuality {
  std::vector<int32_t> rssi;
  std::vector<int32_t> snr;
  std::vector<int32_t> multipath;
  std::vector<int32_t> pilot;
};

// The requests to one unit. Each runs the loop and throws what Link::Tell and Link::Ask throw, and
// BadMessage for an answer that isn't what it should be.
class UnitControl {
 public:
  UnitControl(Link& link, const Endpoint& control, Clock::duration limit = kAnswerTime)
      : link_(link), control_(control), limit_(limit) {}

  // Port and link are shared with whoever else uses the link.
  Link& Wire() { return link_; }
  const Endpoint& Control() const { return control_; }

  Unit GetDevInfo();
  std::vector<Destination> GetInputs();
  void SetInputs(const std::vector<InputChange>& changes);  // one a unit's input
  void GetState();                                          // has no answer
  void SetState(uint32_t deviceFreq);                       // Hz
  std::vector<int32_t> GetFmFreq();
  void SetFmFreq(const std::vector<int32_t>& freqs);  // one a tuner; 0 leaves it as it is
  FmQuality GetFmQuality();

 private:
  Message Ask(const char* request, const char* answer);

  Link& link_;
  Endpoint control_;
  Clock::duration limit_;
};

// The members of a "set_inputs", and the destinations of an "inputs".
Json ToMembers(const std::vector<InputChange>& changes);
std::vector<Destination> ToDestinations(const Message& inputs);

// What a discovery met beside units, in words for people.
struct DiscoveryTrouble {
  std::set<std::string> leftOut;  // answers that weren't understood: "10.0.0.7:8000: why"
  std::set<std::string> unsent;   // requests that the system didn't take
};

// Sends "dev_find" to every address, again until a round brings no new unit or `limit` is over.
// Sorted by control address. A unit that isn't understood is left out; `trouble`, which may be
// null, says of it.
std::vector<Unit> Discover(Link& link, Loop& loop, const std::vector<Endpoint>& to,
                           Clock::duration limit,
                           Clock::duration round = std::chrono::milliseconds(300),
                           DiscoveryTrouble* trouble = nullptr);

}  // namespace wire
