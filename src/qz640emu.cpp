// The program: prepares the process, carries one life of the emulator, and always ends with exit
// status 0. All that it has to say goes through the log, which it connects to the console.
#include <exception>
#include <string>

#include "emulator/Emulator.h"
#include "platform/startup.h"
#include "platform/thread.h"
#include "runtime/ConsoleLog.h"
#include "runtime/Environment.h"
#include "runtime/Format.h"

// The program takes no arguments, so whoever has a file and wonders which version it is asks
// `strings`. Has a name outside this file, which keeps it in the program.
extern const char kVersionMark[];
const char kVersionMark[] = "@(#)qz640emu " QZ_VERSION;

namespace {

constexpr char kSourceFile[] = "src\\qz640emu";

// From construction to shutdown. Declared in this order because they end in the reverse one: a
// failure that is left over logs itself, then the log is let go, then the emulator ends.
int Run() {
  Network::Emulator emulator;
  const std::shared_ptr<IDebugLog> log = GetDebugLog();
  ErrInfo err = ERR_HERE("Run");

  log->Write(Format(L"QZ-640 Emulator: %s \r\n", emulator.GetSettings().ToString()));

  log->Write(platform::CanBeTimeCritical()
                 ? L"Real-time scheduling: permitted"
                 : L"Real-time scheduling: not permitted, so packets may leave late while the "
                   L"machine is busy. README.md says how to permit it.");

  err = emulator.Init();
  if (!err.IsOk()) {
    log->Write(Format(L" Init FAILED. ERR=%s", err.ToString()));
    return 0;
  }
  log->Write(L" Init OK");

  err = emulator.Start();
  if (!err.IsOk()) {
    log->Write(Format(L" Start FAILED. ERR=%s", err.ToString()));
    return 0;
  }
  log->Write(L" Start OK");

  platform::WaitForInput();

  err = emulator.Stop();
  if (!err.IsOk()) {
    log->Write(Format(L" Stop FAILED. ERR=%s", err.ToString()));
  } else {
    log->Write(L"Stop  OK");
  }
  return 0;
}

void ConnectLogTo(IDebugLogSniffer* sniffer) {
  EnvironmentRef environment;
  environment.Get()->GetLog()->SetSniffer(sniffer);
}

}  // namespace

int ProgramMain() {
  platform::Startup();
  LogToConsoleSniffer console;
  ConnectLogTo(&console);
  platform::BeginTimerPeriod();

  // No exception may leave this function before the log is disconnected: the log's writer would go
  // on calling `console`, which has gone by then.
  try {
    Run();
  } catch (const std::exception& e) {
    ERR_HERE("Run").SetText(e.what());
  } catch (...) {
    ERR_HERE("Run").SetText(L"unknown exception");
  }

  platform::EndTimerPeriod();
  ConnectLogTo(nullptr);
  ReleaseEnvironment();
  return 0;
}
