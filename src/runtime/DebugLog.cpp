#include "runtime/DebugLog.h"

#include <chrono>
#include <cwchar>
#include <system_error>

#include "platform/startup.h"
#include "platform/text.h"

namespace {

// How long SetSniffer(nullptr) waits for a slow listener.
constexpr std::chrono::seconds kDrainLimit{2};

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
  queueSignal_.notify_one();
  if (thread_.joinable()) thread_.join();
}

void CDebugLog::Write(const std::string& text) {
  Write(Utf8ToWide(text));
}
void CDebugLog::Write(const char* text, size_t length) {
  Write(std::string(text, length));
}
void CDebugLog::Write(const char* text) {
  Write(Utf8ToWide(text));
}
void CDebugLog::Write(const std::wstring& text) {
  Write(text.data(), text.size());
}
void CDebugLog::Write(const wchar_t* text) {
  Write(text, std::wcslen(text));
}

void CDebugLog::Write(const wchar_t* text, size_t length) {
  while (length > 0 && text[length - 1] == L'\0')
    --length;
  if (length == 0) return;
  std::wstring line = FormatLogLine(text, length);
  {
    std::lock_guard lock(queueLock_);
    queue_.push_back(std::move(line));
    ++queued_;
  }
  queueSignal_.notify_one();
}

void CDebugLog::WriteDebug(const std::string& text) {
  WriteDebug(Utf8ToWide(text));
}
void CDebugLog::WriteDebug(const char* text, size_t length) {
  WriteDebug(std::string(text, length));
}
void CDebugLog::WriteDebug(const char* text) {
  WriteDebug(Utf8ToWide(text));
}
void CDebugLog::WriteDebug(const std::wstring& text) {
  WriteDebug(text.data(), text.size());
}
void CDebugLog::WriteDebug(const wchar_t*, size_t) {}
void CDebugLog::WriteDebug(const wchar_t* text) {
  WriteDebug(text, std::wcslen(text));
}

void CDebugLog::SetSniffer(IDebugLogSniffer* sniffer) {
  if (!sniffer) {
    // The writer is behind its callers: without this wait the last lines would miss the listener.
    std::unique_lock lock(queueLock_);
    const uint64_t target = queued_;
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
  for (;;) {
    DrainQueue(lock);
    if (stopRequested_) break;
    queueSignal_.wait_for(lock, std::chrono::seconds(1),
                          [this] { return !queue_.empty() || stopRequested_; });
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

void CDebugLog::DrainQueue(std::unique_lock<std::mutex>& lock) {
  while (!queue_.empty()) {
    const std::wstring line = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    Handle(line);
    lock.lock();
    ++handled_;
    handledSignal_.notify_all();
  }
}

// One line that can't be shown or stored mustn't end the log, and what can't be shown is stored.
void CDebugLog::Handle(const std::wstring& line) {
  try {
    std::lock_guard lock(snifferLock_);
    if (sniffer_) sniffer_->Sniff(line);
  } catch (...) {
  }
  try {
    if (files_) files_->Store(line);
  } catch (...) {
  }
}

void LogToConsoleSniffer::Sniff(const std::wstring& line) {
  platform::WriteOutput(platform::WideToUtf8Lossy(line) + "\n");
}
