#include "control/PassThreads.h"

#include <algorithm>
#include <system_error>

#include "runtime/Clocks.h"

namespace Network {

namespace {

constexpr int64_t kTicksPerMs = 10'000;

// Rounded up, so that a wait for `due` doesn't end before it.
uint32_t MillisecondsUntil(int64_t due, int64_t now) {
  constexpr int64_t kLongest = std::numeric_limits<uint32_t>::max();
  if (due == PassThreads::kNever) return static_cast<uint32_t>(kLongest);
  const int64_t ms = (std::max<int64_t>(due - now, 0) + kTicksPerMs - 1) / kTicksPerMs;
  return static_cast<uint32_t>(std::min(ms, kLongest));
}

}  // namespace

PassThreads::Client::Client(std::function<int64_t()> pass) : pass_(std::move(pass)) {
  Dues one{{kNever, this}};
  dueNode_ = one.extract(one.begin());
}

std::shared_ptr<PassThreads> PassThreads::OfProcess() {
  static std::mutex lock;
  static std::weak_ptr<PassThreads> current;
  std::lock_guard guard(lock);
  std::shared_ptr<PassThreads> threads = current.lock();
  if (!threads) {
    threads = std::make_shared<PassThreads>();
    current = threads;
  }
  return threads;
}

PassThreads::~PassThreads() {
  {
    std::lock_guard lock(lock_);
    stop_ = true;
  }
  for (const auto& worker : workers_)
    worker->event.Set();
  for (const auto& worker : workers_)
    worker->thread.join();
}

void PassThreads::Add(Client& client) {
  std::lock_guard lock(lock_);
  if (workers_.size() < std::min(clients_ + 1, kMostThreads)) StartWorker();
  ++clients_;
  client.leaving_ = false;
  Enqueue(client);
  WakeOneWorker();
}

void PassThreads::StartWorker() {
  idle_.reserve(kMostThreads);
  auto worker = std::make_unique<Worker>();
  Worker& self = *worker;
  workers_.push_back(std::move(worker));
  try {
    self.thread = std::thread([this, &self] { Run(self); });
  } catch (const std::system_error&) {
    workers_.pop_back();
    if (workers_.empty()) throw;  // otherwise those that run have more to do
  }
}

void PassThreads::Remove(Client& client) {
  std::unique_lock lock(lock_);
  if (client.state_ == Client::State::Away) return;
  client.leaving_ = true;
  passEnded_.wait(lock, [&] { return client.state_ != Client::State::Running; });
  LeaveDues(client);
  if (client.state_ == Client::State::Queued) {
    client.turn_.splice(client.turn_.end(), queue_, std::ranges::find(queue_, &client));
  }
  client.state_ = Client::State::Away;
  --clients_;
}

void PassThreads::Wake(Client& client) {
  std::lock_guard lock(lock_);
  if (client.state_ == Client::State::Running) client.again_ = true;
  if (client.state_ != Client::State::Resting) return;
  Enqueue(client);
  WakeOneWorker();
}

void PassThreads::Run(Worker& self) {
  std::unique_lock lock(lock_);
  while (!stop_) {
    QueueDueClients();
    if (queue_.empty()) {
      WaitForWork(lock, self);
    } else {
      RunPass(lock);
    }
  }
}

void PassThreads::QueueDueClients() {
  if (dues_.empty()) return;
  const int64_t now = ClockTicks100ns();
  while (!dues_.empty() && dues_.begin()->first <= now)
    Enqueue(*dues_.begin()->second);
}

void PassThreads::Enqueue(Client& client) {
  LeaveDues(client);
  client.state_ = Client::State::Queued;
  queue_.splice(queue_.end(), client.turn_);
}

void PassThreads::LeaveDues(Client& client) {
  const auto due = dues_.find({client.due_, &client});
  if (due != dues_.end()) client.dueNode_ = dues_.extract(due);
}

// This worker comes back when the pass is over, and takes what the pass itself gave cause for. What
// can't wait that long needs another worker: the clients after this one, and those that become
// due.
void PassThreads::RunPass(std::unique_lock<std::mutex>& lock) {
  Client& client = *queue_.front();
  client.turn_.splice(client.turn_.end(), queue_, queue_.begin());
  client.state_ = Client::State::Running;
  client.again_ = false;
  if (!queue_.empty() || !IsNextDueLookedAfter()) WakeOneWorker();
  lock.unlock();
  const int64_t due = client.pass_();
  lock.lock();
  client.state_ = Client::State::Resting;
  client.due_ = due;
  if (client.leaving_) {
    passEnded_.notify_all();
  } else if (client.again_) {
    Enqueue(client);
  } else if (due != kNever) {
    client.dueNode_.value() = {due, &client};
    dues_.insert(std::move(client.dueNode_));
  }
}

bool PassThreads::IsNextDueLookedAfter() const {
  return dues_.empty() || std::any_of(idle_.begin(), idle_.end(), [this](const Worker* worker) {
           return worker->until <= dues_.begin()->first;
         });
}

void PassThreads::WaitForWork(std::unique_lock<std::mutex>& lock, Worker& self) {
  self.until = dues_.empty() ? kNever : dues_.begin()->first;
  const uint32_t wait = MillisecondsUntil(self.until, ClockTicks100ns());
  idle_.push_back(&self);
  lock.unlock();
  self.event.Wait(wait);
  lock.lock();
  std::erase(idle_, &self);  // done already where another thread woke it
}

void PassThreads::WakeOneWorker() {
  if (idle_.empty()) return;
  idle_.back()->event.Set();
  idle_.pop_back();
}

}  // namespace Network
