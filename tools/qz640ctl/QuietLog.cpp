#include "QuietLog.h"

#include <cstdio>
#include <mutex>

#include "platform/text.h"
#include "runtime/Environment.h"
#include "runtime/LogForms.h"
#include "runtime/LogLine.h"

namespace ctl {

namespace {

bool verboseLog = false;

class QuietLog final : public LogForms {
 public:
  void SetSniffer(IDebugLogSniffer*) override {}

 private:
  void WriteText(std::wstring_view text) override {
    if (!verboseLog || text.empty()) return;
    std::string line = platform::WideToUtf8Lossy(FormatLogLine(text.data(), text.size()));
    line.replace(line.size() - 2, 2, "\n");  // one line end is enough here
    std::lock_guard lock(mutex_);
    std::fwrite(line.data(), 1, line.size(), stderr);
  }

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
