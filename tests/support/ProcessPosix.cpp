#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "support/Process.h"

extern char** environ;

namespace {

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() { Reset(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return fd_; }
  void Reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

// Not inherited, so that no other child holds an end of this pipe open.
void MakePipe(Descriptor& readEnd, Descriptor& writeEnd) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  readEnd.Reset(ends[0]);
  writeEnd.Reset(ends[1]);
}

std::vector<std::string> Environment(const Process::Options& options) {
  std::vector<std::string> all;
  for (char** variable = environ; *variable; ++variable) {
    const std::string text = *variable;
    const std::string name = text.substr(0, text.find('='));
    bool replaced = false;
    for (const auto& [key, value] : options.environment)
      replaced = replaced || key == name;
    if (!replaced) all.push_back(text);
  }
  for (const auto& [key, value] : options.environment)
    all.push_back(key + "=" + value);
  return all;
}

int NumberOf(Process::Signal signal) {
  switch (signal) {
    case Process::Signal::Interrupt:
      return SIGINT;
    case Process::Signal::Terminate:
      return SIGTERM;
    case Process::Signal::Kill:
      return SIGKILL;
    case Process::Signal::Suspend:
      return SIGSTOP;
    case Process::Signal::Resume:
      return SIGCONT;
  }
  return SIGKILL;
}

}  // namespace

struct Process::Impl {
  mutable std::mutex mutex;
  std::condition_variable changed;
  std::vector<Line> lines;
  std::string output;
  std::string errors;
  size_t lineBegin = 0;  // in `output`, of the line that is still incomplete
  std::function<void(std::string_view)> takeOutput;
  bool outputEnded = false;
  bool stopReading = false;
  std::optional<int> status;
  pid_t pid = -1;

  Descriptor input;      // our writing end of the child's input
  Descriptor outputEnd;  // our reading ends
  Descriptor errorsEnd;
  Descriptor wakeRead;  // wakes the reader for StopReading
  Descriptor wakeWrite;
  std::thread reader;
  std::thread waiter;

  void Spawn(const std::filesystem::path& program, const Options& options);
  void Read();
  bool ReadInto(int fd, std::string& bytes);
  void SplitLines();
  void Wait();
};

void Process::Impl::Spawn(const std::filesystem::path& program, const Options& options) {
  Descriptor childInput, childOutput, childErrors;
  MakePipe(childInput, input);
  MakePipe(outputEnd, childOutput);
  MakePipe(errorsEnd, childErrors);
  MakePipe(wakeRead, wakeWrite);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, childErrors.Get(), STDERR_FILENO);
  if (options.withoutInput) {
    posix_spawn_file_actions_addclose(&actions, STDIN_FILENO);
  } else {
    posix_spawn_file_actions_adddup2(&actions, childInput.Get(), STDIN_FILENO);
  }
  if (options.withoutOutput) {
    posix_spawn_file_actions_addclose(&actions, STDOUT_FILENO);
  } else {
    posix_spawn_file_actions_adddup2(&actions, childOutput.Get(), STDOUT_FILENO);
  }

  // The child begins as under a shell with a terminal: what this program ignores, or who started
  // it in the background, isn't ignored there.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (const int number : {SIGPIPE, SIGINT, SIGHUP})
    sigaddset(&defaults, number);
  posix_spawnattr_setsigdefault(&attributes, &defaults);

  std::vector<std::string> environment = Environment(options);
  std::vector<char*> variables;
  for (std::string& variable : environment)
    variables.push_back(variable.data());
  variables.push_back(nullptr);
  std::string name = program.string();
  std::vector<std::string> words = options.arguments;
  std::vector<char*> arguments{name.data()};
  for (std::string& word : words)
    arguments.push_back(word.data());
  arguments.push_back(nullptr);

  const int error =
      posix_spawn(&pid, name.c_str(), &actions, &attributes, arguments.data(), variables.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) throw std::runtime_error("can't start " + name + ": " + std::strerror(error));
}

// True while more can come.
bool Process::Impl::ReadInto(int fd, std::string& bytes) {
  std::array<char, 65536> buffer;
  const ssize_t got = read(fd, buffer.data(), buffer.size());
  if (got < 0 && (errno == EINTR || errno == EAGAIN)) return true;
  if (got <= 0) return false;
  const std::string_view part(buffer.data(), static_cast<size_t>(got));
  if (takeOutput && &bytes == &output) {
    takeOutput(part);
    return true;
  }
  std::lock_guard lock(mutex);
  bytes.append(part);
  return true;
}

void Process::Impl::SplitLines() {
  const Clock::time_point now = Clock::now();
  std::lock_guard lock(mutex);
  for (;;) {
    const size_t end = output.find('\n', lineBegin);
    if (end == std::string::npos) break;
    std::string text = output.substr(lineBegin, end - lineBegin);
    lineBegin = end + 1;
    while (!text.empty() && text.back() == '\r')
      text.pop_back();
    if (!text.empty()) lines.push_back({now, text, lines.size()});
  }
  changed.notify_all();
}

void Process::Impl::Read() {
  bool outputOpen = true;
  bool errorsOpen = true;
  while (outputOpen || errorsOpen) {
    std::array<pollfd, 3> waits{pollfd{outputOpen ? outputEnd.Get() : -1, POLLIN, 0},
                                pollfd{errorsOpen ? errorsEnd.Get() : -1, POLLIN, 0},
                                pollfd{wakeRead.Get(), POLLIN, 0}};
    if (poll(waits.data(), waits.size(), -1) < 0) continue;
    if (waits[0].revents != 0) {
      outputOpen = ReadInto(outputEnd.Get(), output);
      SplitLines();
    }
    if (waits[1].revents != 0) errorsOpen = ReadInto(errorsEnd.Get(), errors);
    if (waits[2].revents != 0) {
      std::string ignored;
      ReadInto(wakeRead.Get(), ignored);
      outputOpen = false;
      outputEnd.Reset();
      std::lock_guard lock(mutex);
      stopReading = true;
      changed.notify_all();
    }
  }
  std::lock_guard lock(mutex);
  outputEnded = true;
  changed.notify_all();
}

void Process::Impl::Wait() {
  // The child stays a zombie until the status is taken under the lock, so that its number can't
  // have been given to another process when Send uses it.
  siginfo_t info{};
  while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
  std::lock_guard lock(mutex);
  int raw = 0;
  waitpid(pid, &raw, 0);
  status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  changed.notify_all();
}

Process::Process(const std::filesystem::path& program, const Options& options)
    : impl_(std::make_unique<Impl>()) {
  // A child that has gone makes writing to it fail instead of ending the test program.
  signal(SIGPIPE, SIG_IGN);
  impl_->takeOutput = options.takeOutput;
  impl_->Spawn(program, options);
  impl_->reader = std::thread([this] { impl_->Read(); });
  impl_->waiter = std::thread([this] { impl_->Wait(); });
}

Process::~Process() {
  Send(Signal::Kill);
  impl_->waiter.join();
  impl_->reader.join();
}

bool Process::Write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(impl_->input.Get(), bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

void Process::CloseInput() {
  impl_->input.Reset();
}

void Process::StopReading() {
  std::unique_lock lock(impl_->mutex);
  if (impl_->outputEnded) return;
  const char wake = 0;
  if (write(impl_->wakeWrite.Get(), &wake, 1) != 1) return;
  impl_->changed.wait(lock, [&] { return impl_->stopReading || impl_->outputEnded; });
}

void Process::Send(Signal signal) {
  std::lock_guard lock(impl_->mutex);
  if (!impl_->status) kill(impl_->pid, NumberOf(signal));
}

std::optional<Process::Line> Process::WaitLine(std::string_view part, size_t from,
                                               Clock::duration patience) {
  std::unique_lock lock(impl_->mutex);
  std::optional<Line> found;
  impl_->changed.wait_for(lock, patience, [&] {
    for (; from < impl_->lines.size() && !found; ++from) {
      if (impl_->lines[from].text.find(part) != std::string::npos) found = impl_->lines[from];
    }
    return found || impl_->outputEnded;
  });
  return found;
}

std::optional<int> Process::WaitExit(Clock::duration patience) {
  std::unique_lock lock(impl_->mutex);
  impl_->changed.wait_for(lock, patience, [&] { return impl_->status && impl_->outputEnded; });
  return impl_->status;
}

bool Process::HasEnded() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->status.has_value();
}

int Process::Id() const {
  return impl_->pid;
}

std::vector<Process::Line> Process::Lines() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->lines;
}

std::string Process::Output() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->output;
}

std::string Process::ErrorOutput() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->errors;
}
