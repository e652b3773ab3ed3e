// Misbehaving units from the command line.
#include "ctl/CtlFixture.h"

namespace wire {
namespace {

TEST(CtlFault, AFileChangesTheFaultsWhileTheUnitsRun) {
  const TestFile script(".faults");
  script.Write("get_inputs: lost\n");
  Process up(QZ_CTL, {.arguments = {"up", "--units", "QZ820", "--addr", OwnAddress(), "--emulator",
                                    QZ_EMULATOR, "--fault-file", script.Text()}});
  ASSERT_TRUE(up.WaitLine("running until")) << up.ErrorOutput();
  const std::string line = up.WaitLine("QZ640_UNIT0_CONTROL=")->text;
  const Endpoint control = *Endpoint::Parse(line.substr(line.find('=') + 1));

  Link link(TestLoop());
  link.Tell(control, "set_inputs", {{"inputs", {"127.0.0.1:9", "", "", ""}}});
  EXPECT_THROW(link.Tell(control, "get_inputs"), NoAnswer);
  script.Write("get_inputs: lots\n");  // stays as it was
  EXPECT_TRUE(TestLoop().RunUntil(
      [&] { return up.ErrorOutput().find("line 1: ") != std::string::npos; }, kPatience));
  EXPECT_THROW(link.Tell(control, "get_inputs"), NoAnswer);
  script.Write("# healed, but for this\nset_inputs: ignored");
  const auto heals = [&] {
    link.Send(control, "get_inputs");
    return link.Take("inputs", control, std::chrono::milliseconds(50));
  };
  std::optional<Message> inputs;
  for (const auto end = Clock::now() + kPatience; !inputs && Clock::now() < end;)
    inputs = heals();
  ASSERT_TRUE(inputs);
  EXPECT_EQ(inputs->body["inputs"][0], "127.0.0.1:9");
}

TEST(CtlFault, WhatIsNotUnderstoodStartsNothing) {
  const struct {
    std::vector<std::string> arguments;
    const char* says;
  } rows[] = {{{"--fault", "gone", "--fault", "vanish"}, "reboot for TIME"},
              {{"--fault", "unit emu-9: gone"}, "there are: emu-1, emu-2"},
              {{"--fault-file", "no/such/file"}, "no/such/file can't be read"}};
  for (const auto& row : rows) {
    std::vector<std::string> arguments{"up", "--addr", OwnAddress(), "--emulator", QZ_EMULATOR};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    const Result result = Ctl(arguments);
    EXPECT_EQ(result.status, 2) << result.err;
    EXPECT_NE(result.err.find(row.says), std::string::npos) << result.err;
  }
}

}  // namespace
}  // namespace wire
