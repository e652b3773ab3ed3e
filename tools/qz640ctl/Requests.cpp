// The commands that ask one thing: find, info, inputs, set-inputs, freq, fm, fm-quality.
#include <charconv>

#include "Commands.h"
#include "Printable.h"

namespace ctl {

using wire::Destination;
using wire::Endpoint;
using wire::Unit;

namespace {

Fields ToFields(const Unit& unit) {
  return Fields()
      .Add("unit_id", unit.id)
      .Add("unit_type", unit.type)
      .Add("control", unit.control.ToText())
      .Add("rtp_port", unit.rtpPort)
      .Add("inputs", unit.inputs)
      .Add("outputs", unit.outputs);
}

std::vector<std::string> ToRow(const Unit& unit) {
  return {PrintableCell(unit.id),       PrintableCell(unit.type),    unit.control.ToText(),
          std::to_string(unit.rtpPort), std::to_string(unit.inputs), std::to_string(unit.outputs)};
}

void PrintUnits(const std::vector<Unit>& units, Output& out) {
  std::vector<std::vector<std::string>> rows{{"ID", "MODEL", "CONTROL", "RTP", "IN", "OUT"}};
  for (const Unit& unit : units) {
    out.Object(ToFields(unit));
    rows.push_back(ToRow(unit));
  }
  out.Line(FormatTable(rows));
}

// "2=text" into 2 and "text".
std::pair<uint32_t, std::string> SplitChange(const std::string& change) {
  const size_t equals = change.find('=');
  uint32_t index = 0;
  const char* end = change.data() + (equals == std::string::npos ? 0 : equals);
  const auto parsed = std::from_chars(change.data(), end, index);
  if (equals == std::string::npos || parsed.ec != std::errc() || parsed.ptr != end) {
    throw Failure{kUsage, "\"" + change +
                              "\" is no change; it must read NUMBER=VALUE, numbers "
                              "counted from 0"};
  }
  return {index, change.substr(equals + 1)};
}

[[noreturn]] void ThrowTwice(const char* what, uint32_t index) {
  throw Failure{kUsage, std::string(what) + " " + std::to_string(index) +
                            " is changed twice; give one change for each"};
}

void PrintInputs(const std::vector<Destination>& inputs, Output& out) {
  std::vector<std::vector<std::string>> rows{{"INPUT", "DESTINATION"}};
  for (size_t i = 0; i < inputs.size(); ++i) {
    out.Object(Fields().Add("input", i).Add("destination", ToText(inputs[i])));
    rows.push_back({std::to_string(i), ToText(inputs[i])});
  }
  out.Line(inputs.empty() ? "the unit has no inputs" : FormatTable(rows));
}

void PrintFreqs(const std::vector<int32_t>& freqs, Output& out) {
  std::vector<std::vector<std::string>> rows{{"TUNER", "FREQUENCY"}};
  for (size_t i = 0; i < freqs.size(); ++i) {
    out.Object(Fields().Add("tuner", i).Add("freq", freqs[i]));
    rows.push_back({std::to_string(i), std::to_string(freqs[i])});
  }
  out.Line(freqs.empty() ? "the unit has no tuners" : FormatTable(rows));
}

int32_t ParseFreq(const std::string& change, const std::string& text) {
  int32_t freq = 0;
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, freq);
  if (parsed.ec == std::errc() && parsed.ptr == end && freq != 0) return freq;
  throw Failure{kUsage, "\"" + change +
                            "\": give a whole number of at most 2147483647 that isn't 0, as in "
                            "2=98700"};
}

}  // namespace

int RunFind(Session& session, Output& out) {
  const std::vector<wire::Endpoint> to = session.DiscoverAt();
  const std::vector<Unit> units = session.Find(to, session.Timeout());
  if (units.empty()) throw session.NobodyAnswered(to);
  PrintUnits(units, out);
  return kDone;
}

int RunInfo(Session& session, const std::string& name, Output& out) {
  const Unit unit = session.FindUnit(name);
  const Unit info = session.Control(unit).GetDevInfo();
  Fields fields = ToFields(unit);
  std::vector<std::vector<std::string>> rows{{"id", Printable(unit.id)},
                                             {"model", Printable(unit.type)},
                                             {"control", unit.control.ToText()},
                                             {"rtp port", std::to_string(info.rtpPort)},
                                             {"inputs", std::to_string(info.inputs)},
                                             {"outputs", std::to_string(info.outputs)}};
  const std::pair<const char*, uint32_t> versions[] = {{"hardware", info.hardware},
                                                       {"firmware", info.firmware},
                                                       {"software", info.software},
                                                       {"audio_protocol", info.audioProtocol},
                                                       {"control_protocol", info.controlProtocol}};
  for (const auto& [key, value] : versions) {
    fields.Add(key, value);
    rows.push_back({key, std::to_string(value)});
  }
  out.Object(fields);
  out.Line(FormatTable(rows));
  return kDone;
}

int RunInputs(Session& session, const std::string& name, Output& out) {
  const Unit unit = session.FindUnit(name);
  PrintInputs(session.Control(unit).GetInputs(), out);
  return kDone;
}

int RunSetInputs(Session& session, const std::string& name, const std::vector<std::string>& changes,
                 Output& out) {
  const Unit unit = session.FindUnit(name);
  std::vector<wire::InputChange> request(unit.inputs);
  for (const std::string& change : changes) {
    const auto [index, value] = SplitChange(change);
    CheckInput(unit, index);
    Destination to;
    if (value != "off") {
      to = Endpoint::Parse(value);
      if (!to || to->port == 0 || to->address == 0xFFFFFFFF) {
        throw Failure{kUsage, "\"" + change + "\" " +
                                  (to && to->port == 0 ? "has no port" : "names no address") +
                                  "; it must read " + std::to_string(index) + "=a.b.c.d:port or " +
                                  std::to_string(index) + "=off"};
      }
    }
    if (request[index].set) ThrowTwice("input", index);
    request[index] = {true, to};
  }
  wire::UnitControl control = session.Control(unit);
  control.SetInputs(request);

  // The request has no answer of its own: what the unit has now shows whether it took it.
  const std::vector<Destination> inputs = control.GetInputs();
  PrintInputs(inputs, out);
  for (size_t i = 0; i < request.size(); ++i) {
    if (!request[i].set || (i < inputs.size() && inputs[i] == request[i].to)) continue;
    throw Failure{kRefused, unit.id + " acknowledged the change of input " + std::to_string(i) +
                                " but didn't take it"};
  }
  return kDone;
}

int RunFreq(Session& session, const std::string& name, uint32_t freq, Output& out) {
  const Unit unit = session.FindUnit(name);
  session.Control(unit).SetState(freq);
  out.Object(Fields().Add("unit_id", unit.id).Add("device_freq", freq));
  out.Line(Printable(unit.id) + " acknowledged " + std::to_string(freq) +
           " Hz. A change switches all its inputs off; set them again.");
  return kDone;
}

int RunFm(Session& session, const std::string& name, const std::vector<std::string>& changes,
          Output& out) {
  const Unit unit = session.FindUnit(name);
  wire::UnitControl control = session.Control(unit);
  std::vector<int32_t> freqs = control.GetFmFreq();
  if (!changes.empty()) {
    std::vector<int32_t> request(freqs.size(), 0);  // 0 leaves a tuner as it is
    for (const std::string& change : changes) {
      const auto [index, value] = SplitChange(change);
      if (index >= freqs.size()) {
        throw Failure{kUsage, unit.id + " has " + std::to_string(freqs.size()) +
                                  " tuner(s), counted from 0; there is no tuner " +
                                  std::to_string(index)};
      }
      if (request[index] != 0) ThrowTwice("tuner", index);
      request[index] = ParseFreq(change, value);
    }
    control.SetFmFreq(request);
    freqs = control.GetFmFreq();
  }
  PrintFreqs(freqs, out);
  return kDone;
}

int RunFmQuality(Session& session, const std::string& name, Output& out) {
  const Unit unit = session.FindUnit(name);
  const wire::FmQuality quality = session.Control(unit).GetFmQuality();
  const auto at = [](const std::vector<int32_t>& values, size_t i) {
    return i < values.size() ? values[i] : 0;
  };
  std::vector<std::vector<std::string>> rows{{"TUNER", "RSSI", "SNR", "MULTIPATH", "PILOT"}};
  for (size_t i = 0; i < quality.rssi.size(); ++i) {
    const std::pair<const char*, int32_t> values[] = {{"rssi", quality.rssi[i]},
                                                      {"snr", at(quality.snr, i)},
                                                      {"multipath", at(quality.multipath, i)},
                                                      {"pilot", at(quality.pilot, i)}};
    Fields fields;
    fields.Add("tuner", i);
    std::vector<std::string> row{std::to_string(i)};
    for (const auto& [key, value] : values) {
      fields.Add(key, value);
      row.push_back(std::to_string(value));
    }
    out.Object(fields);
    rows.push_back(row);
  }
  out.Line(FormatTable(rows));
  return kDone;
}

}  // namespace ctl
