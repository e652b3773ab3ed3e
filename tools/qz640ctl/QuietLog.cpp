#include "QuietLog.h"

#include <cstdio>
#include <cwchar>
#include <mutex>

#include "platform/text.h"
#include "runtime/DebugLog.h"
#include "runtime/Environment.h"

namespace ctl {

namespace {

bool verboseLog = false;

class QuietLog final : public IDebugLog {
 public:
  void Write(const std::string& text) override { Write(Utf8ToWide(text)); }
  void Write(const char* text, size_t length) override { Write(std::string(text, length)); }
  void Write(const char* text) override { Write(Utf8ToWide(text)); }
  void Write(const std::wstring& text) override { Write(text.data(), text.size()); }
  void Write(const wchar_t* text) override { Write(text, std::wcslen(text)); }

  void Write(const wchar_t* text, size_t length) override {
    if (!verboseLog || length == 0) return;
    std::string line = platform::WideToUtf8Lossy(FormatLogLine(text, length));
    line.replace(line.size() - 2, 2, "\n");  // one line end is enough here
    std::lock_guard lock(mutex_);
    std::fwrite(line.data(), 1, line.size(), stderr);
  }

  void WriteDebug(const std::string&) override {}
  void WriteDebug(const char*, size_t) override {}
  void WriteDebug(const char*) override {}
  void WriteDebug(const std::wstring&) override {}
  void WriteDebug(const wchar_t*, size_t) override {}
  void WriteDebug(const wchar_t*) override {}
  void SetSniffer(IDebugLogSniffer*) override {}

 private:
  std::mutex mutex_;
};

class QuietEnvironment final : public IEnvironment {
 public:
  std::shared_ptr<IDebugLog> GetLog() override { return log_; }

 private:
  std::shared_ptr<IDebugLog> log_ = std::make_shared<QuietLog>();
};

}  // namespace

void UseQuietLog(bool verbose) {
  verboseLog = verbose;
  SetEnvironmentFactory(
      []() -> std::unique_ptr<IEnvironment> { return std::make_unique<QuietEnvironment>(); });
}

}  // namespace ctl
