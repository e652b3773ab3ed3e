#include "runtime/DebugLog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "platform/thread.h"
#include "runtime/ConsoleLog.h"
#include "support/ManualClock.h"
#include "support/TempDir.h"

namespace {

// Keeps the lines, which belong to the writer until the listener has been removed; and fails.
class Listener final : public IDebugLogSniffer {
 public:
  void Sniff(const std::wstring& line) override {
    lines.push_back(line);
    throw std::runtime_error("no console");
  }
  std::vector<std::wstring> lines;
};

class DebugLogTest : public testing::Test {
 protected:
  DebugLogTest() { log_->SetSniffer(&listener_); }
  ~DebugLogTest() override { log_->SetSniffer(nullptr); }

  Listener listener_;
  std::shared_ptr<IDebugLog> log_ = std::make_shared<CDebugLog>();
};

TEST_F(DebugLogTest, LineHasLocalTimeThreadNumberAndText) {
  ManualClock clock;
  clock.SetLocal({2031, 2, 3, 4, 5, 6, 7});
  std::wostringstream prefix;
  prefix << L"2031/02/03 04:05:06.007 @ " << std::hex << std::uppercase << std::setw(8)
         << std::setfill(L'0') << platform::ThreadNumber() << L" @ ";
  log_->Write("\xC3\xA4xyz", 3);
  log_->Write(L"\u00e4xyz", 2);
  log_->Write(std::wstring(L"in\0side\0\0", 9));
  log_->Write(std::string("bytes\0", 6));
  log_->Write(L"\0\0\0", 3);  // no line, as nothing is left of it
  log_->WriteDebug("nobody reads it");
  EXPECT_THROW(log_->Write("\xFF"), std::range_error);
  log_->SetSniffer(nullptr);
  std::vector<std::wstring> expected = {L"\u00e4x", L"\u00e4x", std::wstring(L"in\0side", 7),
                                        L"bytes"};
  for (std::wstring& line : expected)
    line = prefix.str() + line + L"\r\n";
  EXPECT_EQ(listener_.lines, expected);
}

// A peer chooses text that is shown. It must neither end the writer nor steer the terminal of who
// reads it, nor turn the rest of the line around.
TEST_F(DebugLogTest, TheConsoleShowsWhatATerminalWouldObey) {
  testing::internal::CaptureStdout();
  {
    LogToConsoleSniffer console;
    log_->SetSniffer(&console);
    const wchar_t text[] = {'<',    0xD800, '>',    0x1B,   '\t',   0x7F,   0x80,
                            0x9F,   0xA0,   0x61C,  'x',    0x200E, 0x2027, 0x2028,
                            0x202E, 0x2066, 0x2069, 0x206A, 0};
    log_->Write(text);
    log_->SetSniffer(nullptr);
    console.Sniff(L"alone");
  }
  std::string shown = testing::internal::GetCapturedStdout();
  std::erase(shown, '\r');  // lost on Windows, where it is read back as text
  EXPECT_EQ(shown.substr(37),
            "<\xEF\xBF\xBD>\\u001b\t\\u007f\\u0080\\u009f\xC2\xA0\\u061cx\\u200e\xE2\x80\xA7"
            "\\u2028\\u202e\\u2066\\u2069\xE2\x81\xAA\n\nalone\n");
}

// Who watches the console should know that there is no log file; once.
TEST_F(DebugLogTest, TheListenerHearsThatThereIsNoFile) {
  const TempDir dir;
  dir.Write("file", "");
  log_ = CreateDebugLog({.dir = dir.Wide("file"), .name = L"emu"});
  log_->SetSniffer(&listener_);
  for (int i = 0; i < 3; ++i)
    log_->Write(L"a text");
  log_->SetSniffer(nullptr);
  const auto isTrouble = [](const std::wstring& line) {
    return line.find(L"No log file in ") != std::wstring::npos;
  };
  EXPECT_EQ(std::count_if(listener_.lines.begin(), listener_.lines.end(), isTrouble), 1);
}

// The last lines of a run are written just before the listener goes: it must see them, and none
// once it is gone.
TEST_F(DebugLogTest, ListenerSeesAllThatWasWrittenBeforeItIsRemoved) {
  for (int i = 0; i < 5000; ++i)
    log_->Write(L"more");
  const auto before = std::chrono::steady_clock::now();
  log_->SetSniffer(nullptr);
  EXPECT_EQ(listener_.lines.size(), 5000u);
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(1900))
      << "it went on because its time was over";
  log_->Write(L"after it");
  log_ = std::make_shared<CDebugLog>();  // the first ends when its queue is empty
  EXPECT_EQ(listener_.lines.size(), 5000u);
}

}  // namespace
