#include "platform/startup.h"

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

namespace platform {

namespace {

int stopSignals = -1;  // signalfd of the signals that end the run; -1 before Startup

void OpenIfClosed(int descriptor, int flags) {
  if (fcntl(descriptor, F_GETFD) != -1 || errno != EBADF) return;
  // The lowest free number is `descriptor`, as all below it are open by now.
  if (open("/dev/null", flags) == -1) return;
}

// Hundreds of units need more descriptors than the 1024 that a process usually starts with; the
// system lets it ask for more.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

bool IsIgnored(int number) {
  struct sigaction action {};
  return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

void Startup() {
  OpenIfClosed(STDIN_FILENO, O_RDONLY);
  OpenIfClosed(STDOUT_FILENO, O_WRONLY);
  OpenIfClosed(STDERR_FILENO, O_WRONLY);

  RaiseDescriptorLimit();
#ifdef __GLIBC__
  // A large block goes back to the system as soon as it is freed. Left to itself the allocator
  // takes the first such block for a habit and keeps later ones, for each of its arenas.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);  // a file at its limit is an error of the write, as a full disk is

  // Blocked here, before any thread exists, they are blocked in all threads and stay pending until
  // WaitForInput reads them. What is ignored at the start stays so: shells start the background
  // jobs of a script without Ctrl-C, and nohup starts programs that outlive their terminal. SIGTERM
  // is never meant for another.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  if (!IsIgnored(SIGINT)) sigaddset(&signals, SIGINT);
  if (!IsIgnored(SIGHUP)) sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  stopSignals = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

void WaitForInput() {
  // A descriptor of -1 is skipped by poll, so this also works without Startup.
  pollfd waits[] = {{STDIN_FILENO, POLLIN, 0}, {stopSignals, POLLIN, 0}};
  for (;;) {
    const int count = poll(waits, 2, -1);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return;
    if (waits[1].revents != 0) return;
    if (waits[0].revents != 0) {
      char character = 0;
      const ssize_t got = read(STDIN_FILENO, &character, 1);
      if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      return;  // a character, the end of input, or an input that can't be read
    }
  }
}

bool WaitForStop(uint32_t milliseconds) {
  // The signal stays unread, so that every later wait sees it too.
  pollfd wait{stopSignals, POLLIN, 0};
  return poll(&wait, 1, static_cast<int>(milliseconds)) == 1;
}

void WriteOutput(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EAGAIN) {
      pollfd wait{STDOUT_FILENO, POLLOUT, 0};
      poll(&wait, 1, -1);
      continue;
    }
    if (written <= 0) return;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
}

void ReturnFreeMemory() {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}

// Linux rounds timed waits of ordinary threads up by a slack of 50 µs; threads started from here on
// inherit the smaller one. (prctl PR_SET_TIMERSLACK, in nanoseconds; 0 brings the default back.)
void BeginTimerPeriod() {
  prctl(PR_SET_TIMERSLACK, 1000UL, 0UL, 0UL, 0UL);
}
void EndTimerPeriod() {
  prctl(PR_SET_TIMERSLACK, 0UL, 0UL, 0UL, 0UL);
}

}  // namespace platform
