#include "Listeners.h"

#include "platform/thread.h"

namespace ctl {

// Where the user may not ask for a place before others, the thread runs like any.
Listeners::Listeners() : thread_(loop_) {
  thread_.Do([] { platform::SetTimeCritical(); });
}

size_t Listeners::Open(const wire::Endpoint& local) {
  return thread_.Do([&] {
    receivers_.push_back(std::make_unique<wire::AudioReceiver>(loop_, local));
    return receivers_.size() - 1;
  });
}

wire::Endpoint Listeners::Local(size_t number) {
  return thread_.Do([&] { return receivers_[number]->Local(); });
}

// An address without a port is where units send in vain.
void Listeners::PassOn(size_t number, const wire::Destination& to) {
  thread_.Do([&] {
    receivers_[number]->PassOn(to && to->port != 0 ? to : std::optional<wire::Endpoint>());
  });
}

std::vector<std::deque<wire::StreamPacket>> Listeners::Take() {
  return thread_.Do([&] {
    std::vector<std::deque<wire::StreamPacket>> all;
    for (const auto& receiver : receivers_)
      all.push_back(receiver->Take());
    return all;
  });
}

uint64_t Listeners::NotPassedOn() {
  return thread_.Do([&] {
    uint64_t count = 0;
    for (const auto& receiver : receivers_)
      count += receiver->NotPassedOn();
    return count;
  });
}

}  // namespace ctl
