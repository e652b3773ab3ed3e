// The benchmarks run without a log: a failure that is dropped costs nothing then.
#include <benchmark/benchmark.h>

#include "runtime/Environment.h"

namespace {

class NoLog final : public IEnvironment {
 public:
  std::shared_ptr<IDebugLog> GetLog() override { return nullptr; }
};

}  // namespace

int main(int argc, char** argv) {
  SetEnvironmentFactory(
      []() -> std::unique_ptr<IEnvironment> { return std::make_unique<NoLog>(); });
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
