#include "platform/posix/wakeset.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

namespace platform {

namespace {

constexpr uint64_t kSignalKey = 0;

// More are reported at the next Wait, which then doesn't sleep.
constexpr int kEventsPerWait = 256;

}  // namespace

const size_t Waiter::kMostWakeSets = std::numeric_limits<size_t>::max();

Waiter::Waiter() : impl_(std::make_unique<Impl>()) {
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

Waiter::~Waiter() {
  close(impl_->signal);
  close(impl_->epoll);
}

void Waiter::Wake() {
  const uint64_t one = 1;
  // Fails only when the counter is full, and then it is signalled.
  while (write(impl_->signal, &one, sizeof one) == -1 && errno == EINTR) {
  }
}

void Waiter::Wait(uint32_t milliseconds) {
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
    if (found == impl_->watches.end()) continue;
    found->second.descriptor->ready.fetch_or(events[i].events);
    *found->second.news = true;
  }
}

WakeSet::WakeSet(std::shared_ptr<Waiter> waiter) : impl_(std::make_unique<Impl>()) {
  impl_->waiter = std::move(waiter);
  impl_->news = &news_;
}

WakeSet::~WakeSet() = default;

// News that was there already has a wake-up on its way, or the worker at work on it.
void WakeSet::Signal() {
  if (!news_.exchange(true)) impl_->waiter->Wake();
}

// A descriptor that stayed in the epoll set with a datagram that nobody receives would wake the
// worker for ever.
void WakeSet::Close() {
  Waiter::Impl& waiter = impl_->waiter->GetImpl();
  std::lock_guard lock(waiter.mutex);
  impl_->closed = true;
  std::erase_if(waiter.watches, [&](const auto& entry) {
    if (entry.second.news != &news_) return false;
    epoll_ctl(waiter.epoll, EPOLL_CTL_DEL, entry.second.descriptor->fd, nullptr);
    return true;
  });
}

uint32_t WakeSet::Impl::Add(WatchedDescriptor& descriptor, uint32_t events) {
  Waiter::Impl& shared = waiter->GetImpl();
  std::lock_guard lock(shared.mutex);
  if (closed) return 0;
  epoll_event event{};
  event.events = events;
  event.data.u64 = ++shared.lastWatch;
  shared.watches.emplace(shared.lastWatch, Waiter::Impl::Watch{&descriptor, news});
  if (epoll_ctl(shared.epoll, EPOLL_CTL_ADD, descriptor.fd, &event) == -1) {
    const int error = errno;
    shared.watches.erase(shared.lastWatch);
    return static_cast<uint32_t>(error);
  }
  descriptor.watch = shared.lastWatch;
  return 0;
}

void WakeSet::Impl::Remove(WatchedDescriptor& descriptor) {
  Waiter::Impl& shared = waiter->GetImpl();
  std::lock_guard lock(shared.mutex);
  if (shared.watches.erase(descriptor.watch) != 0)
    epoll_ctl(shared.epoll, EPOLL_CTL_DEL, descriptor.fd, nullptr);
  descriptor.watch = 0;
}

}  // namespace platform
