// Faults as people write them, and what the relay before the units makes of them.
#include <gtest/gtest.h>

#include "support/MiddleRate.h"
#include "wire/Fault.h"
#include "wire/FaultyUnits.h"
#include "wire/StreamStats.h"
#include "wire/Streams.h"

namespace wire {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(Fault, IsReadInAllItsParts) {
  const Fault reboot = ParseFault(" unit my unit: at 1.5 s: reboot for 300ms every 2min ");
  EXPECT_EQ(reboot.text, "unit my unit: at 1.5 s: reboot for 300ms every 2min");
  EXPECT_EQ(reboot.unit, "my unit");
  EXPECT_EQ(reboot.after, milliseconds(1500));
  EXPECT_EQ(reboot.effect, Fault::Effect::Reboot);
  EXPECT_EQ(reboot.length, milliseconds(300));
  EXPECT_EQ(reboot.period, seconds(120));
  const Fault late = ParseFault("ack of get_inputs:late 20ms 3 times 12.5 %");
  EXPECT_EQ(late.subject, Fault::Subject::Ack);
  EXPECT_EQ(late.message, "get_inputs");
  EXPECT_EQ(late.delay, milliseconds(20));
  EXPECT_EQ(late.times, 3U);
  EXPECT_EQ(late.percent, 12.5);
  EXPECT_EQ(ParseFault("output 1: drift -50ppm").ppm, -50);
  EXPECT_EQ(ParseFaultScript("# two\n\n  gone\r\nat 1s: every input: lost").size(), 2U);
}

TEST(Fault, SaysWhatIsNotUnderstood) {
  const struct {
    const char* text;
    const char* says;
  } rows[] = {{"", "it must read WHAT: EFFECT"},
              {":", "\"\" is unknown"},
              {"vanish", "reboot for TIME, or gone"},
              {"set_input: lost", "get_inputs, set_inputs"},
              {"ack: lost", "ack of MESSAGE"},
              {"every input 1: lost", "\"1\" is too much"},
              {"input -1: lost", "no number of a stream"},
              {"input 4294967296: lost", "no number of a stream"},
              {"input 0: error 2", "lost, doubled, late, jitter, damaged, silent, drift"},
              {"inputs: error 2", "\"error\" doesn't go with \"inputs\""},
              {"get_inputs: error", "no error code"},
              {"get_inputs: late", "no delay"},
              {"get_inputs: late 300", "no delay"},
              {"get_inputs: late -1s", "out of range"},
              {"get_inputs: late 1e999s", "no delay"},
              {"get_inputs: late nans", "no delay"},
              {"get_inputs: lost 3", "times, %, s or ms"},
              {"get_inputs: lost 0 times", "how often may read"},
              {"get_inputs: lost 101%", "0 to 100%"},
              {"get_inputs: lost 1s every", "no period"},
              {"get_inputs: lost 2s every 1s", "below its period"},
              {"get_inputs: lost for 0s", "above 0"},
              {"get_inputs: lost once gladly", "\"gladly\""},
              {"input 0: drift 5", "+50ppm"},
              {"input 0: drift +5ppm twice", "counts no datagrams"},
              {"reboot", "how long it takes"},
              {"at noon: gone", "no time"},
              {"unit a: dev_find: lost", "\"dev_info\""}};
  for (const auto& row : rows) {
    try {
      ParseFault(row.text);
      ADD_FAILURE() << row.text << " is taken";
    } catch (const BadFault& error) {
      EXPECT_NE(std::string(error.what()).find(row.says), std::string::npos) << error.what();
    }
  }
  EXPECT_THROW(ParseFaultScript("gone\n\nvanish"), BadFault);
  std::vector<Unit> units(2);
  units[0].id = "a";
  units[0].inputs = 2;
  units[1].id = "b";
  units[1].outputs = 1;
  EXPECT_NO_THROW(CheckFaults({ParseFault("unit b: output 0: lost")}, units));
  EXPECT_THROW(CheckFaults({ParseFault("input 2: lost")}, units), BadFault);
  EXPECT_THROW(CheckFaults({ParseFault("unit b: input 0: lost")}, units), BadFault);
  EXPECT_THROW(CheckFaults({ParseFault("unit c: gone")}, units), BadFault);
}

// A QZ610 called "a" that is played by the test, behind the relay.
class FaultyUnitsTest : public testing::Test {
 protected:
  FaultyUnitsTest() {
    real.control = unit.Local();
    real.id = "a";
    real.type = "QZ610";
    real.inputs = real.outputs = 1;
    real.rtpPort = output.Local().port;
    shown = real;
    shown.control.port = UdpPort(loop, {kHost, 0}, nullptr).Local().port;
    shown.rtpPort = UdpPort(loop, {kHost, 0}, nullptr).Local().port;
    control = shown.control;
    shownRtp = shown.Output(0);
    faulty = MakeRelay(1);
  }

  std::unique_ptr<FaultyUnits> MakeRelay(uint64_t seed) {
    return std::make_unique<FaultyUnits>(
        loop, FaultyUnitsInfo{{kHost, 0}, unit.Local(), {}, kHost, {{real, shown}}, seed});
  }

  void Set(const std::string& script) { faulty->SetFaults(ParseFaultScript(script)); }
  // Long enough for all that is due, in one piece: what this process was held up doesn't count.
  void Settle() {
    Pulse pulse(loop);
    do {
      pulse.Clear();
      loop.RunFor(milliseconds(60));
    } while (pulse.Worst() > milliseconds(20));
  }

  // Has the unit's input sent to `receiver`, and gives where the unit is to send it.
  Endpoint Route() {
    controller.Tell(control, "set_inputs", {{"inputs", {receiver.Local().ToText()}}});
    const auto message = unit.Take("set_inputs");
    return *Endpoint::Parse(message->body["inputs"][0].get<std::string>());
  }

  static constexpr uint32_t kHost = 0x7F000001;
  Loop loop;
  Link unit{loop, {kHost, 0}};
  Link controller{loop, {kHost, 0}};
  AudioReceiver output{loop, {kHost, 0}};
  AudioReceiver receiver{loop, {kHost, 0}};
  Unit real;
  Unit shown;
  Endpoint control;
  Endpoint shownRtp;
  std::unique_ptr<FaultyUnits> faulty;
};

TEST_F(FaultyUnitsTest, ShowTheRelayToBothSides) {
  const Endpoint to = Route();
  EXPECT_NE(to, receiver.Local());
  controller.Send(control, "get_inputs");
  const Endpoint asker = unit.Take("get_inputs")->from;
  EXPECT_NE(asker, controller.Local());
  unit.Tell(asker, "inputs", {{"inputs", {to.ToText()}}});
  EXPECT_EQ(controller.Take("inputs", control)->body["inputs"][0], receiver.Local().ToText());
  unit.Tell(asker, "inputs", {{"inputs", {""}}});
  EXPECT_EQ(controller.Take("inputs", control)->body["inputs"][0], "");
  unit.Tell(asker, "dev_info", {{"rtp_port", real.rtpPort}});
  EXPECT_EQ(controller.Take("dev_info", control)->body["rtp_port"], shownRtp.port);
  // Neither what a unit refuses nor what it ignores is made good on the way.
  const std::string bad = R"({"inputs":["1.2.3.4:5"],"msg":"set_inputs","msg_id":1,"x":"\u00fc"})";
  Bytes bytes(bad.begin(), bad.end());
  bytes.push_back(0);
  controller.SendRaw(bytes, control);
  EXPECT_EQ(unit.Take("set_inputs")->text, bad);
  controller.Send(control, "set_inputs", {{"inputs", {"1.2.3.4:5", ""}}});
  EXPECT_EQ(unit.Take("set_inputs")->body["inputs"][0], "1.2.3.4:5");

  AudioSender there(loop, to, 48000, 0, PatternSource(kPacketFrames));
  AudioSender back(loop, shownRtp, 48000, 0, PatternSource(kPacketFrames));
  EXPECT_TRUE(receiver.WaitCount(1) && output.WaitCount(1));
  EXPECT_EQ(MarkOf(receiver.Packets().front().Audio()), 0);
}

TEST_F(FaultyUnitsTest, HitMessagesAsOftenAsTheyAreToldTo) {
  const struct {
    const char* faults;
    size_t arrive;        // of four transmissions of a "set_inputs"
    size_t acknowledged;  // seen by the controller
    size_t errors = 0;    // likewise, without repeats
  } rows[] = {{"set_inputs: lost twice", 2, 2},
              {"set_inputs: lost once\nset_inputs: lost 1 times", 2, 2},
              {"ack of set_inputs: lost 3 times", 4, 1},
              {"set_inputs: doubled once", 5, 5},
              {"set_inputs: ignored", 0, 4},
              {"set_inputs: error 2 once", 0, 4, 1},
              {"set_inputs: error 2\nerror: lost twice\nack of error: lost once", 0, 4, 1},
              {"set_inputs: late 20ms", 4, 4},
              {"every message: lost once", 3, 3},
              {"every ack: lost", 4, 0},
              {"gone", 0, 0},
              {"set_inputs: lost for 1min every 2min", 0, 0},
              {"get_inputs: lost\nack of get_inputs: lost\nevery input: lost\nat 1min: gone\n"
               "set_inputs: lost 0%\nset_inputs: lost for 1ms every 1min",
               4, 4}};
  for (const auto& row : rows) {
    Link sender(loop, {kHost, 0});
    unit.Clear();
    Set(row.faults);
    loop.RunFor(milliseconds(5));
    const uint32_t id = controller.Send(unit.Local(), "get_state") + 1000;
    for (int i = 0; i < 4; ++i)
      sender.SendWithId(id, control, "set_inputs", {{"inputs", {"off"}}});
    loop.RunUntil([&] { return sender.AcksOf(id).size() >= row.acknowledged; }, seconds(5));
    const auto errors = [&] {
      size_t count = 0;
      while (sender.Take("error", control, {}))
        ++count;
      return count;
    };
    if (row.errors > 0) sender.WaitCount("error", 1);
    Settle();
    const auto& all = unit.Received();
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [](const Message& message) { return message.type == "set_inputs"; }),
              row.arrive)
        << row.faults;
    EXPECT_EQ(sender.AcksOf(id).size(), row.acknowledged) << row.faults;
    EXPECT_EQ(errors(), row.errors) << row.faults;
    Set("");
  }
}

TEST_F(FaultyUnitsTest, HitStreamsAsTheSeedWillHaveIt) {
  // The numbers of those that come out of so many packets to the output.
  const auto send = [this](int count) {
    UdpPort sender(loop, {kHost, 0}, nullptr);
    output.Clear();
    for (int i = 0; i < count; ++i)
      sender.Send(EncodePacket({.sequence = static_cast<uint16_t>(i)}, Pattern(i)), shownRtp);
    Settle();
    std::vector<uint16_t> numbers;
    for (const StreamPacket& packet : output.Packets())
      numbers.push_back(packet.Header().sequence);
    return numbers;
  };
  std::vector<std::vector<uint16_t>> runs;
  for (const uint64_t seed : {3u, 3u, 4u}) {
    faulty.reset();
    faulty = MakeRelay(seed);
    Set("output 0: lost 50%");
    runs.push_back(send(64));
    EXPECT_GT(runs.back().size(), 16U);
    EXPECT_LT(runs.back().size(), 48U);
  }
  EXPECT_EQ(runs[0], runs[1]);
  EXPECT_NE(runs[0], runs[2]);

  Set("output 0: late 20ms once");
  EXPECT_EQ(send(3), (std::vector<uint16_t>{1, 2, 0}));
  // What was there before goes on counting, what is new begins now.
  Set("output 0: late 20ms once\noutput 0: doubled once\noutput 0: silent\ninput 0: lost");
  EXPECT_EQ(send(3), (std::vector<uint16_t>{0, 0, 1, 2}));
  EXPECT_EQ(output.Packets().front().Audio(), Frames(kPacketFrames));
  Set("output 0: damaged");
  send(1);
  EXPECT_NE(output.Packets().front().bytes, EncodePacket({}, Pattern(0)));
}

TEST_F(FaultyUnitsTest, LetAStreamDriftByAClockOfItsOwn) {
  const Endpoint to = Route();
  Set("input 0: drift +50000ppm");
  AudioSender sender(loop, to, 48000, 0, PatternSource(UINT64_MAX));
  ASSERT_TRUE(receiver.WaitCount(300));
  StreamStats stats;
  std::vector<Clock::time_point> times;
  for (const StreamPacket& packet : receiver.Packets()) {
    stats.Add(packet);
    times.push_back(packet.time);
  }
  EXPECT_NEAR(MiddleRate(times), 262.5, 5);
  EXPECT_EQ(stats.Lost() + stats.outOfOrder + stats.duplicates + stats.jumps, 0U);
}

TEST_F(FaultyUnitsTest, LetARebootedUnitForget) {
  Route();
  unit.Clear();
  controller.Clear();
  Set("reboot for 200ms");
  controller.Send(control, "get_inputs");
  const auto off = unit.Take("set_inputs");
  ASSERT_TRUE(off);
  EXPECT_EQ(off->body["inputs"], Json({"off"}));
  EXPECT_EQ(unit.Take("set_state")->body["device_freq"], 48000);
  EXPECT_TRUE(controller.Acks().empty());
  EXPECT_TRUE(loop.RunUntil(
      [&] {
        controller.Send(control, "get_fm_freq");
        return unit.Take("get_fm_freq", {}, {}).has_value();
      },
      seconds(5)));
  EXPECT_FALSE(unit.Take("get_inputs", {}, {})) << "a message of before";
}

}  // namespace
}  // namespace wire
