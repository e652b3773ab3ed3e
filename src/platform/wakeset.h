// What the one worker of a network manager sleeps on: any socket that the set watches and any
// thread can wake it, and no wake-up is ever lost.
//
// A watched socket shares the ownership of the set, so it can be closed after the set's maker has
// gone. Any thread may call Signal; Wait belongs to one thread.
#pragma once

#include <cstdint>
#include <memory>

namespace platform {

class WakeSet {
 public:
  // Also keeps the system's socket library started. Throws std::system_error when the system has no
  // room for another set.
  WakeSet();
  ~WakeSet();
  WakeSet(const WakeSet&) = delete;
  WakeSet& operator=(const WakeSet&) = delete;

  // Ends the Wait in progress, else the next one. Several signals before a wake-up count as one.
  void Signal();

  // Sleeps until a watched socket has an event, Signal was called, or the time is over; 0 only
  // looks. May also return early. Sockets report what happened by Socket::Pending, and only what
  // happened before the latest Wait: so the worker calls Wait before each round over its sockets.
  void Wait(uint32_t milliseconds);

  struct Impl;
  Impl& GetImpl() { return *impl_; }  // for the sockets of the same system

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace platform
