// What trace says of units that misbehave, and replay against them.
#include "ctl/CtlFixture.h"

namespace wire {
namespace {

struct Expected {
  std::vector<std::string> parts;  // of one line
  std::string without = "never said";
};

bool HasLine(const std::string& text, const Expected& expected) {
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    const std::string line = text.substr(begin, end - begin);
    const auto has = [&](const std::string& part) { return line.find(part) != std::string::npos; };
    if (std::all_of(expected.parts.begin(), expected.parts.end(), has) && !has(expected.without)) {
      return true;
    }
    begin = end + 1;
  }
  return false;
}

TEST(CtlTrace, ShowsEveryFaultAsItHappensAndReplaysTheRequests) {
  const TestFile capture(".pcapng");
  Process trace(QZ_CTL, {.arguments = {"trace", "--on", "lo", "--write", capture.Text()}});
  // The file is made once the interface is listened to.
  TestLoop().RunUntil([&] { return trace.HasEnded() || std::filesystem::exists(capture.Path()); },
                      kPatience);
  if (trace.HasEnded()) {
    // Where nobody may listen, or there is no libpcap, nothing can be shown. Any other end is a
    // fault.
    const std::string why = trace.ErrorOutput();
    ASSERT_TRUE(why.find("you may not capture") != std::string::npos ||
                why.find("built without libpcap") != std::string::npos)
        << why;
    GTEST_SKIP() << why;
  }

  Process up(QZ_CTL,
             {.arguments = {"up", "--units", "QZ820", "--addr", OwnAddress(), "--emulator",
                            QZ_EMULATOR, "--fault", "ack of get_inputs: late 80ms once", "--fault",
                            "get_fm_freq: error 7 once", "--fault", "input 1: lost 20%"}});
  ASSERT_TRUE(up.WaitLine("running until")) << up.ErrorOutput();
  const std::string line = up.WaitLine("QZ640_UNIT0_CONTROL=")->text;
  const std::string unit = line.substr(line.find('=') + 1);
  Link link(TestLoop());
  const Endpoint control = *Endpoint::Parse(unit);
  link.Tell(control, "get_inputs");
  EXPECT_THROW(link.Ask(control, "get_fm_freq", "fm_freq"), Refused);
  link.SendWithId(4'000'000'000, control, "no_such");
  link.Tell(control, "set_inputs", {{"inputs", {"", OwnAddress() + ":9", "", ""}}});

  const Expected rows[] = {{{unit, "get_inputs", "late: acknowledged after", "sent 2 times"}},
                           {{unit, "error", "\"code\":7", "acknowledged after"}},
                           {{unit, "no_such 4000000000", "BAD: there is no message"}},
                           {{" > " + OwnAddress() + ":9  stream of 48000 Hz"}, "lost 0"}};
  for (const Expected& row : rows) {
    EXPECT_TRUE(TestLoop().RunUntil([&] { return HasLine(trace.Output(), row); }, kPatience))
        << row.parts.back() << "\n"
        << trace.Output();
  }
  trace.Kill();

  // The file alone says the same, and its requests are answered otherwise by a unit without faults.
  const Result read = Ctl({"trace", "--read", capture.Text()});
  EXPECT_EQ(read.status, 0);
  for (const Expected& row : rows)
    EXPECT_TRUE(HasLine(read.out, row)) << row.parts.back() << read.out;
  const Result replay = Ctl({"replay", capture.Text(), "--of", unit, "--against", unit, "--diff"});
  EXPECT_EQ(replay.status, 1) << replay.out << replay.err;
  EXPECT_TRUE(HasLine(replay.out, {{"\"code\" was 7, is missing"}})) << replay.out;
  EXPECT_TRUE(HasLine(replay.out, {{"requests, 2 answered differently"}})) << replay.out;
}

}  // namespace
}  // namespace wire
