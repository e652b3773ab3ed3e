#include "runtime/DebugLog.h"

#include <chrono>
#include <system_error>

#include "platform/startup.h"
#include "platform/text.h"

namespace {

// How long SetSniffer(nullptr) waits for a slow listener.
constexpr std::chrono::seconds kDrainLimit{2};

// What the console gets at a time, at most about: as much as a pipe holds on Linux.
constexpr size_t kConsoleBytes = 65536;

// After so many lines a quiet second is used to give back the memory that they took while they
// waited: allocators keep it, and a program that runs for weeks would stay as large as its worst
// moment.
constexpr uint64_t kFloodLines = 10'000;
constexpr uint32_t kQuietMs = 1000;

// One line that can't be shown or stored mustn't end the log, and what can't be shown is stored.
template <typename Action>
void Try(Action action) {
  try {
    action();
  } catch (...) {
  }
}

}  // namespace

std::shared_ptr<IDebugLog> CreateDebugLog(const LogParams& params) {
  return std::make_shared<CDebugLog>(params);
}

CDebugLog::CDebugLog() {
  StartWriter();
}

CDebugLog::CDebugLog(const LogParams& params) {
  files_.emplace(params);
  StartWriter();
}

void CDebugLog::StartWriter() {
  try {
    thread_ = std::thread([this] { RunWriter(); });
  } catch (const std::system_error&) {
    // Without a writer the lines stay in the queue; the program goes on all the same.
    running_ = false;
  }
}

CDebugLog::~CDebugLog() {
  if (files_) files_->StopCleanUp();
  {
    std::lock_guard lock(queueLock_);
    stopRequested_ = true;
  }
  wake_.Set();
  if (thread_.joinable()) thread_.join();
}

void CDebugLog::WriteText(std::wstring_view text) {
  while (text.ends_with(L'\0'))
    text.remove_suffix(1);
  if (text.empty()) return;
  std::wstring line = FormatLogLine(text.data(), text.size());
  bool first = false;
  {
    std::lock_guard lock(queueLock_);
    first = queue_.empty();
    queue_.push_back(std::move(line));
    ++queued_;
  }
  if (first) wake_.Set();
}

void CDebugLog::SetSniffer(IDebugLogSniffer* sniffer) {
  if (!sniffer) {
    // The writer is behind its callers: without this wait the last lines would miss the listener.
    std::unique_lock lock(queueLock_);
    const uint64_t target = queued_;
    handledSignal_.wait_for(lock, kDrainLimit, [&] { return handled_ >= target || !running_; });
  }
  std::lock_guard lock(snifferLock_);
  if (sniffer_) sniffer_->OnQueueEmpty();
  sniffer_ = sniffer;
}

void CDebugLog::RunWriter() {
  try {
    if (files_) files_->Open();
  } catch (...) {
    // Out of memory: lines are shown and not stored.
  }
  std::unique_lock lock(queueLock_);
  uint64_t handledAtTrim = 0;
  for (;;) {
    DrainQueue(lock);
    if (stopRequested_) break;
    const bool flooded = handled_ - handledAtTrim >= kFloodLines;
    lock.unlock();
    const bool quiet = !wake_.Wait(kQuietMs);
    if (quiet && flooded) platform::ReturnFreeMemory();
    lock.lock();
    if (quiet && flooded) handledAtTrim = handled_;
  }
  lock.unlock();
  try {
    if (files_) files_->Close();
  } catch (...) {
    // The same: the file stays without its last line.
  }
  lock.lock();
  running_ = false;
  handledSignal_.notify_all();
}

// All lines at once: in a flood the writer, whose priority is the lowest of all, keeps up only as
// its system calls grow fewer the more lines wait.
void CDebugLog::DrainQueue(std::unique_lock<std::mutex>& lock) {
  while (!queue_.empty()) {
    std::deque<std::wstring> lines;
    lines.swap(queue_);
    const uint64_t count = lines.size();
    lock.unlock();
    Handle(lines);
    lock.lock();
    handled_ += count;
    handledSignal_.notify_all();
  }
}

void CDebugLog::Handle(std::deque<std::wstring>& lines) {
  for (; !lines.empty(); lines.pop_front()) {
    const std::wstring& line = lines.front();
    Try([&] {
      std::lock_guard lock(snifferLock_);
      if (sniffer_) sniffer_->Sniff(line);
    });
    Try([&] {
      if (files_) files_->Store(line);
    });
  }
  Try([&] {
    std::lock_guard lock(snifferLock_);
    if (sniffer_) sniffer_->OnQueueEmpty();
  });
  if (files_) files_->WriteGathered();
}

void LogToConsoleSniffer::Sniff(const std::wstring& line) {
  gathered_ += platform::WideToUtf8Lossy(line);
  gathered_ += '\n';
  if (gathered_.size() >= kConsoleBytes) OnQueueEmpty();
}

void LogToConsoleSniffer::OnQueueEmpty() {
  platform::WriteOutput(gathered_);
  gathered_.clear();
}
