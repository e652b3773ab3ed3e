// What a unit does with control messages, over the real network and with the units beside it.
#include "endtoend/EndToEnd.h"

namespace {

using wire::Endpoint;
using wire::Json;

class Control : public EndToEnd {
 protected:
  void SetUp() override { emulator.StartAndWait(); }

  // Where its inputs go; null for a unit that doesn't say.
  Json InputsAt(const Endpoint& unit) {
    const Json body = Ask(unit, "get_inputs", "inputs").body;
    return body.contains("inputs") ? body["inputs"] : Json();
  }

  Json FmFreq() { return Ask(tuner, "get_fm_freq", "fm_freq").body["freq"]; }

  // The one error that answers the request.
  void ExpectError(const Endpoint& unit, const std::string& type, const Json& members, int code,
                   const std::string& text) {
    const uint32_t id = controller.Tell(unit, type, members, {}, 600);
    const auto error = controller.Take("error", unit);
    ASSERT_TRUE(error) << type;
    const Json expected{
        {"code", code}, {"err_msg_id", id}, {"msg", "error"}, {"msg_id", error->id}, {"txt", text}};
    EXPECT_EQ(error->body, expected);
  }

  EmulatorProcess emulator{kBothModelsAndAnUnknownOne};
  const Endpoint studio = emulator.Control(kQz610);
  const Endpoint tuner = emulator.Control(kQz820);
  const Endpoint odd = emulator.Control(kUnknown);
};

TEST_F(Control, InputsAreSetKeptAndSwitchedOff) {
  EXPECT_EQ(InputsAt(studio), Json({""}));
  EXPECT_EQ(InputsAt(tuner), Json({"", "", "", ""}));
  EXPECT_EQ(InputsAt(odd), Json());  // no inputs, no key

  const std::string a = here.Ip() + ":9001", b = here.Ip() + ":9002";
  SetInputs(tuner, {a, "", b, ""});
  EXPECT_EQ(InputsAt(tuner), Json({a, "", b, ""}));
  Tell(tuner, "set_inputs", {{"inputs", {"off", "", 7, nullptr}}});
  EXPECT_EQ(InputsAt(tuner), Json({"", "", b, ""}));
  SetInputs(tuner, {"", "", "255.255.255.255:9", a});  // all is nobody
  EXPECT_EQ(InputsAt(tuner), Json({"", "", "", a}));

  SetInputs(studio, {a});
  for (const Json& members : {Json{{"inputs", {"off", "off"}}}, Json::object()}) {
    Tell(studio, "set_inputs", members);
    EXPECT_EQ(emulator.Line("Incorrect inputs count"), "ERROR: Incorrect inputs count");
    EXPECT_EQ(InputsAt(studio), Json({a}));
  }
  // To a unit without inputs, none is the right count.
  Tell(odd, "set_inputs");
  SetInputs(odd, {""});
  emulator.Line("Incorrect inputs count");
  EXPECT_EQ(emulator.LinesWith("Incorrect inputs count").size(), 3U);
}

TEST_F(Control, TunersAreReadAndSetAndOthersRefuse) {
  EXPECT_EQ(FmFreq(), Json({100500, 100500, 100500, 100500}));
  Tell(tuner, "set_fm_freq", {{"freq", {-5, 0, 2147483647, 90000}}});
  const Json set{-5, 100500, 2147483647, 90000};
  EXPECT_EQ(FmFreq(), set);
  const Json quality = Ask(tuner, "get_fm_quality", "fm_quality").body;
  for (const auto& [key, value] :
       {std::pair{"rssi", 40}, {"snr", 80}, {"multipath", 50}, {"pilot", 1}})
    EXPECT_EQ(quality[key], Json({value, value, value, value})) << key;

  for (const Json& members : {Json{{"freq", {1, 2, 3, 4, 5}}}, Json::object()})
    ExpectError(tuner, "set_fm_freq", members, 2, "Number of channels mismatch");
  EXPECT_EQ(FmFreq(), set);
  for (const Endpoint& unit : {studio, odd}) {
    for (const char* type : {"get_fm_freq", "set_fm_freq", "get_fm_quality"})
      ExpectError(unit, type, Json::object(), 1, "Not supported");
  }
}

TEST_F(Control, StateChangesTheFrequencyAndSwitchesInputsOff) {
  wire::AudioReceiver receiver(loop, here);
  const auto typeNow = [&] {
    receiver.Clear();
    return receiver.WaitCount(1) ? receiver.Packets()[0].Header().payloadType : 0;
  };
  const std::string to = receiver.Local().ToText();
  SetInputs(studio, {to});
  Tell(studio, "set_state", {{"device_freq", 48000}});  // what it has
  EXPECT_EQ(InputsAt(studio), Json({to}));

  // What isn't supported changes nothing; the audio was only held up.
  Tell(studio, "set_state", {{"device_freq", 96000}});
  emulator.Line("Sample freq 96000 is not supported");
  EXPECT_EQ(InputsAt(studio), Json({to}));
  EXPECT_EQ(emulator.LinesWith("is not supported").size(), 1U);
  EXPECT_EQ(typeNow(), 100);

  Tell(studio, "set_state", {{"device_freq", 44100}});
  EXPECT_EQ(InputsAt(studio), Json({""}));
  SetInputs(studio, {to});
  EXPECT_EQ(typeNow(), 101);

  // The other units are units of their own.
  for (const Endpoint& unit : {tuner, odd})
    Tell(unit, "set_state", {{"device_freq", 44100}});
  Ask(odd, "get_dev_info", "dev_info");
  EXPECT_EQ(InputsAt(studio), Json({to}));
}

}  // namespace
