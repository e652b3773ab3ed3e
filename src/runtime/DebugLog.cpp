#include "runtime/DebugLog.h"

#include <array>
#include <chrono>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/startup.h"
#include "runtime/LogLine.h"

namespace {

// How long SetSniffer(nullptr) waits for a slow listener.
constexpr std::chrono::seconds kDrainLimit{2};

// Lines seldom come alone. For so long after some have come the writer looks for more by itself, as
// waking it costs the caller some 10 us, a hundred times the rest of what adding a line costs.
constexpr uint32_t kGatherMs = 5;

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
    running_ = false;
  }
}

CDebugLog::~CDebugLog() {
  std::unique_lock lock(queueLock_);
  stopRequested_ = true;
  if (!thread_.joinable()) {
    DrainQueue(lock);
    return;
  }
  lock.unlock();
  wake_.Set();
  thread_.join();
}

// Called by time-critical threads: one short lock, and memory only for each block of lines.
void CDebugLog::WriteText(std::wstring_view text) {
  while (text.ends_with(L'\0'))
    text.remove_suffix(1);
  if (text.empty()) return;
  const std::wstring_view prefix = LogPrefix();
  bool wakes = false;
  Try([&] {
    std::lock_guard lock(queueLock_);
    queue_.Push({prefix, text, kLogLineEnd});
    ++queued_;
    wakes = std::exchange(asleep_, false);
  });
  if (wakes) wake_.Set();
}

void CDebugLog::SetSniffer(IDebugLogSniffer* sniffer) {
  if (!sniffer) {
    // The writer runs later than its callers: without this wait the last lines would miss the
    // listener.
    std::unique_lock lock(queueLock_);
    if (!thread_.joinable()) DrainQueue(lock);
    const uint64_t target = queued_;
    wake_.Set();
    handledSignal_.wait_for(lock, kDrainLimit, [&] { return handled_ >= target || !running_; });
  }
  std::lock_guard lock(snifferLock_);
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
    lock.unlock();
    wake_.Wait(kGatherMs);
    lock.lock();
    if (!queue_.Empty() || stopRequested_) continue;

    const bool flooded = handled_ - handledAtTrim >= kFloodLines;
    asleep_ = true;
    lock.unlock();
    const bool quiet = !wake_.Wait(kQuietMs);
    if (quiet && flooded) platform::ReturnFreeMemory();
    lock.lock();
    asleep_ = false;
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
  while (!queue_.Empty()) {
    std::vector<LogQueue::Block> blocks = queue_.TakeAll();
    lock.unlock();
    uint64_t count = 0;
    for (const LogQueue::Block& block : blocks) {
      Handle(block);
      count += block.lines.size();
    }
    Try([&] {
      if (files_) files_->WriteGathered();
    });
    Try([&] { ShowTrouble(); });
    lock.lock();
    queue_.GiveBack(std::move(blocks.back()));
    handled_ += count;
    handledSignal_.notify_all();
  }
}

void CDebugLog::Handle(const LogQueue::Block& block) {
  Try([&] { Show(block.lines); });
  for (const std::wstring_view line : block.lines) {
    Try([&] {
      if (files_) files_->Store(line);
    });
  }
}

void CDebugLog::Show(std::span<const std::wstring_view> lines) {
  std::lock_guard lock(snifferLock_);
  if (sniffer_) sniffer_->SniffAll(lines);
}

// That there is no file can't stand in the file.
void CDebugLog::ShowTrouble() {
  if (!files_) return;
  const std::wstring trouble = files_->TakeTrouble();
  if (trouble.empty()) return;
  const std::wstring line = FormatLogLine(trouble.data(), trouble.size());
  Show(std::array<std::wstring_view, 1>{line});
}
