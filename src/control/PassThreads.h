// The few threads that all connections of the process share: hundreds of connections cost no more
// threads than one handler that takes long needs beside it.
//
// A client is something that makes one short pass when it is woken or its time has come. Its passes
// never overlap, and they start in the order in which they became due, on whichever thread is free.
// So a pass that takes long (a unit that restarts its audio) keeps one thread busy, and the others
// go on. Default priority. lock_ guards everything and isn't held during a pass. The threads ask
// for no memory: an exception on one of them would end the process, so each client brings its
// places in the lists along.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "platform/event.h"

namespace Network {

class PassThreads {
 public:
  class Client;

 private:
  using Dues = std::set<std::pair<int64_t, Client*>>;

 public:
  static constexpr size_t kMostThreads = 4;

  // Nothing to do before it is woken.
  static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

  class Client {
   public:
    // `pass` throws nothing and returns when the next pass is due (ClockTicks100ns).
    explicit Client(std::function<int64_t()> pass);
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

   private:
    friend class PassThreads;
    enum class State { Away, Resting, Queued, Running };

    const std::function<int64_t()> pass_;
    State state_ = State::Away;
    bool again_ = false;    // woken while it ran
    bool leaving_ = false;  // Remove waits for the end of its pass
    int64_t due_ = kNever;
    std::list<Client*> turn_{this};  // its place in queue_, unless it stands there
    Dues::node_type dueNode_;        // its place in dues_, unless it stands there
  };

  // The ones of this process: made for the first caller, ended when the last lets go. Not to
  // be let go of from a pass.
  static std::shared_ptr<PassThreads> OfProcess();

  PassThreads() = default;
  ~PassThreads();
  PassThreads(const PassThreads&) = delete;
  PassThreads& operator=(const PassThreads&) = delete;

  // From now on the client makes passes, the first at once. Throws std::system_error when there is
  // no thread and none can be had.
  void Add(Client& client);

  // When it returns, no pass of the client runs and none can start. Not from a pass of its own.
  // Does nothing to one that isn't here.
  void Remove(Client& client);

  // A pass begins after this call, if the client is here. Any thread.
  void Wake(Client& client);

 private:
  struct Worker {
    platform::Event event{platform::Event::Mode::AutoReset};
    int64_t until = kNever;  // while it is idle: when it looks again by itself
    std::thread thread;
  };

  void StartWorker();
  void Run(Worker& self);
  void QueueDueClients();
  void Enqueue(Client& client);
  void LeaveDues(Client& client);
  void RunPass(std::unique_lock<std::mutex>& lock);
  void WaitForWork(std::unique_lock<std::mutex>& lock, Worker& self);
  bool IsNextDueLookedAfter() const;
  void WakeOneWorker();

  std::mutex lock_;
  std::condition_variable passEnded_;
  std::list<Client*> queue_;
  Dues dues_;  // of the resting clients that have one
  size_t clients_ = 0;
  std::vector<std::unique_ptr<Worker>> workers_;
  std::vector<Worker*> idle_;
  bool stop_ = false;
};

}  // namespace Network
