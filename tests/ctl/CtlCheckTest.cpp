// The conformance tour: right units pass, and each wrong one fails at the check that is meant for
// it.
#include <map>
#include <memory>

#include "ctl/CtlFixture.h"
#include "wire/Relay.h"

namespace wire {
namespace {

TEST_F(CtlTest, CheckPassesOnEveryModelAndLeavesItAsItWas) {
  // Two checks provoke these on purpose.
  emulator_.Allow("Protocol error. No ack received");
  emulator_.Allow("Sample freq 1 is not supported");
  ASSERT_EQ(Run({"set-inputs", "tuner-b", "1=127.0.0.1:9001"}).status, 0);
  const std::string before = Run({"fm", "tuner-b"}).out;
  const std::pair<const char*, size_t> units[] = {{"studio-a", 18}, {"tuner-b", 28}, {"odd-c", 13}};
  std::vector<std::unique_ptr<Process>> tours;  // all at once, as they mostly listen
  for (const auto& [unit, checks] : units) {
    tours.push_back(std::make_unique<Process>(
        QZ_CTL, Process::Options{.arguments = WithTo({"check", unit, "--intrusive", "--json"})}));
  }
  for (size_t i = 0; i < tours.size(); ++i) {
    const auto& [unit, checks] = units[i];
    const Result result = ResultOf(*tours[i]);
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_GE(result.Objects().size(), checks) << result.out;
  }
  EXPECT_EQ(Destination("tuner-b", 1), "127.0.0.1:9001");
  EXPECT_EQ(Run({"fm", "tuner-b"}).out, before);
}

enum class Fault {
  NeverAcknowledges,
  AcknowledgesLate,     // 200 ms
  RepeatsWithoutEnd,    // an answer that nobody acknowledges: here, twice as often
  AcknowledgesWrongId,  // names another message
  RefersToWrongId,      // in error answers
  WrongPayloadType,     // 96
  DropsEveryTenth,      // packet of its stream
};

// A real unit with one fault: what comes from it is changed on its way, and its streams are led
// through here.
class WrongUnit {
 public:
  WrongUnit(const Endpoint& unit, Fault fault)
      : fault_(fault), control_(TestLoop(), {Endpoint(unit.address, 0), unit}) {
    control_.SetTamper([this](Relay::Way way, const Datagram& datagram) {
      return way == Relay::Way::There ? There(datagram) : Back(datagram);
    });
  }

  const Endpoint& Control() const { return control_.Local(); }

 private:
  std::vector<Passed> There(const Datagram& datagram) {
    Message request = Decode(datagram.bytes);
    if (request.type == "ack" && fault_ == Fault::RepeatsWithoutEnd) return {};
    if (request.type != "set_inputs" || !request.body.contains("inputs")) return {{datagram.bytes}};
    for (Json& input : request.body["inputs"]) {
      const auto to = Endpoint::Parse(input.get<std::string>());
      if (to) input = LeadThrough(*to).ToText();
    }
    return {{Encode(request.body)}};
  }

  std::vector<Passed> Back(const Datagram& datagram) {
    Message message = Decode(datagram.bytes);
    Json& body = message.body;
    if (message.type == "ack") {
      if (fault_ == Fault::NeverAcknowledges) return {};
      if (fault_ == Fault::AcknowledgesLate)
        return {{datagram.bytes, std::chrono::milliseconds(200)}};
      if (fault_ == Fault::AcknowledgesWrongId)
        body["ack_msg_id"] = NumberAt(body, "ack_msg_id") + 1000;
    } else if (message.type == "error" && fault_ == Fault::RefersToWrongId) {
      body["err_msg_id"] = NumberAt(body, "err_msg_id") + 1000;
    } else if (message.type == "inputs") {
      for (Json& input : body["inputs"]) {
        if (led_.contains(input)) input = led_[input];
      }
    }
    if (fault_ != Fault::RepeatsWithoutEnd) return {{Encode(body)}};
    return {{datagram.bytes}, {datagram.bytes, std::chrono::milliseconds(25)}};
  }

  Endpoint LeadThrough(const Endpoint& to) {
    auto stream = std::make_unique<Relay>(TestLoop(), RelayInfo{{Control().address, 0}, to});
    stream->SetTamper(
        [this, count = 0](Relay::Way, const Datagram& datagram) mutable -> std::vector<Passed> {
          Passed packet{datagram.bytes};
          if (fault_ == Fault::WrongPayloadType) packet.bytes[1] = 96 << 1;
          if (fault_ == Fault::DropsEveryTenth && ++count % 10 == 0) return {};
          return {packet};
        });
    streams_.push_back(std::move(stream));
    led_[streams_.back()->Local().ToText()] = to.ToText();
    return streams_.back()->Local();
  }

  const Fault fault_;
  Relay control_;
  std::vector<std::unique_ptr<Relay>> streams_;
  std::map<std::string, std::string> led_;  // from here on to
};

// The tour must find each fault, and name it.
TEST(CtlCheck, NamesWhatIsWrongWithAWrongUnit) {
  const std::pair<Fault, const char*> faults[] = {
      {Fault::NeverAcknowledges, "acknowledgement"},   {Fault::AcknowledgesLate, "acknowledgement"},
      {Fault::AcknowledgesWrongId, "acknowledgement"}, {Fault::RepeatsWithoutEnd, "repeats"},
      {Fault::RefersToWrongId, "get_fm_freq"},         {Fault::WrongPayloadType, "input 0 format"},
      {Fault::DropsEveryTenth, "input 0 sequence"},
  };
  struct Tour {
    Tour(const Endpoint& right, Fault fault) : unit(right, fault) {}
    WrongUnit unit;
    std::string control = unit.Control().ToText();
    Process child{
        QZ_CTL, {.arguments = {"check", control, "--to", control, "--timeout", "1000", "--json"}}};
  };
  EmulatorProcess emulator(std::vector<UnitSpec>(std::size(faults)));
  for (const char* due : {"No ack received", "Sample freq 1 is not supported"})
    emulator.Allow(due);
  emulator.StartAndWait();
  std::vector<std::unique_ptr<Tour>> tours;
  for (const auto& [fault, check] : faults) {
    const int port = 6 * static_cast<int>(tours.size());
    tours.push_back(std::make_unique<Tour>(emulator.Control(port), fault));
  }
  for (size_t i = 0; i < tours.size(); ++i) {
    const char* check = faults[i].second;
    const Result result = ResultOf(tours[i]->child);
    EXPECT_EQ(result.status, 1) << check << result.err;
    bool named = false;
    for (const Json& line : result.Objects())
      named = named || (line.value("check", "") == check && line["result"] == "fail");
    EXPECT_TRUE(named) << check << "\n" << result.out;
  }
}

}  // namespace
}  // namespace wire
