// The beat that all clocks of a process share. Each thread of it wakes when a millisecond of the
// counter begins and, in between, at the quarters at which a clock of its own has a tick due: at
// 48000 Hz a tick comes at most 0.25 ms late by design, for 4,000 wake-ups a second at most,
// however many clocks there are.
//
// Threads: time-critical, one for each kClientsPerThread clients and one a core at most; the first
// starts with the first client, each ends with its last. Locks: mutex_ (which thread has which
// client), then the mutex of one thread (its list of clients), which isn't held while a client is
// called.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace Network {

// What a beat calls, on the one thread that serves this client.
class IBeatClient {
 public:
  // One look, `now` being the counter. True when it has given a tick: then it is called once more
  // in this beat, after the others had their turn.
  virtual bool OnBeat(int64_t now) = 0;

  // The counter value from which on OnBeat has more to do than to notice the time; until then it is
  // called once a millisecond. Any thread; quick.
  virtual int64_t DueAt() const = 0;

 protected:
  ~IBeatClient() = default;
};

class Heartbeat {
 public:
  static constexpr size_t kClientsPerThread = 64;

  // The one that the clocks use.
  static Heartbeat& OfProcess();

  explicit Heartbeat(size_t maxThreads);
  ~Heartbeat();  // with no client any more
  Heartbeat(const Heartbeat&) = delete;
  Heartbeat& operator=(const Heartbeat&) = delete;

  // OnBeat is called from now on, a millisecond from now at the latest. Throws std::system_error if
  // a thread is wanted and can't be started. Not twice for the same client.
  void Add(IBeatClient& client);

  // When it returns, OnBeat doesn't run and isn't called any more. Waits for a call of this client
  // that runs, and for none of another. Not from within OnBeat.
  void Remove(IBeatClient& client);

 private:
  class Thread;

  const size_t maxThreads_;
  std::mutex mutex_;
  std::vector<std::shared_ptr<Thread>> threads_;  // none without a client
};

}  // namespace Network
