#include "platform/startup.h"

#include <fcntl.h>
#include <limits.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace platform {

namespace {

// The signals that end the run are blocked in all threads but while one waits for them in ppoll,
// which lets them in. That takes no descriptor, so it can't fail where they have run out.
std::atomic<bool> stopAsked{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

void OnStopSignal(int) {
  stopAsked = true;
}

sigset_t stopSignals{};  // those that Startup has reserved; none before it

void ReserveStopSignal(int number) {
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  if (sigaction(number, &action, nullptr) == 0) sigaddset(&stopSignals, number);
}

// What the calling thread has blocked, but for the signals that end the run.
sigset_t MaskOfWait() {
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    if (sigismember(&stopSignals, number) == 1) sigdelset(&mask, number);
  }
  return mask;
}

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
  // Blocks from 128 KiB on are mapped one by one and go back to the system as soon as they are
  // freed. Left to itself glibc raises that limit to the size of each mapped block that is freed
  // (up to 32 MiB): after one attachment of 1 MiB all blocks up to that size would come from the
  // heaps, of which there are several, and freed memory in their middle stays with the program.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);  // a file at its limit is an error of the write, as a full disk is

  // Blocked here, before any thread exists, they are blocked in all threads and stay pending until
  // somebody waits for them. What is ignored at the start stays so: shells start the background
  // jobs of a script without Ctrl-C, and nohup starts programs that outlive their terminal. SIGTERM
  // is never meant for another.
  ReserveStopSignal(SIGTERM);
  if (!IsIgnored(SIGINT)) ReserveStopSignal(SIGINT);
  if (!IsIgnored(SIGHUP)) ReserveStopSignal(SIGHUP);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
}

namespace {

// While it lives, a read from a terminal whose foreground belongs to another job fails, instead of
// stopping this whole program until its user brings it to the foreground.
class NotStoppedByTerminal {
 public:
  NotStoppedByTerminal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTTIN);
    sigaddset(&signals, SIGTTOU);
    pthread_sigmask(SIG_BLOCK, &signals, &before_);
  }
  ~NotStoppedByTerminal() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  NotStoppedByTerminal(const NotStoppedByTerminal&) = delete;
  NotStoppedByTerminal& operator=(const NotStoppedByTerminal&) = delete;

 private:
  sigset_t before_;
};

// Standard input is the terminal of this program's session, whose input now belongs to another job.
bool InBackground() {
  const pid_t foreground = tcgetpgrp(STDIN_FILENO);
  return foreground != -1 && foreground != getpgrp();
}

enum class Read { Ended, Again, Impossible };

// Takes one character, or the end of input. Of a terminal the rest of the line goes with it, and
// what was typed ahead: the shell would take it for its next command.
Read ReadCharacter() {
  char line[4096];  // the longest line of a terminal on Linux
  const bool terminal = isatty(STDIN_FILENO) == 1;
  const ssize_t got = read(STDIN_FILENO, line, terminal ? sizeof line : 1);
  if (got >= 0) {
    if (terminal) tcflush(STDIN_FILENO, TCIFLUSH);
    return Read::Ended;
  }
  // EIO: it has gone to the background since.
  return errno == EINTR || errno == EAGAIN || (errno == EIO && InBackground()) ? Read::Again
                                                                               : Read::Impossible;
}

}  // namespace

// An input that can't be read, as the one that nohup gives, counts as none. In the background it is
// looked at once a second whether the user has brought the program to the foreground.
void WaitForInput() {
  const NotStoppedByTerminal reading;
  const sigset_t mask = MaskOfWait();
  bool readable = true;
  while (!stopAsked) {
    const bool background = readable && InBackground();
    pollfd input{readable && !background ? STDIN_FILENO : -1, POLLIN, 0};  // poll skips -1
    const timespec second{1, 0};
    const int count = ppoll(&input, 1, background ? &second : nullptr, &mask);
    if (count < 0 && errno != EINTR) return;
    if (count <= 0) continue;
    const Read read = ReadCharacter();
    if (read == Read::Ended) return;
    readable = read != Read::Impossible;
  }
}

bool WaitForStop(uint32_t milliseconds) {
  if (stopAsked) return true;
  const sigset_t mask = MaskOfWait();
  const timespec limit{static_cast<time_t>(milliseconds / 1000),
                       static_cast<long>(milliseconds % 1000) * 1'000'000};
  ppoll(nullptr, 0, &limit, &mask);
  return stopAsked;
}

void StopAtEndOfInput() {
  std::thread([] {
    const NotStoppedByTerminal reading;
    char dropped[4096];
    ssize_t got = 0;
    do {
      got = read(STDIN_FILENO, dropped, sizeof dropped);
      if (got < 0 && errno == EAGAIN) {
        pollfd wait{STDIN_FILENO, POLLIN, 0};
        poll(&wait, 1, -1);
        got = 1;
      }
    } while (got > 0 || (got < 0 && errno == EINTR));
    if (got == 0) stopAsked = true;
  }).detach();
}

void LeaveStreams() {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null == -1) return;
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    dup2(null, stream);
  close(null);
}

bool NotifyReady(std::string_view status) {
  const char* name = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const size_t length = name ? std::strlen(name) : 0;
  if (length == 0 || length >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, name, length);
  if (name[0] == '@') address.sun_path[0] = '\0';  // a name in no file system (unix(7))
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd == -1) return false;
  const std::string ready = "READY=1\nSTATUS=" + std::string(status);
  const ssize_t sent =
      sendto(fd, ready.data(), ready.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address),
             static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
  close(fd);
  return sent != -1;
}

uint32_t WriteOutput(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EAGAIN) {
      pollfd wait{STDOUT_FILENO, POLLOUT, 0};
      poll(&wait, 1, -1);
      continue;
    }
    if (written <= 0) return static_cast<uint32_t>(written < 0 ? errno : EIO);
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return 0;
}

PipeResult ReadBytes(void* buffer, uint32_t size, uint32_t milliseconds) {
  const sigset_t mask = MaskOfWait();
  const timespec limit{static_cast<time_t>(milliseconds / 1000),
                       static_cast<long>(milliseconds % 1000) * 1'000'000};
  pollfd input{STDIN_FILENO, POLLIN, 0};
  if (!stopAsked && ppoll(&input, 1, &limit, &mask) == 0) return {};
  if (stopAsked) return {PipeState::Stopped};
  const ssize_t got = read(STDIN_FILENO, buffer, size);
  if (got > 0) return {PipeState::Open, static_cast<uint32_t>(got)};
  if (got == 0) return {PipeState::Ended};
  if (errno == EINTR || errno == EAGAIN) return {};
  return {PipeState::Failed, 0, static_cast<uint32_t>(errno)};
}

// A pipe that poll finds writable takes PIPE_BUF bytes without waiting (pipe(7)); more at a time
// would wait in write, where no signal comes in.
PipeResult WriteBytes(std::string_view bytes) {
  const sigset_t mask = MaskOfWait();
  const timespec atOnce{0, 0};
  uint32_t count = 0;
  while (!bytes.empty()) {
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    const int ready = ppoll(&output, 1, stopAsked ? &atOnce : nullptr, &mask);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) return {PipeState::Stopped, count};
    const ssize_t written =
        write(STDOUT_FILENO, bytes.data(), bytes.size() < PIPE_BUF ? bytes.size() : PIPE_BUF);
    if (written < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (written < 0 && errno == EPIPE) return {PipeState::Ended, count};
    if (written < 0) return {PipeState::Failed, count, static_cast<uint32_t>(errno)};
    count += static_cast<uint32_t>(written);
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return {PipeState::Open, count};
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
