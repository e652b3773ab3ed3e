// Every command against the real emulator, for people and for programs.
#include <sstream>
#include <thread>

#include "ctl/CtlFixture.h"
#include "support/MiddleRate.h"
#include "wire/Audio.h"
#include "wire/Relay.h"

namespace wire {
namespace {

// RIFF, as Microsoft and IBM defined it in 1991: 16-bit mono at 44100 Hz, 4410 frames.
std::string MonoWav() {
  constexpr char kHeader[] =
      "RIFF\x98\x22\0\0WAVEfmt "
      "\x10\0\0\0\1\0\1\0\x44\xAC\0\0\x88\x58\1\0\2\0\x10\0data\x74\x22\0\0";
  return std::string(kHeader, sizeof kHeader - 1) + std::string(8820, '\0');
}

TEST_F(CtlTest, EveryCommandAnswersPeopleAndPrograms) {
  const TestFile file(".wav");
  const TestFile other("o.wav");  // mono at 44100 Hz, 100 ms of silence
  other.Write(MonoWav());
  struct {
    std::vector<std::string> arguments;
    std::string plain;  // stands in the text
    size_t objects;     // at least so many lines of JSON,
    std::string key;    // the last with this member
    std::string value;  // of that text or whole number; empty: any
  } const commands[] = {
      {{"find"}, "studio-a  QZ610  " + emulator_.Control().ToText(), 3, "unit_id", "odd-c"},
      {{"info", "studio-a"}, "model             QZ610", 1, "outputs", "1"},
      {{"info", emulator_.Control(6).ToText()}, "tuner-b", 1, "inputs", "4"},
      {{"set-inputs", "tuner-b", "0=127.0.0.1:9000", "3=127.0.0.1:9002"},
       "9002",
       4,
       "destination",
       "127.0.0.1:9002"},
      {{"set-inputs", "tuner-b", "0=off"}, "0      off", 4, "destination", "127.0.0.1:9002"},
      {{"inputs", "tuner-b"}, "3      127.0.0.1:9002", 4, "input", "3"},
      {{"fm", "tuner-b", "3=98700"}, "3      98700", 4, "freq", "98700"},
      {{"fm-quality", "tuner-b"}, "RSSI", 4, "rssi", "40"},
      {{"record", "tuner-b", file.Text(), "--seconds", "0.1", "--force"},
       "0.10 s at 48000 Hz",
       1,
       "frames",
       "4800"},
      {{"play", "studio-a", "--tone", "440", "--seconds", "0.1"},
       "sent 25 packets",
       1,
       "failed",
       "0"},
      {{"play", "studio-a", file.Text()}, "sent 25 packets", 1, "packets", "25"},
      {{"play", "studio-a", other.Text(), "--freq", "44100", "--force"},
       "sent 23 packets",
       1,
       "silent",
       "0"},
      {{"watch", "tuner-b", "--seconds", "1.2"},
       "####################  ####################",
       4,
       "lost",
       "0"},
      {{"freq", "studio-a", "44100"}, "acknowledged 44100 Hz", 1, "device_freq", "44100"},
      {{"play", "studio-a", "--tone", "440", "--seconds", "0.1"}, "sent 23 p", 1, "packets", "23"},
  };
  for (const auto& command : commands) {
    const Result plain = Run(command.arguments);
    EXPECT_EQ(plain.status, 0) << plain.err;
    EXPECT_NE(plain.out.find(command.plain), std::string::npos) << plain.out;
    // For a file or a pipe, neither drawing nor colour.
    EXPECT_EQ((plain.out + plain.err).find_first_of("\r\033"), std::string::npos) << plain.out;

    std::vector<std::string> arguments = command.arguments;
    arguments.push_back("--json");
    const Result json = Run(arguments);
    EXPECT_EQ(json.status, 0) << json.err;
    const std::vector<Json> objects = json.Objects();
    ASSERT_GE(objects.size(), command.objects) << json.out;
    const Json& member = objects.back()[command.key];
    EXPECT_EQ(member.is_string() ? member.get<std::string>() : member.dump(), command.value)
        << json.out;
  }
}

TEST_F(CtlTest, EveryCommandHasHelpWithAnExampleAndItsStatuses) {
  for (const std::string command :
       {"find", "info", "inputs", "set-inputs", "freq", "fm", "fm-quality", "record", "play",
        "watch", "check", "restore", "up", "down", "relay", "doctor", "soak"}) {
    const Result help = Ctl({"help", command});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Example:\n  qz640ctl " + command), std::string::npos) << help.out;
    EXPECT_NE(help.out.find("Exit status: 0 done"), std::string::npos) << help.out;
    std::istringstream lines(help.out);
    for (std::string line; std::getline(lines, line);)
      EXPECT_LE(line.size(), 80u) << line;
  }
}

TEST_F(CtlTest, OptionsStandAnywhereAndInTheEnvironment) {
  const std::string at = emulator_.Discovery().ToText();
  const std::string nobody = OwnAddress() + ":9";
  const struct {
    std::vector<std::string> arguments;
    std::vector<std::pair<std::string, std::string>> environment;
    int status;
    std::string says;
  } rows[] = {
      {{"--json", "--to", at, "info", "studio-a"}, {}, 0, R"("unit_id":"studio-a")"},
      {{"find"}, {{"QZ640_DISCOVERY", nobody + "," + at}, {"QZ640_JSON", "1"}}, 0, R"("inputs":4)"},
      {{"find", "--to", at}, {{"QZ640_DISCOVERY", nobody}}, 0, "studio-a"},
      {{"find"}, {{"QZ640_TIMEOUT", "soon"}, {"QZ640_JSON", "1"}}, 2, "(from QZ640_TIMEOUT)"},
      // Another command's variable means nothing here.
      {{"find", "--to", at}, {{"QZ640_RECORD_SECONDS", "soon"}}, 0, "studio-a"},
      {{"record", "--help"}, {}, 0, "QZ640_RECORD_SECONDS"},
      {{"--version", "--json"}, {}, 0, R"({"version":")"},
  };
  for (const auto& row : rows) {
    const Result result = Ctl(row.arguments, row.environment);
    EXPECT_EQ(result.status, row.status) << result.err;
    EXPECT_NE(result.out.find(row.says), std::string::npos) << row.says << result.out;
  }
}

TEST(CtlFind, NamesAnswersThatMakeNoSenseUnlessQuiet) {
  std::unique_ptr<UdpPort> unit;
  const auto answer = [&](const Datagram& datagram) {
    Json info{{"msg", "dev_info"}, {"msg_id", 1}, {"unit_id", "u"}, {"unit_type", "QZ610"}};
    for (const char* key : {"hardware", "firmware", "software", "audio_protocol",
                            "control_protocol", "outputs", "rtp_port"})
      info[key] = 1;
    info["inputs"] = 100'000'000;
    unit->TrySend(Encode(info), datagram.from);
  };
  unit = std::make_unique<UdpPort>(TestLoop(), Endpoint(OwnAddress(), 0), answer);
  const std::string at = unit->Local().ToText();
  const std::string note = "makes no sense: " + at + ": no unit has RTP port 1 with 100000000";
  for (const bool quiet : {false, true}) {
    const Result result =
        Ctl({"find", "--to", at, "--timeout", "300", quiet ? "--quiet" : "--verbose"});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.err.find(note) == std::string::npos, quiet) << result.err;
    EXPECT_NE(result.err.find("no unit answered"), std::string::npos) << result.err;
  }
}

TEST_F(CtlTest, RecordsBitForBitAndGivesTheInputBack) {
  ASSERT_EQ(Run({"set-inputs", "tuner-b", "1=127.0.0.1:9001"}).status, 0);
  const TestFile file("-Grüße-日本.wav");  // in no code page of Windows
  const Result take =
      Run({"record", "tuner-b", "--input", "1", "--seconds", "0.4", file.Text(), "--json"});
  ASSERT_EQ(take.status, 0) << take.err;
  EXPECT_EQ(take.Objects().at(0)["lost"], 0);

  // 24-bit stereo after the header: Mode 1 sends one and the same packet over and over. WAV has
  // its samples little-endian, the wire big-endian.
  std::ifstream in(file.Path(), std::ios::binary);
  const Bytes bytes{std::istreambuf_iterator<char>(in), {}};
  const Bytes packet = EncodePacket({}, Ramp(1.0F, true));
  const size_t size = packet.size() - kHeaderBytes;
  ASSERT_GT(bytes.size(), 100 * size);
  const uint8_t* taken = &bytes[bytes.size() - 100 * size];
  for (size_t i = 0; i < size; ++i)
    ASSERT_EQ(taken[i], packet[kHeaderBytes + i / 3 * 3 + 2 - i % 3]) << "byte " << i;
  EXPECT_EQ(Destination("tuner-b", 1), "127.0.0.1:9001");
}

// Whatever takes an input gives it back, however it ends.
TEST_F(CtlTest, AnInterruptedCommandGivesTheInputBack) {
  emulator_.Allow("Protocol error. No ack received");
  emulator_.Allow("Sample freq 1 is not supported");
  const TestFile file("i.wav");
  ASSERT_EQ(Run({"set-inputs", "tuner-b", "0=127.0.0.1:9001"}).status, 0);
  const std::pair<std::vector<std::string>, int> commands[] = {
      {{"record", "tuner-b", file.Text()}, 0},
      {{"watch", "tuner-b"}, 0},
      {{"check", "tuner-b", "--intrusive"}, 1}};
  for (const auto& [arguments, status] : commands) {
    Process child(QZ_CTL, {.arguments = WithTo(arguments)});
    const auto deadline = Clock::now() + kPatience;
    while (Destination("tuner-b", 0) == "127.0.0.1:9001" && Clock::now() < deadline) {
    }
    Interrupt(child.Id());
    EXPECT_EQ(child.WaitExit(), status) << child.ErrorOutput();
    EXPECT_EQ(Destination("tuner-b", 0), "127.0.0.1:9001") << arguments.front();
  }
}

// Whatever a command waits for, Ctrl-C ends it long before its time is over.
TEST(CtlInterrupt, EndsARequestInFlight) {
  const UdpPort silent(TestLoop(), {OwnAddress(), 0}, nullptr);
  const std::string at = silent.Local().ToText();
  const std::vector<std::string> commands[] = {
      {"find", "--to", at}, {"expect", "nobody", "found", "--within", "2min", "--to", at}};
  for (std::vector<std::string> arguments : commands) {
    arguments.insert(arguments.end(), {"--timeout", "120000", "--verbose"});
    Process child(QZ_CTL, {.arguments = arguments});
    TestLoop().RunUntil([&] { return child.ErrorOutput().find("dev_find") != std::string::npos; },
                        kPatience);
    Interrupt(child.Id());
    EXPECT_EQ(child.WaitExit(), 1) << arguments.front() << child.ErrorOutput();
  }
}

TEST_F(CtlTest, ARecordingWhoseStreamEndsDoesSo) {
  const TestFile file("e.wav");
  Process child(
      QZ_CTL,
      {.arguments = WithTo({"record", "studio-a", file.Text(), "--timeout", "500", "--json"})});
  const auto deadline = Clock::now() + kPatience;
  while (!std::filesystem::exists(file.Path()) && Clock::now() < deadline)
    std::this_thread::yield();
  ASSERT_EQ(Run({"set-inputs", "studio-a", "0=off"}).status, 0);
  const Result result = ResultOf(child);
  EXPECT_EQ(result.status, 3);
  EXPECT_GT(result.Objects().at(0)["frames"], 0) << result.err;
  EXPECT_NE(result.err.find("ended early"), std::string::npos) << result.err;
}

// Of two inputs one is silent: that is logged, shown to programs, and handed to a command,
// though the time ends within a second.
TEST_F(CtlTest, AnAlarmIsLoggedAndRunsACommand) {
  const TestFile log(".jsonl");
  const TestFile said(".txt");
  // In quotes the file's name and what stands in front of ">" stay apart in every shell.
  const std::string command = std::string("\"") + QZ_CTL + "\" --version >\"" + said.Text() + "\"";
  const Result result =
      Run({"watch", "studio-a", "tuner-b", "--seconds", "0.9", "--json", "--alert", "silence 0.7s",
           "--alert", "lost 10000", "--log", log.Text(), "--exec", command});
  EXPECT_EQ(result.status, 0) << result.err;
  std::ifstream in(log.Path());
  std::string line;
  ASSERT_TRUE(std::getline(in, line));
  const Json alarm = Json::parse(line);
  EXPECT_EQ(alarm["alert"], "silence 0.7s");
  EXPECT_EQ(alarm["state"], "begins");
  EXPECT_EQ(alarm["unit_id"], "studio-a");
  EXPECT_FALSE(std::getline(in, line)) << line;
  const std::vector<Json> objects = result.Objects();
  EXPECT_EQ(std::count(objects.begin(), objects.end(), alarm), 1);
  EXPECT_NE(result.err.find("studio-a 0: silent for"), std::string::npos) << result.err;
  std::ifstream ran(said.Path());
  std::getline(ran, line);
  EXPECT_NE(line.find("qz640ctl "), std::string::npos) << line;
}

TEST_F(CtlTest, PlayedPatternIsRecognisedByTheUnit) {
  EXPECT_EQ(Run({"play", "studio-a", "--pattern", "--seconds", "0.3"}).status, 0);
  emulator_.Line("Test data stream OK");
  emulator_.Line("Test data stream FAILED");
}

TEST_F(CtlTest, PlayingThatIsInterruptedIsNotDone) {
  Process play(QZ_CTL, {.arguments = WithTo({"play", "studio-a", "--pattern", "--seconds", "60"})});
  emulator_.Line("Test data stream OK");
  Interrupt(play.Id());
  const Result result = ResultOf(play);
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("stopped after "), std::string::npos) << result.err;
}

// What a pipe carries is whole WAV and raw audio, and what is played from there is heard.
TEST_F(CtlTest, RecordsIntoAPipeAndPlaysFromOne) {
  struct {
    std::vector<std::string> format;
    size_t header;
  } const rows[] = {{{}, 80}, {{"--format", "raw"}, 0}};
  for (const auto& row : rows) {
    std::vector<std::string> arguments{"record", "tuner-b", "-", "--seconds", "0.4"};
    arguments.insert(arguments.end(), row.format.begin(), row.format.end());
    Process record(QZ_CTL, {.arguments = WithTo(arguments)});
    EXPECT_EQ(ResultOf(record).status, 0) << record.ErrorOutput();
    const std::string audio = record.Output();
    ASSERT_EQ(audio.size(), row.header + 19200 * 6) << record.ErrorOutput();

    arguments = {"play", "studio-a", "-", "--json"};
    arguments.insert(arguments.end(), row.format.begin(), row.format.end());
    Process play(QZ_CTL, {.arguments = WithTo(arguments)});
    EXPECT_TRUE(play.Write(audio));
    play.CloseInput();
    const Result played = ResultOf(play);
    ASSERT_EQ(played.status, 0) << played.err;
    EXPECT_EQ(played.Objects().at(0)["packets"], 100);
    EXPECT_EQ(played.Objects().at(0)["silent"], 0);
  }
  // A pipe that nobody reads any more ends the recording, which gives the input back.
  Process unread(QZ_CTL, {.arguments = WithTo({"record", "tuner-b", "-"})});
  unread.StopReading();
  EXPECT_EQ(unread.WaitExit(), 0) << unread.ErrorOutput();
  EXPECT_EQ(Destination("tuner-b", 0), "off");
}

TEST_F(CtlTest, RecordsAllInputsInPartsWithoutAGap) {
  const TestFile whole(".wav");
  const std::string begin = whole.Text().substr(0, whole.Text().size() - 4);
  const Result result = Run({"record", "tuner-b", whole.Text(), "--input", "all", "--split",
                             "100ms", "--seconds", "0.25", "--json"});
  EXPECT_EQ(result.status, 0) << result.err;
  ASSERT_EQ(result.Objects().size(), 4u) << result.out;
  EXPECT_EQ(result.Objects()[3]["files"], 3);
  for (const char input : {'0', '1', '2', '3'}) {
    std::string samples;
    for (const char part : {'1', '2', '3'}) {
      const std::string name = begin + "-" + input + "-00" + part + ".wav";
      std::ifstream file(name, std::ios::binary);
      const std::string bytes{std::istreambuf_iterator<char>(file), {}};
      EXPECT_EQ(bytes.size(), 80u + 6 * (part == '3' ? 2400 : 4800)) << name;
      samples += bytes.substr(std::min<size_t>(80, bytes.size()));
      file.close();
      std::filesystem::remove(name);
    }
    // Mode 1 sends one and the same packet over and over.
    EXPECT_EQ(samples.substr(1152), samples.substr(0, samples.size() - 1152)) << input;
  }
}

TEST_F(CtlTest, RelayCarriesRequestsAndTellsWhatItDid) {
  const std::string here = OwnAddress() + ":9100";
  Process relay(QZ_CTL, {.arguments = {"relay", "--seed", "7", "--loss", "30", "--json",
                                       here + "=" + emulator_.Control().ToText()}});
  ASSERT_TRUE(relay.WaitLine("\"seed\":7"));  // listens by now
  // The connection's repeats carry each request through the loss.
  const Result info = Ctl({"info", here, "--json"});
  ASSERT_EQ(info.status, 0) << info.err;
  EXPECT_EQ(info.Objects().at(0)["unit_id"], "studio-a");
  Terminate(relay.Id());
  EXPECT_EQ(relay.WaitExit(), 0) << relay.ErrorOutput();
  const std::vector<Json> lines = ResultOf(relay).Objects();
  ASSERT_EQ(lines.size(), 3u);  // ready, there, back
  EXPECT_GE(lines[1]["taken"], 2);
  emulator_.Allow("Protocol error. No ack received");
}

// Every unit is found at the relay's address, with ports of its own there, and nothing of it is
// missed: requests and answers, inputs, and what is sent to its output.
TEST_F(CtlTest, RelayShowsTheUnitsOfAnotherNetwork) {
  emulator_.Allow("Protocol error. No ack received");
  emulator_.Allow("Sample freq 1 is not supported");
  const std::string here = OwnAddress() + ":15003";
  Process relay(QZ_CTL, {.arguments = {"relay", "--discovery", "--json",
                                       here + "=" + emulator_.Discovery().ToText()}});
  ASSERT_TRUE(relay.WaitLine("\"targets\""));
  const std::vector<Json> real = Run({"find", "--json"}).Objects();
  const std::vector<Json> shown = Ctl({"find", "--json", "--to", here}).Objects();
  ASSERT_EQ(shown.size(), real.size());
  for (const Json& unit : shown) {
    const auto same = std::find_if(real.begin(), real.end(), [&](const Json& other) {
      return other["unit_id"] == unit["unit_id"];
    });
    ASSERT_NE(same, real.end()) << unit;
    EXPECT_NE(unit["control"], (*same)["control"]);
    EXPECT_EQ(unit["rtp_port"] != (*same)["rtp_port"], unit["outputs"] > 0) << unit;
  }
  const Result tour =
      Ctl({"check", "studio-a", "requests", "audio", "--intrusive", "--json", "--to", here});
  EXPECT_EQ(tour.status, 0) << tour.out << tour.err;
  EXPECT_NE(tour.out.find("bit for bit"), std::string::npos) << tour.out;

  // What another relay has sent on ends here: two that face each other would go on for ever.
  Link link(TestLoop(), {OwnAddress(), 0});
  link.Send(*Endpoint::Parse(here), "dev_find", {{"relayed", 1}});
  EXPECT_FALSE(link.Take("dev_info", std::nullopt, std::chrono::milliseconds(300)));
  link.Send(*Endpoint::Parse(here), "dev_find");
  EXPECT_TRUE(link.Take("dev_info"));
  Terminate(relay.Id());
  EXPECT_EQ(relay.WaitExit(), 0) << relay.ErrorOutput();
}

// A tenth fast: 250 packets in 0.9 seconds. The unit says that its output is here.
TEST_F(CtlTest, PlaySendsAtADriftingClock) {
  const Endpoint here(OwnAddress(), 0);
  std::vector<Clock::time_point> times;
  const UdpPort output(TestLoop(), here,
                       [&](const Datagram& datagram) { times.push_back(datagram.time); });
  Relay relay(TestLoop(), {here, emulator_.Control()});
  relay.SetTamper([&](Relay::Way, const Datagram& datagram) -> std::vector<Passed> {
    Json body = Decode(datagram.bytes).body;
    if (body.contains("rtp_port")) body["rtp_port"] = output.Local().port;
    return {{Encode(body)}};
  });
  const Result result =
      Ctl({"play", relay.Local().ToText(), "--tone", "1000", "--seconds", "1", "--ppm", "100000"});
  EXPECT_EQ(result.status, 0) << result.err;
  ASSERT_TRUE(TestLoop().RunUntil([&] { return times.size() == 250; }, kPatience)) << times.size();
  EXPECT_NEAR(MiddleRate(times), 275, 10);
}

}  // namespace
}  // namespace wire
