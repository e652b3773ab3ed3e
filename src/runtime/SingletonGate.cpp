#include "runtime/SingletonGate.h"

#include "platform/clock.h"

namespace {

constexpr uint32_t kPollMs = 10;
constexpr uint32_t kIdle = 0;
constexpr uint32_t kCreating = 1;
constexpr uint32_t kDeleting = 2;

void Enter(std::atomic<uint32_t>& gateState, uint32_t state) {
  uint32_t expected = kIdle;
  while (!gateState.compare_exchange_strong(expected, state)) {
    platform::SystemClock().Sleep(kPollMs);
    expected = kIdle;
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
  Enter(gateState, kCreating);
  mutex.store(new std::mutex);
  refs.fetch_add(1);  // the singleton's own
  gateState.store(kIdle);
}

bool SingletonGate::Release() {
  if (refs.fetch_sub(1) != 1) return false;
  Enter(gateState, kDeleting);
  // Nobody holds it any more: it is fetched, not locked, as a locked mutex can't be deleted.
  delete mutex.exchange(nullptr);
  gateState.store(kIdle);
  return true;
}
