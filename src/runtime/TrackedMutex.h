// Named mutexes and the lock guard that watches them: a lock that took 5 ms or more from the
// request to the release writes one "LOCK" line. They are only ever taken through ScopedLock.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

// What ScopedLock knows of a tracked mutex. The name stands in the "LOCK" line.
class NamedMutex {
 public:
  NamedMutex(const NamedMutex&) = delete;
  NamedMutex& operator=(const NamedMutex&) = delete;

  virtual void Lock() = 0;
  virtual void Unlock() = 0;
  const std::wstring& Name() const { return name_; }

 protected:
  explicit NamedMutex(std::wstring name) : name_(std::move(name)) {}
  ~NamedMutex() = default;

 private:
  const std::wstring name_;
};

template <typename Mutex>
class BasicTrackedMutex final : public NamedMutex {
 public:
  explicit BasicTrackedMutex(std::wstring name) : NamedMutex(std::move(name)) {}

  void Lock() override { mutex_.lock(); }
  void Unlock() override { mutex_.unlock(); }

 private:
  Mutex mutex_;
};

using TrackedMutex = BasicTrackedMutex<std::mutex>;
using TrackedRecursiveMutex = BasicTrackedMutex<std::recursive_mutex>;

constexpr uint32_t kLockLimitMs = 5;

// The clock readings of one hold of a lock, in counter ticks.
struct LockTimes {
  int64_t requested = 0;
  int64_t granted = 0;
  int64_t releasing = 0;

  static int64_t Now();

  // Called after the unlock: writes the "LOCK" line if the whole took too long.
  void Report(const std::wstring& name) const;
};

class ScopedLock {
 public:
  explicit ScopedLock(NamedMutex& mutex) : mutex_(mutex) {
    times_.requested = LockTimes::Now();
    mutex_.Lock();
    times_.granted = LockTimes::Now();
  }

  ~ScopedLock() {
    times_.releasing = LockTimes::Now();
    mutex_.Unlock();
    times_.Report(mutex_.Name());
  }

  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  NamedMutex& mutex_;
  LockTimes times_;
};
