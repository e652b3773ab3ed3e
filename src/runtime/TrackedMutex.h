// Named mutexes and the lock guard that watches them: a lock that took 5 ms or more from the
// request to the release writes one "LOCK" line. They are only ever taken through ScopedLock.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

template <typename Mutex>
class BasicTrackedMutex {
 public:
  explicit BasicTrackedMutex(const wchar_t* name) : name_(name) {}
  BasicTrackedMutex(const BasicTrackedMutex&) = delete;
  BasicTrackedMutex& operator=(const BasicTrackedMutex&) = delete;

  void Lock() { mutex_.lock(); }
  void Unlock() { mutex_.unlock(); }
  const std::wstring& Name() const { return name_; }

 private:
  Mutex mutex_;
  const std::wstring name_;
};

using TrackedMutex = BasicTrackedMutex<std::mutex>;
using TrackedRecursiveMutex = BasicTrackedMutex<std::recursive_mutex>;

constexpr uint32_t LockLimitMs = 5;

// The clock readings of one hold of a lock, in counter ticks.
struct LockTimes {
  int64_t requested = 0;
  int64_t granted = 0;
  int64_t releasing = 0;

  static int64_t Now();

  // Called behind the unlock: writes the "LOCK" line if the whole took too long.
  void Report(const std::wstring& name) const;
};

template <typename Mutex>
class ScopedLock {
 public:
  explicit ScopedLock(Mutex& mutex) : mutex_(mutex) {
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
  Mutex& mutex_;
  LockTimes times_;
};
