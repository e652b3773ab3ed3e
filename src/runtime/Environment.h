// The root object of the process, through which every part reaches the log.
#pragma once

#include <cstdint>
#include <memory>

#include "runtime/IDebugLog.h"

class IEnvironment {
 public:
  virtual ~IEnvironment() = default;

  // Null only in an environment that has no log.
  virtual std::shared_ptr<IDebugLog> GetLog() = 0;
};

// The limits of the program's log files.
constexpr uint64_t kLogFileSize = 1'048'576;           // bytes, above which the next file begins
constexpr uint64_t kLogTotalSize = 20 * kLogFileSize;  // bytes of all files together
constexpr uint32_t kLogAgeDays = 20;

// The environment of the program: makes the debug log when it is made. Its files stand in the
// directory "<name>.logs" of the system's temporary directory, by the name of the executable's
// file.
class EnvironmentCommon : public IEnvironment {
 public:
  EnvironmentCommon();
  std::shared_ptr<IDebugLog> GetLog() override { return log_; }

 private:
  std::shared_ptr<IDebugLog> log_;
};

// A scoped reference to the environment, which the first Get creates. Any thread.
class EnvironmentRef {
 public:
  EnvironmentRef();
  ~EnvironmentRef();
  EnvironmentRef(const EnvironmentRef&) = delete;
  EnvironmentRef& operator=(const EnvironmentRef&) = delete;

  IEnvironment* Get();
};

// Gives up the reference that the environment holds to itself: ends the environment and the log,
// whose writer first empties its queue. The entry calls this once, as its last act.
void ReleaseEnvironment();

// The log, for a part that keeps it as a field.
std::shared_ptr<IDebugLog> GetDebugLog();

// What the first Get creates; null brings EnvironmentCommon back. The result is the one before. For
// tests: an environment that stands already stays until it is released.
using EnvironmentFactory = std::unique_ptr<IEnvironment> (*)();
EnvironmentFactory SetEnvironmentFactory(EnvironmentFactory factory);
