#include "support/CapturedLog.h"

#include <algorithm>
#include <chrono>
#include <new>

#include "platform/text.h"

CapturedLog& CapturedLog::Get() {
  static CapturedLog log;
  return log;
}

void CapturedLog::Clear() {
  std::lock_guard lock(mutex_);
  entries_.clear();
  allowed_.clear();
}

std::vector<std::wstring> CapturedLog::Lines() const {
  std::lock_guard lock(mutex_);
  std::vector<std::wstring> lines;
  for (const Entry& entry : entries_)
    lines.push_back(entry.text);
  return lines;
}

size_t CapturedLog::Count(const std::wstring& part) const {
  std::lock_guard lock(mutex_);
  return static_cast<size_t>(std::count_if(entries_.begin(), entries_.end(), [&](const Entry& e) {
    return e.text.find(part) != std::wstring::npos;
  }));
}

std::wstring CapturedLog::TakeLocked(const std::wstring& part) {
  for (Entry& entry : entries_) {
    if (entry.taken || entry.text.find(part) == std::wstring::npos) continue;
    entry.taken = true;
    return entry.text;
  }
  return {};
}

std::wstring CapturedLog::Take(const std::wstring& part) {
  std::unique_lock lock(mutex_);
  std::wstring text;
  written_.wait_for(lock, std::chrono::seconds(10), [&] {
    text = TakeLocked(part);
    return !text.empty();
  });
  return text;
}

std::wstring CapturedLog::TryTake(const std::wstring& part) {
  std::lock_guard lock(mutex_);
  return TakeLocked(part);
}

void CapturedLog::Allow(const std::wstring& part) {
  std::lock_guard lock(mutex_);
  allowed_.push_back(part);
}

bool CapturedLog::AllowedLocked(const std::wstring& text) const {
  return std::any_of(allowed_.begin(), allowed_.end(), [&](const std::wstring& part) {
    return text.find(part) != std::wstring::npos;
  });
}

std::vector<std::wstring> CapturedLog::UntakenFailures() const {
  std::lock_guard lock(mutex_);
  std::vector<std::wstring> failures;
  for (const Entry& entry : entries_) {
    const bool failure = entry.text.find(L" Method=") != std::wstring::npos;
    if (failure && !entry.taken && !AllowedLocked(entry.text)) failures.push_back(entry.text);
  }
  return failures;
}

// A log never fails towards its caller: without memory the line is lost.
void CapturedLog::WriteText(std::wstring_view text) try {
  std::lock_guard lock(mutex_);
  entries_.push_back({std::wstring(text), false});
  written_.notify_all();
} catch (const std::bad_alloc&) {
}
