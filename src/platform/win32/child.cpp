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

// The streams that a child gets. None of its own: those of this program's console.
struct Streams {
  HANDLE input = nullptr;
  HANDLE output = nullptr;
  HANDLE errors = nullptr;  // may be `output` once more

  Streams() = default;
  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;
  ~Streams() {
    if (errors != output) CloseIfOpen(errors);
    CloseIfOpen(input);
    CloseIfOpen(output);
  }

  bool Any() const { return input || output || errors; }
};

// A second handle for a child to inherit. Null where there is no first one.
HANDLE Inheritable(HANDLE own) {
  HANDLE copy = nullptr;
  const HANDLE self = GetCurrentProcess();
  if (own == nullptr || own == INVALID_HANDLE_VALUE) return nullptr;
  DuplicateHandle(self, own, self, &copy, 0, TRUE, DUPLICATE_SAME_ACCESS);
  return copy;
}

// A pipe whose end `childs` a child inherits. The system's error number.
uint32_t MakePipe(HANDLE* reading, HANDLE* writing, HANDLE* childs) {
  if (!CreatePipe(reading, writing, nullptr, 0)) return GetLastError();
  return SetHandleInformation(*childs, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT) ? 0
                                                                                 : GetLastError();
}

// Starts `command` with those streams and no other handle of this program. Without that list a
// child would inherit all that can be, among them the pipes that this program has itself been
// given: who waits for their end would wait for the child too. The system's error number.
uint32_t StartWith(Streams& given, DWORD flags, std::wstring command, std::wstring environment,
                   PROCESS_INFORMATION* started) {
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof(startup);
  std::vector<HANDLE> inherited;
  std::vector<char> list;
  if (given.Any()) {
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = given.input;
    startup.StartupInfo.hStdOutput = given.output;
    startup.StartupInfo.hStdError = given.errors;
    // No handle may come twice.
    for (const HANDLE each : {given.input, given.output, given.errors}) {
      if (each && std::find(inherited.begin(), inherited.end(), each) == inherited.end())
        inherited.push_back(each);
    }
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);  // says how long the list is
    list.resize(size);
    startup.lpAttributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(list.data());
    if (!InitializeProcThreadAttributeList(startup.lpAttributeList, 1, 0, &size) ||
        !UpdateProcThreadAttribute(startup.lpAttributeList, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                   inherited.data(), inherited.size() * sizeof(HANDLE), nullptr,
                                   nullptr)) {
      return GetLastError();
    }
  }
  const BOOL ok = CreateProcessW(nullptr, command.data(), nullptr, nullptr, given.Any(),
                                 flags | CREATE_UNICODE_ENVIRONMENT | EXTENDED_STARTUPINFO_PRESENT,
                                 environment.data(), nullptr, &startup.StartupInfo, started);
  const DWORD error = ok ? 0 : GetLastError();
  if (startup.lpAttributeList) DeleteProcThreadAttributeList(startup.lpAttributeList);
  return error;
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

// With pipes the child gets a process group of its own, which Terminate's CTRL_BREAK reaches and
// the console's Ctrl-C doesn't.
uint32_t Child::Start(const ChildOptions& options) {
  Streams given;
  if (options.piped || options.inputPiped) {
    const uint32_t error = MakePipe(&given.input, &impl_->input, &given.input);
    if (error != 0) return error;
  }
  if (options.piped) {
    uint32_t error = MakePipe(&impl_->output, &given.output, &given.output);
    if (error == 0 && options.errorsPiped)
      error = MakePipe(&impl_->errors, &given.errors, &given.errors);
    if (error != 0) return error;
    if (options.errorsToOutput) given.errors = given.output;
    if (!given.errors) given.errors = Inheritable(GetStdHandle(STD_ERROR_HANDLE));
  }
  if (options.outputToError) {
    if (!given.input) given.input = Inheritable(GetStdHandle(STD_INPUT_HANDLE));
    given.output = given.errors = Inheritable(GetStdHandle(STD_ERROR_HANDLE));
  }
  if (options.silent) {
    SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    const HANDLE null =
        CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    &inherited, OPEN_EXISTING, 0, nullptr);
    if (null == INVALID_HANDLE_VALUE) return GetLastError();
    given.output = given.errors = null;
    given.input = Inheritable(null);
  }
  std::wstring command;
  // With /s the shell takes the outer quotes off and leaves all that stands between them.
  if (!options.shellLine.empty()) {
    command = L"cmd.exe /d /s /c \"" + Utf8ToWideLossy(options.shellLine) + L"\"";
  }
  for (const std::string& argument : options.command) {
    command += (command.empty() ? L"" : L" ") + Quoted(argument);
  }
  PROCESS_INFORMATION started{};
  const bool apart = options.piped || options.silent;
  const uint32_t error = StartWith(
      given,
      (apart ? DWORD{CREATE_NEW_PROCESS_GROUP} : 0) | (options.detached ? DETACHED_PROCESS : 0u),
      command, Environment(options), &started);
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
