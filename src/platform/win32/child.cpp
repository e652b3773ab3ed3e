#include "platform/child.h"

#include <algorithm>

#include "platform/text.h"
#include "platform/win32/win.h"

namespace platform {

namespace {

void CloseIfOpen(HANDLE& handle) {
  if (handle) CloseHandle(handle);
  handle = nullptr;
}

// Waits for bytes. Empty at the end of them.
std::string ReadSome(HANDLE handle) {
  char buffer[4096];
  DWORD got = 0;
  if (!ReadFile(handle, buffer, sizeof(buffer), &got, nullptr)) return {};
  return std::string(buffer, got);
}

// One argument as the C library of the child takes it apart again (documented with
// CommandLineToArgvW): quotes and the backslashes in front of them are escaped.
std::wstring Quoted(const std::string& argument) {
  std::wstring out = L"\"";
  size_t backslashes = 0;
  for (const wchar_t c : Utf8ToWideLossy(argument)) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    out.append(c == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
    backslashes = 0;
    out += c;
  }
  out.append(2 * backslashes, L'\\');
  return out + L"\"";
}

// Windows knows names in any case as the same.
bool IsNamed(const std::wstring& entry, const std::wstring& name) {
  // Entries of the system's own begin with "=".
  const size_t end = entry.find(L'=', 1);
  return CompareStringOrdinal(entry.data(), static_cast<int>(std::min(end, entry.size())),
                              name.data(), static_cast<int>(name.size()), TRUE) == CSTR_EQUAL;
}

// Sorted isn't required, but no name may come twice.
std::wstring Environment(const ChildOptions& options) {
  std::wstring all;
  for (const auto& [key, value] : options.environment) {
    all += Utf8ToWideLossy(key + "=" + value) + L'\0';
  }
  wchar_t* const block = GetEnvironmentStringsW();
  for (const wchar_t* entry = block; entry && *entry; entry += std::wstring(entry).size() + 1) {
    const auto& given = options.environment;
    if (std::none_of(given.begin(), given.end(),
                     [&](const auto& each) { return IsNamed(entry, Utf8ToWideLossy(each.first)); }))
      all += std::wstring(entry) + L'\0';
  }
  if (block) FreeEnvironmentStringsW(block);
  return all + L'\0';
}

}  // namespace

struct Child::Impl {
  HANDLE process = nullptr;
  DWORD id = 0;
  HANDLE input = nullptr;   // writing end of the child's standard input
  HANDLE output = nullptr;  // reading ends of its standard output
  HANDLE errors = nullptr;  // and its standard error
  bool detached = false;
  std::optional<int> status;
};

Child::Child() : impl_(std::make_unique<Impl>()) {}

Child::~Child() {
  if (!impl_->detached) Kill();
  CloseIfOpen(impl_->input);
  CloseIfOpen(impl_->output);
  CloseIfOpen(impl_->errors);
  CloseIfOpen(impl_->process);
}

// A child inherits all inheritable handles or none, so this program's own ends of the pipes are
// made uninheritable again: the child's input would never end while the child itself held its other
// end. With pipes it gets a process group of its own, which Terminate's CTRL_BREAK reaches and the
// console's Ctrl-C doesn't.
uint32_t Child::Start(const ChildOptions& options) {
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  HANDLE childInput = nullptr;
  HANDLE childOutput = nullptr;
  HANDLE childErrors = nullptr;
  if (options.piped) {
    SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    if (!CreatePipe(&childInput, &impl_->input, &inherited, 0) ||
        !CreatePipe(&impl_->output, &childOutput, &inherited, 0) ||
        (options.errorsPiped && !CreatePipe(&impl_->errors, &childErrors, &inherited, 0))) {
      const DWORD error = GetLastError();
      CloseIfOpen(childInput);
      CloseIfOpen(childOutput);
      return error;
    }
    if (impl_->errors) SetHandleInformation(impl_->errors, HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(impl_->input, HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(impl_->output, HANDLE_FLAG_INHERIT, 0);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = childInput;
    startup.hStdOutput = childOutput;
    startup.hStdError = childErrors              ? childErrors
                        : options.errorsToOutput ? childOutput
                                                 : GetStdHandle(STD_ERROR_HANDLE);
  }
  if (options.outputToError) {
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  }
  if (options.silent) {
    SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    childInput =
        CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    &inherited, OPEN_EXISTING, 0, nullptr);
    if (childInput == INVALID_HANDLE_VALUE) return GetLastError();
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = startup.hStdOutput = startup.hStdError = childInput;
  }
  std::wstring command;
  // With /s the shell takes the outer quotes off and leaves all that stands between them.
  if (!options.shellLine.empty()) {
    command = L"cmd.exe /d /s /c \"" + Utf8ToWideLossy(options.shellLine) + L"\"";
  }
  for (const std::string& argument : options.command) {
    command += (command.empty() ? L"" : L" ") + Quoted(argument);
  }
  std::wstring environment = Environment(options);
  PROCESS_INFORMATION started{};
  const bool apart = options.piped || options.silent;
  const DWORD flags = CREATE_UNICODE_ENVIRONMENT | (apart ? DWORD{CREATE_NEW_PROCESS_GROUP} : 0) |
                      (options.detached ? DWORD{DETACHED_PROCESS} : 0);
  const BOOL ok =
      CreateProcessW(nullptr, command.data(), nullptr, nullptr, apart || options.outputToError,
                     flags, environment.data(), nullptr, &startup, &started);
  const DWORD error = ok ? 0 : GetLastError();
  CloseIfOpen(childInput);
  CloseIfOpen(childOutput);
  CloseIfOpen(childErrors);
  if (error != 0) return error;
  CloseHandle(started.hThread);
  impl_->detached = options.detached;
  impl_->process = started.hProcess;
  impl_->id = started.dwProcessId;
  return 0;
}

bool Child::WriteInput(std::string_view bytes) {
  DWORD written = 0;
  return WriteFile(impl_->input, bytes.data(), static_cast<DWORD>(bytes.size()), &written,
                   nullptr) != 0;
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
  return static_cast<int>(impl_->id);
}

std::optional<int> Child::Wait(uint32_t milliseconds) {
  if (impl_->status || !impl_->process) return impl_->status;
  if (WaitForSingleObject(impl_->process, milliseconds) != WAIT_OBJECT_0) return std::nullopt;
  DWORD code = 0;
  GetExitCodeProcess(impl_->process, &code);
  impl_->status = static_cast<int>(code);
  return impl_->status;
}

void Child::Terminate() {
  if (impl_->process && !impl_->status) GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, impl_->id);
}

void Child::Kill() {
  if (!impl_->process || impl_->status) return;
  TerminateProcess(impl_->process, 137);
  Wait(INFINITE);
}

}  // namespace platform
