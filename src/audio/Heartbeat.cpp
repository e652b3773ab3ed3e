#include "audio/Heartbeat.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <thread>

#include "platform/clock.h"
#include "platform/thread.h"

namespace Network {

namespace {

constexpr int64_t kMillisecond = platform::kCounterFrequency / 1000;
constexpr int64_t kQuarter = kMillisecond / 4;

int64_t RoundUp(int64_t counter, int64_t step) {
  return (counter + step - 1) / step * step;
}

}  // namespace

class Heartbeat::Thread {
  struct Entry {
    IBeatClient* client;
    bool again;  // it ticked in the round before
  };

 public:
  // With its first client from the first beat on.
  explicit Thread(IBeatClient& client) : entries_{{&client, false}}, thread_([this] { Run(); }) {}

  ~Thread() {
    stop_ = true;
    thread_.join();
  }

  void Add(IBeatClient& client) {
    std::lock_guard lock(mutex_);
    entries_.push_back({&client, false});
  }

  // False: it isn't here.
  bool TakeOut(IBeatClient& client) {
    std::lock_guard lock(mutex_);
    const auto found = std::find_if(entries_.begin(), entries_.end(),
                                    [&](const Entry& entry) { return entry.client == &client; });
    if (found == entries_.end()) return false;
    // The round that runs neither skips the one that moves up nor calls it twice.
    if (static_cast<size_t>(found - entries_.begin()) < next_) --next_;
    entries_.erase(found);
    return true;
  }

  void WaitForCallOf(IBeatClient& client) {
    std::unique_lock lock(mutex_);
    callEnded_.wait(lock, [&] { return called_ != &client; });
  }

  size_t ClientCount() {
    std::lock_guard lock(mutex_);
    return entries_.size();
  }

 private:
  void Run() {
    platform::SetTimeCritical();
    while (!stop_) {
      const int64_t next = Beat();
      platform::GetClock().SleepUntil(next);
    }
  }

  // All that is due, round after round: so a client that is far behind holds the others up by one
  // of its ticks only. Returns when the next beat is.
  int64_t Beat() {
    std::unique_lock lock(mutex_);
    int64_t now = platform::GetClock().Counter();
    bool all = now / kMillisecond != latestMillisecond_;
    latestMillisecond_ = now / kMillisecond;
    while (Round(lock, now, all)) {
      now = platform::GetClock().Counter();
      all = false;
    }

    int64_t next = (now / kMillisecond + 1) * kMillisecond;
    for (const Entry& entry : entries_) {
      const int64_t due = entry.client->DueAt();
      if (due > now) next = std::min(next, RoundUp(due, kQuarter));
    }
    return next;
  }

  // True when a client ticked.
  bool Round(std::unique_lock<std::mutex>& lock, int64_t now, bool all) {
    bool again = false;
    for (next_ = 0; next_ < entries_.size();) {
      Entry& entry = entries_[next_++];
      if (!all && !entry.again && entry.client->DueAt() > now) continue;
      entry.again = false;
      called_ = entry.client;
      lock.unlock();
      bool ticked = false;
      try {
        ticked = called_->OnBeat(now);
      } catch (...) {
        // Out of memory while a line was written: the ticks to come go on.
      }
      lock.lock();
      // The entry may have moved meanwhile, or be gone.
      if (ticked && next_ != 0 && entries_[next_ - 1].client == called_)
        entries_[next_ - 1].again = again = true;
      called_ = nullptr;
      callEnded_.notify_all();
    }
    return again;
  }

  std::mutex mutex_;
  std::condition_variable callEnded_;
  std::vector<Entry> entries_;
  size_t next_ = 0;  // of the round that runs: the entry to look at next
  IBeatClient* called_ = nullptr;
  int64_t latestMillisecond_ = -1;  // the one in which all were looked at last
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

Heartbeat& Heartbeat::OfProcess() {
  static Heartbeat heartbeat(std::max(1u, std::thread::hardware_concurrency()));
  return heartbeat;
}

Heartbeat::Heartbeat(size_t maxThreads) : maxThreads_(maxThreads) {}

Heartbeat::~Heartbeat() = default;

// Each thread costs wake-ups of its own, so there are as few as can serve all on time.
void Heartbeat::Add(IBeatClient& client) {
  std::lock_guard lock(mutex_);
  const auto least = std::min_element(
      threads_.begin(), threads_.end(),
      [](const auto& a, const auto& b) { return a->ClientCount() < b->ClientCount(); });
  if (least != threads_.end() &&
      ((*least)->ClientCount() < kClientsPerThread || threads_.size() >= maxThreads_)) {
    (*least)->Add(client);
    return;
  }
  threads_.push_back(std::make_shared<Thread>(client));
}

void Heartbeat::Remove(IBeatClient& client) {
  std::shared_ptr<Thread> thread;
  {
    std::lock_guard lock(mutex_);
    for (auto it = threads_.begin(); it != threads_.end() && !thread; ++it) {
      if (!(*it)->TakeOut(client)) continue;
      thread = *it;
      if (thread->ClientCount() == 0) threads_.erase(it);
      break;
    }
  }
  // Outside the lock, so that other clients come and go meanwhile. A beat thread without clients
  // ends with the last of these references to it.
  if (thread) thread->WaitForCallOf(client);
}

}  // namespace Network
