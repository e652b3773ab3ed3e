// One whole life of the program: start, settings, end.
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "endtoend/EndToEnd.h"
#include "support/System.h"

namespace {

constexpr char kDefaults[] = R"({"AddrStr":"","BasePort":8000,"BroadcastPort":15001})";
constexpr char kDefaultUnit[] =
    R"({"AddrStr":"","BasePort":8000,"BroadcastPort":15001,"units":[{"Mode":0,"SampleFreq":48000,)"
    R"("Speed":1.00000,"UnitId":"emulator1","UnitType":"QZ610"}]})";

class Run : public EndToEnd {};

size_t IndexOf(const std::vector<Process::Line>& lines, const std::string& part) {
  for (const Process::Line& line : lines) {
    if (line.text.find(part) != std::string::npos) return line.number;
  }
  ADD_FAILURE() << "no line with " << part;
  return 0;
}

TEST_F(Run, TheFirstWritesTheDefaultsAndTheSecondGetsTheDefaultUnit) {
  EmulatorProcess emulator;
  emulator.Start();
  const std::string path = emulator.SettingsPath().string();
  EXPECT_TRUE(emulator.Line(path).starts_with(" ErrType=1 ErrCode=2 ErrStr="));
  emulator.Line(" Start OK");
  EXPECT_EQ(emulator.ReadSettings(), kDefaults);
  emulator.Stop();
  const auto lines = emulator.Child().Lines();
  EXPECT_LT(IndexOf(lines, path), IndexOf(lines, "QZ-640 Emulator: "));

  for (int run = 0; run < 2; ++run) {
    emulator.StartAndWait();
    EXPECT_EQ(emulator.ReadSettings(), kDefaultUnit);
    emulator.Stop();
  }
}

TEST_F(Run, TellsItsStagesOnTheConsole) {
  EmulatorProcess emulator(kBothModelsAndAnUnknownOne);
  const std::string settings = emulator.ReadSettings();
  emulator.StartAndWait();
  emulator.Stop();
  EXPECT_EQ(emulator.ReadSettings(), settings);

  const auto lines = emulator.Child().Lines();
  const size_t stages[] = {
      IndexOf(lines, " @ QZ-640 Emulator: " + settings + " "),
      IndexOf(lines, " @  Init OK"),
      IndexOf(lines, " @  Start OK"),
      IndexOf(lines, " @ Stop  OK"),
  };
  EXPECT_TRUE(std::is_sorted(std::begin(stages), std::end(stages)));
  // A line ends as in the log file, and the console adds a line feed of its own.
  const std::string output = FromConsole(emulator.Child().Output());
  EXPECT_NE(output.find(settings + " \r\n\r\n\n"), std::string::npos);
  EXPECT_NE(output.find(" @ Stop  OK\r\n\n"), std::string::npos);
}

// With lines of the log still on their way: all have to reach the file, and then its end.
class RunEnds : public EndToEnd, public testing::WithParamInterface<const char*> {};

TEST_P(RunEnds, InGoodOrder) {
  EmulatorProcess emulator(kBothModelsAndAnUnknownOne);
  emulator.Allow("Bad message received");
  emulator.StartAndWait();
  for (int i = 0; i < 500; ++i)
    controller.SendRaw({'x'}, emulator.Control());
  emulator.Line("Bad message received");
  const std::string how = GetParam();
  if (how == "AtOneCharacter") emulator.Child().Write("x");
  if (how == "AtTheEndOfInput") emulator.Child().CloseInput();
  if (how == "OnInterrupt") Interrupt(emulator.Child().Id());
  if (how == "OnTerminate") Terminate(emulator.Child().Id());
  emulator.ExpectOrderlyEnd();
  EXPECT_EQ(emulator.LinesWith("Stop  OK").size(), 1u);

  std::ifstream in(emulator.LogFiles().at(0), std::ios::binary);
  std::vector<std::string> stored;
  for (std::string line; std::getline(in, line);)
    if (line != "\r") stored.push_back(line);
  EXPECT_EQ(stored.size(), emulator.Child().Lines().size() + 2);
  EXPECT_NE(stored.back().find("<<< END LOG >>>"), std::string::npos) << stored.back();
}

INSTANTIATE_TEST_SUITE_P(, RunEnds,
                         testing::Values("AtOneCharacter", "AtTheEndOfInput", "OnInterrupt",
                                         "OnTerminate"),
                         [](const auto& test) { return std::string(test.param); });

// The failure of a stage stands in the log twice: after the stage's words, and at the end of the
// run as the bare failure.
void ExpectFailedStage(EmulatorProcess& emulator, const std::string& stage,
                       const std::string& failure) {
  emulator.Start();
  emulator.Allow(failure);
  emulator.ExpectOrderlyEnd();
  const auto lines = emulator.LinesWith(failure);
  ASSERT_EQ(lines.size(), 2u) << emulator.Child().Output();
  EXPECT_EQ(lines[0], stage + lines[1]);
  EXPECT_TRUE(lines[1].starts_with(" Err")) << lines[1];
  EXPECT_TRUE(emulator.LinesWith("Stop  OK").empty());
}

// The second unit's failure takes the first one with it.
TEST_F(Run, EndsAfterAFailedInitWithoutAKey) {
  EmulatorProcess emulator({{}, {.sampleFreq = 96000}});
  ExpectFailedStage(emulator, " Init FAILED. ERR=", "Sample freq 96000 is not supported");
  EXPECT_TRUE(emulator.LinesWith("Sample freq")[1].starts_with(
      " ErrStr=Sample freq 96000 is not supported Method=Network::AudioCardEmu::InitAudio "
      "File=src\\AudioCardEmu Line="));
}

TEST_F(Run, EndsAfterAFailedStartWithoutAKey) {
  for (const bool discovery : {false, true}) {
    EmulatorProcess emulator(kBothModelsAndAnUnknownOne);
    const wire::UdpPort occupant(loop, discovery ? emulator.Discovery() : emulator.Control(kQz820),
                                 nullptr);
    ExpectFailedStage(emulator, " Start FAILED. ERR=", "bind socket failed");
  }
}

// RFC 5737 keeps the address for documents.
TEST_F(Run, EndsWhereNoInterfaceHasTheAddress) {
  EmulatorProcess emulator;
  emulator.WriteSettings(SettingsText("192.0.2.1", 8000, 15001, {{.type = "QZ820"}}));
  ExpectFailedStage(emulator, " Start FAILED. ERR=", "bind socket failed");
}

TEST_F(Run, GoesOnWithoutAnOutputWhosePortIsTaken) {
  EmulatorProcess emulator({UnitSpec{}});
  const wire::UdpPort occupant(loop, emulator.Control(2), nullptr);
  emulator.StartAndWait();
  emulator.Line("bind socket failed");
  EXPECT_EQ(emulator.LinesWith("bind socket failed").size(), 1u);
  Ask(emulator.Control(), "get_dev_info", "dev_info");
}

TEST_F(Run, OutlivesTheReaderOfItsOutput) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartAndWait();
  emulator.Child().StopReading();
  for (int i = 0; i < 3; ++i)
    Ask(emulator.Control(), "get_dev_info", "dev_info");
}

// Users lose their work if the defaults replace the file, and are in the dark if nothing is said.
TEST_F(Run, NamesABadSettingsFileKeepsItAndGoesOn) {
  EmulatorProcess emulator;
  const std::string bytes = "{\"units\":[{\"UnitId\":\"\xED\xA0\x80\"}]}";
  emulator.WriteSettings(bytes);
  emulator.Start();
  const std::string path = emulator.SettingsPath().string();
  EXPECT_NE(emulator.Line(path).find(" ErrStr="), std::string::npos);
  emulator.Line(" Start OK");
  emulator.Stop();
  EXPECT_EQ(emulator.LinesWith(" Method=").size(), 1u);
  EXPECT_TRUE(emulator.LinesWith("QZ-640 Emulator: ")[0].ends_with(kDefaults + std::string(" ")));
  EXPECT_EQ(emulator.ReadSettings(), bytes);
}

}  // namespace
