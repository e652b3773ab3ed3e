// qz640ctl as its users meet it: the real program against the real emulator, and against units that
// are deliberately wrong.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/EmulatorProcess.h"
#include "support/Process.h"
#include "support/WireAudio.h"
#include "support/WireJson.h"
#include "support/WrongUnit.h"

namespace wire {
namespace {

struct Result {
  int status = -1;
  std::string out;
  std::string err;

  // The lines of standard output as JSON objects.
  std::vector<Json> Objects() const {
    std::vector<Json> objects;
    for (size_t begin = 0; begin < out.size();) {
      const size_t end = std::min(out.find('\n', begin), out.size());
      if (end > begin) objects.push_back(Json::Parse(out.substr(begin, end - begin)));
      begin = end + 1;
    }
    return objects;
  }
};

Result Ctl(const std::vector<std::string>& arguments) {
  Process child(QZ_CTL, {.arguments = arguments});
  child.CloseInput();
  Result result;
  result.status = child.WaitExit().value_or(-1);
  result.out = child.Output();
  result.err = child.ErrorOutput();
  return result;
}

// An emulator with one unit of each model, and a way to name them to qz640ctl.
class CtlTest : public testing::Test {
 protected:
  CtlTest() : emulator_({{.id = "studio-a"}, {.type = "QZ820", .id = "tuner-1", .mode = 1}}) {
    // An input that is switched off in the middle of a tick: that tick's packet has no address.
    emulator_.Allow("Send address undefined");
    emulator_.StartAndWait();
  }
  ~CtlTest() override { emulator_.Stop(); }

  Result Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--to", emulator_.Discovery().ToText()});
    return Ctl(arguments);
  }

  EmulatorProcess emulator_;
};

TEST_F(CtlTest, FindListsEveryUnitInBothForms) {
  const Result plain = Run({"find"});
  EXPECT_EQ(plain.status, 0) << plain.err;
  EXPECT_NE(plain.out.find("studio-a  QZ610  " + emulator_.Control().ToText()), std::string::npos)
      << plain.out;
  EXPECT_EQ(plain.out.find('\r'), std::string::npos);
  EXPECT_EQ(plain.out.find('\033'), std::string::npos);

  const Result json = Run({"find", "--json"});
  const std::vector<Json> units = json.Objects();
  ASSERT_EQ(units.size(), 2u) << json.out;
  EXPECT_EQ(units[0]["unit_id"].string, "studio-a");
  EXPECT_EQ(units[1]["inputs"].integer, 4);
  EXPECT_EQ(units[1]["control"].string, emulator_.Control(6).ToText());
}

TEST_F(CtlTest, RequestsAskAndSet) {
  EXPECT_EQ(Run({"info", "studio-a", "--json"}).Objects().at(0)["outputs"].integer, 1);
  EXPECT_EQ(Run({"set-inputs", "tuner-1", "0=127.0.0.1:9000", "2=127.0.0.1:9002"}).status, 0);
  EXPECT_EQ(Run({"set-inputs", "tuner-1", "0=off"}).status, 0);
  const std::vector<Json> inputs = Run({"inputs", "tuner-1", "--json"}).Objects();
  ASSERT_EQ(inputs.size(), 4u);
  EXPECT_EQ(inputs[0]["destination"].string, "off");
  EXPECT_EQ(inputs[2]["destination"].string, "127.0.0.1:9002");

  EXPECT_EQ(Run({"fm", "tuner-1", "3=98700", "--json"}).Objects().at(3)["freq"].integer, 98700);
  EXPECT_EQ(Run({"fm-quality", "tuner-1", "--json"}).Objects().at(0)["rssi"].integer, 40);
  EXPECT_EQ(Run({"freq", "studio-a", "44100"}).status, 0);
}

TEST_F(CtlTest, FailuresHaveTheirStatusAndSayWhatToDo) {
  const Result refused = Run({"fm", "studio-a"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("Not supported"), std::string::npos) << refused.err;

  EXPECT_EQ(Run({"set-inputs", "studio-a", "1=off"}).status, 2);
  EXPECT_EQ(Run({"set-inputs", "studio-a", "0=nonsense"}).status, 2);
  EXPECT_EQ(Run({"play", "tuner-1", "--pattern"}).status, 2);
  EXPECT_EQ(Ctl({"no-such-command"}).status, 2);
  EXPECT_EQ(Ctl({"--help"}).status, 0);

  const Result unknown = Run({"info", "no-such-unit", "--timeout", "500"});
  EXPECT_EQ(unknown.status, 3);
  EXPECT_NE(unknown.err.find("studio-a, tuner-1"), std::string::npos) << unknown.err;

  const std::string nobody = OwnAddress() + ":9";
  const Result silent = Ctl({"info", nobody, "--timeout", "500", "--json"});
  EXPECT_EQ(silent.status, 3);
  EXPECT_NE(silent.Objects().at(0)["error"].string.find("firewall"), std::string::npos);
  EXPECT_EQ(Run({"record", "studio-a", "x.wav", "--local", "192.0.2.1"}).status, 4);
}

TEST_F(CtlTest, RecordsBitForBitAndGivesTheInputBack) {
  ASSERT_EQ(Run({"set-inputs", "tuner-1", "1=127.0.0.1:9001"}).status, 0);
  const std::filesystem::path file =
      std::filesystem::temp_directory_path() / ("ctl-" + std::to_string(OwnProcessId()) + ".wav");
  const Result take =
      Run({"record", "tuner-1", "--input", "1", "--seconds", "0.4", file.string(), "--json"});
  ASSERT_EQ(take.status, 0) << take.err;
  EXPECT_EQ(take.Objects().at(0)["lost"].integer, 0);

  // 24-bit stereo behind the header: Mode 1 sends one and the same packet over and over. WAV has
  // its samples little-endian, the wire big-endian.
  std::ifstream in(file, std::ios::binary);
  const Bytes bytes{std::istreambuf_iterator<char>(in), {}};
  ASSERT_GT(bytes.size(), kPayloadSize);
  const Bytes expected = RampPayload(1.0f, true);
  const size_t data = bytes.size() - 100 * kPayloadSize;
  for (size_t i = 0; i + 2 < kPayloadSize; i += 3) {
    const Bytes wire{bytes[data + i + 2], bytes[data + i + 1], bytes[data + i]};
    ASSERT_EQ(wire, Bytes(expected.begin() + static_cast<ptrdiff_t>(i),
                          expected.begin() + static_cast<ptrdiff_t>(i + 3)))
        << "sample " << i / 3;
  }
  EXPECT_EQ(Run({"inputs", "tuner-1", "--json"}).Objects().at(1)["destination"].string,
            "127.0.0.1:9001");

  const Result again = Run({"record", "tuner-1", "--seconds", "0.1", file.string()});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("--force"), std::string::npos) << again.err;
  std::filesystem::remove(file);
}

TEST_F(CtlTest, InterruptedRecordingGivesTheInputBack) {
  const std::filesystem::path file =
      std::filesystem::temp_directory_path() / ("ctl-" + std::to_string(OwnProcessId()) + "i.wav");
  Process child(QZ_CTL, {.arguments = {"record", "studio-a", file.string(), "--to",
                                       emulator_.Discovery().ToText()}});
  const auto deadline = Clock::now() + kPatience;
  while (!std::filesystem::exists(file) && Clock::now() < deadline)
    std::this_thread::yield();
  child.Send(Process::Signal::Interrupt);
  EXPECT_EQ(child.WaitExit(), 0) << child.ErrorOutput();
  EXPECT_GT(std::filesystem::file_size(file), 40u);
  EXPECT_EQ(Run({"inputs", "studio-a", "--json"}).Objects().at(0)["destination"].string, "off");
  std::filesystem::remove(file);
}

TEST_F(CtlTest, PlayedPatternIsRecognisedByTheUnit) {
  EXPECT_EQ(Run({"play", "studio-a", "--pattern", "--seconds", "0.3"}).status, 0);
  emulator_.Line("Test data stream OK");
  emulator_.Line("Test data stream FAILED");
}

TEST_F(CtlTest, RelayCarriesRequestsAndTellsWhatItDid) {
  const std::string here = OwnAddress() + ":9100";
  Process relay(QZ_CTL, {.arguments = {"relay", "--seed", "7", "--loss", "30", "--json",
                                       here + "=" + emulator_.Control().ToText()}});
  // The connection's repeats carry each request through the loss.
  const auto deadline = Clock::now() + kPatience;
  Result info;
  do {
    info = Ctl({"info", here, "--json", "--timeout", "1000"});
  } while (info.status != 0 && Clock::now() < deadline);
  EXPECT_EQ(info.Objects().at(0)["unit_id"].string, "studio-a");
  relay.Send(Process::Signal::Terminate);
  EXPECT_EQ(relay.WaitExit(), 0) << relay.ErrorOutput();
  const std::string out = relay.Output();
  EXPECT_GE(Json::Parse(out.substr(0, out.find('\n')))["taken"].integer, 2) << out;
  emulator_.Allow("Protocol error. No ack received");
}

TEST_F(CtlTest, WatchReportsEveryInput) {
  const std::vector<Json> rows = Run({"watch", "--seconds", "1.5", "--json"}).Objects();
  ASSERT_EQ(rows.size(), 5u);
  EXPECT_NEAR(rows[1]["rate"].number, 250, 25);
  EXPECT_GT(rows[1]["peak_left_db"].number, -1);  // a full ramp
}

TEST_F(CtlTest, CheckPassesOnTheEmulator) {
  // Two checks provoke these on purpose.
  emulator_.Allow("Protocol error. No ack received");
  emulator_.Allow("Sample freq 96000 is not supported");
  for (const char* unit : {"studio-a", "tuner-1"}) {
    const Result result = Run({"check", unit, "--json"});
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_GE(result.Objects().size(), 15u);
  }
}

// The tour must find each fault, and name it.
TEST(CtlCheck, NamesWhatIsWrongWithAWrongUnit) {
  const std::pair<Fault, const char*> faults[] = {
      {Fault::AcknowledgesLate, "acknowledgement"}, {Fault::AcknowledgesWrongId, "acknowledgement"},
      {Fault::RepeatsWithoutEnd, "repeats"},        {Fault::RefersToWrongId, "get_fm_freq"},
      {Fault::WrongPayloadType, "input 0 format"},  {Fault::DropsEveryTenth, "input 0 sequence"},
  };
  for (const auto& [fault, check] : faults) {
    WrongUnit unit(OwnAddress(), fault);
    const std::string control = unit.Control().ToText();
    const Result result = Ctl({"check", control, "--to", control, "--timeout", "1000", "--json"});
    EXPECT_EQ(result.status, 1) << check << result.err;
    bool named = false;
    for (const Json& line : result.Objects()) {
      if (line.Has("check") && line["check"].string == check) {
        named = line["result"].string == "fail";
      }
    }
    EXPECT_TRUE(named) << check << "\n" << result.out;
  }
  WrongUnit mute(OwnAddress(), Fault::NeverAcknowledges);
  const std::string control = mute.Control().ToText();
  EXPECT_NE(Ctl({"check", control, "--to", control, "--timeout", "1000"}).status, 0);
}

TEST(CtlUp, RunsACommandWithTheAddressesAndItsStatus) {
  const std::string own = OwnAddress();
  const Result result =
      Ctl({"up", "--units", "2xQZ610", "--addr", own, "--emulator", QZ_EMULATOR, "--json", "--",
           QZ_CTL, "info", "no-such-unit", "--to", own + ":9", "--timeout", "300"});
  EXPECT_EQ(result.status, 3) << result.err;  // the command's
  const Json first = result.Objects().at(0);
  EXPECT_EQ(first["QZ640_UNITS"].string, "2");
  EXPECT_EQ(first["QZ640_UNIT1_ID"].string, "emu-2");

  EXPECT_EQ(Ctl({"up", "--emulator", "/no/such/emulator"}).status, 2);
  EXPECT_EQ(Ctl({"up", "--units", ",", "--emulator", QZ_EMULATOR}).status, 2);
  EXPECT_EQ(Ctl({"up", "--addr", "192.0.2.1", "--emulator", QZ_EMULATOR}).status, 4);
}

TEST(CtlDoctor, FindsWhatIsWrongInASettingsFile) {
  const std::filesystem::path file =
      std::filesystem::temp_directory_path() / ("ctl-" + std::to_string(OwnProcessId()) + ".json");
  std::ofstream(file) << R"({"AddrStr":"","BasePort":15001})";
  const Result result = Ctl({"doctor", file.string()});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.out.find("\"AddrStr\" is empty: this unit can't be found"), std::string::npos);
  EXPECT_NE(result.out.find("share port 15001"), std::string::npos) << result.out;
  std::filesystem::remove(file);
}

}  // namespace
}  // namespace wire
