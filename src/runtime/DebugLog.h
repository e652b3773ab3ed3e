// The program's log: formats a line on the caller's thread, queues it, and on a writer thread of
// its own shows it to the sniffer and stores it in the log files.
//
// Locks, all leaves: queueLock_ (queue, counts, flags), snifferLock_ (the sniffer and its calls).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/event.h"
#include "runtime/LogFiles.h"
#include "runtime/LogForms.h"
#include "runtime/LogLine.h"

// Starts a log with its writer thread, which opens the first file. The last holder of the pointer
// ends it: the queue is then emptied and the file closed first.
std::shared_ptr<IDebugLog> CreateDebugLog(const LogParams& params);

class CDebugLog final : public LogForms {
 public:
  CDebugLog();  // without files
  explicit CDebugLog(const LogParams& params);
  ~CDebugLog() override;
  CDebugLog(const CDebugLog&) = delete;
  CDebugLog& operator=(const CDebugLog&) = delete;

  void SetSniffer(IDebugLogSniffer* sniffer) override;

 private:
  void WriteText(std::wstring_view text) override;
  void StartWriter();
  void RunWriter();
  void DrainQueue(std::unique_lock<std::mutex>& lock);
  void Handle(std::deque<std::wstring>& lines);

  std::mutex snifferLock_;
  IDebugLogSniffer* sniffer_ = nullptr;

  std::mutex queueLock_;
  // A line was queued, or the writer shall stop. Waits of the standard library last up to 16 ms too
  // long on Windows.
  platform::Event wake_{platform::Event::Mode::AutoReset};
  std::condition_variable handledSignal_;  // a line was handled, or the writer has ended
  std::deque<std::wstring> queue_;
  uint64_t queued_ = 0;   // lines ever queued
  uint64_t handled_ = 0;  // lines ever shown and stored
  bool running_ = true;   // the writer hasn't ended
  bool stopRequested_ = false;

  std::optional<LogFiles> files_;  // of the writer thread

  std::thread thread_;  // last: it uses all of the above
};

// Shows the log on standard output, as UTF-8. A line ends in its own carriage return and line feed,
// so the console shows a blank line behind each. Lines that come faster than the console takes them
// one by one go there together.
class LogToConsoleSniffer final : public IDebugLogSniffer {
 public:
  void Sniff(const std::wstring& line) override;
  void OnQueueEmpty() override;

 private:
  std::string gathered_;
};
