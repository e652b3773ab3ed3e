#include "sockets/SocketWorker.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "platform/thread.h"

namespace Network {

namespace {

constexpr uint32_t kIdleWaitMs = 100'000;

// Enough for the audio of some thousand units: a core takes in about 100,000 datagrams a second.
constexpr unsigned kMostSharedWorkers = 4;

}  // namespace

struct SocketWorker::Place::Seat {
  explicit Seat(std::shared_ptr<platform::WakeSet> set) : event(std::move(set)) {}

  // Held during a round. Recursive: a round may destroy what stands on the same worker.
  std::recursive_mutex round;
  std::atomic<Client*> client{nullptr};  // null: nobody to serve any more
  const std::shared_ptr<platform::WakeSet> event;
  bool again = false;  // the latest round asked for another. Of the worker's thread alone
};

SocketWorker::Place::Place(std::shared_ptr<SocketWorker> worker)
    : worker_(std::move(worker)),
      seat_(std::make_shared<Seat>(std::make_shared<platform::WakeSet>(worker_->waiter_))) {}

// Two steps, like the Close of a socket: no new round begins without a client, and then the one
// that runs is waited for. A worker that has much to do could otherwise take the lock again and
// again.
SocketWorker::Place::~Place() {
  seat_->client = nullptr;
  { std::lock_guard round(seat_->round); }
  seat_->event->Close();
  std::lock_guard lock(worker_->mutex_);
  std::erase(worker_->seats_, seat_);
  worker_->seatsChanged_ = true;
}

const std::shared_ptr<platform::WakeSet>& SocketWorker::Place::Event() const {
  return seat_->event;
}

void SocketWorker::Place::Serve(Client* client) {
  seat_->client = client;
  {
    std::lock_guard lock(worker_->mutex_);
    worker_->seats_.push_back(seat_);
  }
  worker_->seatsChanged_ = true;
  seat_->event->Signal();  // what came before the worker knew of it
}

std::shared_ptr<SocketWorker> SocketWorker::Own() {
  return std::make_shared<SocketWorker>();
}

// A worker's clients are the holders of its pointer. New ones are made up to the limit first, so
// that a few units needn't wait for each other while cores are idle.
std::shared_ptr<SocketWorker> SocketWorker::Shared() {
  static std::mutex mutex;
  static std::vector<std::weak_ptr<SocketWorker>> workers;
  static const size_t limit =
      std::clamp(std::thread::hardware_concurrency(), 1u, kMostSharedWorkers);

  std::lock_guard lock(mutex);
  std::erase_if(workers, [](const auto& worker) { return worker.expired(); });
  const auto least = std::min_element(
      workers.begin(), workers.end(),
      [](const auto& one, const auto& other) { return one.use_count() < other.use_count(); });
  if (least != workers.end() && workers.size() >= limit &&
      static_cast<size_t>(least->use_count()) < platform::Waiter::kMostWakeSets) {
    if (std::shared_ptr<SocketWorker> worker = least->lock()) return worker;
  }
  auto worker = std::make_shared<SocketWorker>();
  workers.push_back(worker);
  return worker;
}

SocketWorker::SocketWorker()
    : waiter_(std::make_shared<platform::Waiter>()), thread_([this] { Run(); }) {}

SocketWorker::~SocketWorker() {
  stop_ = true;
  waiter_->Wake();
  thread_.join();
}

void SocketWorker::Run() {
  platform::SetTimeCritical();
  Seats seats;  // a copy, so that a round may add and remove clients
  bool again = false;
  while (!stop_) {
    // Also when a round asked for another and so nothing is slept: only Wait fetches what has
    // happened on the sockets since.
    waiter_->Wait(again ? 0 : kIdleWaitMs);
    if (seatsChanged_.exchange(false)) {
      try {
        std::lock_guard lock(mutex_);
        seats = seats_;
      } catch (...) {
        seatsChanged_ = true;  // no memory for the copy: the old one does until there is some
      }
    }
    again = RunRounds(seats) || seatsChanged_;
  }
}

// A round of each client that has news or work left, in the order in which they came. True when one
// of them asks for another.
bool SocketWorker::RunRounds(const Seats& seats) {
  bool again = false;
  for (const std::shared_ptr<Place::Seat>& seat : seats) {
    const bool due = seat->event->TakeNews() || seat->again;
    if (!due) continue;
    std::lock_guard round(seat->round);
    Client* const client = seat->client;
    seat->again = client && client->RunRound();
    again |= seat->again;
  }
  return again;
}

}  // namespace Network
