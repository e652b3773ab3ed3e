// An emulator of one's own: what it takes, where it runs, and how it ends.
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>

#include "ctl/CtlFixture.h"

namespace wire {
namespace {

namespace files = std::filesystem;

// A folder of the test's own, and "up" with its temporary files there.
class CtlUp : public testing::Test {
 protected:
  CtlUp() : folder_(files::temp_directory_path() / ("up-" + std::to_string(OwnProcessId()))) {
    files::remove_all(folder_);
    files::create_directories(folder_ / "tmp");
  }
  ~CtlUp() override {
    std::error_code ignored;
    files::remove_all(folder_, ignored);
  }

  std::unique_ptr<Process> Start(std::vector<std::string> arguments) const {
    if (arguments.front() == "up") {
      arguments.insert(arguments.begin() + 1, {"--emulator", QZ_EMULATOR, "--timeout", "10000"});
    }
    return std::make_unique<Process>(
        QZ_CTL, Process::Options{.arguments = arguments,
                                 .environment = {{"TMPDIR", (folder_ / "tmp").string()},
                                                 {"TMP", (folder_ / "tmp").string()}}});
  }
  Result Run(const std::vector<std::string>& arguments) const {
    const auto child = Start(arguments);
    return ResultOf(*child);
  }

  static std::string Value(Process& up, const std::string& key) {
    const auto line = up.WaitLine(key + "=");
    EXPECT_TRUE(line) << up.ErrorOutput();
    return line ? line->text.substr(line->text.find('=') + 1) : std::string();
  }

  std::string Write(const std::string& name, const std::string& bytes) const {
    std::ofstream(folder_ / name, std::ios::binary) << bytes;
    return (folder_ / name).string();
  }
  std::string Read(const std::string& name) const {
    std::ifstream in(folder_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  size_t LeftOvers() const {
    const files::directory_iterator all(folder_ / "tmp");
    return static_cast<size_t>(std::count_if(begin(all), end(all), [](const auto& entry) {
      return entry.path().filename().string().starts_with("qz640ctl-up-");
    }));
  }

  const files::path folder_;
};

TEST_F(CtlUp, RunsACommandWithTheAddressesAndItsStatus) {
  const std::string own = OwnAddress();
  const Result result = Run({"up", "--units", "2xQZ610", "--addr", own, "--json", "--", QZ_CTL,
                             "info", "no-such-unit", "--to", own + ":9", "--timeout", "300"});
  EXPECT_EQ(result.status, 3) << result.err;  // the command's
  ASSERT_EQ(result.Objects().size(), 1u) << result.out;
  EXPECT_EQ(result.Objects()[0]["QZ640_UNITS"], "2");
  EXPECT_EQ(result.Objects()[0]["QZ640_UNIT1_ID"], "emu-2");
  EXPECT_EQ(LeftOvers(), 0u);
}

TEST_F(CtlUp, RunsUntilCtrlCAndStopsItsEmulator) {
  const auto up = Start({"up", "--units", "QZ610", "--addr", OwnAddress()});
  const std::string control = Value(*up, "QZ640_UNIT0_CONTROL");
  EXPECT_EQ(Ctl({"info", control}).status, 0);
  Interrupt(up->Id());
  EXPECT_EQ(up->WaitExit(), 0) << up->ErrorOutput();
  EXPECT_EQ(Ctl({"info", control, "--timeout", "500"}).status, 3);
}

TEST_F(CtlUp, ShowsAPageForAsLongAsItRuns) {
  Process up(QZ_CTL, {.arguments = {"up", "--web", "--units", "QZ610", "--addr", OwnAddress(),
                                    "--emulator", QZ_EMULATOR},
                      .environment = {{"QZ640_WEB_PORT", "0"}}});
  const std::string url = "http://127.0.0.1:";
  const auto at = [&] { return up.ErrorOutput().find(url); };
  ASSERT_TRUE(TestLoop().RunUntil([&] { return at() != std::string::npos; }, kPatience));
  ASSERT_TRUE(up.WaitLine("running until")) << up.ErrorOutput();
  const int port = std::stoi(up.ErrorOutput().substr(at() + url.size()));
  const auto isShown = [port] {
    asio::io_context context;
    asio::ip::tcp::socket socket(context);
    asio::error_code error;
    socket.connect({asio::ip::address_v4::loopback(), static_cast<uint16_t>(port)}, error);
    return !error;
  };
  EXPECT_TRUE(isShown());
  Interrupt(up.Id());
  EXPECT_EQ(up.WaitExit(), 0) << up.ErrorOutput();
  EXPECT_FALSE(isShown());
}

// A typing error gives no deaf unit, and nothing starts.
TEST_F(CtlUp, WhatIsNotUnderstoodStartsNothing) {
  const std::string deaf = Write("deaf.json", R"({"units":[{"UnitId":"a"}]})");
  const std::string broken = Write("broken.json", R"({"AddrStr":7})");
  const struct {
    std::vector<std::string> arguments;
    int status;
    std::string says;
  } rows[] = {
      {{"--units", "QZ601"}, 2, "\"QZ601\" in \"QZ601\" is no model; there are QZ610, QZ820"},
      {{"--units", "2QZ610"}, 2, "\"2QZ610\""},
      {{"--units", "QZ610,"}, 2, "is no model"},
      {{"--units", "none:QZ610"}, 2, "must name what is no model"},
      {{"--units", "400xQZ610,101xQZ820"}, 2, "1 to 500 units"},
      {{"--id", "QZ610"}, 2, "must read ID=MODEL"},
      {{"--id", "a=QZ610", "--id", "a=QZ820"}, 2, "two units would be called \"a\""},
      {{"--mode", "5"}, 2, "--mode"},
      {{"--speed", "0"}, 2, "--speed"},
      {{"--freq", "44000"}, 2, "--freq"},
      {{"--addr", "localhost"}, 2, "\"localhost\" is no address"},
      {{"--addr", "127.0.0.1:80"}, 2, "--port sets the port"},
      {{"--addr", "198.51.100.1"}, 4, "no address of this machine"},
      {{"--settings", (folder_ / "none.json").string()}, 2, "can't be read"},
      {{"--settings", broken}, 2, "\"AddrStr\" must be a text"},
      {{"--settings", deaf}, 2, "\"AddrStr\" is empty"},
      {{"--settings", deaf, "--units", "QZ610"}, 2, "--units"},
      {{"--detach", "--", "true"}, 2, "--detach"},
      {{"--until-eof", "--", "true"}, 2, "--until-eof"},
      {{"--state-dir", deaf}, 1, "deaf.json"},
      {{"--state-dir", files::path(QZ_EMULATOR).parent_path().string()}, 1, "own folder"},
      {{"--emulator", (folder_ / "none").string()}, 2, "there is no emulator at"},
  };
  for (const auto& row : rows) {
    std::vector<std::string> arguments{"up"};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    const bool own = row.arguments.front() != "--emulator";
    const Result result = own ? Run(arguments) : Ctl(arguments);
    EXPECT_EQ(result.status, row.status) << row.says;
    EXPECT_NE(result.err.find(row.says), std::string::npos) << result.err;
  }
  EXPECT_EQ(LeftOvers(), 0u);
}

// As a test runner's fixture: what it is to be is said, and it ends with who started it.
TEST_F(CtlUp, UnitsAreAsAskedForAndEndWithStandardInput) {
  const std::string env = (folder_ / "up.env").string();
  const auto up =
      Start({"up", "--units", "QZ610, none:it's odd", "--id", "studio-a=QZ820", "--freq", "44100",
             "--mode", "1", "--addr", OwnAddress(), "--env-file", env, "--until-eof"});
  ASSERT_TRUE(up->WaitLine("running until standard input ends")) << up->ErrorOutput();
  const std::string discovery = Value(*up, "QZ640_DISCOVERY");
  const std::string text = Read("up.env");
  EXPECT_NE(text.find("QZ640_DISCOVERY=" + discovery + "\n"), std::string::npos) << text;
  std::string found;
  for (const Json& unit : Ctl({"find", "--to", discovery, "--json"}).Objects())
    found += TextAt(unit, "unit_id") + "=" + TextAt(unit, "unit_type") + " ";
  EXPECT_EQ(found, "emu-1=QZ610 emu-2=it's odd studio-a=QZ820 ");
  const files::path run = Value(*up, "QZ640_RUN");
  std::ifstream in(run / (files::path(QZ_EMULATOR).filename().string() + ".json"));
  const Json settings = Json::parse(in);
  for (const Json& unit : settings["units"]) {
    EXPECT_EQ(unit["SampleFreq"], 44100);
    EXPECT_EQ(unit["Mode"], 1);
  }
  up->Write("more\n");
  EXPECT_EQ(Ctl({"info", Value(*up, "QZ640_UNIT0_CONTROL")}).status, 0);
  up->CloseInput();
  EXPECT_EQ(up->WaitExit(), 0) << up->ErrorOutput();
  EXPECT_FALSE(files::exists(env));
}

// What a service starts: the user's file is read and never written, the folder keeps the rest.
TEST_F(CtlUp, AStateFolderKeepsSettingsAndLogsForOneRunAtATime) {
  const std::string text =
      R"({"AddrStr":")" + OwnAddress() + R"(","Mod":1,"units":[{"UnitId":"a"}]})";
  const std::string settings = Write("a.json", text);
  const std::vector<std::string> start{"up", "--settings", settings, "--state-dir",
                                       (folder_ / "state").string()};
  auto up = Start(start);
  EXPECT_EQ(Value(*up, "QZ640_UNIT0_CONTROL"), OwnAddress() + ":8000");
  EXPECT_NE(up->ErrorOutput().find("keys that nothing reads: Mod"), std::string::npos);
  EXPECT_NE(Read("state/" + files::path(QZ_EMULATOR).filename().string() + ".json")
                .find("\"BroadcastPort\":15001"),
            std::string::npos);
  EXPECT_EQ(Read("a.json"), text);
  const std::string logs = files::path(QZ_EMULATOR).filename().string() + ".logs";
  EXPECT_TRUE(files::exists(folder_ / "state" / logs));
  const Result second = Run(start);
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.err.find("another run has "), std::string::npos) << second.err;

  // A run that is killed takes its emulator along and keeps nobody out.
  const std::string control = Value(*up, "QZ640_UNIT0_CONTROL");
  up->Kill();
  EXPECT_TRUE(TestLoop().RunUntil(
      [&] {
        return Ctl({"info", control, "--timeout", "100"}).status == 3;
      },
      kPatience));
  up = Start(start);
  EXPECT_EQ(Value(*up, "QZ640_UNIT0_ID"), "a");
}

TEST_F(CtlUp, AnEmulatorThatDiesEndsTheRunAsAFailure) {
  const auto up = Start({"up", "--units", "QZ610", "--addr", OwnAddress()});
  ASSERT_TRUE(up->WaitLine("running until")) << up->ErrorOutput();
  Terminate(std::stoi(Value(*up, "QZ640_PID")));
  EXPECT_EQ(up->WaitExit(), 1);
  EXPECT_NE(up->ErrorOutput().find("the emulator has ended by itself, with status 0"),
            std::string::npos)
      << up->ErrorOutput();
}

TEST_F(CtlUp, ALaterRunSweepsWhatAKilledOneLeft) {
  const auto killed = Start({"up", "--units", "QZ610", "--addr", OwnAddress()});
  ASSERT_TRUE(killed->WaitLine("running until")) << killed->ErrorOutput();
  const auto living = Start({"up", "--units", "QZ610", "--addr", OwnAddress()});
  ASSERT_TRUE(living->WaitLine("running until")) << living->ErrorOutput();
  killed->Kill();
  EXPECT_EQ(LeftOvers(), 2u);
  const auto next = Start({"up", "--units", "QZ610", "--addr", OwnAddress()});
  ASSERT_TRUE(next->WaitLine("running until")) << next->ErrorOutput();
  EXPECT_EQ(LeftOvers(), 2u);
  EXPECT_TRUE(files::exists(Value(*living, "QZ640_RUN")));
}

TEST_F(CtlUp, ADetachedRunGoesOnUntilItIsTakenDown) {
  const std::vector<std::string> start{"up",     "--units",    "QZ610",
                                       "--addr", OwnAddress(), "--detach"};
  const auto first = Start(start);
  EXPECT_EQ(first->WaitExit(), 0) << first->ErrorOutput();
  const std::string control = Value(*first, "QZ640_UNIT0_CONTROL");
  EXPECT_EQ(Ctl({"info", control}).status, 0);
  EXPECT_EQ(Run(start).status, 0);
  const Result which = Run({"down"});
  EXPECT_EQ(which.status, 2);
  EXPECT_NE(which.err.find("2 detached runs are there"), std::string::npos) << which.err;
  EXPECT_EQ(Run({"down", Value(*first, "QZ640_RUN")}).status, 0);
  EXPECT_EQ(Ctl({"info", control, "--timeout", "500"}).status, 3);
  EXPECT_EQ(Run({"down"}).out.substr(0, 6), "ended ");
  EXPECT_EQ(Run({"down"}).out, "no detached run of yours is there\n");
  EXPECT_EQ(LeftOvers(), 0u);

  const Result failed = Run({"up", "--addr", "198.51.100.1", "--detach"});
  EXPECT_EQ(failed.status, 4);
  EXPECT_NE(failed.err.find("no address of this machine"), std::string::npos) << failed.err;
}

}  // namespace
}  // namespace wire
