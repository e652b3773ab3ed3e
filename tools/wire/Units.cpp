#include "wire/Units.h"

#include <algorithm>
#include <map>

namespace wire {

std::string ToText(const Destination& destination) {
  return destination ? destination->ToText() : "off";
}

Endpoint Unit::Output(uint32_t output) const {
  return {control.address, static_cast<uint16_t>(rtpPort + 2 * output)};
}

// All ten keys are required. A port that can't be, or streams that no port is left for, would
// otherwise send somebody's audio to a port of someone else.
Unit ToUnit(const Message& devInfo) {
  const Json& body = devInfo.body;
  Unit unit;
  unit.control = devInfo.from;
  unit.id = TextAt(body, "unit_id");
  unit.type = TextAt(body, "unit_type");
  unit.hardware = NumberAt(body, "hardware");
  unit.firmware = NumberAt(body, "firmware");
  unit.software = NumberAt(body, "software");
  unit.audioProtocol = NumberAt(body, "audio_protocol");
  unit.controlProtocol = NumberAt(body, "control_protocol");
  const uint32_t rtpPort = NumberAt(body, "rtp_port");
  unit.inputs = NumberAt(body, "inputs");
  unit.outputs = NumberAt(body, "outputs");
  if (rtpPort > 65535 || uint64_t{unit.inputs} + unit.outputs > 32768 ||
      rtpPort + 2 * uint64_t{unit.outputs} > 65535 + 2) {
    throw BadMessage("no unit has RTP port " + std::to_string(rtpPort) + " with " +
                     std::to_string(unit.inputs) + " inputs and " + std::to_string(unit.outputs) +
                     " outputs");
  }
  unit.rtpPort = static_cast<uint16_t>(rtpPort);
  return unit;
}

Json ToMembers(const std::vector<InputChange>& changes) {
  Json inputs = Json::array();
  for (const InputChange& change : changes) {
    inputs.push_back(change.set ? ToText(change.to) : "");
  }
  if (inputs.empty()) return Json::object();
  return Json::object({{"inputs", inputs}});
}

std::vector<Destination> ToDestinations(const Message& inputs) {
  std::vector<Destination> all;
  for (const Json& element : ArrayAt(inputs.body, "inputs")) {
    const std::string text = element.is_string() ? element.get<std::string>() : element.dump();
    const auto parsed = Endpoint::Parse(text);
    if (!parsed && !(element.is_string() && text.empty())) {
      throw BadMessage("\"inputs\" holds " + element.dump() + ", which is no address");
    }
    all.push_back(parsed);
  }
  return all;
}

Message UnitControl::Ask(const char* request, const char* answer) {
  return link_.Ask(control_, request, answer, Json::object(), {}, limit_);
}

Unit UnitControl::GetDevInfo() {
  return ToUnit(Ask("get_dev_info", "dev_info"));
}

std::vector<Destination> UnitControl::GetInputs() {
  return ToDestinations(Ask("get_inputs", "inputs"));
}

void UnitControl::SetInputs(const std::vector<InputChange>& changes) {
  link_.Tell(control_, "set_inputs", ToMembers(changes));
}

void UnitControl::GetState() {
  link_.Tell(control_, "get_state");
}

void UnitControl::SetState(uint32_t deviceFreq) {
  link_.Tell(control_, "set_state", {{"device_freq", deviceFreq}});
}

std::vector<int32_t> UnitControl::GetFmFreq() {
  return NumbersAt(Ask("get_fm_freq", "fm_freq").body, "freq");
}

// A wrong count is refused after the acknowledgement: who cares asks what the unit has then.
void UnitControl::SetFmFreq(const std::vector<int32_t>& freqs) {
  link_.Tell(control_, "set_fm_freq",
             freqs.empty() ? Json::object() : Json::object({{"freq", freqs}}));
}

FmQuality UnitControl::GetFmQuality() {
  const Json body = Ask("get_fm_quality", "fm_quality").body;
  return {NumbersAt(body, "rssi"), NumbersAt(body, "snr"), NumbersAt(body, "multipath"),
          NumbersAt(body, "pilot")};
}

std::vector<Unit> Discover(Link& link, Loop& loop, const std::vector<Endpoint>& to,
                           Clock::duration limit, Clock::duration round,
                           DiscoveryTrouble* trouble) {
  DiscoveryTrouble unasked;
  if (!trouble) trouble = &unasked;
  const size_t complaints = link.Complaints().size();
  std::map<Endpoint, Unit> found;
  const auto take = [&](const Message& message) {
    if (message.type != "dev_info") return false;
    try {
      found.emplace(message.from, ToUnit(message));
    } catch (const BadMessage& error) {
      trouble->leftOut.insert(message.from.ToText() + ": " + error.what());
    }
    return true;
  };
  const auto end = Clock::now() + limit;
  size_t before = 0;
  do {
    before = found.size();
    for (const Endpoint& endpoint : to) {
      try {
        link.Send(endpoint, "dev_find");
      } catch (const SocketError& error) {  // the others are asked all the same
        trouble->unsent.insert(error.what());
      }
    }
    loop.RunFor(std::min(round, limit));
    while (link.TakeIf(take, {})) {
    }
  } while ((found.empty() || found.size() > before) && Clock::now() < end);
  const auto& all = link.Complaints();
  for (size_t i = std::min(complaints, all.size()); i < all.size(); ++i)
    trouble->leftOut.insert(all[i]);
  std::vector<Unit> units;
  for (auto& [control, unit] : found)
    units.push_back(std::move(unit));
  return units;
}

}  // namespace wire
