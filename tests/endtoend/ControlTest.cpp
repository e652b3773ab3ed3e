// What a unit does with control messages.
#include <algorithm>

#include "endtoend/EndToEnd.h"

namespace {

using wire::Bytes;
using wire::Endpoint;
using wire::Message;

class Control : public EndToEnd {
 protected:
  void SetUp() override { emulator.StartAndWait(); }

  // The unit's answer to get_inputs up to its envelope.
  std::string InputsAt(const Endpoint& unit) {
    const Message answer = controller.Ask(unit, "get_inputs", "inputs");
    return answer.text.substr(0, answer.text.find(R"("msg":)"));
  }

  std::vector<int64_t> FmFreq() {
    return controller.Ask(tuner, "get_fm_freq", "fm_freq").body["freq"].Integers();
  }

  // The one error that answers the request.
  void ExpectError(const Endpoint& unit, const std::string& type, const std::string& members,
                   int code, const std::string& text) {
    const uint32_t id = controller.Tell(unit, type, members);
    const auto error = controller.Take("error", unit);
    ASSERT_TRUE(error) << type;
    EXPECT_EQ(error->text, R"({"code":)" + std::to_string(code) + R"(,"err_msg_id":)" +
                               std::to_string(id) + R"(,"msg":"error","msg_id":)" +
                               std::to_string(error->id) + R"(,"txt":")" + text + R"("})");
  }

  EmulatorProcess emulator{kBothModelsAndAnUnknownOne};
  Endpoint studio = emulator.Control(kQz610);
  Endpoint tuner = emulator.Control(kQz820);
  Endpoint odd = emulator.Control(kUnknown);
};

TEST_F(Control, InputsAreSetKeptAndSwitchedOff) {
  EXPECT_EQ(InputsAt(studio), R"({"inputs":[""],)");
  EXPECT_EQ(InputsAt(tuner), R"({"inputs":["","","",""],)");
  EXPECT_EQ(InputsAt(odd), "{");  // no inputs, no key

  const std::string here = controller.Local().ip;
  const std::string a = here + ":9001", b = here + ":9002";
  controller.Tell(tuner, "set_inputs", Inputs({a, "", b, ""}));
  EXPECT_EQ(InputsAt(tuner), R"({"inputs":[")" + a + R"(","",")" + b + R"(",""],)");
  controller.Tell(tuner, "set_inputs", R"("inputs":["off","",7,null])");
  EXPECT_EQ(InputsAt(tuner), R"({"inputs":["","",")" + b + R"(",""],)");
  // What is no address switches off as well, the address of all included.
  for (const char* text : {"Off", "010.0.0.1:5", "1.2.3:5", "1.2.3.4.5", " 1.2.3.4:5",
                           "1.2.3.4:65536", "255.255.255.255:9"}) {
    controller.Tell(tuner, "set_inputs", Inputs({"", "", b, ""}));
    controller.Tell(tuner, "set_inputs", Inputs({"", "", text, ""}));
    EXPECT_EQ(InputsAt(tuner), R"({"inputs":["","","",""],)") << text;
  }
}

TEST_F(Control, AWrongCountOfInputsIsLoggedAndChangesNothing) {
  const std::string a = controller.Local().ip + ":9001";
  controller.Tell(studio, "set_inputs", Inputs({a}));
  for (const std::string& members : {Inputs({"off", "off", "off"}), Inputs({}), std::string()}) {
    controller.Tell(studio, "set_inputs", members);
    EXPECT_EQ(emulator.Line("Incorrect inputs count"), "ERROR: Incorrect inputs count");
    EXPECT_EQ(InputsAt(studio), R"({"inputs":[")" + a + R"("],)");
  }
  // To a unit without inputs, none is the right count.
  controller.Tell(odd, "set_inputs");
  controller.Tell(odd, "set_inputs", Inputs({}));
  EXPECT_EQ(InputsAt(odd), "{");
  EXPECT_EQ(emulator.LinesWith("Incorrect inputs count").size(), 3u);
  controller.Tell(odd, "set_inputs", Inputs({""}));
  emulator.Line("Incorrect inputs count");
  for (const std::string& type : Types(controller.Received()))
    EXPECT_EQ(type, "inputs");
}

TEST_F(Control, TunersAreReadAndSet) {
  EXPECT_EQ(FmFreq(), std::vector<int64_t>(4, 100500));
  controller.Tell(tuner, "set_fm_freq", R"("freq":[0,0,0,90000])");
  EXPECT_EQ(FmFreq(), (std::vector<int64_t>{100500, 100500, 100500, 90000}));
  controller.Tell(tuner, "set_fm_freq", R"("freq":[-5,0,2147483647,0])");
  EXPECT_EQ(FmFreq(), (std::vector<int64_t>{-5, 100500, 2147483647, 90000}));

  const Message quality = controller.Ask(tuner, "get_fm_quality", "fm_quality");
  EXPECT_EQ(quality.text, R"({"msg":"fm_quality","msg_id":)" + std::to_string(quality.id) +
                              R"(,"multipath":[50,50,50,50],"pilot":[1,1,1,1],)"
                              R"("rssi":[40,40,40,40],"snr":[80,80,80,80]})");
}

TEST_F(Control, RefusedRequestsAreAnsweredWithTheirNumber) {
  ExpectError(tuner, "set_fm_freq", R"("freq":[90000])", 2, "Number of channels mismatch");
  ExpectError(tuner, "set_fm_freq", R"("freq":[1,2,3,4,5])", 2, "Number of channels mismatch");
  ExpectError(tuner, "set_fm_freq", "", 2, "Number of channels mismatch");
  EXPECT_EQ(FmFreq(), std::vector<int64_t>(4, 100500));
  for (const Endpoint& unit : {studio, odd}) {
    ExpectError(unit, "get_fm_freq", "", 1, "Not supported");
    ExpectError(unit, "set_fm_freq", R"("freq":[1])", 1, "Not supported");
    ExpectError(unit, "set_fm_freq", "", 1, "Not supported");
    ExpectError(unit, "get_fm_quality", "", 1, "Not supported");
  }
}

TEST_F(Control, OtherMessagesAreAcknowledgedAndNoMore) {
  for (const Endpoint& unit : {studio, tuner, odd}) {
    controller.Tell(unit, "get_state");
    controller.Tell(unit, "state", R"("device_freq":44100,"input_freq":44100)");
    controller.Tell(unit, "inputs", R"("inputs":["1.2.3.4:5"])");
    controller.Tell(unit, "fm_freq", R"("freq":[1,2,3,4])");
    controller.Tell(unit, "error", R"("code":1,"txt":"x","err_msg_id":1)");
    controller.Ask(unit, "get_dev_info", "dev_info");
  }
  EXPECT_EQ(Types(controller.Received()), std::vector<std::string>(3, "dev_info"));
  EXPECT_EQ(InputsAt(studio), R"({"inputs":[""],)");
  EXPECT_EQ(FmFreq(), std::vector<int64_t>(4, 100500));
}

TEST_F(Control, StateChangesTheFrequencyAndSwitchesInputsOff) {
  wire::StreamReceiver receiver(wire::OwnAddress());
  const auto typeNow = [&] {
    receiver.Clear();
    const auto packets = receiver.WaitPackets(1);
    return packets.empty() ? 0 : packets[0].header[1];
  };
  const std::string here = receiver.Local().ToText();
  const std::string on = R"({"inputs":[")" + here + R"("],)";
  controller.Tell(studio, "set_inputs", Inputs({here}));

  controller.Tell(studio, "set_state", R"("device_freq":48000)");
  EXPECT_EQ(InputsAt(studio), on);
  EXPECT_EQ(typeNow(), wire::kType48000);

  // What isn't supported changes nothing; the audio was only held up.
  controller.Tell(studio, "set_state", R"("device_freq":96000)");
  emulator.Line("Sample freq 96000 is not supported");
  EXPECT_EQ(InputsAt(studio), on);
  EXPECT_EQ(emulator.LinesWith("is not supported").size(), 1u);
  EXPECT_EQ(typeNow(), wire::kType48000);

  controller.Tell(studio, "set_state", R"("device_freq":44100)");
  EXPECT_EQ(InputsAt(studio), R"({"inputs":[""],)");
  controller.Tell(studio, "set_inputs", Inputs({here}));
  EXPECT_EQ(InputsAt(studio), on);
  EXPECT_EQ(typeNow(), wire::kType44100);

  // The other units are units of their own.
  controller.Tell(tuner, "set_state", R"("device_freq":44100)");
  controller.Tell(odd, "set_state", R"("device_freq":44100)");
  controller.Ask(odd, "get_dev_info", "dev_info");
  EXPECT_EQ(InputsAt(studio), on);
}

TEST_F(Control, ARepeatedRequestIsAcknowledgedEachTimeAndAnsweredOnce) {
  for (int i = 0; i < 3; ++i)
    controller.SendWithId(12, studio, "get_dev_info");
  EXPECT_TRUE(controller.WaitAcks(12, 3));
  // Received messages take numbers too: the request has 1 in the unit's count.
  const Message ack = controller.AcksOf(12)[0];
  EXPECT_EQ(ack.text, R"({"ack_msg_id":12,"msg":"ack","msg_id":2})");
  EXPECT_TRUE(ack.from == studio);
  controller.Ask(studio, "get_inputs", "inputs");
  EXPECT_EQ(Types(controller.Received()), (std::vector<std::string>{"dev_info", "inputs"}));
  EXPECT_TRUE(controller.Take("dev_info"));

  // Only the latest message is remembered.
  for (const uint32_t id : {12u, 13u, 12u})
    controller.SendWithId(id, studio, "get_dev_info");
  for (int i = 0; i < 3; ++i)
    EXPECT_TRUE(controller.Take("dev_info")) << i;
}

// One datagram on its way at a time: what is never acknowledged holds the next one up, and then
// gives way.
TEST_F(Control, AnswersWaitForEachOther) {
  controller.Acknowledge(false);
  const uint32_t first = controller.Send(studio, "get_dev_info");
  const uint32_t second = controller.Send(studio, "get_inputs");
  EXPECT_TRUE(controller.WaitAcks(first) && controller.WaitAcks(second));
  ASSERT_TRUE(controller.WaitCount("inputs", 5));
  emulator.Line("No ack received");
  emulator.Line("No ack received");
  std::vector<std::string> expected(5, "dev_info");
  expected.insert(expected.end(), 5, "inputs");
  EXPECT_EQ(Types(controller.Received()), expected);
}

class LongMessage : public Control {
 protected:
  static std::string Segment(uint32_t leader, int number, int count, size_t size) {
    return R"("leader_id":)" + std::to_string(leader) + R"(,"seg_number":)" +
           std::to_string(number) + R"(,"seg_count":)" + std::to_string(count) + R"(,"att":)" +
           std::to_string(size);
  }

  // The head of a get_dev_info with an attachment that follows in segments.
  uint32_t TellHead(size_t size) {
    return controller.Tell(studio, "get_dev_info", R"("att":)" + std::to_string(size));
  }

  void TellSegment(uint32_t leader, int number, int count, size_t size) {
    controller.Tell(studio, "attach", Segment(leader, number, count, size), Bytes(size, 0x55));
  }

  // How many requests so far have been delivered: each was answered. The series before has to be
  // over, as the message that this sends would end it.
  size_t Answered() {
    controller.Ask(studio, "get_inputs", "inputs");
    const auto types = Types(controller.Received());
    return static_cast<size_t>(std::count(types.begin(), types.end(), "dev_info"));
  }
};

// The sender of a damaged series believes in its delivery, as each datagram was acknowledged; the
// unit must drop it whole and be ready for the next.
TEST_F(LongMessage, IsPutTogetherOrDroppedWholeAndTheConnectionGoesOn) {
  uint32_t leader = TellHead(3000);  // the middle is missing
  TellSegment(leader, 0, 3, 1300);
  TellSegment(leader, 2, 3, 400);
  EXPECT_EQ(Answered(), 0u);

  leader = TellHead(3000);  // too short in all
  TellSegment(leader, 0, 2, 1300);
  TellSegment(leader, 1, 2, 1300);
  EXPECT_EQ(Answered(), 0u);

  leader = TellHead(2000);  // the wrong way round
  TellSegment(leader, 1, 2, 700);
  TellSegment(leader, 0, 2, 1300);
  EXPECT_EQ(Answered(), 0u);

  leader = TellHead(2000);  // a segment that announces more than it has
  controller.Tell(studio, "attach", Segment(leader, 0, 2, 1300), Bytes(1299, 0x55));
  TellSegment(leader, 1, 2, 700);
  EXPECT_EQ(Answered(), 0u);

  leader = TellHead(2000);  // another message in the middle, which is lost with it
  TellSegment(leader, 0, 2, 1300);
  controller.Tell(studio, "get_dev_info");
  TellSegment(leader, 1, 2, 700);
  EXPECT_EQ(Answered(), 0u);

  leader = TellHead(3000);  // and a whole one
  TellSegment(leader, 0, 3, 1300);
  TellSegment(leader, 1, 3, 1300);
  TellSegment(leader, 2, 3, 400);
  EXPECT_EQ(Answered(), 1u);
}

}  // namespace
