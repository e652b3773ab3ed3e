// Counts the references to a process-wide object and owns the mutex under which it is created.
// Constant-initialised, so it works before main and needs no constructor or destructor of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

struct SingletonGate {
  static constexpr uint32_t kIdle = 0;
  static constexpr uint32_t kMakingMutex = 1;
  static constexpr uint32_t kDeletingMutex = 2;

  // Made by the first Acquire, deleted by the last Release.
  std::atomic<std::mutex*> mutex{nullptr};
  std::atomic<uint32_t> refs{0};
  std::atomic<uint32_t> gateState{kIdle};

  // Adds a reference. The first one also adds the singleton's own, so that scoped references may
  // come and go while the object stays. Any thread.
  void Acquire();

  // Gives a reference back. True when it was the last: the caller then deletes the object.
  bool Release();
};
