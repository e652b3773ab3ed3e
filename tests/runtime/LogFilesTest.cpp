#include "runtime/LogFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/text.h"
#include "runtime/DebugLog.h"
#include "support/ManualClock.h"
#include "support/TempDir.h"

namespace {

const std::string kBegin = " @ ------------------------<<< BEGIN LOG >>>------------------------";
const std::string kEnd = " @ -------------------------<<< END LOG >>>-------------------------";

// A second later at every look at it, so that no two files of a log have one name.
class HurryingClock final : public platform::Clock {
 public:
  HurryingClock() { platform::ReplaceClock(this); }
  ~HurryingClock() override { platform::ReplaceClock(nullptr); }
  HurryingClock(const HurryingClock&) = delete;
  HurryingClock& operator=(const HurryingClock&) = delete;

  int64_t Counter() override { return 0; }
  int64_t WallSeconds() override { return 0; }
  platform::LocalTime Local() override {
    const int second = second_++ + jump_;
    return {2026, 1, 2 + second / 86400, second / 3600 % 24, second / 60 % 60, second % 60, 0};
  }
  void Sleep(uint32_t) override {}
  void Jump(int seconds) { jump_ += seconds; }

 private:
  std::atomic<int> second_{0};
  std::atomic<int> jump_{0};
};

class Console final : public IDebugLogSniffer {
 public:
  void Sniff(const std::wstring& line) override { shown += platform::WideToUtf8Lossy(line); }
  std::string shown;  // of the writer thread until the log has ended
};

bool IsBanner(const std::string& line, const std::string& banner) {
  return line.ends_with(banner + "\r\n");
}

class LogFilesTest : public testing::Test {
 protected:
  LogFilesTest() {
    params_.dir = dir_.Wide();
    params_.name = L"emu";
    params_.maxTotalSize = 0;
    params_.maxAgeDays = 0;
  }

  // The names in the directory, sorted.
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.Path()))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  // The lines of a file, each with its end.
  std::vector<std::string> Lines(const std::string& name) const {
    std::istringstream text(dir_.Read(name));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
      lines.push_back(line + "\n");
    return lines;
  }

  // A file of `size` bytes that a log of this name has left behind.
  void OldFile(const std::string& stamp, size_t size = 10) const {
    dir_.Write("emu~" + stamp + ".log", std::string(size, 'x'));
  }

  void CleanUp() const { DeleteOldLogs(params_, stop_); }

  TempDir dir_;
  LogParams params_;
  std::atomic<bool> stop_{false};
};

using Expected = std::vector<std::string>;

}  // namespace

// The log is what is left after a fault in the field: a line that was shown must be found again.
TEST_F(LogFilesTest, EveryLineShownStandsInExactlyOneFileInOrder) {
  HurryingClock clock;
  Console console;
  params_.maxFileSize = 3000;
  {
    const auto log = CreateDebugLog(params_);
    log->SetSniffer(&console);
    const auto write = [&](int thread) {
      for (int i = 0; i < 200; ++i)
        log->Write(std::wstring(L"thread") + wchar_t(0xD800) + std::to_wstring(thread) + L"," +
                   std::to_wstring(i));
    };
    std::jthread one(write, 1);
    std::jthread two(write, 2);
  }

  const std::vector<std::string> names = Names();
  ASSERT_GT(names.size(), 5u);
  int next[3] = {};  // by the thread
  std::string stored;
  for (const std::string& name : names) {
    EXPECT_TRUE(std::regex_match(name, std::regex("emu~20260102-[0-9]{6}\\.log"))) << name;
    std::vector<std::string> lines = Lines(name);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_TRUE(IsBanner(lines.front(), kBegin)) << lines.front();
    EXPECT_TRUE(IsBanner(lines.back(), kEnd)) << lines.back();
    // The check follows the line that leaves the limit behind; the END banner comes on top.
    if (name != names.back()) {
      const size_t size = dir_.Read(name).size();
      const size_t withoutEnd = size - lines.back().size();
      EXPECT_GT(withoutEnd, params_.maxFileSize);
      EXPECT_LE(withoutEnd - lines[lines.size() - 2].size(), params_.maxFileSize);
    }
    for (size_t i = 1; i + 1 < lines.size(); ++i) {
      stored += lines[i];
      const size_t at = lines[i].find("thread\xEF\xBF\xBD");  // half a pair is replaced
      ASSERT_NE(at, std::string::npos) << lines[i];
      const char thread = lines[i][at + 9];
      EXPECT_EQ(lines[i].substr(at + 10), "," + std::to_string(next[thread - '0']++) + "\r\n");
    }
  }
  EXPECT_EQ(stored, console.shown);
  EXPECT_EQ(next[1] + next[2], 400) << "the end of the log waits for its last lines";
}

// By their names the files may then overlap; none is lost, and the limit of their total holds.
TEST_F(LogFilesTest, AWallClockThatJumpsCostsNoLine) {
  HurryingClock clock;
  clock.Jump(50'000);
  Console console;
  params_.maxFileSize = 300;
  {
    const auto log = CreateDebugLog(params_);
    for (const int jump : {-10'000, 30'000, -25'000}) {
      log->SetSniffer(&console);
      for (int i = 0; i < 30; ++i)
        log->Write("after " + std::to_string(jump) + " line " + std::to_string(i));
      log->SetSniffer(nullptr);  // waits for the lines so far
      clock.Jump(jump);
    }
  }
  std::multiset<std::string> stored;
  for (const std::string& name : Names()) {
    const std::vector<std::string> lines = Lines(name);
    stored.insert(lines.begin() + 1, lines.end() - 1);
  }
  EXPECT_EQ(stored.size(), 90u);
  for (const std::string& line : stored)
    EXPECT_EQ(stored.count(line), 1u) << line;

  params_.maxTotalSize = 2000;
  CleanUp();
  EXPECT_LE(Names().size(), 5u);
}

// A flood of lines rotates more than once a second. The later file then takes the place of the
// earlier; it must still be a whole one.
TEST_F(LogFilesTest, TwoRotationsInOneSecondLeaveOneWholeFile) {
  ManualClock clock;
  params_.maxFileSize = 300;
  {
    LogFiles files(params_);
    files.Open();
    for (int i = 0; i < 50; ++i)
      files.Store(L"line " + std::to_wstring(i) + L" of a flood that goes on and on\r\n");
    files.Close();
  }
  EXPECT_EQ(Names(), Expected{"emu~20260102-030405.log"});
  const std::vector<std::string> lines = Lines("emu~20260102-030405.log");
  ASSERT_GE(lines.size(), 2u);
  EXPECT_TRUE(IsBanner(lines.front(), kBegin));
  EXPECT_TRUE(IsBanner(lines.back(), kEnd));
}

TEST_F(LogFilesTest, WithoutALimitOneFileGrowsFromRunToRunAndNothingIsDeleted) {
  ManualClock clock;
  OldFile("20000101-000000");
  params_.maxFileSize = 0;
  params_.maxTotalSize = 1;
  params_.maxAgeDays = 1;
  for (const char* text : {"first run", "second run"}) {
    const auto log = CreateDebugLog(params_);
    log->Write(text);
  }
  EXPECT_EQ(Names(), (Expected{"emu.log", "emu~20000101-000000.log"}));
  const std::vector<std::string> lines = Lines("emu.log");
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_TRUE(lines[1].ends_with(" @ first run\r\n"));
  EXPECT_TRUE(IsBanner(lines[2], kEnd));
  EXPECT_TRUE(IsBanner(lines[3], kBegin));
  EXPECT_TRUE(lines[4].ends_with(" @ second run\r\n"));
}

TEST_F(LogFilesTest, AFileThatExistedIsReplacedUnlessItIsBeingWritten) {
  ManualClock clock;
  OldFile("20260102-030405");
  LogFiles first(params_);
  first.Open();
  first.Store(L"of the first\r\n");

  LogFiles second(params_);
  second.Open();
  second.Store(L"of the second\r\n");
  second.Close();
  first.Close();
  const std::vector<std::string> lines = Lines("emu~20260102-030405.log");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1], "of the first\r\n");
}

TEST_F(LogFilesTest, TheOldestGoUntilTheRestIsWithinTheTotal) {
  ManualClock clock;
  OldFile("20260101-000000", 100);
  OldFile("20260101-000001", 1000);
  OldFile("20260101-000002", 100);
  OldFile("20260102-000000", 100);
  dir_.Write("emu.log", std::string(5000, 'x'));
  dir_.Write("other~20200101-000000.log", std::string(5000, 'x'));
  dir_.Write("emu~20200101-000000.log.gz", std::string(5000, 'x'));
  std::filesystem::create_directory(dir_.File("emu~20200101-000000.log"));

  params_.maxTotalSize = 1300;
  CleanUp();
  EXPECT_EQ(Names().size(), 8u) << "exactly the limit is within it";
  params_.maxTotalSize = 200;
  CleanUp();
  EXPECT_EQ(Names(), (Expected{"emu.log", "emu~20200101-000000.log", "emu~20200101-000000.log.gz",
                               "emu~20260101-000002.log", "emu~20260102-000000.log",
                               "other~20200101-000000.log"}));
}

TEST_F(LogFilesTest, FilesGoOnTheDayAfterTheirLast) {
  ManualClock clock;
  const auto left = [&](int year, int month, int day, uint32_t maxAgeDays) {
    clock.SetLocal({year, month, day, 0, 0, 0, 0});
    params_.maxAgeDays = maxAgeDays;
    CleanUp();
    return Names().size();
  };
  OldFile("20231231-235959");
  EXPECT_EQ(left(2024, 1, 20, 20), 1u) << "20 days old";
  EXPECT_EQ(left(2024, 1, 21, 20), 0u);

  OldFile("20240228-120000");
  OldFile("20240229-120000");
  EXPECT_EQ(left(2024, 3, 1, 2), 2u) << "a leap year: two days and one";
  EXPECT_EQ(left(2024, 3, 2, 2), 1u);
  EXPECT_EQ(left(2024, 3, 3, 2), 0u);

  OldFile("20000101-000000");
  EXPECT_EQ(left(2024, 3, 3, 0), 1u) << "no limit";
  EXPECT_EQ(left(2024, 3, 3, 4'000'000'000), 1u) << "before all time";
  stop_ = true;
  EXPECT_EQ(left(2024, 3, 3, 2), 1u) << "the log ends";
  stop_ = false;
  OldFile("20990101-000000");  // of a clock that was wrong
  EXPECT_EQ(left(2024, 3, 3, 2), 1u) << "age stops at the first young file";
}

TEST_F(LogFilesTest, OnlyARotationCleansUpAndNeverWhatALogIsWriting) {
  ManualClock clock;
  OldFile("20240101-000000");
  params_.maxFileSize = 500;
  params_.maxTotalSize = 1;

  clock.SetLocal({2025, 1, 1, 0, 0, 0, 0});
  LogFiles other(params_);  // an older run of the same program
  other.Open();
  clock.SetLocal({2026, 1, 1, 0, 0, 0, 0});
  LogFiles files(params_);
  files.Open();
  EXPECT_EQ(Names().size(), 3u) << "nothing is deleted at the start";
  clock.SetLocal({2026, 1, 2, 0, 0, 0, 0});
  files.Store(std::wstring(600, L'x') + L"\r\n");

  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (files.IsCleaningUp() && std::chrono::steady_clock::now() < limit)
    std::this_thread::yield();
  EXPECT_FALSE(files.IsCleaningUp());
  EXPECT_EQ(Names(), (Expected{"emu~20250101-000000.log", "emu~20260102-000000.log"}));
  files.Close();
  other.Close();
}

// An executable may have any name; on its own thread the exception would end the program.
TEST_F(LogFilesTest, ANameThatIsNoRegularExpressionOnlyKeepsTheOldFiles) {
  HurryingClock clock;
  params_.name = L"emu(1";
  params_.maxFileSize = 200;
  params_.maxTotalSize = 1;
  EXPECT_THROW(CleanUp(), std::regex_error);
  {
    const auto log = CreateDebugLog(params_);
    for (int i = 0; i < 20; ++i)
      log->Write(L"a line that leads to a rotation soon");
  }
  EXPECT_GT(Names().size(), 3u);
}

TEST(DayNumberTest, CountsDaysWithALeapYearEveryFourth) {
  using namespace std::chrono;
  for (sys_days day{year{2023} / 1 / 1}; day < sys_days{year{2026} / 1 / 1}; day += days{1}) {
    const year_month_day date{day};
    EXPECT_EQ(DayNumber(int{date.year()}, static_cast<int>(unsigned{date.month()}),
                        static_cast<int>(unsigned{date.day()})),
              (day - sys_days{year{1972} / 1 / 1}).count());
  }
}
