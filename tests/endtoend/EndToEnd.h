// What the end-to-end tests share: a controller beside the emulator, and the names of things on the
// wire.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/EmulatorProcess.h"
#include "support/WireAudio.h"
#include "support/WireController.h"

class EndToEnd : public testing::Test {
 protected:
  // Whatever the emulator sent to the controller has been a message.
  void TearDown() override { EXPECT_EQ(controller.Complaints(), std::vector<std::string>{}); }

  wire::Controller controller{wire::OwnAddress()};
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

// The members of a set_inputs message, as in Inputs({"10.0.0.5:9000", "", "off"}).
inline std::string Inputs(const std::vector<std::string>& inputs) {
  std::string text = R"("inputs":[)";
  for (size_t i = 0; i < inputs.size(); ++i) {
    text += (i ? "," : "") + wire::Quoted(inputs[i]);
  }
  return text + "]";
}

// The types of messages, in order.
inline std::vector<std::string> Types(const std::vector<wire::Message>& messages) {
  std::vector<std::string> types;
  for (const wire::Message& message : messages)
    types.push_back(message.type);
  return types;
}
