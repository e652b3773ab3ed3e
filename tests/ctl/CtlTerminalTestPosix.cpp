// What a terminal sees. "script" (package bsdutils) runs a command on one of its own.
#include "ctl/CtlFixture.h"

namespace wire {
namespace {

std::string OnTerminal(const std::string& command, const char* noColour) {
  Process child("/usr/bin/script", {.arguments = {"-qec", command, "/dev/null"},
                                    .environment = {{"NO_COLOR", noColour}, {"TERM", "xterm"}}});
  EXPECT_EQ(child.WaitExit(), 0);
  return child.Output();
}

TEST_F(CtlTest, ATerminalGetsColourAndALiveViewThatDrawsOverItself) {
  emulator_.Allow("Protocol error. No ack received");
  emulator_.Allow("Sample freq 1 is not supported");
  const std::string to = " --to " + emulator_.Discovery().ToText();
  const std::string check = std::string(QZ_CTL) + " check odd-c" + to;
  EXPECT_NE(OnTerminal(check, "").find("\033[32mpass"), std::string::npos);
  EXPECT_EQ(OnTerminal(check, "1").find('\033'), std::string::npos);

  const TestFile file("t.wav");
  const std::string record = std::string(QZ_CTL) + " record tuner-b --seconds 0.5 ";
  EXPECT_NE(OnTerminal(record + file.Text() + to, "").find(" packets L ####"), std::string::npos);
  const std::string watch = std::string(QZ_CTL) + " watch tuner-b --seconds 1" + to;
  EXPECT_NE(OnTerminal(watch, "").find("\033[5A"), std::string::npos);
}

}  // namespace
}  // namespace wire
