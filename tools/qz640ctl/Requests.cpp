// The commands that ask one thing: find, info, inputs, set-inputs, freq, fm, fm-quality.
#include <charconv>

#include "Commands.h"
#include "platform/socket.h"
#include "platform/startup.h"
#include "platform/text.h"

namespace ctl {

using namespace Network;

namespace {

Fields ToFields(const Unit& unit) {
  return Fields()
      .Add("unit_id", unit.Id())
      .Add("unit_type", unit.Type())
      .Add("control", unit.Control())
      .Add("rtp_port", unit.rtpPort)
      .Add("inputs", unit.inputs)
      .Add("outputs", unit.outputs);
}

std::vector<std::string> ToRow(const Unit& unit) {
  return {unit.Id(),
          unit.Type(),
          unit.Control(),
          std::to_string(unit.rtpPort),
          std::to_string(unit.inputs),
          std::to_string(unit.outputs)};
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

std::string Destination(const NetAddr& addr) {
  return addr.IsDefined() ? ToText(addr) : "off";
}

void PrintInputs(const std::vector<NetAddr>& inputs, Output& out) {
  std::vector<std::vector<std::string>> rows{{"INPUT", "DESTINATION"}};
  for (size_t i = 0; i < inputs.size(); ++i) {
    out.Object(Fields().Add("input", i).Add("destination", Destination(inputs[i])));
    rows.push_back({std::to_string(i), Destination(inputs[i])});
  }
  out.Line(inputs.empty() ? "the unit has no inputs" : FormatTable(rows));
}

std::vector<NetAddr> AskInputs(UnitLink& link) {
  return link.Ask<JsonMsgInputs>(std::make_shared<JsonMsgGetInputs>())->inputs;
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
  throw Failure{kUsage, "\"" + change + "\": give a frequency other than 0, as in 2=98700"};
}

}  // namespace

std::vector<NetAddr> CommonOptions::DiscoverAt() const {
  if (to.empty()) return Discovery::AllInterfaces();
  std::vector<NetAddr> addrs;
  for (const std::string& text : to)
    addrs.push_back(ParseAddr(text, kDiscoveryPort));
  return addrs;
}

Unit FindUnit(const std::string& name, const CommonOptions& common) {
  return FindUnit(name, common.DiscoverAt(), common.timeoutMs);
}

NetAddr LocalFor(const Unit& unit, const CommonOptions& common) {
  NetAddr addr;
  if (!common.local.empty()) {
    addr.SetFromTextAndPort(ParseAddr(common.local, 0).ToText(), 0);
  } else {
    // Connecting a datagram socket sends nothing; the system only looks up the way to the unit.
    platform::Socket sock;
    platform::SocketAddress local;
    if (sock.OpenUdp().Ok() && sock.Connect(unit.control.Raw()).Ok() &&
        sock.LocalAddress(&local).Ok()) {
      addr.SetFromTextAndPort(NetAddr(local).ToText(), 0);
    }
  }
  if (!addr.IsDefined()) {
    throw Failure{kNoPort, "no interface of this machine faces " + unit.Control() +
                               "; name one with --local ADDR"};
  }
  return addr;
}

void CheckInput(const Unit& unit, uint32_t input) {
  if (input < unit.inputs) return;
  throw Failure{kUsage, unit.Id() + " (" + unit.Type() + ") has " + std::to_string(unit.inputs) +
                            " input(s), counted from 0; there is no input " +
                            std::to_string(input)};
}

void CheckOutput(const Unit& unit, uint32_t output) {
  if (output < unit.outputs) return;
  throw Failure{kUsage, unit.Id() + " (" + unit.Type() + ") has " + std::to_string(unit.outputs) +
                            " output(s), counted from 0; there is no output " +
                            std::to_string(output)};
}

void CheckStop() {
  if (platform::WaitForStop(0)) throw Failure{kRefused, "stopped before it was done"};
}

InputLoan::InputLoan(UnitLink& link, const Unit& unit, uint32_t input, const NetAddr& to)
    : link_(link), unit_(unit), input_(input) {
  const std::vector<NetAddr> inputs = AskInputs(link_);
  if (input < inputs.size()) former_ = inputs[input];
  try {
    Set(to);
  } catch (const Failure&) {
    // The request may have arrived though its acknowledgement didn't.
    TryReturn();
    throw;
  }
}

InputLoan::~InputLoan() {
  TryReturn();
}

void InputLoan::TryReturn() {
  try {
    Return();
  } catch (const Failure&) {
    // The unit is gone; who wants to know calls Return.
  }
}

void InputLoan::Return() {
  if (!lent_) return;
  lent_ = false;
  Set(former_);
}

void InputLoan::Set(const NetAddr& to) {
  auto request = std::make_shared<JsonMsgSetInputs>();
  request->inputs.resize(unit_.inputs);
  request->inputs[input_].set = true;
  request->inputs[input_].addr = to;
  link_.Tell(request);
}

int RunFind(const CommonOptions& common, Output& out) {
  const std::vector<NetAddr> to = common.DiscoverAt();
  const std::vector<Unit> units = Discovery().Find(to, common.timeoutMs);
  if (units.empty()) {
    std::string places;
    for (const NetAddr& addr : to)
      places += (places.empty() ? "" : ", ") + ToText(addr);
    throw Failure{kNoAnswer, "no unit answered (asked at " + places +
                                 "); is one running, with \"AddrStr\" set to an address of this "
                                 "network? (qz640ctl doctor looks closer)"};
  }
  PrintUnits(units, out);
  return kDone;
}

int RunInfo(const std::string& name, const CommonOptions& common, Output& out) {
  const Unit unit = FindUnit(name, common);
  UnitLink link(unit.control, common.timeoutMs);
  const auto info = link.Ask<JsonMsgDevInfo>(std::make_shared<JsonMsgGetDevInfo>());
  Fields fields = ToFields(unit);
  std::vector<std::vector<std::string>> rows{{"id", unit.Id()},
                                             {"model", unit.Type()},
                                             {"control", unit.Control()},
                                             {"rtp port", std::to_string(info->rtp_port)},
                                             {"inputs", std::to_string(info->inputs)},
                                             {"outputs", std::to_string(info->outputs)}};
  const std::pair<const char*, uint32_t> versions[] = {
      {"hardware", info->hardware},
      {"firmware", info->firmware},
      {"software", info->software},
      {"audio_protocol", info->audio_protocol},
      {"control_protocol", info->control_protocol}};
  for (const auto& [key, value] : versions) {
    fields.Add(key, value);
    rows.push_back({key, std::to_string(value)});
  }
  out.Object(fields);
  out.Line(FormatTable(rows));
  return kDone;
}

int RunInputs(const std::string& name, const CommonOptions& common, Output& out) {
  const Unit unit = FindUnit(name, common);
  UnitLink link(unit.control, common.timeoutMs);
  PrintInputs(AskInputs(link), out);
  return kDone;
}

int RunSetInputs(const std::string& name, const std::vector<std::string>& changes,
                 const CommonOptions& common, Output& out) {
  const Unit unit = FindUnit(name, common);
  auto request = std::make_shared<JsonMsgSetInputs>();
  request->inputs.resize(unit.inputs);
  std::vector<std::pair<uint32_t, NetAddr>> expected;
  for (const std::string& change : changes) {
    const auto [index, value] = SplitChange(change);
    CheckInput(unit, index);
    NetAddr addr;
    if (value != "off") addr = ParseAddr(value, 0);
    if (addr.IsDefined() && addr.Port() == 0) {
      throw Failure{kUsage, "\"" + change + "\" has no port; it must read " +
                                std::to_string(index) + "=a.b.c.d:port"};
    }
    request->inputs[index].set = true;
    request->inputs[index].addr = addr;
    expected.emplace_back(index, addr);
  }
  UnitLink link(unit.control, common.timeoutMs);
  link.Tell(request);

  // The request has no answer of its own: what the unit has now shows whether it took it.
  const std::vector<NetAddr> inputs = AskInputs(link);
  PrintInputs(inputs, out);
  for (const auto& [index, addr] : expected) {
    if (index < inputs.size() && inputs[index] == addr) continue;
    throw Failure{kRefused, unit.Id() + " acknowledged the change of input " +
                                std::to_string(index) + " but didn't take it"};
  }
  return kDone;
}

int RunFreq(const std::string& name, uint32_t freq, const CommonOptions& common, Output& out) {
  const Unit unit = FindUnit(name, common);
  UnitLink link(unit.control, common.timeoutMs);
  auto request = std::make_shared<JsonMsgSetState>();
  request->device_freq = freq;
  link.Tell(request);
  out.Object(Fields().Add("unit_id", unit.Id()).Add("device_freq", freq));
  out.Line(unit.Id() + " acknowledged " + std::to_string(freq) +
           " Hz. A change switches all its inputs off; set them again.");
  return kDone;
}

int RunFm(const std::string& name, const std::vector<std::string>& changes,
          const CommonOptions& common, Output& out) {
  const Unit unit = FindUnit(name, common);
  UnitLink link(unit.control, common.timeoutMs);
  const auto ask = [&] {
    return link.Ask<JsonMsgFmFreq>(std::make_shared<JsonMsgGetFmFreq>())->freq;
  };
  std::vector<int32_t> freqs = ask();
  if (!changes.empty()) {
    auto request = std::make_shared<JsonMsgSetFmFreq>();
    request->freq.assign(freqs.size(), 0);  // 0 leaves a tuner as it is
    for (const std::string& change : changes) {
      const auto [index, value] = SplitChange(change);
      if (index >= freqs.size()) {
        throw Failure{kUsage, unit.Id() + " has " + std::to_string(freqs.size()) +
                                  " tuner(s), counted from 0; there is no tuner " +
                                  std::to_string(index)};
      }
      request->freq[index] = ParseFreq(change, value);
    }
    link.Tell(request);
    freqs = ask();
  }
  PrintFreqs(freqs, out);
  return kDone;
}

int RunFmQuality(const std::string& name, const CommonOptions& common, Output& out) {
  const Unit unit = FindUnit(name, common);
  UnitLink link(unit.control, common.timeoutMs);
  const auto quality = link.Ask<JsonMsgFmQuality>(std::make_shared<JsonMsgGetFmQuality>());
  const auto at = [](const std::vector<int32_t>& values, size_t i) {
    return i < values.size() ? values[i] : 0;
  };
  std::vector<std::vector<std::string>> rows{{"TUNER", "RSSI", "SNR", "MULTIPATH", "PILOT"}};
  for (size_t i = 0; i < quality->rssi.size(); ++i) {
    const std::pair<const char*, int32_t> values[] = {{"rssi", quality->rssi[i]},
                                                      {"snr", at(quality->snr, i)},
                                                      {"multipath", at(quality->multipath, i)},
                                                      {"pilot", at(quality->pilot, i)}};
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
