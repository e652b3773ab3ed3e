#include "runtime/ConsoleLog.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/startup.h"
#include "runtime/Format.h"
#include "runtime/LogLine.h"

namespace {

// Bytes that wait while as many at most are being written: 4 MiB in all.
constexpr size_t kWaitingBytes = 2 * 1024 * 1024;

constexpr std::chrono::seconds kEndLimit{2};

void AppendLine(std::string& out, std::wstring_view line) {
  AppendShown(out, line);
  out += '\n';
}

}  // namespace

struct LogToConsoleSniffer::Output {
  std::mutex mutex;
  std::condition_variable changed;
  std::string waiting;   // whole lines
  uint64_t leftOut = 0;  // lines that came after `waiting` was full
  bool writing = false;
  bool ending = false;
  bool ended = false;
  bool hasThread = false;

  bool Idle() const { return waiting.empty() && leftOut == 0 && !writing; }

  void Add(std::wstring_view line) {
    // From the first line that is left out until the thread takes what waits, all are: one line in
    // their place then says how many.
    if (leftOut != 0 || waiting.size() + line.size() > kWaitingBytes) {
      ++leftOut;
    } else {
      AppendLine(waiting, line);
    }
  }

  // What is to be written now.
  std::string Take() {
    std::string bytes = std::exchange(waiting, {});
    if (const uint64_t count = std::exchange(leftOut, 0); count != 0) {
      try {
        const std::wstring text = Format(
            L"Left out here, as nobody read the console: %I64d lines. The log file has them.",
            count);
        AppendLine(bytes, FormatLogLine(text.data(), text.size()));
      } catch (...) {
        // Out of memory: that they are missing goes unsaid.
      }
    }
    return bytes;
  }

  void Run() {
    std::unique_lock lock(mutex);
    for (;;) {
      changed.wait(lock, [this] { return !Idle() || ending; });
      if (Idle()) break;
      const std::string bytes = Take();
      writing = true;
      lock.unlock();
      platform::WriteOutput(bytes);
      lock.lock();
      writing = false;
      changed.notify_all();
    }
    ended = true;
    changed.notify_all();
  }

  // Where no thread is to be had, the thread that shows a line writes it.
  void WriteUnlessThread() {
    if (!hasThread) platform::WriteOutput(Take());
  }
};

LogToConsoleSniffer::LogToConsoleSniffer() : output_(std::make_shared<Output>()) {
  try {
    std::thread([output = output_] { output->Run(); }).detach();
    output_->hasThread = true;
  } catch (const std::system_error&) {
    // The console still gets each line, but can hold up the log.
  }
}

LogToConsoleSniffer::~LogToConsoleSniffer() {
  std::unique_lock lock(output_->mutex);
  output_->ending = true;
  output_->changed.notify_all();
  if (output_->hasThread)
    output_->changed.wait_for(lock, kEndLimit, [this] { return output_->ended; });
}

void LogToConsoleSniffer::Sniff(const std::wstring& line) {
  std::unique_lock lock(output_->mutex);
  AppendLine(output_->waiting, line);
  output_->WriteUnlessThread();
  output_->changed.notify_all();
  output_->changed.wait(lock, [this] { return output_->Idle(); });
}

void LogToConsoleSniffer::SniffAll(std::span<const std::wstring_view> lines) {
  const std::lock_guard lock(output_->mutex);
  for (const std::wstring_view line : lines)
    output_->Add(line);
  output_->WriteUnlessThread();
  output_->changed.notify_all();
}
