#include "platform/win32/wakeset.h"

#include <algorithm>
#include <new>
#include <system_error>
#include <utility>

namespace platform {

void StartSockets() {
  // A failure shows as a failure of the first socket call.
  static const int result = [] {
    WSADATA data{};
    return WSAStartup(MAKEWORD(2, 2), &data);
  }();
  static_cast<void>(result);
}

SocketEventHandle::SocketEventHandle() : handle(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
  if (!handle) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "CreateEventW");
  }
}

SocketEventHandle::~SocketEventHandle() {
  CloseHandle(handle);
}

const size_t Waiter::kMostWakeSets = MAXIMUM_WAIT_OBJECTS - 1;  // and Wake's own event

Waiter::Waiter() : impl_(std::make_unique<Impl>()) {
  impl_->handles.push_back(impl_->wake.handle);
}
Waiter::~Waiter() = default;

void Waiter::Wake() {
  SetEvent(impl_->wake.handle);
}

// The system reports the first signalled event of a list, so the rest of the list is asked too, or
// busy sets at its front would starve those at its end.
void Waiter::Wait(uint32_t milliseconds) {
  DWORD timeout = milliseconds;
  if (impl_->changed.exchange(false)) {
    try {
      std::lock_guard lock(impl_->mutex);
      impl_->handles.reserve(1 + impl_->sets.size());
      impl_->waited = impl_->sets;
      impl_->handles.resize(1);
      for (const Impl::Set& set : impl_->waited)
        impl_->handles.push_back(set.event->handle);
    } catch (const std::bad_alloc&) {
      // The old list does until there is memory for the new one.
      impl_->changed = true;
      timeout = std::min<DWORD>(timeout, 10);
    }
  }
  const std::vector<HANDLE>& handles = impl_->handles;
  for (size_t first = 0; first < handles.size();) {
    const DWORD result = WaitForMultipleObjects(static_cast<DWORD>(handles.size() - first),
                                                handles.data() + first, FALSE, timeout);
    const size_t index = first + (result - WAIT_OBJECT_0);
    if (result >= WAIT_OBJECT_0 + (handles.size() - first)) return;  // no more, or a failure
    if (index > 0) impl_->Note(index - 1);
    first = index + 1;
    timeout = 0;
  }
}

// The set may have been closed since, and its news may be gone.
void Waiter::Impl::Note(size_t index) {
  std::lock_guard lock(mutex);
  const SocketEventHandle* const event = waited[index].event.get();
  for (const Set& set : sets) {
    if (set.event.get() == event) *set.news = true;
  }
}

WakeSet::WakeSet(std::shared_ptr<Waiter> waiter) : impl_(std::make_unique<Impl>()) {
  StartSockets();
  impl_->waiter = std::move(waiter);
  impl_->event = std::make_shared<SocketEventHandle>();
  Waiter::Impl& shared = impl_->waiter->GetImpl();
  {
    std::lock_guard lock(shared.mutex);
    shared.sets.push_back({impl_->event, &news_});
  }
  shared.changed = true;
  impl_->waiter->Wake();  // a Wait in progress doesn't know the set yet
}

WakeSet::~WakeSet() {
  Close();
}

void WakeSet::Signal() {
  SetEvent(impl_->event->handle);
}

void WakeSet::Close() {
  Waiter::Impl& shared = impl_->waiter->GetImpl();
  std::lock_guard lock(shared.mutex);
  std::erase_if(shared.sets, [&](const auto& set) { return set.news == &news_; });
  shared.changed = true;
}

}  // namespace platform
