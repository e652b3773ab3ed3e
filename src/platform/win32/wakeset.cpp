#include "platform/win32/wakeset.h"

#include <system_error>

namespace platform {

void StartSockets() {
  // A failure shows as a failure of the first socket call.
  static const int result = [] {
    WSADATA data{};
    return WSAStartup(MAKEWORD(2, 2), &data);
  }();
  static_cast<void>(result);
}

WakeSet::Impl::Impl() : event(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
  if (!event) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "CreateEventW");
  }
}

WakeSet::Impl::~Impl() {
  CloseHandle(event);
}

WakeSet::WakeSet() : impl_(std::make_unique<Impl>()) {
  StartSockets();
}
WakeSet::~WakeSet() = default;

void WakeSet::Signal() {
  SetEvent(impl_->event);
}

void WakeSet::Wait(uint32_t milliseconds) {
  WaitForSingleObject(impl_->event, milliseconds);
}

}  // namespace platform
