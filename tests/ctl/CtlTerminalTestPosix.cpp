// What a terminal sees. "script" (package bsdutils) runs a command on one of its own; "tmux" is one
// with a size, with keys, and with a screen that can be read.
#include <thread>

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

TEST_F(CtlTest, ATerminalGetsColourAndProgress) {
  emulator_.Allow("Protocol error. No ack received");
  emulator_.Allow("Sample freq 1 is not supported");
  const std::string to = " --to " + emulator_.Discovery().ToText();
  EXPECT_NE(OnTerminal("check odd-c" + to, "").find("\033[32mpass"), std::string::npos);
  EXPECT_EQ(OnTerminal("check odd-c" + to, "1").find('\033'), std::string::npos);

  const TestFile file("t.wav");
  std::string record = "record tuner-b --seconds 0.5 ";
  record += file.Text() + to;
  EXPECT_NE(OnTerminal(record, "").find(", late 0  L ####"), std::string::npos);
}

// Who reads no further has seen enough; who can't be given the results has to know. Either way the
// inputs go back first.
TEST_F(CtlTest, AClosedPipeEndsACommandAndAFullDiskFailsIt) {
  emulator_.Allow("Protocol error. No ack received");
  emulator_.Allow("Sample freq 1 is not supported");
  ASSERT_EQ(Run({"set-inputs", "tuner-b", "0=127.0.0.1:9001"}).status, 0);
  const std::string tuner = emulator_.Control(6).ToText();  // spares each command the discovery
  const struct {
    std::string arguments;
    std::string to;
    std::string status;
    std::string says;
  } rows[] = {{"watch " + tuner, "| head -1", "0", "in use"},
              {"watch " + tuner + " --json", "| head -1", "0", "in use"},
              {"watch " + tuner, ">/dev/full", "1", "standard output: No space left"},
              {"find --json", ">/dev/full", "1", "standard output: No space left"},
              {"info nobody --json --timeout 300", ">/dev/full", "3", "no unit \"nobody\""},
              {"check " + tuner + " --intrusive", "| head -1", "1", ""}};
  for (const auto& row : rows) {
    const std::string command = std::string("{ ") + QZ_CTL + " " + row.arguments + " --to " +
                                emulator_.Discovery().ToText() + "; echo status $? >&2; } " +
                                row.to;
    Process shell("/bin/sh", {.arguments = {"-c", command}});
    EXPECT_TRUE(shell.WaitExit());
    const std::string err = shell.ErrorOutput();
    EXPECT_NE(err.find("status " + row.status), std::string::npos) << command << err;
    EXPECT_NE(err.find(row.says), std::string::npos) << command << err;
    EXPECT_EQ(Destination("tuner-b", 0), "127.0.0.1:9001") << command;
  }
}

using Lines = std::vector<std::string>;

// A shell on a terminal.
class Terminal {
 public:
  Terminal(int columns, int rows) {
    Ask({"new-session", "-d", "-x", std::to_string(columns), "-y", std::to_string(rows),
         "PS1='ready>' exec sh"});
    Wait("the shell", [](const Lines& lines) { return lines.front() == "ready>"; });
  }
  ~Terminal() {
    Ask({"kill-server"});
    std::error_code ignored;
    std::filesystem::remove(socket_, ignored);
  }

  void Type(const std::string& keys) { Ask({"send-keys", keys}); }
  void Run(const std::string& command) { Ask({"send-keys", command, "Enter"}); }
  void Resize(int columns, int rows) {
    Ask({"resize-window", "-x", std::to_string(columns), "-y", std::to_string(rows)});
  }

  Lines Screen() { return Split(Ask({"capture-pane", "-p"})); }

  // Of tmux: "cursor_flag" and the like.
  std::string State(const std::string& name) {
    return Split(Ask({"display", "-p", "#{" + name + "}"})).front();
  }

  // The screen as soon as it is as wanted.
  Lines Wait(const std::string& what, const std::function<bool(const Lines&)>& wanted) {
    const auto deadline = Clock::now() + kPatience;
    Lines lines = Screen();
    while (!wanted(lines) && Clock::now() < deadline)
      lines = Screen();
    EXPECT_TRUE(wanted(lines)) << what << " didn't come:\n" << testing::PrintToString(lines);
    return lines;
  }

 private:
  std::string Ask(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"-u", "-f", "/dev/null", "-S", socket_.string()});
    Process tmux("/usr/bin/tmux",
                 {.arguments = arguments,
                  .environment = {{"TERM", "xterm"}, {"LC_ALL", "C.UTF-8"}, {"TMUX", ""}}});
    tmux.WaitExit();
    return tmux.Output();
  }

  static Lines Split(const std::string& text) {
    Lines lines;
    for (size_t begin = 0; begin < text.size();) {
      const size_t end = std::min(text.find('\n', begin), text.size());
      lines.push_back(text.substr(begin, end - begin));
      begin = end + 1;
    }
    if (lines.empty()) lines.emplace_back();
    return lines;
  }

  const std::filesystem::path socket_ =
      std::filesystem::temp_directory_path() / ("ctl-" + std::to_string(OwnProcessId()) + ".tmux");
};

bool Has(const Lines& lines, const std::string& part) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string& line) { return line.find(part) != std::string::npos; });
}

// Twelve inputs; an id of wide characters, and one with a mark that takes no column.
class LiveViewTest : public testing::Test {
 protected:
  LiveViewTest()
      : emulator_({{.type = "QZ820", .id = "スタジオ一", .mode = 1},
                   {.type = "QZ820", .id = "cafe\xCC\x81", .mode = 1},
                   {.type = "QZ820", .id = "plain", .mode = 1}}) {
    emulator_.StartAndWait();
  }
  ~LiveViewTest() override { emulator_.Stop(); }

  std::string Command(const std::string& arguments) const {
    return std::string(QZ_CTL) + " " + arguments + " --to " + emulator_.Discovery().ToText();
  }

  EmulatorProcess emulator_;
};

TEST_F(LiveViewTest, FitsEverySize) {
  if (!std::filesystem::exists("/usr/bin/tmux"))
    GTEST_SKIP() << "no tmux, which scripts/test installs";
  Terminal terminal(80, 24);
  terminal.Run(Command("watch"));
  const struct {
    int columns;
    int rows;
    std::string header;  // its end
    std::string footer;  // its beginning
    size_t lines;
  } sizes[] = {{80, 24, " ORDER TEST", "q quit", 15},
               {120, 12, " ORDER TEST", "3 more  q quit", 12},
               {46, 8, " LOST LATE", "6 more  q quit s unit p r j", 8},
               {20, 2, "", "12 more  q quit", 2}};
  for (const auto& size : sizes) {
    SCOPED_TRACE(size.columns);
    terminal.Resize(size.columns, size.rows);
    const Lines lines = terminal.Wait("the view", [&](const Lines& shown) {
      return shown.size() >= size.lines && shown[size.lines - 1].starts_with(size.footer);
    });
    const auto header = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
      return line.starts_with("UNIT");
    });
    ASSERT_NE(header, lines.end());
    EXPECT_TRUE(header->ends_with(size.header)) << *header;
    // What is as wide as it looks stands below one another.
    if (size.rows > 10) {
      EXPECT_TRUE(Has(lines, "スタジオ一  0 #")) << testing::PrintToString(lines);
      EXPECT_TRUE(Has(lines, "cafe\xCC\x81        0 #")) << testing::PrintToString(lines);
      EXPECT_TRUE(Has(lines, "plain       0 #")) << testing::PrintToString(lines);
    }
    EXPECT_EQ(terminal.State("history_size"), "0");  // nothing has scrolled away
  }
  terminal.Type("q");
  terminal.Wait("the prompt", [](const Lines& lines) { return lines.back() == "ready>"; });
}

TEST_F(LiveViewTest, ObeysKeysAndLeavesTheTerminalAsItWas) {
  if (!std::filesystem::exists("/usr/bin/tmux"))
    GTEST_SKIP() << "no tmux, which scripts/test installs";
  const TestFile pid(".pid");
  const auto shows = [](const std::string& part) {
    return [part](const Lines& lines) { return Has(lines, part); };
  };
  for (const std::string end : {"q", "C-c", "TERM"}) {
    SCOPED_TRACE(end);
    Terminal terminal(80, 40);  // room for what an earlier command has to say
    terminal.Run("clear; stty -g; sh -c 'echo $$ >" + pid.Text() + "; exec " + Command("watch") +
                 "'; echo status $?; stty -g");
    terminal.Wait("the view", shows("s sort: unit"));
    EXPECT_EQ(terminal.State("cursor_flag"), "0");
    if (end == "q") {
      for (const auto& [key, part] :
           std::vector<std::pair<std::string, std::string>>{{"s", "s sort: level"},
                                                            {"j", ">=20"},
                                                            {"j", "LEFT"},
                                                            {"p", "PAUSED"},
                                                            {"p", " q"}}) {
        terminal.Type(key);
        terminal.Wait(key, shows(part));
      }
    }
    if (end == "TERM") {
      int number = 0;
      std::ifstream(pid.Path()) >> number;
      Terminate(number);
    } else {
      terminal.Type(end);
    }
    terminal.Wait("the prompt", [](const Lines& lines) { return Has(lines, "status"); });
    const Lines lines = terminal.Wait("the prompt", shows("ready>"));
    EXPECT_TRUE(Has(lines, "status 0"));
    EXPECT_EQ(terminal.State("cursor_flag"), "1");
    EXPECT_EQ(terminal.State("alternate_on"), "0");
    std::vector<std::string> modes;
    for (const std::string& line : lines) {
      if (std::count(line.begin(), line.end(), ':') > 10) modes.push_back(line);
    }
    ASSERT_EQ(modes.size(), 2u) << testing::PrintToString(lines);
    EXPECT_EQ(modes[0], modes[1]);
  }
}

}  // namespace
}  // namespace wire
