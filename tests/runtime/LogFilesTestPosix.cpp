#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "platform/text.h"
#include "runtime/DebugLog.h"
#include "runtime/Environment.h"
#include "runtime/LogFiles.h"
#include "support/ManualClock.h"
#include "support/TempDir.h"

namespace {

class LogFilesPosix : public testing::Test {
 protected:
  // Writes 100 lines, enough for some files, with `midway` after the first half. Returns what a
  // console would have got a line.
  std::wstring Trouble(const std::function<void()>& midway = [] {}) {
    LogFiles files(params_);
    files.Open();
    for (int i = 0; i < 100; ++i) {
      if (i == 50) midway();
      files.Store(L"a line of a log with files of a small size\r\n");
    }
    files.Close();
    return files.TakeTrouble();
  }

  TempDir dir_;
  LogParams params_{.dir = dir_.Wide("logs"), .name = L"emu", .maxFileSize = 1000};
};

}  // namespace

TEST_F(LogFilesPosix, ADirectoryThatIsDeletedMeanwhileComesBack) {
  EXPECT_EQ(Trouble([&] { std::filesystem::remove_all(dir_.File("logs")); }), L"");
  EXPECT_FALSE(std::filesystem::is_empty(dir_.File("logs")));
}

// In a temporary directory that all users share, anybody can have been there first.
TEST_F(LogFilesPosix, ADirectoryOfOthersHoldsNoLog) {
  dir_.Write("victim", "keep");
  std::filesystem::create_directory(dir_.File("real"));
  std::filesystem::create_directory_symlink("real", dir_.File("logs"));
  EXPECT_NE(Trouble(), L"");
  EXPECT_TRUE(std::filesystem::is_empty(dir_.File("real")));

  std::filesystem::remove(dir_.File("logs"));
  std::filesystem::create_directory(dir_.File("logs"));
  for (const mode_t mode : {0770u, 0707u}) {
    ASSERT_EQ(chmod(dir_.File("logs").c_str(), mode), 0);
    EXPECT_NE(Trouble(), L"") << std::oct << mode;
    EXPECT_TRUE(std::filesystem::is_empty(dir_.File("logs")));
  }

  ManualClock clock;
  ASSERT_EQ(chmod(dir_.File("logs").c_str(), 0700), 0);
  std::filesystem::create_symlink(dir_.File("victim"), dir_.File("logs/emu~20260102-030405.log"));
  EXPECT_EQ(Trouble(), L"");
  EXPECT_EQ(dir_.Read("victim"), "keep");
}

// The program's own log: where it stands, whom it is for, and its limits.
TEST_F(LogFilesPosix, TheProgramsLogHoldsPiecesOf1MiBFor20DaysAnd20MiBInAll) {
  const auto file = [](const char* stamp) {
    return std::string("runtime_tests.logs/runtime_tests~") + stamp + ".log";
  };
  const auto write = [&](const char* stamp, uintmax_t size) {
    dir_.Write(file(stamp), "");
    std::filesystem::resize_file(dir_.File(file(stamp)), size);
  };
  ManualClock clock;
  const std::string before = std::filesystem::temp_directory_path();
  ASSERT_EQ(setenv("TMPDIR", dir_.Path().c_str(), 1), 0);
  clock.SetLocal({2026, 1, 22, 0, 0, 0, 0});
  {
    EnvironmentCommon environment;
    const auto log = environment.GetLog();
    // Returns when the log has stored one more MiB, and a rotation has deleted what it deletes.
    const auto fill = [&](int second, const std::string& gone) {
      log->SetSniffer(nullptr);  // the writer stands still
      clock.SetLocal({2026, 1, 22, 0, 0, second, 0});
      for (int i = 0; i < 1060; ++i)
        log->Write(std::wstring(1000 - 39, L'x'));
      const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (dir_.Has(gone) && std::chrono::steady_clock::now() < limit)
        std::this_thread::yield();
      EXPECT_FALSE(dir_.Has(gone)) << gone;
    };
    log->Write(L"the first");
    log->SetSniffer(nullptr);
    write("20260101-000000", 1);  // 21 days old
    write("20260102-000000", 1);  // 20
    write("20260103-000000", (18u << 20) + 500'000);
    fill(1, file("20260101-000000"));
    EXPECT_TRUE(dir_.Has(file("20260102-000000")));
    EXPECT_TRUE(dir_.Has(file("20260103-000000"))) << "19.5 MiB in all";
    fill(2, file("20260103-000000"));  // 20.5 MiB in all
    EXPECT_FALSE(dir_.Has(file("20260102-000000")));
  }

  setenv("TMPDIR", before.c_str(), 1);
  const std::string first = dir_.Read(file("20260122-000000"));
  EXPECT_NE(first.find(" @ the first\r\n"), std::string::npos);
  EXPECT_GT(first.size(), 1'048'576u);
  EXPECT_LT(first.size(), 1'048'576u + 1200) << "a line and the banner more";
  using std::filesystem::perms;
  const auto mode = [](const auto& path) { return std::filesystem::status(path).permissions(); };
  EXPECT_EQ(mode(dir_.File("runtime_tests.logs")), perms::owner_all);
  EXPECT_EQ(mode(dir_.File(file("20260122-000000"))), perms::owner_read | perms::owner_write);
}
