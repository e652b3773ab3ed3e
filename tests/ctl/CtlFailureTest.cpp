// What qz640ctl does when something is wrong: its status, and a line that says what to do next.
#include "ctl/CtlFixture.h"

namespace wire {
namespace {

TEST_F(CtlTest, FailuresHaveTheirStatusAndSayWhatToDo) {
  const TestFile exists("x.wav");
  exists.Write("no audio");
  ASSERT_EQ(Run({"set-inputs", "tuner-b", "3=127.0.0.1:9001"}).status, 0);
  const std::string nobody = OwnAddress() + ":9";
  const std::string taken = emulator_.Control().ToText();
  const std::string port = std::to_string(emulator_.Discovery().port);
  struct {
    std::vector<std::string> arguments;
    int status;
    std::string says;
  } const failures[] = {
      {{"fm", "studio-a"}, 1, "Not supported"},
      {{"record", "studio-a", exists.Text()}, 1, "--force"},
      {{"record", "studio-a", "no/such/folder/x.wav"}, 1, "can't write"},
      {{"play", "studio-a", exists.Text()}, 1, "convert it first: ffmpeg -i"},
      {{"play", "studio-a", "no-such-file"}, 1, "can't read"},
      {{"record", "tuner-b", "x.mp3"}, 2, "--format"},
      {{"record", "tuner-b", "-", "--format", "flac"}, 2, "| flac"},
      {{"record", "tuner-b", "-"}, 2, "leave out --json"},
      {{"record", "tuner-b", "-", "--input", "all"}, 2, "one input as a whole"},
      {{"set-inputs", "studio-a", "1=off"}, 2, "there is no input 1"},
      {{"set-inputs", "studio-a", "0=nonsense"},
       2,
       "names no address; it must read 0=a.b.c.d:port"},
      {{"set-inputs", "studio-a", "0=127.0.0.1"}, 2, "has no port"},
      {{"set-inputs", "studio-a", "0=off", "0=1.2.3.4:5"}, 2, "input 0 is changed twice"},
      {{"fm", "tuner-b", "1=98700", "1=98800"}, 2, "tuner 1 is changed twice"},
      {{"info", emulator_.Control().Ip()}, 2, "did you mean " + taken + " (studio-a)"},
      {{"soak", "tuner-b"}, 1, "in use: tuner-b 3 (goes to 127.0.0.1:9001); a soak takes"},
      {{"expect", "studio-a", "found", "--within", "999999999min"}, 2, "a year at most"},
      {{"fm", "tuner-b", "4=98700"}, 2, "there is no tuner 4"},
      {{"record", "odd-c", "x.wav"}, 2, "there is no input 0"},
      {{"play", "tuner-b", "--pattern"}, 2, "there is no output 0"},
      {{"play", "studio-a", "--pattern", "--freq", "44100"}, 1, "--pattern --freq 48000"},
      {{"info", "no-such-unit", "--timeout", "500"}, 3, "studio-a, tuner-b, odd-c"},
  };
  for (const auto& failure : failures) {
    std::vector<std::string> arguments = failure.arguments;
    arguments.push_back("--json");
    const Result result = Run(arguments);
    EXPECT_EQ(result.status, failure.status) << failure.says << result.err;
    EXPECT_NE(result.err.find(failure.says), std::string::npos) << result.err;
    ASSERT_EQ(result.Objects().size(), 1u) << result.out;
    EXPECT_NE(TextAt(result.Objects()[0], "error").find(failure.says), std::string::npos);
  }

  const struct {
    std::vector<std::string> arguments;
    int status;
    std::string says;
  } alone[] = {
      {{}, 2, "a command is needed (see qz640ctl --help)"},
      {{"fnd"}, 2, "there is no command \"fnd\"; did you mean find?"},
      {{"help", "rec"}, 2, "did you mean record?"},
      {{"no-such-command"}, 2, "\"no-such-command\" (see qz640ctl --help)"},
      {{"--tiemout", "9", "find"},
       2,
       "no command has an option --tiemout; did you mean --timeout?"},
      {{"info", "--tiemout=9"}, 2, "info has no option --tiemout; did you mean --timeout?"},
      {{"find", "--timeout"}, 2, "find: --timeout needs a value"},
      {{"find", "studio-a"}, 2, "find takes no \"studio-a\""},
      {{"find", "--timeout", "none"}, 2, "--timeout: \"none\" is no number from 50 to 600000"},
      {{"record", "u", "x.wav", "--seconds", "0"}, 2, "\"0\" is no length in seconds"},
      {{"record", "x", "x.wav", "--input", "2x"}, 2, "neither a number nor all"},
      {{"record", "x", "x.wav", "--split", "1y"}, 2, "30min"},
      {{"record", "x", "x.wav", "--input", "99999999999"}, 2, "neither a number nor all"},
      {{"watch", "--log", "--exec", "x"}, 2, "--log needs a value, and \"--exec\" is none"},
      {{"find", "--to="}, 2, "find: --to is empty; give it a value"},
      {{"up", "--units", ""}, 2, "up: --units is empty"},
      {{"up", "--seed", "-1"}, 2, "\"-1\" is no whole number"},
      {{"up", "--units", "9999999999xQZ610", "--emulator", QZ_EMULATOR}, 2, "1 to 500 units"},
      {{"freq", taken, "96000"}, 2, "\"96000\" is none of 48000,44100"},
      {{"send", taken, "x"}, 2, "that is no request: parse error at line 1, column 1"},
      {{"find", "--to", nobody, "--timeout", "300"}, 3, "asked at " + nobody},
      {{"find", "--to", "127.0.0.1:0"}, 2, "port 0"},
      {{"watch", "--alert", "drift fast"}, 2, "\"drift 50ppm\""},
      {{"watch", "--alert", "clip", "--log", "no/such/folder"}, 1, "--log"},
      {{"watch", "--to", nobody, "--timeout", "300"}, 3, "qz640ctl doctor"},
      {{"find", "--to", taken, "--timeout", "300"}, 3, "it is a control port"},
      {{"info", nobody, "--timeout", "500"}, 3, "firewall"},
      {{"check", nobody, "--timeout", "300"}, 3, "firewall"},
      {{"relay", taken + "=" + nobody}, 4, "free port"},
      {{"relay", "nonsense"}, 2, "LISTEN=TARGET"},
      {{"up", "--emulator", QZ_CTL}, 1, "it said last"},
      {{"up", "--units", ",", "--emulator", QZ_EMULATOR}, 2, "2xQZ820,QZ610"},
      {{"up", "--emulator", QZ_EMULATOR, "--", "no-such-command"}, 2, "in PATH"},
      {{"up", "--addr", emulator_.Discovery().Ip(), "--port", port, "--emulator", QZ_EMULATOR},
       4,
       "is taken"},
  };
  for (const auto& failure : alone) {
    const Result result = Ctl(failure.arguments);
    EXPECT_EQ(result.status, failure.status) << failure.says << result.err;
    EXPECT_NE(result.err.find(failure.says), std::string::npos) << result.err;
  }
  EXPECT_FALSE(std::filesystem::exists("x.wav"));  // nothing was taken, so nothing was written
}

// RFC 5737 keeps the address for documents.
TEST_F(CtlTest, AnAddressThatNoInterfaceHasCannotBeHad) {
  const Result up = Ctl({"up", "--addr", "192.0.2.1", "--emulator", QZ_EMULATOR});
  EXPECT_EQ(up.status, 4) << up.err;
  EXPECT_NE(up.err.find("qz640ctl doctor"), std::string::npos) << up.err;
  const Result watch = Run({"watch", "tuner-b", "--local", "192.0.2.1"});
  EXPECT_EQ(watch.status, 4) << watch.err;
  EXPECT_NE(watch.err.find("can't open a socket"), std::string::npos) << watch.err;
}

}  // namespace
}  // namespace wire
