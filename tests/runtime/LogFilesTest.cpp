#include "runtime/LogFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/text.h"
#include "runtime/DebugLog.h"
#include "support/ManualClock.h"
#include "support/TempDir.h"

namespace {

const std::string kBegin =
    " @ ------------------------<<< BEGIN LOG >>>------------------------\r\n";
const std::string kEnd = " @ -------------------------<<< END LOG >>>-------------------------\r\n";

// A second later at every look at it, so that no two files of a log have one name.
class HurryingClock final : public ManualClock {
 public:
  platform::LocalTime Local() override {
    const int second = second_++;
    return {2026, 1, 2 + second / 86400, second / 3600 % 24, second / 60 % 60, second % 60, 0};
  }
  void Sleep(uint32_t milliseconds) override { platform::SystemClock().Sleep(milliseconds); }

 private:
  std::atomic<int> second_{0};
};

class Console final : public IDebugLogSniffer {
 public:
  void Sniff(const std::wstring& line) override { shown += platform::WideToUtf8Lossy(line); }
  std::string shown;  // of the writer thread until the log has ended
};

using Texts = std::vector<std::string>;

// An executable may have any name, and none is a pattern; "qz640emu (2)" is what a second download
// gets.
class LogFilesTest : public testing::Test {
 protected:
  LogFilesTest() {
    params_.dir = dir_.Wide();
    params_.name = L"emu (2).exe";
    params_.maxTotalSize = 0;
    params_.maxAgeDays = 0;
  }

  // The names in the directory, sorted.
  Texts Names() const {
    Texts names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.Path()))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  // The lines of a file, each with its end.
  Texts Lines(const std::string& name) const {
    std::istringstream text(dir_.Read(name));
    Texts lines;
    for (std::string line; std::getline(text, line);)
      lines.push_back(line + "\n");
    return lines;
  }

  // The same of a file that was begun and ended once, without the banners.
  Texts Stored(const std::string& name) const {
    Texts lines = Lines(name);
    if (lines.size() < 2 || !lines.front().ends_with(kBegin) || !lines.back().ends_with(kEnd)) {
      ADD_FAILURE() << name << " has no banners";
      return {};
    }
    return {lines.begin() + 1, lines.end() - 1};
  }

  static std::string Name(const std::string& stamp) { return "emu (2).exe~" + stamp + ".log"; }

  // A file of `size` bytes that a log of this name has left behind.
  void OldFile(const std::string& stamp, size_t size = 10) const {
    dir_.Write(Name(stamp), std::string(size, 'x'));
  }

  void CleanUp() const { DeleteOldLogs(params_, stop_); }

  TempDir dir_;
  LogParams params_;
  std::atomic<bool> stop_{false};
};

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

  const Texts names = Names();
  ASSERT_GT(names.size(), 5u);
  int next[3] = {};  // by the thread
  std::string stored;
  for (const std::string& name : names) {
    EXPECT_TRUE(std::regex_match(name, std::regex("emu \\(2\\)\\.exe~20260102-[0-9]{6}\\.log")))
        << name;
    const Texts lines = Stored(name);
    // The check follows the line that leaves the limit behind; the END banner comes on top.
    if (name != names.back()) {
      const size_t size = dir_.Read(name).size() - Lines(name).back().size();
      EXPECT_GT(size, params_.maxFileSize);
      EXPECT_LE(size - lines.back().size(), params_.maxFileSize);
    }
    for (const std::string& line : lines) {
      stored += line;
      const size_t at = line.find("thread\xEF\xBF\xBD");  // half a pair is replaced
      ASSERT_NE(at, std::string::npos) << line;
      EXPECT_EQ(line.substr(at + 10), "," + std::to_string(next[line[at + 9] - '0']++) + "\r\n");
    }
  }
  EXPECT_EQ(stored, console.shown);
  EXPECT_EQ(next[1] + next[2], 400) << "the end of the log waits for its last lines";
}

// Two instances started in one second choose one name; a flood of lines rotates twice in it.
TEST_F(LogFilesTest, TwoLogsOfOneNameGetAFileEachFromTheNextSecondOn) {
  ManualClock clock;
  OldFile("20260102-030405");
  LogFiles first(params_);
  first.Open();
  first.Store(L"of the first\r\n");
  EXPECT_EQ(first.TakeTrouble(), L"");

  LogFiles second(params_);
  second.Open();
  second.Store(L"lost\r\n");
  EXPECT_TRUE(second.TakeTrouble().starts_with(L"No log file in \"" + dir_.Wide() +
                                               L"\": another program"));
  second.Open();
  EXPECT_EQ(second.TakeTrouble(), L"") << "it is said once";
  clock.SetLocal({2026, 1, 2, 3, 4, 6, 0});
  second.Store(L"of the second\r\n");
  second.Close();
  first.Close();
  EXPECT_EQ(Stored(Name("20260102-030405")), Texts{"of the first\r\n"});
  EXPECT_EQ(Stored(Name("20260102-030406")), Texts{"of the second\r\n"});

  params_.maxFileSize = 300;
  LogFiles flooded(params_);
  flooded.Open();
  for (int i = 0; i < 50; ++i)
    flooded.Store(L"line " + std::to_wstring(i) + L" of a flood that goes on and on\r\n");
  flooded.Close();
  EXPECT_FALSE(Stored(Name("20260102-030406")).empty()) << "a whole file";
}

TEST_F(LogFilesTest, TheOldestGoUntilTheRestIsWithinTheTotal) {
  ManualClock clock;
  OldFile("20260101-000000", 100);
  OldFile("20260101-000001", 1000);
  OldFile("20260102-000000", 100);
  const Texts others = {"emu (2).exe.log", "emu (2)xexe~20200101-000000.log",
                        Name("20200101-000000") + ".gz"};
  for (const std::string& name : others)
    dir_.Write(name, std::string(5000, 'x'));
  std::filesystem::create_directory(dir_.File(Name("20200101-000000")));

  params_.maxTotalSize = 1200;
  CleanUp();
  EXPECT_EQ(Names().size(), 7u) << "exactly the limit is within it";
  params_.maxTotalSize = 100;
  const int64_t before = clock.Counter();
  CleanUp();
  EXPECT_EQ(clock.Counter() - before, 2 * platform::kCounterFrequency / 10)
      << "others need the disk too: 100 ms after each";
  Texts left = others;
  left.insert(left.end(), {Name("20200101-000000"), Name("20260102-000000")});
  std::sort(left.begin(), left.end());
  EXPECT_EQ(Names(), left);
}

TEST_F(LogFilesTest, FilesGoOnTheDayAfterTheirLast) {
  ManualClock clock;
  const struct {
    const char* stamp;
    int year, month, day;  // today
    uint32_t maxAgeDays;
    bool stays;
  } cases[] = {
      {"20231231-235959", 2024, 1, 21, 20, false},
      {"20240228-120000", 2024, 3, 1, 2, true},  // over a leap day
      {"20240228-120000", 2024, 3, 2, 2, false},
      {"20230228-120000", 2023, 3, 3, 2, false},
      {"20000101-000000", 2024, 3, 3, 4'000'000'000, true},  // before all time
      {"20990101-000000", 2024, 3, 3, 2, true},              // of a clock that was wrong
  };
  for (const auto& c : cases) {
    OldFile(c.stamp);
    clock.SetLocal({c.year, c.month, c.day, 0, 0, 0, 0});
    params_.maxAgeDays = c.maxAgeDays;
    CleanUp();
    EXPECT_EQ(Names().size(), c.stays ? 1u : 0u) << c.stamp << " on day " << c.day;
    std::filesystem::remove(dir_.File(Name(c.stamp)));
  }
}

TEST_F(LogFilesTest, TheEndDoesNotWaitForACleanUp) {
  HurryingClock clock;
  for (int i = 10; i < 90; ++i)  // eight seconds' work
    OldFile("20200101-0000" + std::to_string(i));
  params_.maxFileSize = 100;
  params_.maxAgeDays = 1;
  const auto before = std::chrono::steady_clock::now();
  {
    const auto log = CreateDebugLog(params_);
    log->Write(std::wstring(200, L'x'));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(4));
  EXPECT_GT(Names().size(), 40u);
}
