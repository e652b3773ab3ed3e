// The event loop that the far end runs on, with its sockets and timers.
//
// There is no thread and no lock in here: everything that belongs to a loop (sockets, timers,
// links, streams, relays) is used on one thread, and makes progress only while that thread waits in
// RunUntil or RunFor. A program that waits for something else for longer than some 50 ms lets the
// unit's messages go unacknowledged meanwhile; LoopThread is for those.
//
// A test writes:
//
//   wire::Loop loop;
//   wire::Link link(loop, {"127.0.0.1", 0});
//   const wire::Message info = link.Ask(unit, "get_dev_info", "dev_info");
//   EXPECT_TRUE(loop.RunUntil([&] { return receiver.Packets().size() >= 250; }, 5s));
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>

#include "wire/Endpoint.h"

namespace wire {

// Thrown by whatever waits once the loop's interrupt says so.
struct Interrupted : std::runtime_error {
  Interrupted() : std::runtime_error("interrupted") {}
};

// A socket that can't be had. The text says what, where and the system's reason.
struct SocketError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The system has no way to the address, or no leave to go it.
struct SendError : SocketError {
  using SocketError::SocketError;
};

class Loop {
 public:
  Loop();
  ~Loop();  // after everything that was made on it
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  // Runs until `done` is true, at most for `limit`; true when it was. `done` is asked at once,
  // after every event and at least every 5 ms, so it may also look at what isn't the loop's, such
  // as the output of a process. Not from an event of the loop.
  bool RunUntil(const std::function<bool()>& done, Clock::duration limit);

  // Runs for that time.
  void RunFor(Clock::duration time);

  // Asked as often as `done`: when it is true, RunUntil and RunFor throw Interrupted. None at
  // first.
  void SetInterrupt(std::function<bool()> interrupt);

  // Gets a line for each control message that goes out ("-> a.b.c.d:port text") or comes in ("<-").
  // None at first. Returns what got them before.
  using TraceTo = std::function<void(const std::string&)>;
  TraceTo SetTrace(TraceTo trace) { return std::exchange(trace_, std::move(trace)); }
  void Trace(const char* arrow, const Endpoint& peer, std::string_view text) const;

  // For as long as it lives the interrupt isn't asked: for what has to be put back at the end.
  class Shield {
   public:
    explicit Shield(Loop& loop) : loop_(loop) { ++loop_.shields_; }
    ~Shield() { --loop_.shields_; }
    Shield(const Shield&) = delete;
    Shield& operator=(const Shield&) = delete;

   private:
    Loop& loop_;
  };

  // What sockets and timers are made of.
  struct Impl;
  Impl& Inner() { return *impl_; }

 private:
  std::unique_ptr<Impl> impl_;
  std::function<bool()> interrupt_;
  TraceTo trace_;
  int shields_ = 0;
};

struct Datagram {
  Bytes bytes;
  Endpoint from;
  Clock::time_point time;  // when the loop took it from the system
};

// A UDP port of this machine.
class UdpPort {
 public:
  using Handler = std::function<void(const Datagram&)>;

  // Binds to `local`. `handler` is called by the running loop for each datagram and may be null;
  // it may send, and destroy anything but the loop and its own port. Throws SocketError.
  // A `shared` one is for broadcasts: others may be bound there too, and each hears them.
  UdpPort(Loop& loop, const Endpoint& local, Handler handler, bool shared = false);
  ~UdpPort();
  UdpPort(const UdpPort&) = delete;
  UdpPort& operator=(const UdpPort&) = delete;

  const Endpoint& Local() const;

  // Also to a broadcast address. Waits while the system has no room. Throws SendError.
  void Send(const Bytes& bytes, const Endpoint& to);

  // The same without failure and without waiting: false when the system didn't take it.
  bool TrySend(const Bytes& bytes, const Endpoint& to);

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

// Calls back once at a time of day of the steady clock.
class Timer {
 public:
  Timer(Loop& loop, std::function<void()> handler);
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Replaces the time that was set before. `handler` may set the next.
  void At(Clock::time_point time);
  void Cancel();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

// How late this process itself was: a timer every 4 ms that remembers how long after its time it
// was called at worst. Who judges a unit by the clock looks here first.
class Pulse {
 public:
  explicit Pulse(Loop& loop);

  Clock::duration Worst() const { return worst_; }
  void Clear() { worst_ = {}; }

 private:
  void Beat();

  Clock::time_point due_;
  Clock::duration worst_{};
  Timer timer_;
};

// A thread that runs a loop for as long as it lives, for a program that does something else
// meanwhile, such as waiting for a child process. What belongs to the loop is then used in Do
// alone, from its making to its end.
class LoopThread {
 public:
  explicit LoopThread(Loop& loop);
  ~LoopThread();
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  // Runs `work` between two events of the loop; returns what it returns, throws what it throws.
  // `work` itself mustn't wait by the loop: it looks whether something has come, and is asked
  // again.
  template <typename Work>
  auto Do(Work work) {
    std::packaged_task<std::invoke_result_t<Work>()> task(std::move(work));
    auto result = task.get_future();
    Post([&task] { task(); });
    return result.get();
  }

 private:
  void Post(std::function<void()> work);

  Loop& loop_;
  bool stop_ = false;  // the loop's thread alone
  std::thread thread_;
};

}  // namespace wire
