// Who looks at a unit leaves its sound where it was: while a command runs, at its end, and where it
// is killed.
#include "ctl/CtlFixture.h"
#include "wire/StreamStats.h"
#include "wire/Streams.h"

namespace wire {
namespace {

// A state folder of the test's own, and an input that somebody hears.
class LoanTest : public CtlTest {
 protected:
  LoanTest() {
    std::filesystem::remove_all(state_);
    EXPECT_EQ(Start({"set-inputs", Tuner(), "0=" + Heard()})->WaitExit(), 0);
  }
  ~LoanTest() override { std::filesystem::remove_all(state_); }

  // By address, which spares each command the discovery.
  std::string Tuner() const { return emulator_.Control(6).ToText(); }
  std::string Heard() const { return heard_.Local().ToText(); }

  std::unique_ptr<Process> Start(const std::vector<std::string>& arguments) const {
    const std::string state = state_.string();
    return std::make_unique<Process>(
        QZ_CTL,
        Process::Options{.arguments = WithTo(arguments),
                         .environment = {{"XDG_STATE_HOME", state}, {"LOCALAPPDATA", state}}});
  }

  std::string Now() const {
    const auto child = Start({"inputs", Tuner(), "--json"});
    return ResultOf(*child).Objects().at(0)["destination"];
  }

  // Waits until the input goes elsewhere than to `before`, and says where.
  std::string WaitMoved(const std::string& before) const {
    const auto deadline = Clock::now() + kPatience;
    std::string now = before;
    while (now == before && Clock::now() < deadline)
      now = Now();
    EXPECT_NE(now, before);
    return now;
  }

  size_t Files() const {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(state_ / "qz640ctl"))
      count += entry.path().extension() == ".loans" ? 1 : 0;
    return count;
  }

  struct Order {
    bool kill;  // instead of Ctrl-C
    bool firstEndsFirst;
  };

  // Two commands that hear the same input.
  void Overlap(const Order& order) {
    SCOPED_TRACE(order.firstEndsFirst ? "first ends first" : "second ends first");
    heard_.Clear();
    const auto first = Start({"watch", Tuner()});
    const std::string atFirst = WaitMoved(Heard());
    const auto second = Start({"watch", Tuner()});
    WaitMoved(atFirst);
    EXPECT_TRUE(heard_.WaitCount(heard_.Packets().size() + 50));
    End(order.firstEndsFirst ? *first : *second, order.kill);
    if (order.kill) Now();  // any command heals
    EXPECT_TRUE(heard_.WaitCount(heard_.Packets().size() + 50));
    End(order.firstEndsFirst ? *second : *first, order.kill);
    EXPECT_EQ(Now(), Heard());
    EXPECT_EQ(Files(), 0u);
  }

  static void End(Process& child, bool kill) {
    kill ? child.Kill() : Interrupt(child.Id());
    EXPECT_TRUE(child.WaitExit());
  }

  const std::filesystem::path state_ =
      std::filesystem::temp_directory_path() / ("loans-" + std::to_string(OwnProcessId()));
  AudioReceiver heard_{TestLoop(), {OwnAddress(), 0}};
};

// Each order in which two overlapping commands can end: the listener gets every packet, once.
TEST_F(LoanTest, OverlappingCommandsKeepTheListenerAndTheDestination) {
  for (const bool firstEndsFirst : {true, false}) {
    Overlap({.kill = false, .firstEndsFirst = firstEndsFirst});
    EXPECT_TRUE(heard_.WaitCount(heard_.Packets().size() + 10));
    StreamStats stats;
    for (const StreamPacket& packet : heard_.Packets())
      stats.Add(packet);
    EXPECT_EQ(stats.Lost() + stats.duplicates + stats.foreign, 0u) << firstEndsFirst;
  }
}

TEST_F(LoanTest, OverlappingCommandsThatAreKilledAreHealed) {
  for (const bool firstEndsFirst : {true, false})
    Overlap({.kill = true, .firstEndsFirst = firstEndsFirst});
}

TEST_F(LoanTest, AKilledRecordingLeavesAFileThatCanBeReadAndAnInputThatIsRestored) {
  const TestFile file("k.wav");
  const auto record = Start({"record", Tuner(), file.Text()});
  WaitMoved(Heard());
  heard_.Clear();
  ASSERT_TRUE(heard_.WaitCount(400));  // 1.6 s
  record->Kill();
  record->WaitExit();
  const auto restore = Start({"restore", "--json"});
  const Result result = ResultOf(*restore);
  EXPECT_EQ(result.status, 0) << result.err;
  ASSERT_EQ(result.Objects().size(), 1u) << result.out;
  EXPECT_EQ(result.Objects()[0]["destination"], Heard());
  EXPECT_EQ(Now(), Heard());

  // The sizes of the file and of its samples, little-endian.
  std::ifstream in(file.Path(), std::ios::binary);
  const Bytes bytes{std::istreambuf_iterator<char>(in), {}};
  const auto number = [&bytes](size_t at) {
    return bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 | bytes[at + 3] << 24;
  };
  ASSERT_GT(bytes.size(), 80u);
  EXPECT_EQ(std::string(bytes.begin() + 72, bytes.begin() + 76), "data");
  EXPECT_GE(number(76), 200 * 1152);
  EXPECT_EQ(number(4), number(76) + 72);
}

// It may never come back, and the commands to come are about other units.
TEST_F(LoanTest, OfAUnitThatIsAwayRestoreAloneSpeaksUntilItIsForgotten) {
  const auto watch = Start({"watch", Tuner()});
  WaitMoved(Heard());
  watch->Kill();
  watch->WaitExit();
  emulator_.Stop();
  const auto find = Start({"find", "--timeout", "300"});
  EXPECT_EQ(ResultOf(*find).err.find("tuner-b"), std::string::npos) << find->ErrorOutput();
  const auto restore = Start({"restore"});
  const Result kept = ResultOf(*restore);
  EXPECT_EQ(kept.status, 3) << kept.err;
  EXPECT_NE(kept.out.find("lent to \"watch\" "), std::string::npos) << kept.out;

  for (const auto& entry : std::filesystem::directory_iterator(state_ / "qz640ctl")) {
    std::ifstream in(entry.path());
    std::string text{std::istreambuf_iterator<char>(in), {}};
    for (size_t at = 0; (at = text.find("\"since\":1", at)) != std::string::npos; ++at)
      text.insert(at + 8, "-");
    std::ofstream(entry.path()) << text;
  }
  const auto late = Start({"restore"});
  const Result forgotten = ResultOf(*late);
  EXPECT_EQ(forgotten.status, 0) << forgotten.err;
  EXPECT_NE(forgotten.out.find("forgotten"), std::string::npos) << forgotten.out;
  EXPECT_EQ(Files(), 0u);
}

TEST_F(LoanTest, WhatACommandTouchesIsAskedForAndSaid) {
  const struct {
    std::vector<std::string> arguments;
    int status;
    std::string says;
    bool heard;  // the listener gets packets meanwhile
  } cases[] = {
      {{"watch", Tuner(), "--seconds", "0.6"}, 0, "passed on to there", true},
      {{"watch", Tuner(), "--seconds", "0.6", "--take"}, 0, "taken from there", false},
      {{"watch", Tuner(), "--seconds", "0.6", "--idle"}, 0, "left out", true},
      {{"record", Tuner(), "x.wav", "--idle"}, 1, "without --idle", true},
      {{"check", Tuner()}, 0, "left out, and tuners and sample frequency", true},
      {{"watch", emulator_.Control().ToText(), "--seconds", "0.1"}, 0, "no input was in use", true},
  };
  emulator_.Allow("Protocol error. No ack received");
  for (const auto& row : cases) {
    const auto child = Start(row.arguments);
    const Result result = ResultOf(*child);
    EXPECT_EQ(result.status, row.status) << result.out << result.err;
    EXPECT_NE(result.err.find(row.says), std::string::npos) << result.err;
    EXPECT_EQ(Now(), Heard()) << row.says;
    heard_.WaitCount(heard_.Packets().size() + 10);
    StreamStats stats;
    for (const StreamPacket& packet : heard_.Take())
      stats.Add(packet);
    EXPECT_EQ(stats.Lost() == 0, row.heard) << row.says;
  }
  // Another destination than the one that was lent is left as it is.
  const auto watch = Start({"watch", Tuner(), "--seconds", "3"});
  WaitMoved(Heard());
  ASSERT_EQ(Run({"set-inputs", Tuner(), "0=10.1.2.3:9"}).status, 0);
  const Result result = ResultOf(*watch);
  EXPECT_NE(result.err.find("goes to 10.1.2.3:9 now, not here"), std::string::npos) << result.err;
  EXPECT_EQ(Now(), "10.1.2.3:9");
}

}  // namespace
}  // namespace wire
