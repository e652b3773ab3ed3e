// The entry of every test program: puts the captured log in the log's place before anything can
// report a failure, and holds each test to the failures that it expected.
#include <gtest/gtest.h>

#include "platform/clock.h"
#include "platform/text.h"
#include "runtime/Environment.h"
#include "support/CapturedLog.h"

namespace {

class TestEnvironment final : public IEnvironment {
 public:
  std::shared_ptr<IDebugLog> GetLog() override {
    // Not owned: the log outlives whatever holds it.
    return std::shared_ptr<IDebugLog>(&CapturedLog::Get(), [](IDebugLog*) {});
  }
};

class FailuresAreExpected final : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { Log().Clear(); }

  void OnTestEnd(const testing::TestInfo&) override {
    platform::ReplaceClock(nullptr);
    for (const std::wstring& line : Log().UntakenFailures()) {
      ADD_FAILURE() << "unexpected failure in the log:" << platform::WideToUtf8Lossy(line);
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  SetEnvironmentFactory(
      []() -> std::unique_ptr<IEnvironment> { return std::make_unique<TestEnvironment>(); });
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new FailuresAreExpected);
  return RUN_ALL_TESTS();
}
