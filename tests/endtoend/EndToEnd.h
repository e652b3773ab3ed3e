// What the end-to-end tests share: a controller beside the emulator, and the names of things on the
// wire.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/EmulatorProcess.h"
#include "wire/Streams.h"
#include "wire/Units.h"

class EndToEnd : public testing::Test {
 protected:
  // Whatever the emulator sent to the controller has been a message.
  void TearDown() override {
    for (const std::string& complaint : controller.Complaints())
      ADD_FAILURE() << complaint;
  }

  // As patient as a busy machine needs.
  void Tell(const wire::Endpoint& to, const std::string& type,
            const wire::Json& members = wire::Json::object()) {
    controller.Tell(to, type, members, {}, 600);
  }
  wire::Message Ask(const wire::Endpoint& to, const std::string& type, const std::string& answer) {
    Tell(to, type);
    const auto message = controller.Take(answer, to, kPatience);
    if (!message) ADD_FAILURE() << to.ToText() << " doesn't answer " << type;
    return message.value_or(wire::Message{});
  }

  // The first input that is named gets its place, and so on; "" leaves one as it is.
  void SetInputs(const wire::Endpoint& unit, const std::vector<std::string>& inputs) {
    Tell(unit, "set_inputs", {{"inputs", inputs}});
  }

  wire::Loop& loop = TestLoop();
  const wire::Endpoint here{OwnAddress(), 0};
  wire::Link controller{loop, here};
};

// The tests that hold the emulator to the clock run alone.
class Pace : public EndToEnd {};

inline const std::vector<UnitSpec> kBothModelsAndAnUnknownOne = {
    {.type = "QZ610", .id = "studio-a"},
    {.type = "QZ820", .id = "tuner-b"},
    {.type = "QZ999", .id = "odd-c"},
};

// Their control ports, counted from the first unit's.
constexpr int kQz610 = 0;
constexpr int kQz820 = 6;
constexpr int kUnknown = 16;

inline const wire::Frames kSilence(wire::kPacketFrames);

// A packet of a stream at 48000 Hz.
inline wire::Bytes Packet(int number, const wire::Frames& frames) {
  wire::StreamHeader header;
  header.sequence = static_cast<uint16_t>(number);
  header.timestamp = static_cast<uint32_t>(number) * wire::kPacketFrames;
  return wire::EncodePacket(header, frames);
}

// The types of messages, in order.
inline std::vector<std::string> Types(const wire::Link& link) {
  std::vector<std::string> types;
  for (const wire::Message& message : link.Received())
    types.push_back(message.type);
  return types;
}
