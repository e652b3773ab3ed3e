// The console as a listener of the log.
//
// Has a thread of its own that writes: a console that nobody reads (a full pipe, Ctrl-S, text being
// selected in a Windows console) stops that thread and nothing else. One lock, a leaf, which isn't
// held while it writes.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "runtime/IDebugLog.h"

// Shows the log on standard output, as UTF-8. A line ends in its own carriage return and line feed
// and gets another line feed, so the console shows a blank line after each.
class LogToConsoleSniffer final : public IDebugLogSniffer {
 public:
  LogToConsoleSniffer();

  // Waits up to two seconds for the console to take what is left. A thread that still stands in its
  // write then stays there until the process ends, and never touches this object.
  ~LogToConsoleSniffer();
  LogToConsoleSniffer(const LogToConsoleSniffer&) = delete;
  LogToConsoleSniffer& operator=(const LogToConsoleSniffer&) = delete;

  // Returns once the line is written, however long the console takes.
  void Sniff(const std::wstring& line) override;

  // Never waits for the console. Some 4 MiB wait for it; lines beyond are left out there, and one
  // line in their place says how many.
  void SniffAll(std::span<const std::wstring_view> lines) override;

 private:
  struct Output;
  std::shared_ptr<Output> output_;  // shared with the thread, which may be the last to hold it
};
