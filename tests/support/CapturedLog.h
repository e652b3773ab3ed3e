// The log of every test program: keeps the texts in memory, written on the caller's thread.
//
// A line that reports a failure (it has " Method=" in it) and that the test hasn't taken makes the
// test fail at its end: a failure that nobody expected is a fault, wherever it shows.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "runtime/LogForms.h"

class CapturedLog final : public LogForms {
 public:
  // The one log of the test program.
  static CapturedLog& Get();

  void Clear();

  // All texts since the test began or the latest Clear, oldest first, taken ones included.
  std::vector<std::wstring> Lines() const;

  // How many of the texts hold `part`, taken ones included.
  size_t Count(const std::wstring& part) const;

  // Takes the oldest untaken text that holds `part`, waiting for it for at most ten seconds.
  // Empty if none comes.
  std::wstring Take(const std::wstring& part);

  // The same without waiting.
  std::wstring TryTake(const std::wstring& part);

  // Takes all untaken texts that hold `part`, now and until the test ends.
  void Allow(const std::wstring& part);

  // The failure reports that nobody has taken.
  std::vector<std::wstring> UntakenFailures() const;

  void SetSniffer(IDebugLogSniffer*) override {}

 private:
  void WriteText(std::wstring_view text) override;

  struct Entry {
    std::wstring text;
    bool taken = false;
  };

  std::wstring TakeLocked(const std::wstring& part);
  bool AllowedLocked(const std::wstring& text) const;

  mutable std::mutex mutex_;
  std::condition_variable written_;
  std::vector<Entry> entries_;
  std::vector<std::wstring> allowed_;
};

inline CapturedLog& Log() {
  return CapturedLog::Get();
}
