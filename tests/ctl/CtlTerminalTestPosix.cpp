// What a terminal sees. "script" (package bsdutils) runs a command on one of its own.
#include "ctl/CtlFixture.h"

namespace wire {
namespace {

std::string OnTerminal(const std::string& arguments, const char* noColour) {
  std::string command = QZ_CTL;
  command += " " + arguments;
  Process child("/usr/bin/script", {.arguments = {"-qec", command, "/dev/null"},
                                    .environment = {{"NO_COLOR", noColour}, {"TERM", "xterm"}}});
  EXPECT_EQ(child.WaitExit(), 0);
  return child.Output();
}

TEST_F(CtlTest, ATerminalGetsColourAndALiveViewThatDrawsOverItself) {
  emulator_.Allow("Protocol error. No ack received");
  emulator_.Allow("Sample freq 1 is not supported");
  const std::string to = " --to " + emulator_.Discovery().ToText();
  EXPECT_NE(OnTerminal("check odd-c" + to, "").find("\033[32mpass"), std::string::npos);
  EXPECT_EQ(OnTerminal("check odd-c" + to, "1").find('\033'), std::string::npos);

  const TestFile file("t.wav");
  std::string record = "record tuner-b --seconds 0.5 ";
  record += file.Text() + to;
  EXPECT_NE(OnTerminal(record, "").find(" packets L ####"), std::string::npos);
  EXPECT_NE(OnTerminal("watch tuner-b --seconds 1" + to, "").find("\033[5A"), std::string::npos);
}

}  // namespace
}  // namespace wire
