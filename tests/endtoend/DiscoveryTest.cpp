// How a controller finds the units, and what bad datagrams do.
#include "endtoend/EndToEnd.h"

namespace {

using wire::Bytes;
using wire::Json;

class Discovery : public EndToEnd {};

Json DevInfo(const wire::Message& message, const char* id, const char* type, int rtpPort,
             int inputs, int outputs) {
  return {{"audio_protocol", 1},  {"control_protocol", 1}, {"firmware", 1},
          {"hardware", 1},        {"inputs", inputs},      {"msg", "dev_info"},
          {"msg_id", message.id}, {"outputs", outputs},    {"rtp_port", rtpPort},
          {"software", 1},        {"unit_id", id},         {"unit_type", type}};
}

TEST_F(Discovery, EveryUnitAnswersFromItsOwnControlPort) {
  EmulatorProcess emulator(kBothModelsAndAnUnknownOne);
  emulator.StartAndWait();
  // Requests have no place on this port, nor has discovery on a control port.
  controller.Send(emulator.Discovery(), "get_dev_info");
  Tell(emulator.Control(kQz610), "dev_find");
  const uint32_t find = controller.Send(emulator.Discovery(), "dev_find");
  const auto a = controller.Take("dev_info", emulator.Control(kQz610), kPatience);
  const auto b = controller.Take("dev_info", emulator.Control(kQz820), kPatience);
  const auto c = controller.Take("dev_info", emulator.Control(kUnknown), kPatience);
  ASSERT_TRUE(a && b && c);
  EXPECT_EQ(a->body, DevInfo(*a, "studio-a", "QZ610", 8002, 1, 1));
  EXPECT_EQ(b->body, DevInfo(*b, "tuner-b", "QZ820", 8008, 4, 0));
  EXPECT_EQ(c->body, DevInfo(*c, "odd-c", "QZ999", 8018, 0, 0));
  EXPECT_TRUE(controller.AcksOf(find).empty());  // discovery is not acknowledged
  Ask(emulator.Control(kQz610), "get_inputs", "inputs");
  EXPECT_EQ(controller.Received().size(), 4U);
}

// On the host's own address, where a datagram to the broadcast address has to be heard on every
// system, and on all addresses.
TEST_F(Discovery, HearsBroadcasts) {
  const uint16_t port = OwnBroadcastPort();
  const wire::Endpoint everybody("127.255.255.255", port);
  {
    EmulatorProcess emulator({{}, {}}, 8000, port);
    emulator.StartAndWait();
    controller.Send(everybody, "dev_find");
    EXPECT_TRUE(controller.Take("dev_info", emulator.Control(0), kPatience));
    EXPECT_TRUE(controller.Take("dev_info", emulator.Control(6), kPatience));
  }
  EmulatorProcess emulator;
  const int basePort = 10000 + 11 * (OwnProcessId() % 900);
  emulator.WriteSettings(SettingsText("0.0.0.0", basePort, port, {{.id = "anywhere"}}));
  emulator.StartAndWait();
  controller.Send(everybody, "dev_find");
  const auto answer = controller.Take("dev_info", std::nullopt, kPatience);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->body["unit_id"], "anywhere");
  EXPECT_EQ(answer->from.port, basePort);
}

TEST_F(Discovery, WithoutAnAddressNothingIsBound) {
  EmulatorProcess emulator;
  emulator.WriteSettings(SettingsText("", 8000, 15001, {{}}));
  emulator.StartAndWait();
  for (const uint16_t port : {uint16_t{8000}, uint16_t{8002}, uint16_t{15001}})
    EXPECT_NO_THROW(wire::UdpPort(loop, {here.address, port}, nullptr));
}

// One datagram that kills, wedges or is answered wrongly takes a whole installation down.
TEST_F(Discovery, BadDatagramsAreNamedInTheLogAndHarmNothing) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartAndWait();
  emulator.Allow("recv failed");
  emulator.Allow("Packet smpl size mismatch");
  const auto bytesOf = [](const std::string& text) { return Bytes(text.begin(), text.end()); };
  const std::string texts[] = {"{}",
                               "junk",
                               std::string(1400, '['),
                               R"({"msg":"no_such_message","msg_id":1})",
                               R"({"msg":"set_state","msg_id":1})",
                               "{\"msg\":\"get_\xFF\",\"msg_id\":1}"};
  for (const wire::Endpoint& port : {emulator.Control(), emulator.Discovery()}) {
    std::vector<Bytes> bad{{0}, bytesOf(R"({"msg":"get_dev_info","msg_id":1})")};  // no end
    for (const std::string& text : texts)
      bad.push_back(bytesOf(text + '\0'));
    for (const Bytes& bytes : bad) {
      controller.SendRaw(bytes, port);
      const std::string line = emulator.Line("Bad message received");
      EXPECT_TRUE(line.starts_with(
          " ErrStr=Bad message received Method=Network::JsonUdpManager::OnDatagramReceived "
          "File=src\\JsonUdpManager Line="))
          << line;
    }
    // Nothing at all, and more than any message can be.
    for (const size_t size : {0U, 1432U, 1433U, 65507U})
      controller.SendRaw(Bytes(size, ' '), port);
  }
  controller.SendRaw(Bytes(65507), emulator.Control(2));
  // What decodes but can't be shown must not end the log, nor may numbers beyond all bounds.
  controller.SendRaw(
      bytesOf(std::string(R"({"msg":"error","msg_id":9,"code":1,"err_msg_id":1,)"
                          R"("txt":"\uD800 \u0000 \uDC00","x":1e9223372036854775807})") +
              '\0'),
      emulator.Control());
  EXPECT_TRUE(controller.WaitAcks(9));
  Tell(emulator.Control(), "error", {{"code", 1}, {"err_msg_id", 1}, {"txt", "\xF0\x9D\x84\x9E"}});
  emulator.Line("\xF0\x9D\x84\x9E");
  Ask(emulator.Control(), "get_inputs", "inputs");
  controller.Send(emulator.Discovery(), "dev_find");
  EXPECT_TRUE(controller.Take("dev_info", std::nullopt, kPatience));
  EXPECT_EQ(Types(controller), (std::vector<std::string>{"inputs", "dev_info"}));
}

}  // namespace
