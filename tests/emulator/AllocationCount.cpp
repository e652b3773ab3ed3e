#include "emulator/AllocationCount.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

thread_local uint64_t allocations = 0;
thread_local bool spared = false;
std::atomic<int64_t> untilFailure{-1};  // below 0: none is due

bool Fails() {
  return !spared && untilFailure.load() >= 0 && untilFailure.fetch_sub(1) == 0;
}

}  // namespace

void FailAllocation(int64_t index) {
  spared = true;
  untilFailure = index;
}

bool AllocationFailureIsDue() {
  return untilFailure.load() >= 0;
}

uint64_t AllocationCount() {
  return allocations;
}

// The forms that are given back by those below, also the one that the standard library would
// bring down to the other, and those of arrays: with a sanitizer these are its own.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  ++allocations;
  return Fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
}
void* operator new(std::size_t size) {
  void* memory = operator new(size, std::nothrow);
  if (!memory) throw std::bad_alloc();
  return memory;
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
