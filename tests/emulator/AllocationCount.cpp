#include "emulator/AllocationCount.h"

#include <cstdlib>
#include <new>

namespace {
thread_local uint64_t allocations = 0;
}  // namespace

uint64_t AllocationCount() {
  return allocations;
}

// The array and sized forms of the standard library come down to these two.
void* operator new(std::size_t size) {
  ++allocations;
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (!memory) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
