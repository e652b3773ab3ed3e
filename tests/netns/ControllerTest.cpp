// A controller on another host than the units, see tests/netns/run, which sets up the network and
// says in the environment where things are. The emulator has a QZ610 and a QZ820 behind it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "wire/Streams.h"
#include "wire/Units.h"

namespace {

using wire::Endpoint;

std::string Given(const char* name) {
  const char* value = std::getenv(name);
  if (!value) ADD_FAILURE() << name << " isn't set";
  return value ? value : "0.0.0.0";
}

// Each unit answers each dev_find once, from its own address and control port; and audio goes there
// and comes back.
TEST(AcrossTheNetwork, UnitsAreFoundAndHeard) {
  const std::string own = Given("QZ_OWN"), units = Given("QZ_UNITS");
  const Endpoint qz610(units, 8000), qz820(units, 8006);
  wire::Loop loop;
  for (const std::string& from : {own, std::string("0.0.0.0")}) {
    wire::Link link(loop, {from, 0});
    for (const std::string& to : {Given("QZ_SUBNET"), std::string("255.255.255.255"), units}) {
      SCOPED_TRACE("from " + from + " to " + to);
      link.Send({to, 15001}, "dev_find");
      for (const Endpoint& unit : {qz610, qz820}) {
        const auto info = link.Take("dev_info", unit, std::chrono::seconds(5));
        ASSERT_TRUE(info) << unit.ToText() << " wasn't found";
        EXPECT_EQ(info->body["rtp_port"], unit.port + 2);
      }
      // A second answer would come before what is asked for now.
      link.Ask(qz610, "get_inputs", "inputs");
      link.Ask(qz820, "get_inputs", "inputs");
      EXPECT_FALSE(link.Take("dev_info", std::nullopt, {})) << "found twice";
      EXPECT_TRUE(link.Complaints().empty());
    }
  }
  wire::Link link(loop, {own, 0});
  wire::AudioReceiver receiver(loop, {own, 0});
  wire::AudioSender sender(loop, {units, 8002}, 48000, 0, [] { return wire::Pattern(1); });
  link.Tell(qz610, "set_inputs", {{"inputs", {receiver.Local().ToText()}}});
  size_t seen = 0;
  EXPECT_TRUE(loop.RunUntil(
      [&] {
        while (receiver.Packets().size() > 0 && seen < 50)
          seen += wire::MarkOf(receiver.Take().back().Audio()) == 1;
        return seen >= 50;
      },
      std::chrono::seconds(20)));
  link.Tell(qz610, "set_inputs", {{"inputs", {"off"}}});
}

}  // namespace
