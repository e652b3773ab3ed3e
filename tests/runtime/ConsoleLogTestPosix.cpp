// A console that nobody reads, each time in a child process whose standard output is a full pipe.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "runtime/ConsoleLog.h"
#include "runtime/DebugLog.h"
#include "support/TempDir.h"

namespace {

constexpr int kLines = 60'000;  // of 140 bytes: twice of what may wait

class ConsoleLogTest : public testing::Test {
 protected:
  ConsoleLogTest() {
    EXPECT_EQ(pipe(console_), 0);
    EXPECT_EQ(pipe(logged_), 0);
    child_ = fork();
    if (child_ == 0) {
      alarm(60);
      close(console_[0]);
      dup2(console_[1], STDOUT_FILENO);
      close(console_[1]);
      fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK);  // as some terminals are left behind
      WriteLines();
      _exit(0);
    }
    close(console_[1]);
    close(logged_[1]);
  }

  // In the child.
  void WriteLines() {
    LogToConsoleSniffer console;
    {
      const auto log = CreateDebugLog({.dir = dir_.Wide(), .name = L"emu", .maxFileSize = 0});
      log->SetSniffer(&console);
      for (int i = 0; i < kLines; ++i)
        log->Write(std::wstring(100, L'x'));
      log->SetSniffer(nullptr);
    }
    close(logged_[1]);
  }

  // Waits until the child's log has ended, then expects all lines in its file.
  void ExpectTheFileIsWhole() {
    char byte = 0;
    EXPECT_EQ(read(logged_[0], &byte, 1), 0);
    std::ifstream file(dir_.File("emu.log"), std::ios::binary);
    int lines = 0;
    std::string last;
    for (std::string line; std::getline(file, line); last = line)
      ++lines;
    EXPECT_EQ(lines, kLines + 2) << "with the banners";
    EXPECT_NE(last.find("END LOG"), std::string::npos);
  }

  void ExpectAnOrderlyEnd() {
    int status = 0;
    EXPECT_EQ(waitpid(child_, &status, 0), child_);
    EXPECT_EQ(status, 0);
  }

  TempDir dir_;
  int console_[2];
  int logged_[2];
  pid_t child_ = -1;
};

}  // namespace

TEST_F(ConsoleLogTest, AnUnreadConsoleHoldsUpNeitherTheFileNorTheEnd) {
  ExpectTheFileIsWhole();
  ExpectAnOrderlyEnd();
}

TEST_F(ConsoleLogTest, AConsoleThatIsReadAgainSaysHowManyLinesItMisses) {
  ExpectTheFileIsWhole();
  std::string shown;
  char buffer[65536];
  for (ssize_t got = 0; (got = read(console_[0], buffer, sizeof buffer)) > 0;)
    shown.append(buffer, static_cast<size_t>(got));
  ExpectAnOrderlyEnd();

  int lines = 0;
  int leftOut = 0;
  std::istringstream in(shown);
  for (std::string line; std::getline(in, line);) {
    lines += line.ends_with("xxx\r");
    const std::string words = "nobody read the console: ";
    if (const size_t at = line.find(words); at != std::string::npos)
      leftOut += std::stoi(line.substr(at + words.size()));
  }
  EXPECT_LT(shown.size(), size_t{5} << 20);
  EXPECT_GT(leftOut, 0);
  EXPECT_EQ(lines + leftOut, kLines);
}
