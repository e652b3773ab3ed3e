// The log as it stays behind in files, held against what the console showed.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "endtoend/EndToEnd.h"

namespace {

namespace files = std::filesystem;

constexpr size_t kPrefixLength = 37;  // date, time and thread in front of each line
constexpr char kBegin[] = "------------------------<<< BEGIN LOG >>>------------------------";
constexpr char kEnd[] = "-------------------------<<< END LOG >>>-------------------------";

std::vector<std::string> LinesOf(const files::path& path) {
  std::vector<std::string> lines;
  std::ifstream in(path, std::ios::binary);
  for (std::string line; std::getline(in, line);) {
    EXPECT_TRUE(line.ends_with('\r')) << "a torn line in " << path << ": " << line;
    line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

std::string TextOf(const std::string& line) {
  return line.substr(kPrefixLength);
}

// Files are named by the second: the next one must not take the name of this one.
void WaitForTheNextSecond() {
  const auto now = [] { return std::chrono::system_clock::now().time_since_epoch(); };
  const auto second = std::chrono::floor<std::chrono::seconds>(now());
  while (std::chrono::floor<std::chrono::seconds>(now()) == second)
    std::this_thread::yield();
}

class LogFiles : public EndToEnd {};

// A line that is lost or doubled at a rotation would send whoever looks for it astray.
TEST_F(LogFiles, HoldEveryLineOfTheConsoleOnceAndInOrderThroughRotations) {
  constexpr size_t kFiles = 3;
  EmulatorProcess emulator({{.id = "studio-a"}});
  emulator.Allow("Bad message received");
  emulator.StartAndWait();

  const wire::Bytes junk(200, 'x');
  size_t answered = 0;
  for (size_t count = 1; count < kFiles; ++count) {
    WaitForTheNextSecond();
    while (emulator.LogFiles().size() == count) {
      for (int i = 0; i < 50; ++i)
        controller.SendRaw(emulator.Control(), junk);
      const auto line = emulator.Child().WaitLine("Bad message received", answered);
      ASSERT_TRUE(line);
      answered = emulator.Child().Lines().size();
    }
  }
  emulator.Stop();

  const std::vector<files::path> logs = emulator.LogFiles();
  ASSERT_EQ(logs.size(), kFiles);
  std::vector<std::string> stored;
  for (const files::path& log : logs) {
    const std::vector<std::string> lines = LinesOf(log);
    ASSERT_GE(lines.size(), 3u) << log;
    EXPECT_EQ(TextOf(lines.front()), kBegin) << log;
    EXPECT_EQ(TextOf(lines.back()), kEnd) << log;
    stored.insert(stored.end(), lines.begin() + 1, lines.end() - 1);
  }
  std::vector<std::string> shown;
  for (const Process::Line& line : emulator.Child().Lines())
    shown.push_back(line.text);

  // The settings line ends in a line break of its own, which the console's reader leaves out.
  const auto isEmpty = [](const std::string& line) { return line.empty(); };
  std::erase_if(stored, isEmpty);
  ASSERT_EQ(stored.size(), shown.size());
  for (size_t i = 0; i < shown.size(); ++i)
    ASSERT_EQ(stored[i], shown[i]) << "line " << i;
}

}  // namespace
