// How a controller finds the units, and what bad datagrams do.
#include <algorithm>

#include "endtoend/EndToEnd.h"
#include "support/System.h"

namespace {

using std::chrono::milliseconds;
using wire::Bytes;
using wire::MakeDatagram;

class Discovery : public EndToEnd {};

std::string DevInfo(const wire::Message& message, const std::string& id, const std::string& type,
                    int rtpPort, int inputs, int outputs) {
  return R"({"audio_protocol":1,"control_protocol":1,"firmware":1,"hardware":1,"inputs":)" +
         std::to_string(inputs) + R"(,"msg":"dev_info","msg_id":)" + std::to_string(message.id) +
         R"(,"outputs":)" + std::to_string(outputs) + R"(,"rtp_port":)" + std::to_string(rtpPort) +
         R"(,"software":1,"unit_id":")" + id + R"(","unit_type":")" + type + R"("})";
}

TEST_F(Discovery, EveryUnitAnswersFromItsOwnControlPort) {
  EmulatorProcess emulator(kBothModelsAndAnUnknownOne);
  emulator.StartAndWait();
  const uint32_t find = controller.Send(emulator.Discovery(), "dev_find");
  const auto a = controller.Take("dev_info", emulator.Control(kQz610));
  const auto b = controller.Take("dev_info", emulator.Control(kQz820));
  const auto c = controller.Take("dev_info", emulator.Control(kUnknown));
  ASSERT_TRUE(a && b && c);
  EXPECT_EQ(a->text, DevInfo(*a, "studio-a", "QZ610", 8002, 1, 1));
  EXPECT_EQ(b->text, DevInfo(*b, "tuner-b", "QZ820", 8008, 4, 0));
  EXPECT_EQ(c->text, DevInfo(*c, "odd-c", "QZ999", 8018, 0, 0));
  EXPECT_TRUE(a->attachment.empty());
  EXPECT_TRUE(controller.AcksOf(find).empty());  // discovery is not acknowledged
}

// On the host's own address, where a datagram to the broadcast address has to be heard on every
// system, and on all addresses.
TEST_F(Discovery, HearsBroadcasts) {
  const uint16_t port = wire::OwnBroadcastPort();
  const wire::Endpoint everybody{"127.255.255.255", port};
  {
    EmulatorProcess emulator({{}, {}}, 8000, port);
    emulator.StartAndWait();
    controller.Send(everybody, "dev_find");
    EXPECT_TRUE(controller.Take("dev_info", emulator.Control(0)));
    EXPECT_TRUE(controller.Take("dev_info", emulator.Control(6)));
  }
  {
    EmulatorProcess emulator;
    const int basePort = 10000 + 11 * (OwnProcessId() % 900);
    emulator.WriteSettings(SettingsText("0.0.0.0", basePort, port, {{.id = "anywhere"}}));
    emulator.StartAndWait();
    controller.Send(everybody, "dev_find");
    const auto answer = controller.Take("dev_info");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->body["unit_id"].string, "anywhere");
    EXPECT_EQ(answer->from.port, basePort);
  }
}

TEST_F(Discovery, RepeatsAnUnacknowledgedAnswerFiveTimesInAllAndThenSaysSoOnce) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartAndWait();
  controller.Acknowledge(false);
  controller.Send(emulator.Discovery(), "dev_find");
  const std::string line = emulator.Line("No ack received");
  EXPECT_TRUE(line.starts_with(
      " ErrStr=Protocol error. No ack received Method=Network::JsonUdpConnect::SetError "
      "File=src\\JsonUdpConnect Line="))
      << line;
  controller.Acknowledge(true);
  controller.Ask(emulator.Control(), "get_inputs", "inputs");  // the connection goes on

  std::vector<wire::Message> answers = controller.Received();
  std::erase_if(answers, [](const wire::Message& message) { return message.type != "dev_info"; });
  ASSERT_EQ(answers.size(), 5u);
  for (size_t i = 1; i < answers.size(); ++i) {
    EXPECT_EQ(answers[i].text, answers[0].text);
    const auto gap = answers[i].time - answers[i - 1].time;
    EXPECT_GT(gap, milliseconds(20)) << i;
    EXPECT_LT(gap, milliseconds(500)) << i;
  }
  EXPECT_EQ(emulator.LinesWith("No ack received").size(), 1u);
}

TEST_F(Discovery, EachPortKeepsToItsOwnMessages) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartAndWait();
  for (const char* type : {"get_dev_info", "get_inputs", "get_state"}) {
    controller.Send(emulator.Discovery(), type);
  }
  controller.Send(emulator.Discovery(), "dev_find");
  EXPECT_TRUE(controller.Take("dev_info"));
  controller.Tell(emulator.Control(), "dev_find");  // acknowledged and ignored
  controller.Ask(emulator.Control(), "get_inputs", "inputs");
  EXPECT_EQ(Types(controller.Received()), (std::vector<std::string>{"dev_info", "inputs"}));
}

TEST_F(Discovery, WithoutAnAddressNothingIsBound) {
  EmulatorProcess emulator;
  emulator.WriteSettings(SettingsText("", 8000, 15001, {{}}));
  emulator.StartAndWait();
  for (const uint16_t port : {uint16_t{8000}, uint16_t{8002}, uint16_t{15001}}) {
    EXPECT_NO_THROW(wire::Socket({wire::OwnAddress(), port}, [](const wire::Datagram&) {}));
  }
}

std::vector<Bytes> BadMessages() {
  const auto text = [](const std::string& json) { return MakeDatagram(json); };
  std::vector<Bytes> all = {
      {0},
      {0, 0},
      {'{', '}'},  // not terminated
      Bytes(1400, 0xFF),
      text("{}"),
      text("junk"),
      text(R"({"msg":"get_dev_info"})"),
      text(R"({"msg":"get_dev_info","msg_id":4294967296})"),
      text(R"({"msg":"get_dev_info","msg_id":"1"})"),
      text(R"({"msg":"get_dev_info","msg_id":1,"x":9223372036854775808})"),
      text(R"({"msg":7,"msg_id":1})"),
      text(R"({"msg":"no_such_message","msg_id":1})"),
      text(R"({"msg":"ack","msg_id":1})"),
      text(R"({"msg":"set_state","msg_id":1})"),
      text(R"({"msg":"set_state","msg_id":1,"device_freq":-1})"),
      text(R"({"msg":"set_fm_freq","msg_id":1,"freq":[1.5]})"),
      text("{\"msg\":\"get_\xFF\",\"msg_id\":1}"),
      text(R"({"att":1048577,"msg":"get_dev_info","msg_id":1})"),
      text(std::string(1400, '[')),
  };
  Bytes unterminated = MakeDatagram(R"({"msg":"get_dev_info","msg_id":1})");
  unterminated.pop_back();
  all.push_back(unterminated);
  return all;
}

// One datagram that kills, wedges or is answered wrongly takes a whole installation down.
TEST_F(Discovery, BadDatagramsAreNamedInTheLogAndHarmNothing) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartAndWait();
  for (const wire::Endpoint& port : {emulator.Control(), emulator.Discovery()}) {
    for (const Bytes& bytes : BadMessages()) {
      controller.SendRaw(port, bytes);
      const std::string line = emulator.Line("Bad message received");
      EXPECT_TRUE(line.starts_with(
          " ErrStr=Bad message received Method=Network::JsonUdpManager::OnDatagramReceived "
          "File=src\\JsonUdpManager Line="))
          << line;
    }
    // One with nothing in it must not hide those behind it.
    controller.SendRaw(port, {});
    controller.SendRaw(port, {});
    controller.Ask(emulator.Control(), "get_inputs", "inputs");
    controller.Send(emulator.Discovery(), "dev_find");
    EXPECT_TRUE(controller.Take("dev_info"));
  }
  for (const wire::Message& message : controller.Received()) {
    EXPECT_TRUE(message.type == "inputs" || message.type == "dev_info") << message.text;
  }
}

// What decodes but can't be shown must not end the log, nor may numbers beyond all bounds.
TEST_F(Discovery, OddButWellFormedMessagesAreTakenAndLogged) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartAndWait();
  controller.Tell(emulator.Control(), "error",
                  R"("code":1,"err_msg_id":1,"txt":"lone \uD800 half \u0000 end \uDC00")");
  for (const char* number :
       {"1.55e-9223372036854775807", "1e9223372036854775807", "0e999999", "-1e999"}) {
    controller.Tell(emulator.Control(), "get_state", R"("x":)" + std::string(number));
  }
  controller.Tell(emulator.Control(), "error",
                  "\"code\":1,\"err_msg_id\":1,\"txt\":\"\xF0\x9D\x84\x9E\"");
  emulator.Line("\xF0\x9D\x84\x9E");
  controller.Ask(emulator.Control(), "get_inputs", "inputs");
}

// Larger than any message can be: dropped with a word, and the port goes on.
TEST_F(Discovery, OversizedDatagramsAreDropped) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartAndWait();
  emulator.Allow("recv failed");
  emulator.Allow("Bad message received");
  emulator.Allow("Packet smpl size mismatch");
  for (const size_t size : {1432u, 1433u, 9000u, 65507u}) {
    for (const auto& port : {emulator.Control(), emulator.Control(2), emulator.Discovery()}) {
      controller.SendRaw(port, Bytes(size, ' '));
    }
  }
  controller.Ask(emulator.Control(), "get_inputs", "inputs");
  controller.Send(emulator.Discovery(), "dev_find");
  EXPECT_TRUE(controller.Take("dev_info"));
  EXPECT_EQ(Types(controller.Received()), (std::vector<std::string>{"inputs", "dev_info"}));
}

}  // namespace
