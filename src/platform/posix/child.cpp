#include "platform/child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include <cerrno>
#include <csignal>

extern char** environ;

namespace platform {

namespace {

void CloseIfOpen(int& descriptor) {
  if (descriptor != -1) close(descriptor);
  descriptor = -1;
}

// Waits for bytes. Empty at the end of them.
std::string ReadSome(int descriptor) {
  char buffer[4096];
  ssize_t got = 0;
  do {
    got = read(descriptor, buffer, sizeof(buffer));
  } while (got < 0 && errno == EINTR);
  return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : std::string();
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts)
    pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> Environment(const ChildOptions& options) {
  std::vector<std::string> all;
  for (const auto& [key, value] : options.environment)
    all.push_back(key + "=" + value);
  // Of two equal names some programs take the first and some shells the last.
  for (char** entry = environ; *entry; ++entry) {
    const std::string own = *entry;
    const std::string name = own.substr(0, own.find('='));
    const auto& given = options.environment;
    if (std::none_of(given.begin(), given.end(),
                     [&](const auto& each) { return each.first == name; }))
      all.push_back(own);
  }
  return all;
}

// The child begins as if this program's own starter had started it: with no signal blocked, and
// with those ignored that Startup found ignored.
void ResetSignals(posix_spawnattr_t& attributes, const ChildOptions& options) {
  sigset_t none;
  sigset_t own;
  sigemptyset(&none);
  sigemptyset(&own);
  sigaddset(&own, SIGPIPE);
  sigaddset(&own, SIGXFSZ);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &own);
  posix_spawnattr_setpgroup(&attributes, 0);
  int flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (options.detached) {
    flags |= POSIX_SPAWN_SETSID;  // and with it a group
  } else if (options.piped || options.silent) {
    flags |= POSIX_SPAWN_SETPGROUP;
  }
  posix_spawnattr_setflags(&attributes, static_cast<short>(flags));
}

}  // namespace

struct Child::Impl {
  pid_t pid = -1;
  int handle = -1;  // pidfd: readable once the child has ended
  int input = -1;   // writing end of the child's standard input
  int output = -1;  // reading ends of its standard output
  int errors = -1;  // and its standard error
  bool detached = false;
  std::optional<int> status;
};

Child::Child() : impl_(std::make_unique<Impl>()) {}

Child::~Child() {
  if (!impl_->detached) Kill();
  CloseIfOpen(impl_->input);
  CloseIfOpen(impl_->output);
  CloseIfOpen(impl_->errors);
  CloseIfOpen(impl_->handle);
}

// posix_spawn and not fork: this program has threads, and a forked child of such a program may do
// next to nothing before it executes another (POSIX, fork). The pipes' ends are closed by exec in
// all children (O_CLOEXEC), but for the copies that become 0 and 1: a second child that kept the
// writing end of the first one's input would keep that input from ending.
uint32_t Child::Start(const ChildOptions& options) {
  int input[2] = {-1, -1};
  int output[2] = {-1, -1};
  int errors[2] = {-1, -1};
  const bool inputPiped = options.piped || options.inputPiped;
  if ((inputPiped && pipe2(input, O_CLOEXEC) != 0) ||
      (options.piped && pipe2(output, O_CLOEXEC) != 0) ||
      (options.piped && options.errorsPiped && pipe2(errors, O_CLOEXEC) != 0)) {
    const int error = errno;
    for (int* end : {&input[0], &input[1], &output[0], &output[1]})
      CloseIfOpen(*end);
    return static_cast<uint32_t>(error);
  }
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  if (inputPiped) posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
  if (options.piped) {
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    if (options.errorsPiped) posix_spawn_file_actions_adddup2(&actions, errors[1], STDERR_FILENO);
    if (options.errorsToOutput) {
      posix_spawn_file_actions_adddup2(&actions, output[1], STDERR_FILENO);
    }
  }
  if (options.outputToError) {
    posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
  }
  if (options.silent) {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
      posix_spawn_file_actions_addopen(&actions, descriptor, "/dev/null", O_RDWR, 0);
  }
  ResetSignals(attributes, options);

  std::vector<std::string> command = options.command;
  if (!options.shellLine.empty()) command = {"/bin/sh", "-c", options.shellLine};
  std::vector<std::string> environment = Environment(options);
  const int error = posix_spawnp(&impl_->pid, command.front().c_str(), &actions, &attributes,
                                 Pointers(command).data(), Pointers(environment).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  CloseIfOpen(input[0]);
  CloseIfOpen(output[1]);
  CloseIfOpen(errors[1]);
  impl_->input = input[1];
  impl_->output = output[0];
  impl_->errors = errors[0];
  if (error != 0) {
    impl_->pid = -1;
    return static_cast<uint32_t>(error);
  }
  impl_->detached = options.detached;
  // To wait for the end with a time limit, without SIGCHLD, which belongs to the whole process.
  impl_->handle = static_cast<int>(syscall(SYS_pidfd_open, impl_->pid, 0));
  return 0;
}

bool Child::WriteInput(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(impl_->input, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

void Child::CloseInput() {
  CloseIfOpen(impl_->input);
}

std::string Child::ReadOutput() {
  return ReadSome(impl_->output);
}

std::string Child::ReadErrors() {
  return ReadSome(impl_->errors);
}

void Child::CloseOutput() {
  CloseIfOpen(impl_->output);
}

int Child::Id() const {
  return impl_->pid;
}

std::optional<int> Child::Wait(uint32_t milliseconds) {
  if (impl_->status || impl_->pid == -1) return impl_->status;
  pollfd wait{impl_->handle, POLLIN, 0};
  const int timeout = milliseconds > INT32_MAX ? -1 : static_cast<int>(milliseconds);
  if (poll(&wait, 1, timeout) != 1) return std::nullopt;
  int raw = 0;
  while (waitpid(impl_->pid, &raw, 0) == -1 && errno == EINTR) {
  }
  impl_->status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  return impl_->status;
}

void Child::Terminate() {
  if (impl_->pid != -1 && !impl_->status) kill(impl_->pid, SIGTERM);
}

void Child::Kill() {
  if (impl_->pid == -1 || impl_->status) return;
  kill(impl_->pid, SIGKILL);
  Wait(UINT32_MAX);
}

}  // namespace platform
