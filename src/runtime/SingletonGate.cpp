#include "runtime/SingletonGate.h"

#include "platform/clock.h"

namespace {

constexpr uint32_t kPollMs = 10;
// One thread at a time makes or deletes the mutex; there is no other lock yet that could see to it.
void Enter(std::atomic<uint32_t>& gateState, uint32_t state) {
  uint32_t expected = SingletonGate::kIdle;
  while (!gateState.compare_exchange_strong(expected, state)) {
    platform::SystemClock().Sleep(kPollMs);
    expected = SingletonGate::kIdle;
  }
}

}  // namespace

void SingletonGate::Acquire() {
  const uint32_t before = refs.fetch_add(1);
  if (mutex.load() != nullptr) return;
  if (before != 0) {
    while (gateState.load() != kIdle || mutex.load() == nullptr) {
      platform::SystemClock().Sleep(kPollMs);
    }
    return;
  }
  Enter(gateState, kMakingMutex);
  mutex.store(new std::mutex);
  refs.fetch_add(1);  // the singleton's own
  gateState.store(kIdle);
}

bool SingletonGate::Release() {
  if (refs.fetch_sub(1) != 1) return false;
  Enter(gateState, kDeletingMutex);
  // This was the last reference, and a caller that locks the mutex holds one: so the mutex is free
  // and stays free. It isn't locked here, as a locked mutex must not be deleted.
  delete mutex.exchange(nullptr);
  gateState.store(kIdle);
  return true;
}
