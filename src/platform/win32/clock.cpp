#include "platform/clock.h"

#include "platform/win32/win.h"

namespace platform {

namespace {

// From 1601-01-01, where Windows file times begin, to 1970-01-01, in units of 100 ns.
constexpr int64_t kFileTimeToUnix = 116'444'736'000'000'000;

// A timer of high resolution where the system has such (from Windows 10, version 1803, on); another
// one ends on the system's tick, which BeginTimerPeriod brings to a millisecond.
class Timer {
 public:
  Timer() {
    constexpr DWORD kHighResolution = 2;
    handle_ = CreateWaitableTimerExW(nullptr, nullptr, kHighResolution, TIMER_ALL_ACCESS);
    if (!handle_) handle_ = CreateWaitableTimerW(nullptr, FALSE, nullptr);
  }
  ~Timer() {
    if (handle_) CloseHandle(handle_);
  }
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // False: it can't be had.
  bool Wait(int64_t units100ns) {
    LARGE_INTEGER due{};
    due.QuadPart = -units100ns;  // negative: from now on
    return handle_ && SetWaitableTimer(handle_, &due, 0, nullptr, nullptr, FALSE) &&
           WaitForSingleObject(handle_, INFINITE) == WAIT_OBJECT_0;
  }

 private:
  HANDLE handle_ = nullptr;
};

class WindowsClock final : public Clock {
 public:
  WindowsClock() {
    LARGE_INTEGER frequency{};
    QueryPerformanceFrequency(&frequency);
    frequency_ = frequency.QuadPart > 0 ? frequency.QuadPart : kCounterFrequency;
  }

  int64_t Counter() override {
    LARGE_INTEGER counter{};
    QueryPerformanceCounter(&counter);
    if (frequency_ == kCounterFrequency) return counter.QuadPart;
    // Whole seconds and the rest apart, so that the product stays within 64 bits.
    const int64_t seconds = counter.QuadPart / frequency_;
    const int64_t rest = counter.QuadPart % frequency_;
    return seconds * kCounterFrequency + rest * kCounterFrequency / frequency_;
  }

  int64_t WallSeconds() override {
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    const int64_t units = (static_cast<int64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
    return (units - kFileTimeToUnix) / 10'000'000;
  }

  LocalTime Local() override {
    SYSTEMTIME now{};
    GetLocalTime(&now);
    return {now.wYear,   now.wMonth,  now.wDay,         now.wHour,
            now.wMinute, now.wSecond, now.wMilliseconds};
  }

  void Sleep(uint32_t milliseconds) override { ::Sleep(milliseconds); }

  // A timer may end a little early, by the rounding of the system's own clock.
  void SleepUntil(int64_t counter) override {
    thread_local Timer timer;
    for (int64_t rest = counter - Counter(); rest > 0; rest = counter - Counter())
      if (!timer.Wait(rest)) ::Sleep(1);
  }

 private:
  int64_t frequency_ = kCounterFrequency;
};

}  // namespace

Clock& SystemClock() {
  static WindowsClock clock;
  return clock;
}

}  // namespace platform
