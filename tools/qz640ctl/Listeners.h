// Hears inputs on a thread of its own: what is passed on from there goes out in time, whatever
// holds the command up meanwhile (a terminal that is paused, a pipe that is full, a slow disk).
#pragma once

#include <deque>
#include <memory>
#include <vector>

#include "Loan.h"
#include "wire/Streams.h"
#include "wire/Units.h"

namespace ctl {

// Used on one thread. Each input has its number, counted from 0.
class Listeners {
 public:
  Listeners();

  // Opens a port and returns the input's number. Throws wire::SocketError.
  size_t Open(const wire::Endpoint& local);

  // What to give to the unit.
  wire::Endpoint Local(size_t number);

  // From the next packet on they go there too; nothing: nowhere.
  void PassOn(size_t number, const wire::Destination& to);

  // What has come to each of them since the latest call, oldest first.
  std::vector<std::deque<wire::StreamPacket>> Take();

  // Packets that the system didn't take for being passed on.
  uint64_t NotPassedOn();

 private:
  wire::Loop loop_;
  std::vector<std::unique_ptr<wire::AudioReceiver>> receivers_;  // the thread's
  wire::LoopThread thread_;                                      // ends before them
};

// How an input that `listeners` hears under `number` is borrowed: passed on, unless the command
// line takes it.
InputLoan::Input ToBorrow(Session& session, Listeners& listeners, size_t number, uint32_t input);

// What wasn't heard where it belongs must not stay unsaid.
void NoteNotPassedOn(Session& session, Listeners& listeners);

}  // namespace ctl
