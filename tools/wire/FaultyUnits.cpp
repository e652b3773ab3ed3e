#include "wire/FaultyUnits.h"

#include <algorithm>
#include <utility>

#include "wire/LossyLink.h"

namespace wire {

namespace {

using std::chrono::milliseconds;
using Subject = Fault::Subject;
using Effect = Fault::Effect;

constexpr size_t kMostNames = 10'000;

// What a drifting stream holds back at first, so that it has something to gain on: at +50 ppm it
// lasts for 2000 s. After that a packet's audio comes twice now and then.
constexpr auto kDriftRoom = milliseconds(100);
constexpr size_t kMostWaiting = 50;  // packets; above, one is left out
constexpr auto kStreamEnd = milliseconds(500);

// What units have after a start.
constexpr uint32_t kFirstFreq = 48000;
constexpr int32_t kFirstTuning = 100500;

std::optional<Message> TryDecode(const Bytes& bytes) {
  try {
    return Decode(bytes);
  } catch (const BadMessage&) {
    return std::nullopt;
  }
}

std::optional<uint32_t> AcknowledgedBy(const std::optional<Message>& message) {
  if (!message || message->type != "ack") return std::nullopt;
  try {
    return NumberAt(message->body, "ack_msg_id");
  } catch (const BadMessage&) {
    return std::nullopt;
  }
}

// The element of a "set_inputs" as a place that a stream can go to.
Destination DestinationOf(const Json& element) {
  if (!element.is_string()) return std::nullopt;
  const auto endpoint = Endpoint::Parse(element.get<std::string>());
  if (!endpoint || endpoint->port == 0 || endpoint->address == 0xFFFFFFFF) return std::nullopt;
  return endpoint;
}

std::string ErrorText(uint32_t code) {
  return code == 1   ? "Not supported"
         : code == 2 ? "Number of channels mismatch"
                     : "Error " + std::to_string(code);
}

// Of a packet that is longer than its header.
void SetNumbers(Bytes& packet, uint16_t sequence, uint32_t timestamp) {
  for (size_t i = 0; i < 2; ++i)
    packet[2 + i] = static_cast<uint8_t>(sequence >> (8 - 8 * i) & 0xFF);
  for (size_t i = 0; i < 4; ++i)
    packet[4 + i] = static_cast<uint8_t>(timestamp >> (24 - 8 * i) & 0xFF);
}

}  // namespace

void CheckFaults(const std::vector<Fault>& faults, const std::vector<Unit>& units) {
  std::string ids;
  for (const Unit& unit : units)
    ids += (ids.empty() ? "" : ", ") + unit.id;
  for (const Fault& fault : faults) {
    bool isUnit = false;
    bool isStream = false;
    for (const Unit& unit : units) {
      if (!fault.unit.empty() && fault.unit != unit.id) continue;
      isUnit = true;
      const uint32_t count = fault.subject == Subject::Input    ? unit.inputs
                             : fault.subject == Subject::Output ? unit.outputs
                                                                : 1;
      isStream = isStream || fault.stream.value_or(0) < count;
    }
    const std::string text = "\"" + fault.text + "\" ";
    if (!isUnit) throw BadFault(text + "names a unit that isn't there; there are: " + ids);
    if (!isStream) throw BadFault(text + "names a stream that no unit has; they count from 0");
  }
}

void Agenda::At(Clock::time_point time, std::function<void()> action) {
  if (entries_.size() >= kMost) return;
  entries_.emplace(time, std::move(action));
  timer_.At(entries_.begin()->first);
}

void Agenda::Run() {
  while (!entries_.empty() && entries_.begin()->first <= Clock::now()) {
    const auto entry = entries_.extract(entries_.begin());
    entry.mapped()();
  }
  if (!entries_.empty()) timer_.At(entries_.begin()->first);
}

FaultyUnits::FaultyUnits(Loop& loop, FaultyUnitsInfo info)
    : loop_(loop),
      info_(std::move(info)),
      agenda_(loop),
      nextId_(static_cast<uint32_t>(std::mt19937_64(info_.seed)())),
      toUnits_(loop, {info_.local, 0},
               [this](const Datagram& datagram) {
                 if (const auto id = AcknowledgedBy(TryDecode(datagram.bytes))) own_.erase(*id);
               }),
      discovery_(loop, info_.discovery,
                 [this](const Datagram& datagram) { OnDiscovery(datagram); }) {
  for (const FaultyUnit& unit : info_.units)
    Open(unit);
  for (const Endpoint& broadcast : info_.broadcasts) {
    try {
      broadcasts_.push_back(std::make_unique<UdpPort>(
          loop_, broadcast, [this](const Datagram& datagram) { OnDiscovery(datagram); }, true));
    } catch (const SocketError&) {
      // `discovery_` hears them.
    }
  }
}

void FaultyUnits::Open(const FaultyUnit& unit) {
  const size_t number = places_.size();
  const uint32_t listen = info_.discovery.address;
  Place place;
  place.real = unit.real;
  place.shown = unit.shown;
  place.port =
      std::make_unique<UdpPort>(loop_, Endpoint(listen, unit.shown.control.port),
                                [this, number](const Datagram& d) { OnRequest(number, d); });
  for (uint32_t i = 0; i < unit.real.inputs; ++i)
    place.inputs.push_back(OpenStream(number, Subject::Input, i, {info_.local, 0}));
  for (uint32_t i = 0; i < unit.real.outputs; ++i) {
    place.outputs.push_back(
        OpenStream(number, Subject::Output, i, {listen, unit.shown.Output(i).port}));
    place.outputs.back()->to = unit.real.Output(i);
  }
  places_.push_back(std::move(place));
}

std::unique_ptr<FaultyUnits::Stream> FaultyUnits::OpenStream(size_t unit, Subject subject,
                                                             uint32_t index,
                                                             const Endpoint& local) {
  auto stream = std::make_unique<Stream>();
  stream->unit = unit;
  stream->subject = subject;
  stream->index = index;
  stream->port = std::make_unique<UdpPort>(
      loop_, local, [this, at = stream.get()](const Datagram& d) { OnPacket(*at, d); });
  return stream;
}

// One that no socket can be had for is cut off, as by a network that is full.
FaultyUnits::ControllerPtr FaultyUnits::ControllerAt(const Endpoint& address) {
  const auto found =
      std::find_if(controllers_.begin(), controllers_.end(),
                   [&](const ControllerPtr& controller) { return controller->address == address; });
  if (found != controllers_.end()) {
    (*found)->lastUse = ++uses_;
    return *found;
  }
  const auto controller = std::make_shared<Controller>();
  controller->address = address;
  controller->lastUse = ++uses_;
  try {
    controller->port = std::make_unique<UdpPort>(
        loop_, Endpoint(info_.local, 0),
        [this, weak = std::weak_ptr(controller)](const Datagram& datagram) {
          if (const auto alive = weak.lock()) OnAnswer(alive, datagram);
        });
  } catch (const SocketError&) {
    return nullptr;
  }
  if (controllers_.size() >= kMostControllers) {
    controllers_.erase(
        std::min_element(controllers_.begin(), controllers_.end(),
                         [](const auto& a, const auto& b) { return a->lastUse < b->lastUse; }));
  }
  controllers_.push_back(controller);
  return controller;
}

// -- Control messages --

// The units answer to the controller's port, each from its own address.
void FaultyUnits::OnDiscovery(const Datagram& datagram) {
  const ControllerPtr controller = ControllerAt(datagram.from);
  if (!controller) return;
  const auto message = TryDecode(datagram.bytes);
  What what;
  what.everyUnit = true;
  if (message) what.message = message->type;
  Deliver(Judge(what), datagram.bytes, [this, controller](const Bytes& bytes) {
    controller->port->TrySend(bytes, info_.realDiscovery);
  });
}

void FaultyUnits::OnRequest(size_t unit, const Datagram& datagram) {
  if (IsGone(unit)) return;
  const ControllerPtr controller = ControllerAt(datagram.from);
  if (!controller) return;
  const auto message = TryDecode(datagram.bytes);
  Remember(*controller, unit, Way::ToUnit, message);
  Place& place = places_[unit];
  // A repeat of what was answered here is acknowledged and neither counted nor passed, as a unit
  // would have it.
  if (message && message->type != "ack" && place.answeredHere == message->id) {
    AnswerHere(controller, unit, message->id, std::nullopt);
    return;
  }
  const Fate fate = Judge(WhatOf(*controller, unit, Way::ToUnit, message));
  const bool arrives = !fate.copies.empty();
  if (message && arrives && (fate.error || fate.ignored)) {
    place.answeredHere = message->id;
    Deliver(fate, {}, [this, controller, unit, id = message->id, error = fate.error](const Bytes&) {
      AnswerHere(controller, unit, id, error);
    });
    return;
  }
  Deliver(fate, datagram.bytes,
          [this, controller, unit](const Bytes& bytes) { ToUnit(*controller, unit, bytes); });
}

void FaultyUnits::ToUnit(Controller& controller, size_t unit, const Bytes& bytes) {
  const auto acknowledged = AcknowledgedBy(TryDecode(bytes));
  if (acknowledged && own_.erase(*acknowledged) > 0) return;  // the unit never said it
  controller.port->TrySend(TakeDestinations(unit, bytes), places_[unit].real.control);
}

void FaultyUnits::OnAnswer(const ControllerPtr& controller, const Datagram& datagram) {
  const auto place = std::find_if(places_.begin(), places_.end(), [&](const Place& candidate) {
    return candidate.real.control == datagram.from;
  });
  if (place == places_.end()) return;
  const auto unit = static_cast<size_t>(place - places_.begin());
  ToController(controller, unit, ShowOwn(unit, datagram.bytes));
}

void FaultyUnits::ToController(const ControllerPtr& controller, size_t unit, const Bytes& bytes) {
  if (IsGone(unit)) return;
  const auto message = TryDecode(bytes);
  Remember(*controller, unit, Way::ToController, message);
  Deliver(Judge(WhatOf(*controller, unit, Way::ToController, message)), bytes,
          [this, controller, unit](const Bytes& copy) {
            places_[unit].port->TrySend(copy, controller->address);
          });
}

void FaultyUnits::AnswerHere(const ControllerPtr& controller, size_t unit, uint32_t request,
                             std::optional<uint32_t> error) {
  ToController(controller, unit,
               Encode({{"msg", "ack"}, {"msg_id", nextId_++}, {"ack_msg_id", request}}));
  if (!error) return;
  Tell([this, controller, unit, request, code = *error](uint32_t id) {
    ToController(controller, unit,
                 Encode({{"msg", "error"},
                         {"msg_id", id},
                         {"code", code},
                         {"err_msg_id", request},
                         {"txt", ErrorText(code)}}));
  });
}

void FaultyUnits::Remember(Controller& controller, size_t unit, Way way,
                           const std::optional<Message>& message) {
  if (!message || message->type == "ack") return;
  const Controller::Key key(unit, way, message->id);
  if (!controller.names.insert_or_assign(key, message->type).second) return;
  controller.namesInOrder.push_back(key);
  if (controller.namesInOrder.size() <= kMostNames) return;
  controller.names.erase(controller.namesInOrder.front());
  controller.namesInOrder.pop_front();
}

FaultyUnits::What FaultyUnits::WhatOf(const Controller& controller, size_t unit, Way way,
                                      const std::optional<Message>& message) const {
  What what;
  what.unit = unit;
  if (!message) return what;
  if (message->type != "ack") {
    what.message = message->type;
    return what;
  }
  what.subject = Subject::Ack;
  const Way other = way == Way::ToUnit ? Way::ToController : Way::ToUnit;
  if (const auto id = AcknowledgedBy(message)) {
    const auto name = controller.names.find({unit, other, *id});
    if (name != controller.names.end()) what.message = name->second;
  }
  return what;
}

// Has the unit send its inputs here, and remembers where they really go. What the unit would refuse
// stays as it is, so that it does refuse it.
Bytes FaultyUnits::TakeDestinations(size_t unit, const Bytes& bytes) {
  auto message = TryDecode(bytes);
  if (!message || message->type != "set_inputs" || HasLowerCaseEscape(message->text)) return bytes;
  auto& streams = places_[unit].inputs;
  Json& inputs = message->body["inputs"];
  if (!inputs.is_array() || inputs.size() != streams.size()) return bytes;
  for (size_t i = 0; i < streams.size(); ++i) {
    const Destination to = DestinationOf(inputs[i]);
    if (!to) continue;
    streams[i]->to = to;
    inputs[i] = streams[i]->port->Local().ToText();
  }
  return Encode(message->body, message->attachment);
}

// The other way round: what a unit says of itself and its inputs, as controllers are to see it.
Bytes FaultyUnits::ShowOwn(size_t unit, const Bytes& bytes) const {
  auto message = TryDecode(bytes);
  const Place& place = places_[unit];
  if (message && message->type == "dev_info") {
    message->body["rtp_port"] = place.shown.rtpPort;
  } else if (message && message->type == "inputs" && message->body["inputs"].is_array()) {
    Json& inputs = message->body["inputs"];
    for (size_t i = 0; i < std::min(inputs.size(), place.inputs.size()); ++i) {
      const Stream& stream = *place.inputs[i];
      if (stream.to && inputs[i] == stream.port->Local().ToText()) inputs[i] = stream.to->ToText();
    }
  } else {
    return bytes;
  }
  return Encode(message->body, message->attachment);
}

// -- Streams --

void FaultyUnits::OnPacket(Stream& stream, const Datagram& datagram) {
  if (IsGone(stream.unit)) return;
  stream.lastCame = datagram.time;
  const StreamPacket packet{datagram.bytes, datagram.from, datagram.time};
  if (packet.FrameCount() == 0) {
    SendPacket(stream, datagram.bytes);
    return;
  }
  if (!stream.drifts && DriftOf(stream) != 0) BeginDrift(stream, packet.Header());
  if (!stream.drifts) {
    SendPacket(stream, datagram.bytes);
    return;
  }
  stream.waiting.push_back(datagram.bytes);
  if (stream.waiting.size() > kMostWaiting) stream.waiting.pop_front();
}

// From here on the stream keeps its own clock until it ends, also where the drift is taken back:
// its numbers have moved.
void FaultyUnits::BeginDrift(Stream& stream, const StreamHeader& header) {
  stream.drifts = true;
  stream.driftBegin = Clock::now() + kDriftRoom;
  stream.due = 0;
  stream.sequence = header.sequence;
  stream.timestamp = header.timestamp;
  GoOnDrifting(stream);
}

void FaultyUnits::GoOnDrifting(Stream& stream) {
  const std::chrono::duration<double, std::nano> due(stream.due);
  agenda_.At(stream.driftBegin + std::chrono::duration_cast<Clock::duration>(due),
             [this, &stream] { NextOfDrift(stream); });
}

void FaultyUnits::NextOfDrift(Stream& stream) {
  if (Clock::now() - stream.lastCame > kStreamEnd) {
    stream.drifts = false;
    stream.waiting.clear();
    return;
  }
  if (!stream.waiting.empty()) {
    stream.latest = std::move(stream.waiting.front());
    stream.waiting.pop_front();
  }
  SetNumbers(stream.latest, stream.sequence, stream.timestamp);
  const StreamPacket packet{stream.latest, {}, {}};
  const double freq = SampleFreqOf(packet.Header().payloadType) * (1 + DriftOf(stream) / 1e6);
  ++stream.sequence;
  stream.timestamp += kPacketFrames;
  stream.due += 1e9 * kPacketFrames / freq;
  SendPacket(stream, stream.latest);
  GoOnDrifting(stream);
}

void FaultyUnits::SendPacket(Stream& stream, const Bytes& bytes) {
  What what;
  what.unit = stream.unit;
  what.subject = stream.subject;
  what.stream = stream.index;
  const Fate fate = Judge(what);
  Bytes packet = bytes;
  if (fate.silent && packet.size() > kHeaderBytes) {
    std::fill(packet.begin() + kHeaderBytes, packet.end(), uint8_t{0});
  }
  Deliver(fate, std::move(packet), [&stream](const Bytes& copy) {
    if (stream.to) stream.port->TrySend(copy, *stream.to);
  });
}

// -- What is hit --

void FaultyUnits::SetFaults(const std::vector<Fault>& faults) {
  std::vector<Active> former = std::exchange(faults_, {});
  const auto now = Clock::now();
  for (const Fault& fault : faults) {
    const auto same = std::find_if(former.begin(), former.end(), [&](const Active& active) {
      return active.fault.text == fault.text;
    });
    if (same != former.end()) {
      faults_.push_back(std::move(*same));
      former.erase(same);
      continue;
    }
    std::seed_seq seed{info_.seed & 0xFFFFFFFF, info_.seed >> 32, ++faultsMade_};
    faults_.push_back({fault, now + fault.after, std::mt19937_64(seed)});
    if (fault.effect == Effect::Reboot) Reboot(fault.text, now + fault.after);
  }
}

bool FaultyUnits::Matches(const Fault& fault, const What& what) const {
  if (!fault.unit.empty() && (what.everyUnit || fault.unit != places_[what.unit].real.id)) {
    return false;
  }
  const bool isControl = what.subject == Subject::Message || what.subject == Subject::Ack;
  if (fault.subject == Subject::Message && fault.message.empty()) return isControl;
  if (fault.subject != what.subject) return false;
  return isControl ? fault.message.empty() || fault.message == what.message
                   : fault.stream.value_or(what.stream) == what.stream;
}

bool FaultyUnits::IsOn(const Active& active, Clock::time_point now) {
  if (now < active.begin) return false;
  const Fault& fault = active.fault;
  auto since = now - active.begin;
  if (fault.period != Clock::duration()) since %= fault.period;
  return fault.length == Clock::duration() || since < fault.length;
}

bool FaultyUnits::Hits(Active& active, Clock::time_point now) {
  constexpr uint64_t kMillion = 1'000'000;
  const Fault& fault = active.fault;
  if (!IsOn(active, now) || active.hits >= fault.times.value_or(UINT64_MAX)) return false;
  if (active.random() % kMillion >= static_cast<uint64_t>(fault.percent * (kMillion / 100))) {
    return false;
  }
  ++active.hits;
  return true;
}

// What is lost already takes nothing from the count of a fault further on.
FaultyUnits::Fate FaultyUnits::Judge(const What& what) {
  Fate fate;
  const auto now = Clock::now();
  for (Active& active : faults_) {
    const Fault& fault = active.fault;
    if (fate.copies.empty() || !Matches(fault, what) || !Hits(active, now)) continue;
    switch (fault.effect) {
      case Effect::Lost:
        fate.copies.clear();
        break;
      case Effect::Doubled:
        fate.copies.push_back(fate.copies.front());
        break;
      case Effect::Late:
        for (Clock::duration& copy : fate.copies)
          copy += fault.delay;
        break;
      case Effect::Jitter:
        for (Clock::duration& copy : fate.copies) {
          const auto most = static_cast<uint64_t>(fault.delay.count());
          copy += Clock::duration(static_cast<int64_t>(active.random() % (most + 1)));
        }
        break;
      case Effect::Damaged:
        fate.damage = active.random() | 1;
        break;
      case Effect::Silent:
        fate.silent = true;
        break;
      case Effect::Error:
        fate.error = fault.code;
        break;
      case Effect::Ignored:
        fate.ignored = true;
        break;
      case Effect::Drift:
      case Effect::Reboot:
      case Effect::Gone:
        break;  // not of single datagrams
    }
  }
  return fate;
}

bool FaultyUnits::IsGone(size_t unit) const {
  What what;
  what.unit = unit;
  what.subject = Subject::Unit;
  return std::any_of(faults_.begin(), faults_.end(), [&](const Active& active) {
    return Matches(active.fault, what) && IsOn(active, Clock::now());
  });
}

double FaultyUnits::DriftOf(const Stream& stream) const {
  What what;
  what.unit = stream.unit;
  what.subject = stream.subject;
  what.stream = stream.index;
  double ppm = 0;
  for (const Active& active : faults_) {
    const bool drifts = active.fault.effect == Effect::Drift && Matches(active.fault, what);
    if (drifts && IsOn(active, Clock::now())) ppm += active.fault.ppm;
  }
  return ppm;
}

void FaultyUnits::Deliver(const Fate& fate, Bytes bytes, std::function<void(const Bytes&)> send) {
  if (fate.damage != 0) Damage(fate.damage, bytes);
  for (const Clock::duration late : fate.copies) {
    if (late == Clock::duration()) {
      send(bytes);
    } else {
      agenda_.At(Clock::now() + late, [send, bytes] { send(bytes); });
    }
  }
}

// -- What this relay says to units and controllers --

// While a unit is gone it is brought into the state that it would come back with.
void FaultyUnits::Reboot(const std::string& text, Clock::time_point time) {
  agenda_.At(time, [this, text, time] {
    const auto active = std::find_if(faults_.begin(), faults_.end(), [&](const Active& candidate) {
      return candidate.fault.text == text && candidate.begin <= time;
    });
    if (active == faults_.end()) return;  // taken back
    What what;
    what.subject = Subject::Unit;
    for (what.unit = 0; what.unit < places_.size(); ++what.unit) {
      if (Matches(active->fault, what)) ForgetAll(what.unit);
    }
    const auto period = active->fault.period;
    if (period != Clock::duration()) Reboot(text, time + period);
  });
}

void FaultyUnits::ForgetAll(size_t unit) {
  const Unit& real = places_[unit].real;
  const auto tell = [&](const char* type, Json members) {
    members["msg"] = type;
    Tell([this, members, to = real.control](uint32_t id) mutable {
      members["msg_id"] = id;
      toUnits_.TrySend(Encode(members), to);
    });
  };
  tell("set_state", {{"device_freq", kFirstFreq}});
  if (real.inputs > 0)
    tell("set_inputs", {{"inputs", std::vector<std::string>(real.inputs, "off")}});
  const uint32_t tuners = FindModel(real.type).tuners;
  if (tuners > 0) tell("set_fm_freq", {{"freq", std::vector<int32_t>(tuners, kFirstTuning)}});
}

void FaultyUnits::Tell(std::function<void(uint32_t id)> send) {
  const uint32_t id = nextId_++;
  own_[id] = {0, std::move(send)};
  Repeat(id);
}

void FaultyUnits::Repeat(uint32_t id) {
  const auto own = own_.find(id);
  if (own == own_.end()) return;
  if (own->second.transmissions++ == kTransmissions) {
    own_.erase(own);
    return;
  }
  own->second.send(id);
  agenda_.At(Clock::now() + kAckTimeout, [this, id] { Repeat(id); });
}

}  // namespace wire
