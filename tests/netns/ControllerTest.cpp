// A controller on another host than the units, see tests/netns/run, which sets up the network and
// says in the environment where things are. The emulator has a QZ610 and a QZ820 behind it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/WireAudio.h"
#include "support/WireController.h"

namespace {

using std::chrono::milliseconds;

std::string Given(const char* name) {
  const char* value = std::getenv(name);
  if (!value) ADD_FAILURE() << name << " isn't set";
  return value ? value : "";
}

class AcrossTheNetwork : public testing::Test {
 protected:
  const std::string own = Given("QZ_OWN");
  const std::string units = Given("QZ_UNITS");
  const wire::Endpoint qz610{units, 8000};
  const wire::Endpoint qz820{units, 8006};
};

// Each unit answers each dev_find once, from its own address and control port.
TEST_F(AcrossTheNetwork, EveryBroadcastFindsEveryUnitOnce) {
  for (const std::string& from : {own, std::string("0.0.0.0")}) {
    wire::Controller controller(from);
    for (const std::string& to : {Given("QZ_SUBNET"), std::string("255.255.255.255"), units}) {
      SCOPED_TRACE("from " + from + " to " + to);
      controller.Send({to, 15001}, "dev_find");
      for (const wire::Endpoint& unit : {qz610, qz820}) {
        const auto info = controller.Take("dev_info", unit, std::chrono::seconds(5));
        ASSERT_TRUE(info) << unit.ToText() << " wasn't found";
        EXPECT_EQ(info->body["rtp_port"].integer, unit.port + 2);
      }
      // A second answer would come before what is asked for now.
      controller.Ask(qz610, "get_inputs", "inputs");
      controller.Ask(qz820, "get_inputs", "inputs");
      EXPECT_FALSE(controller.Take("dev_info", std::nullopt, milliseconds(0))) << "found twice";
      EXPECT_EQ(controller.Complaints(), std::vector<std::string>{});
    }
  }
}

TEST_F(AcrossTheNetwork, AudioGoesThereAndComesBack) {
  wire::Controller controller(own);
  wire::StreamReceiver receiver(own);
  wire::StreamSender sender(own, {qz610.ip, 8002});
  controller.Tell(qz610, "set_inputs",
                  R"("inputs":[)" + wire::Quoted(receiver.Local().ToText()) + "]");
  uint16_t number = 0;
  int32_t highest = 0;
  // Each packet that comes back asks for the next.
  EXPECT_TRUE(receiver.Wait([&](const std::vector<wire::AudioPacket>& packets) {
    sender.Send(number, wire::PatternPayload(1 + number));
    ++number;
    const wire::Bytes& payload = packets.empty() ? wire::Bytes() : packets.back().payload;
    highest = std::max(highest, wire::MarkOf(payload).value_or(0));
    return highest > 50;
  }));
  controller.Tell(qz610, "set_inputs", R"("inputs":["off"])");
  EXPECT_EQ(controller.Complaints(), std::vector<std::string>{});
}

}  // namespace
