#include "platform/posix/wakeset.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>

namespace platform {

namespace {

constexpr uint64_t kSignalKey = 0;

// More are told at the next Wait, which then doesn't sleep.
constexpr int kEventsPerWait = 256;

}  // namespace

WakeSet::WakeSet() : impl_(std::make_unique<Impl>()) {
  impl_->epoll = epoll_create1(EPOLL_CLOEXEC);
  impl_->signal = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kSignalKey;
  if (impl_->epoll == -1 || impl_->signal == -1 ||
      epoll_ctl(impl_->epoll, EPOLL_CTL_ADD, impl_->signal, &event) == -1) {
    const int error = errno;
    if (impl_->signal != -1) close(impl_->signal);
    if (impl_->epoll != -1) close(impl_->epoll);
    throw std::system_error(error, std::generic_category(), "wake set");
  }
}

WakeSet::~WakeSet() {
  close(impl_->signal);
  close(impl_->epoll);
}

void WakeSet::Signal() {
  const uint64_t one = 1;
  // Fails only when the counter is full, and then it is signalled.
  while (write(impl_->signal, &one, sizeof one) == -1 && errno == EINTR) {
  }
}

void WakeSet::Wait(uint32_t milliseconds) {
  epoll_event events[kEventsPerWait];
  const int timeout =
      static_cast<int>(std::min<uint32_t>(milliseconds, std::numeric_limits<int>::max()));
  // Interrupted by a debugger or a stopped process: as good as woken.
  const int count = epoll_wait(impl_->epoll, events, kEventsPerWait, timeout);
  if (count <= 0) return;

  std::lock_guard lock(impl_->mutex);
  for (int i = 0; i < count; ++i) {
    const uint64_t key = events[i].data.u64;
    if (key == kSignalKey) {
      // Read before the caller looks at anything: a signal that comes later wakes it once more.
      uint64_t signals = 0;
      while (read(impl_->signal, &signals, sizeof signals) == -1 && errno == EINTR) {
      }
      continue;
    }
    const auto found = impl_->watches.find(key);
    if (found != impl_->watches.end()) found->second->ready.fetch_or(events[i].events);
  }
}

uint32_t WakeSet::Impl::Add(WatchedDescriptor& descriptor, uint32_t events) {
  std::lock_guard lock(mutex);
  epoll_event event{};
  event.events = events;
  event.data.u64 = ++lastWatch;
  watches.emplace(lastWatch, &descriptor);
  if (epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor.fd, &event) == -1) {
    const int error = errno;
    watches.erase(lastWatch);
    return static_cast<uint32_t>(error);
  }
  descriptor.watch = lastWatch;
  return 0;
}

void WakeSet::Impl::Remove(WatchedDescriptor& descriptor) {
  std::lock_guard lock(mutex);
  epoll_ctl(epoll, EPOLL_CTL_DEL, descriptor.fd, nullptr);
  watches.erase(descriptor.watch);
  descriptor.watch = 0;
}

}  // namespace platform
