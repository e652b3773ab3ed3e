// A thread that serves the sockets of network managers: it sleeps until one of them has news, and
// gives each that has some a round. Time-critical, where the system permits that.
//
// mutex_ guards the list of the served; each of them has a lock that is held during its rounds.
// Neither is taken under the other.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/wakeset.h"

namespace Network {

class SocketWorker {
 public:
  // What a worker serves: a network manager.
  class Client {
   public:
    // On the worker's thread, when the client's wake set had news or the latest round asked for
    // another. True asks for another one at once, which comes after those of the other clients.
    virtual bool RunRound() = 0;

   protected:
    ~Client() = default;
  };

  // One client's place at its worker. Its worker ends with the last place.
  class Place {
   public:
    // Throws std::system_error when the system has no room for the client's wake set.
    explicit Place(std::shared_ptr<SocketWorker> worker);

    // When it returns, no round of the client runs and none can start. So it mustn't be destroyed
    // in a round of its own client, and its destroyer holds no lock that such a round takes.
    ~Place();
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    const std::shared_ptr<platform::WakeSet>& Event() const;

    // From now on the client is served. Once.
    void Serve(Client* client);

   private:
    struct Seat;
    friend class SocketWorker;

    const std::shared_ptr<SocketWorker> worker_;
    const std::shared_ptr<Seat> seat_;
  };

  // A worker for one client alone. Throws std::system_error when the system has no room for it.
  static std::shared_ptr<SocketWorker> Own();

  // One of the few that clients in this process share, at most one a core: the one with the fewest
  // clients. Throws as Own does.
  static std::shared_ptr<SocketWorker> Shared();

  SocketWorker();
  ~SocketWorker();
  SocketWorker(const SocketWorker&) = delete;
  SocketWorker& operator=(const SocketWorker&) = delete;

 private:
  using Seats = std::vector<std::shared_ptr<Place::Seat>>;

  void Run();
  bool RunRounds(const Seats& seats);

  const std::shared_ptr<platform::Waiter> waiter_;
  std::mutex mutex_;
  Seats seats_;
  std::atomic<bool> seatsChanged_{false};  // since the worker's copy
  std::atomic<bool> stop_{false};
  std::thread thread_;  // last: it uses all of the above
};

}  // namespace Network
