// The process around the program: its standard streams, the signals that end it, its timers.
#pragma once

#include <cstdint>
#include <string_view>

// The program, as the system's own entry function calls it (main.cpp in the system's folder); it
// gives the exit status. Defined by each executable that uses that entry.
int ProgramMain();

namespace platform {

// Prepares the process. Called once, first thing in the entry, before any thread exists: opens the
// standard descriptors that are closed on the null device (else the first socket would take their
// numbers), allows as many open sockets as the system permits, makes writing to a broken pipe or
// beyond a limit of the file size an error instead of the process's end, and reserves the signals
// that ask the program to stop (Ctrl-C, SIGTERM, a closed console or terminal) for WaitForInput. On
// POSIX systems Ctrl-C and SIGHUP stay ignored where this program was started with them ignored.
void Startup();

// Waits on the calling thread for one character on standard input, the end of input, or a signal
// that asks the program to stop, whichever comes first. A signal that came before the call ends it
// at once. What a terminal holds besides that character is dropped, the rest of its line first of
// all. An input that can't be read is none, and so is a terminal as long as the program runs in its
// background: only a signal ends the wait then.
void WaitForInput();

// Waits up to `milliseconds` for a signal that asks the program to stop; 0 only tests. True once
// one has come.
bool WaitForStop(uint32_t milliseconds);

// From now on reads and drops what comes on standard input, on a thread of its own; once that input
// ends, the program is asked to stop, as by Ctrl-C. An input that can't be read never ends. Throws
// std::system_error where no thread can be had.
void StopAtEndOfInput();

// The program lets go of its standard streams, so that nobody waits for their end: its input has
// ended, what it writes is dropped.
void LeaveStreams();

// Says to the supervisor that started this program that it is ready, and `status` to show beside
// it: one line of UTF-8 (systemd, as sd_notify(3) describes). False where none asks for it.
bool NotifyReady(std::string_view status);

// Writes all bytes to standard output and flushes, however long it takes them. The operating
// system's error number, 0 for success; kPipeClosed when nobody reads any more. Holds nothing that
// the end of the process needs: a thread may stay in here for ever.
uint32_t WriteOutput(std::string_view bytes);

// What became of bytes that go through standard input or output.
enum class PipeState {
  Open,     // it goes on
  Ended,    // the input is at its end; nobody reads the output any more
  Stopped,  // a signal has asked the program to stop meanwhile, see WaitForStop
  Failed    // `error` of the result is the system's number
};

struct PipeResult {
  PipeState state = PipeState::Open;
  uint32_t count = 0;  // bytes that were read or written
  uint32_t error = 0;
};

// Takes what standard input has, at most `size` bytes, as they are. Where it has none it waits up
// to `milliseconds` and then gives 0 bytes of an open input. One thread at a time.
PipeResult ReadBytes(void* buffer, uint32_t size, uint32_t milliseconds);

// Writes all bytes to standard output as they are, unlike WriteOutput also on Windows, and waits as
// long as its reader takes. A stop is obeyed while it waits; on Windows, only before and after. One
// thread at a time.
PipeResult WriteBytes(std::string_view bytes);

// Gives the memory that the program has freed back to the system, as far as that can be had. May
// hold up threads that allocate meanwhile, for about a millisecond each ten megabytes.
void ReturnFreeMemory();

// Between the two calls sleeps and timed waits of the process are exact to about a millisecond.
void BeginTimerPeriod();
void EndTimerPeriod();

}  // namespace platform
