#include "platform/event.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace platform {

struct Event::Impl {
  explicit Impl(Mode m) : mode(m) {}

  const Mode mode;
  std::mutex mutex;
  std::condition_variable changed;
  bool signalled = false;
};

Event::Event(Mode mode) : impl_(std::make_unique<Impl>(mode)) {}
Event::~Event() = default;

void Event::Set() {
  // Notified under the mutex: the waiter may destroy the event as soon as it has seen the signal.
  std::lock_guard lock(impl_->mutex);
  impl_->signalled = true;
  impl_->changed.notify_one();
}

void Event::Reset() {
  std::lock_guard lock(impl_->mutex);
  impl_->signalled = false;
}

bool Event::Wait(uint32_t milliseconds) {
  std::unique_lock lock(impl_->mutex);
  if (milliseconds != 0) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    impl_->changed.wait_until(lock, deadline, [this] { return impl_->signalled; });
  }
  const bool result = impl_->signalled;
  if (impl_->mode == Mode::AutoReset) impl_->signalled = false;
  return result;
}

}  // namespace platform
