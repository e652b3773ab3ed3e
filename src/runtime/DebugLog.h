// The program's log: queues a line on the caller's thread, and on a writer thread of its own shows
// it to the sniffer and stores it in the log files. Where no thread is to be had, the lines wait
// until the sniffer or the log goes, and the thread that ends it shows and stores them.
//
// Locks, all leaves: queueLock_ (queue, counts, flags), snifferLock_ (the sniffer and its calls).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <thread>

#include "platform/event.h"
#include "runtime/LogFiles.h"
#include "runtime/LogForms.h"
#include "runtime/LogQueue.h"

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
  void Handle(const LogQueue::Block& block);
  void Show(std::span<const std::wstring_view> lines);
  void ShowTrouble();

  std::mutex snifferLock_;
  IDebugLogSniffer* sniffer_ = nullptr;

  std::mutex queueLock_;
  // A line was queued while the writer was asleep, or somebody waits for it. Waits of the standard
  // library last up to 16 ms too long on Windows.
  platform::Event wake_{platform::Event::Mode::AutoReset};
  std::condition_variable handledSignal_;  // a line was handled, or the writer has ended
  LogQueue queue_;
  bool asleep_ = false;   // the next line has to wake the writer
  uint64_t queued_ = 0;   // lines ever queued
  uint64_t handled_ = 0;  // lines ever shown and stored
  bool running_ = true;   // the writer hasn't ended
  bool stopRequested_ = false;

  std::optional<LogFiles> files_;  // of the writer

  std::thread thread_;  // last: it uses all of the above
};
