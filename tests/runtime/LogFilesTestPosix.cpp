#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <functional>
#include <string>

#include "platform/text.h"
#include "runtime/DebugLog.h"
#include "runtime/Environment.h"
#include "support/ManualClock.h"
#include "support/TempDir.h"

namespace {

class Counter final : public IDebugLogSniffer {
 public:
  void Sniff(const std::wstring&) override { ++lines; }
  int lines = 0;  // of the writer thread until the log has ended
};

class LogFilesPosix : public testing::Test {
 protected:
  // Writes 100 lines to a log with small files; the result is how many were shown.
  // `midway` runs when the first half has been shown and stored.
  int LinesShown(const std::function<void()>& midway = nullptr) {
    Counter counter;
    {
      const auto log = CreateDebugLog(params_);
      log->SetSniffer(&counter);
      for (int i = 0; i < 100; ++i) {
        if (midway && i == 50) {
          log->SetSniffer(nullptr);  // waits for the lines so far
          log->SetSniffer(&counter);
          midway();
        }
        log->Write(L"a line of a log with files of a small size");
      }
    }
    return counter.lines;
  }

  TempDir dir_;
  LogParams params_{.dir = dir_.Wide("logs"), .name = L"emu", .maxFileSize = 1000};
};

}  // namespace

TEST_F(LogFilesPosix, ADirectoryThatIsDeletedMeanwhileCostsTheFilesAlone) {
  std::filesystem::create_directory(dir_.File("logs"));
  EXPECT_EQ(LinesShown([&] { std::filesystem::remove_all(dir_.File("logs")); }), 100);
  EXPECT_FALSE(dir_.Has("logs"));
}

// In a temporary directory that all users share, anybody can have been there first.
TEST_F(LogFilesPosix, ADirectoryOfOthersHoldsNoLog) {
  dir_.Write("victim", "keep");
  std::filesystem::create_directory(dir_.File("real"));
  std::filesystem::create_directory_symlink("real", dir_.File("logs"));
  EXPECT_EQ(LinesShown(), 100);
  EXPECT_TRUE(std::filesystem::is_empty(dir_.File("real")));

  std::filesystem::remove(dir_.File("logs"));
  std::filesystem::create_directory(dir_.File("logs"));
  ASSERT_EQ(chmod(dir_.File("logs").c_str(), 0777), 0);
  EXPECT_EQ(LinesShown(), 100);
  EXPECT_TRUE(std::filesystem::is_empty(dir_.File("logs")));

  ManualClock clock;
  ASSERT_EQ(chmod(dir_.File("logs").c_str(), 0700), 0);
  std::filesystem::create_symlink(dir_.File("victim"), dir_.File("logs/emu~20260102-030405.log"));
  EXPECT_EQ(LinesShown(), 100);
  EXPECT_EQ(dir_.Read("victim"), "keep");
}

TEST_F(LogFilesPosix, TheProgramsLogStandsInTheTemporaryDirectoryByItsName) {
  ManualClock clock;
  const char* named = getenv("TMPDIR");
  const std::string before = named ? named : "";
  ASSERT_EQ(setenv("TMPDIR", dir_.Path().c_str(), 1), 0);
  EnvironmentCommon().GetLog()->Write(L"found");
  named ? setenv("TMPDIR", before.c_str(), 1) : unsetenv("TMPDIR");
  struct stat info {};
  ASSERT_EQ(stat(dir_.File("runtime_tests.logs").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0700u);
  const std::string file = "runtime_tests.logs/runtime_tests~20260102-030405.log";
  EXPECT_NE(dir_.Read(file).find(" @ found\r\n"), std::string::npos);
  ASSERT_EQ(stat(dir_.File(file).c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
}
