#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "runtime/ConsoleLog.h"
#include "runtime/DebugLog.h"
#include "support/TempDir.h"

namespace {

constexpr int kLines = 60'000;  // of 140 bytes: twice of what may wait

// What a child process shows of its lines on a console that nobody reads, a full pipe, until the
// log has ended, which closes `logged`; and then, if it is `readAgain`, until the console ends.
// Expects all lines in the log file, and an orderly end of the child.
std::string ShowLines(bool readAgain) {
  const TempDir dir;
  int console[2];
  int logged[2];
  EXPECT_EQ(pipe(console), 0);
  EXPECT_EQ(pipe(logged), 0);
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    close(console[0]);
    dup2(console[1], STDOUT_FILENO);
    close(console[1]);
    fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK);  // as some terminals are left behind
    {
      LogToConsoleSniffer sniffer;
      auto log = CreateDebugLog({.dir = dir.Wide(), .name = L"emu", .maxFileSize = 0});
      log->SetSniffer(&sniffer);
      for (int i = 0; i < kLines; ++i)
        log->Write(std::wstring(100, L'x'));
      log->SetSniffer(nullptr);
      log.reset();
      close(logged[1]);
    }
    _exit(0);
  }
  close(console[1]);
  close(logged[1]);

  char buffer[65536];
  EXPECT_EQ(read(logged[0], buffer, 1), 0);
  const std::string file = dir.Read("emu.log");
  EXPECT_EQ(std::count(file.begin(), file.end(), '\n'), kLines + 2) << "with the banners";
  EXPECT_TRUE(file.ends_with("<<< END LOG >>>-------------------------\r\n"));
  std::string shown;
  for (ssize_t got = 0; readAgain && (got = read(console[0], buffer, sizeof buffer)) > 0;)
    shown.append(buffer, static_cast<size_t>(got));
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  close(console[0]);
  close(logged[0]);
  return shown;
}

}  // namespace

TEST(ConsoleLogTest, AnUnreadConsoleHoldsUpNeitherTheFileNorTheEnd) {
  ShowLines(false);
}

TEST(ConsoleLogTest, AConsoleThatIsReadAgainSaysHowManyLinesItMisses) {
  const std::string shown = ShowLines(true);
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
