#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "support/Process.h"

namespace {

class Handle {
 public:
  Handle() = default;
  ~Handle() { Reset(); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  HANDLE Get() const { return handle_; }
  void Reset(HANDLE handle = nullptr) {
    if (handle_) CloseHandle(handle_);
    handle_ = handle;
  }

 private:
  HANDLE handle_ = nullptr;
};

// A pipe for the child's input, whose reading end alone is inherited.
void MakeInput(Handle& readEnd, Handle& writeEnd) {
  HANDLE ends[2]{};
  if (!CreatePipe(&ends[0], &ends[1], nullptr, 0)) throw std::runtime_error("CreatePipe failed");
  readEnd.Reset(ends[0]);
  writeEnd.Reset(ends[1]);
  SetHandleInformation(readEnd.Get(), HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
}

// A pipe for the child's output, whose writing end alone is inherited. Only a pipe with a name has
// a reading end whose read can be given up halfway.
void MakeOutput(Handle& readEnd, Handle& writeEnd) {
  static std::atomic<int> number{0};
  const std::wstring name = L"\\\\.\\pipe\\qz-test-" + std::to_wstring(GetCurrentProcessId()) +
                            L"-" + std::to_wstring(number++);
  const HANDLE reading = CreateNamedPipeW(name.c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED,
                                          PIPE_TYPE_BYTE, 1, 0, 65536, 0, nullptr);
  if (reading == INVALID_HANDLE_VALUE) throw std::runtime_error("CreateNamedPipe failed");
  readEnd.Reset(reading);
  SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  const HANDLE writing =
      CreateFileW(name.c_str(), GENERIC_WRITE, 0, &inherited, OPEN_EXISTING, 0, nullptr);
  if (writing == INVALID_HANDLE_VALUE) throw std::runtime_error("can't open the pipe");
  writeEnd.Reset(writing);
}

std::wstring Wide(const std::string& ascii) {
  return {ascii.begin(), ascii.end()};
}

// The variables of this process with those of the options, as CreateProcessW takes them.
std::wstring Environment(const Process::Options& options) {
  std::wstring all;
  wchar_t* const block = GetEnvironmentStringsW();
  for (const wchar_t* entry = block; *entry; entry += std::wstring(entry).size() + 1) {
    const std::wstring text = entry;
    bool replaced = false;
    for (const auto& [key, value] : options.environment) {
      replaced = replaced || text.starts_with(Wide(key) + L"=");
    }
    if (!replaced) all += text + L'\0';
  }
  FreeEnvironmentStringsW(block);
  for (const auto& [key, value] : options.environment) {
    all += Wide(key) + L"=" + Wide(value) + L'\0';
    // Where the system looks for the temporary directory.
    if (key == "TMPDIR") all += L"TMP=" + Wide(value) + L'\0' + L"TEMP=" + Wide(value) + L'\0';
  }
  return all + L'\0';
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
  bool errorsEnded = false;
  std::optional<int> status;
  DWORD id = 0;

  Handle process;
  Handle input;      // our writing end of the child's input
  Handle outputEnd;  // our reading ends
  Handle errorsEnd;
  Handle stop;  // event of StopReading, manual-reset
  std::thread outputReader;
  std::thread errorReader;
  std::thread waiter;

  void Spawn(const std::filesystem::path& program, const Options& options);
  size_t ReadSome(HANDLE end, std::array<char, 65536>& buffer);
  void Read(Handle& end, std::string& bytes, bool& ended);
  void SplitLines();
  void Wait();
};

void Process::Impl::Spawn(const std::filesystem::path& program, const Options& options) {
  stop.Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  Handle childInput, childOutput, childErrors;
  MakeInput(childInput, input);
  MakeOutput(outputEnd, childOutput);
  MakeOutput(errorsEnd, childErrors);

  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = options.withoutInput ? nullptr : childInput.Get();
  startup.hStdOutput = options.withoutOutput ? nullptr : childOutput.Get();
  startup.hStdError = childErrors.Get();
  std::wstring environment = Environment(options);
  std::wstring command = L"\"" + program.wstring() + L"\"";
  // The tests' arguments need no more than quotes.
  for (const std::string& argument : options.arguments)
    command += L" \"" + Wide(argument) + L"\"";
  PROCESS_INFORMATION started{};
  if (!CreateProcessW(program.wstring().c_str(), command.data(), nullptr, nullptr, TRUE,
                      CREATE_NEW_PROCESS_GROUP | CREATE_UNICODE_ENVIRONMENT, environment.data(),
                      nullptr, &startup, &started)) {
    throw std::runtime_error("can't start " + program.string() + ": error " +
                             std::to_string(GetLastError()));
  }
  CloseHandle(started.hThread);
  process.Reset(started.hProcess);
  id = started.dwProcessId;
}

void Process::Impl::SplitLines() {
  const Clock::time_point now = Clock::now();
  for (;;) {
    const size_t end = output.find('\n', lineBegin);
    if (end == std::string::npos) break;
    std::string text = output.substr(lineBegin, end - lineBegin);
    lineBegin = end + 1;
    while (!text.empty() && text.back() == '\r')
      text.pop_back();
    if (!text.empty()) lines.push_back({now, text, lines.size()});
  }
}

// The next bytes; none: the child has closed its end, or reading was stopped.
size_t Process::Impl::ReadSome(HANDLE end, std::array<char, 65536>& buffer) {
  Handle done;
  done.Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  OVERLAPPED read{};
  read.hEvent = done.Get();
  DWORD got = 0;
  const BOOL now = ReadFile(end, buffer.data(), static_cast<DWORD>(buffer.size()), nullptr, &read);
  if (!now && GetLastError() != ERROR_IO_PENDING) return 0;
  const HANDLE either[] = {done.Get(), stop.Get()};
  const DWORD count = end == outputEnd.Get() ? 2 : 1;
  if (WaitForMultipleObjects(count, either, FALSE, INFINITE) != WAIT_OBJECT_0) CancelIo(end);
  return GetOverlappedResult(end, &read, &got, TRUE) ? got : 0;
}

void Process::Impl::Read(Handle& end, std::string& bytes, bool& ended) {
  std::array<char, 65536> buffer;
  while (const size_t got = ReadSome(end.Get(), buffer)) {
    if (takeOutput && &bytes == &output) {
      takeOutput({buffer.data(), got});
      continue;
    }
    std::lock_guard lock(mutex);
    bytes.append(buffer.data(), got);
    if (&bytes == &output) SplitLines();
    changed.notify_all();
  }
  end.Reset();
  std::lock_guard lock(mutex);
  ended = true;
  changed.notify_all();
}

void Process::Impl::Wait() {
  WaitForSingleObject(process.Get(), INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(process.Get(), &code);
  std::lock_guard lock(mutex);
  status = static_cast<int>(code);
  changed.notify_all();
}

Process::Process(const std::filesystem::path& program, const Options& options)
    : impl_(std::make_unique<Impl>()) {
  impl_->takeOutput = options.takeOutput;
  impl_->Spawn(program, options);
  Impl* const impl = impl_.get();
  impl->outputReader =
      std::thread([impl] { impl->Read(impl->outputEnd, impl->output, impl->outputEnded); });
  impl->errorReader =
      std::thread([impl] { impl->Read(impl->errorsEnd, impl->errors, impl->errorsEnded); });
  impl->waiter = std::thread([impl] { impl->Wait(); });
}

Process::~Process() {
  Send(Signal::Kill);
  impl_->waiter.join();
  impl_->outputReader.join();
  impl_->errorReader.join();
}

bool Process::Write(std::string_view bytes) {
  while (!bytes.empty()) {
    DWORD written = 0;
    if (!WriteFile(impl_->input.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written,
                   nullptr)) {
      return false;
    }
    bytes.remove_prefix(written);
  }
  return true;
}

void Process::CloseInput() {
  impl_->input.Reset();
}

void Process::StopReading() {
  SetEvent(impl_->stop.Get());
  std::unique_lock lock(impl_->mutex);
  impl_->changed.wait(lock, [&] { return impl_->outputEnded; });
}

void Process::Send(Signal signal) {
  using ProcessCall = LONG(WINAPI*)(HANDLE);
  const HMODULE system = GetModuleHandleW(L"ntdll.dll");
  const auto call = [&](const char* name) {
    const auto function =
        reinterpret_cast<ProcessCall>(reinterpret_cast<void*>(GetProcAddress(system, name)));
    if (function) function(impl_->process.Get());
  };
  std::lock_guard lock(impl_->mutex);
  if (impl_->status) return;
  switch (signal) {
    case Signal::Interrupt:
    case Signal::Terminate:
      // Ctrl-C itself reaches no process group but the console's own.
      GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, impl_->id);
      break;
    case Signal::Kill:
      TerminateProcess(impl_->process.Get(), 137);
      break;
    case Signal::Suspend:
      call("NtSuspendProcess");
      break;
    case Signal::Resume:
      call("NtResumeProcess");
      break;
  }
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
  impl_->changed.wait_for(
      lock, patience, [&] { return impl_->status && impl_->outputEnded && impl_->errorsEnded; });
  return impl_->status;
}

bool Process::HasEnded() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->status.has_value();
}

int Process::Id() const {
  return static_cast<int>(impl_->id);
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
