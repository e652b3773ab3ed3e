#include "runtime/Environment.h"

#include <atomic>

#include "runtime/DebugLog.h"
#include "runtime/Paths.h"
#include "runtime/SingletonGate.h"

namespace {

constinit SingletonGate gate;
constinit std::atomic<IEnvironment*> environment{nullptr};
constinit std::atomic<EnvironmentFactory> factory{nullptr};

std::unique_ptr<IEnvironment> Create() {
  const EnvironmentFactory create = factory.load();
  return create ? create() : std::make_unique<EnvironmentCommon>();
}

}  // namespace

EnvironmentRef::EnvironmentRef() {
  gate.Acquire();
}
EnvironmentRef::~EnvironmentRef() {
  ReleaseEnvironment();
}

IEnvironment* EnvironmentRef::Get() {
  // The gate's mutex dies with the last reference, and ReleaseEnvironment may give up the
  // environment's own meanwhile: this one keeps the mutex until it is unlocked, also if Create
  // throws.
  const EnvironmentRef held;
  std::lock_guard lock(*gate.mutex.load());
  if (!environment.load()) environment.store(Create().release());
  return environment.load();
}

void ReleaseEnvironment() {
  if (gate.Release()) delete environment.exchange(nullptr);
}

std::shared_ptr<IDebugLog> GetDebugLog() {
  return EnvironmentRef().Get()->GetLog();
}

EnvironmentFactory SetEnvironmentFactory(EnvironmentFactory create) {
  return factory.exchange(create);
}

EnvironmentCommon::EnvironmentCommon() {
  LogParams params;
  params.name = GetModulePath(false, true);
  params.dir = GetTempDir();
  AddTrailingSeparator(params.dir) += params.name + L".logs";
  params.maxFileSize = kLogFileSize;
  params.maxTotalSize = kLogTotalSize;
  params.maxAgeDays = kLogAgeDays;
  log_ = CreateDebugLog(params);
}
