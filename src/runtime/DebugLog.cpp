#include "runtime/DebugLog.h"

#include <chrono>
#include <cwchar>
#include <system_error>

#include "platform/clock.h"
#include "platform/startup.h"
#include "platform/text.h"
#include "platform/thread.h"

namespace {

// How long SetSniffer(nullptr) waits for a slow listener.
constexpr std::chrono::seconds kDrainLimit{2};

void AppendNumber(std::wstring& out, int value, int width) {
  wchar_t digits[8];
  for (int i = width; i-- > 0; value /= 10)
    digits[i] = static_cast<wchar_t>(L'0' + value % 10);
  out.append(digits, static_cast<size_t>(width));
}

void AppendHex8(std::wstring& out, uint32_t value) {
  for (int shift = 28; shift >= 0; shift -= 4)
    out += L"0123456789ABCDEF"[(value >> shift) & 0xF];
}

}  // namespace

std::wstring FormatLogLine(const wchar_t* text, size_t length) {
  const platform::LocalTime now = platform::GetClock().Local();
  std::wstring line;
  line.reserve(1000);
  AppendNumber(line, now.year, 4);
  line += L'/';
  AppendNumber(line, now.month, 2);
  line += L'/';
  AppendNumber(line, now.day, 2);
  line += L' ';
  AppendNumber(line, now.hour, 2);
  line += L':';
  AppendNumber(line, now.minute, 2);
  line += L':';
  AppendNumber(line, now.second, 2);
  line += L'.';
  AppendNumber(line, now.millisecond, 3);
  line += L" @ ";
  AppendHex8(line, platform::ThreadNumber());
  line += L" @ ";
  line.append(text, length);
  line += L"\r\n";
  return line;
}

std::shared_ptr<IDebugLog> CreateDebugLog() {
  return std::make_shared<CDebugLog>();
}

CDebugLog::CDebugLog() {
  try {
    thread_ = std::thread([this] { RunWriter(); });
  } catch (const std::system_error&) {
    // Without a writer the lines stay in the queue; the program goes on all the same.
    running_ = false;
  }
}

CDebugLog::~CDebugLog() {
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
  std::unique_lock lock(queueLock_);
  for (;;) {
    while (!queue_.empty()) {
      const std::wstring line = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      try {
        Handle(line);
      } catch (...) {
        // One line that can't be shown or stored mustn't end the log.
      }
      lock.lock();
      ++handled_;
      handledSignal_.notify_all();
    }
    if (stopRequested_) break;
    queueSignal_.wait_for(lock, std::chrono::seconds(1),
                          [this] { return !queue_.empty() || stopRequested_; });
  }
  running_ = false;
  handledSignal_.notify_all();
}

void CDebugLog::Handle(const std::wstring& line) {
  std::lock_guard lock(snifferLock_);
  if (sniffer_) sniffer_->Sniff(line);
}

void LogToConsoleSniffer::Sniff(const std::wstring& line) {
  platform::WriteConsole(platform::WideToUtf8Lossy(line) + "\n");
}
