// The receive side of the audio as a script of packets, ticks and new set-ups. A model of the rings
// written another way must agree on what comes out at each tick, on every log line and on every
// position that is reported.
#include <cstdio>
#include <cstdlib>

#include "Harness.h"
#include "RingDuel.h"
#include "runtime/Environment.h"

namespace {

// The log lines are what is compared, so they are kept.
class Environment final : public IEnvironment {
 public:
  std::shared_ptr<IDebugLog> GetLog() override {
    // Not owned: the log outlives whatever holds it.
    return std::shared_ptr<IDebugLog>(&CapturedLog::Get(), [](IDebugLog*) {});
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Before anything has asked for the log.
  [[maybe_unused]] static const EnvironmentFactory before = SetEnvironmentFactory(
      []() -> std::unique_ptr<IEnvironment> { return std::make_unique<Environment>(); });

  RingDuel duel;
  duel.Play(data, size);
  if (duel.difference) std::fprintf(stderr, "%s\n", duel.difference->c_str());
  fuzz::Require(!duel.difference, "the manager and the model agree");
  return 0;
}
