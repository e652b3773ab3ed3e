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

InputLoan::Input ToBorrow(Session& session, Listeners& listeners, size_t number, uint32_t input) {
  InputLoan::Input wanted{input, listeners.Local(number), nullptr};
  if (session.Common().inUse != InUse::Take) {
    wanted.passOn = [&listeners, number](const wire::Destination& to) {
      listeners.PassOn(number, to);
    };
  }
  return wanted;
}

void NoteNotPassedOn(Session& session, Listeners& listeners) {
  const uint64_t count = listeners.NotPassedOn();
  if (count == 0) return;
  session.Note(std::to_string(count) + " packets couldn't be passed on to where they went before");
}

}  // namespace ctl
