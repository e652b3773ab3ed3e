#include "platform/event.h"

#include <system_error>

#include "platform/win32/win.h"

namespace platform {

struct Event::Impl {
  HANDLE handle = nullptr;
};

Event::Event(Mode mode) : impl_(std::make_unique<Impl>()) {
  impl_->handle = CreateEventW(nullptr, mode == Mode::ManualReset, FALSE, nullptr);
  if (!impl_->handle) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "CreateEventW");
  }
}

Event::~Event() {
  CloseHandle(impl_->handle);
}

void Event::Set() {
  SetEvent(impl_->handle);
}
void Event::Reset() {
  ResetEvent(impl_->handle);
}

bool Event::Wait(uint32_t milliseconds) {
  return WaitForSingleObject(impl_->handle, milliseconds) == WAIT_OBJECT_0;
}

}  // namespace platform
