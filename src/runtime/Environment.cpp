#include "runtime/Environment.h"

#include <atomic>

#include "runtime/DebugLog.h"
#include "runtime/IFS.h"
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
  // One reference more while the gate's mutex is in use, given back also when Create throws.
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
  // It usually exists. Where it can't be made there are no files, which is the log's affair.
  fs::FsRef().Get()->MakeDir(params.dir.c_str());
  AddTrailingSeparator(params.dir);
  params.maxFileSize = 1'048'576;
  params.maxTotalSize = 20 * params.maxFileSize;
  params.maxAgeDays = 20;
  log_ = CreateDebugLog(params);
}
