// Counts the references to a process-wide object and owns the mutex under which it is created.
// Constant-initialised, so it works before main and needs no constructor or destructor of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

struct SingletonGate {
  std::atomic<std::mutex*> mutex{
      nullptr};  // made by the first Acquire, deleted by the last Release
  std::atomic<uint32_t> refs{0};
  std::atomic<uint32_t> gateState{0};  // 0 idle, 1 the mutex is being made, 2 it is being deleted

  // Adds a reference. The first one also adds the singleton's own, so that scoped references may
  // come and go while the object stays. Any thread.
  void Acquire();

  // Gives a reference back. True when it was the last: the caller then deletes the object.
  bool Release();
};
