#include "wire/Relay.h"

#include <algorithm>
#include <utility>

namespace wire {

namespace {

LinkCounts& operator+=(LinkCounts& sum, const LinkCounts& more) {
  sum.taken += more.taken;
  sum.lost += more.lost;
  sum.duplicated += more.duplicated;
  sum.heldBack += more.heldBack;
  sum.corrupted += more.corrupted;
  return sum;
}

}  // namespace

Relay::Relay(Loop& loop, const RelayInfo& info)
    : loop_(loop),
      info_(info),
      timer_(loop, [this] { SendDue(); }),
      listening_(loop, info.listen, [this](const Datagram& datagram) {
        if (const auto flow = FlowOf(datagram.from)) Take(flow, Way::There, datagram);
      }) {}

void Relay::SendBack(const Endpoint& sender, const Datagram& datagram) {
  if (const auto flow = FlowOf(sender)) Take(flow, Way::Back, datagram);
}

void Relay::SetFaults(const LinkFaults& faults) {
  info_.faults = faults;
  for (const auto& flow : flows_) {
    flow->there.SetFaults(faults);
    flow->back.SetFaults(faults);
  }
}

LinkCounts Relay::CountsThere() const {
  LinkCounts sum = goneThere_;
  for (const auto& flow : flows_)
    sum += flow->there.Counts();
  return sum;
}

LinkCounts Relay::CountsBack() const {
  LinkCounts sum = goneBack_;
  for (const auto& flow : flows_)
    sum += flow->back.Counts();
  return sum;
}

// A sender that no socket can be had for is cut off, as by a network that is full.
std::shared_ptr<Relay::Flow> Relay::FlowOf(const Endpoint& sender) {
  const auto found = std::find_if(flows_.begin(), flows_.end(),
                                  [&](const auto& flow) { return flow->sender == sender; });
  if (found != flows_.end()) return *found;
  const uint64_t number = (info_.number << 32) + 2 * flowsMade_++;
  const auto flow = std::make_shared<Flow>(Flow{
      sender, LossyLink(info_.seed, number), LossyLink(info_.seed, number + 1), ++order_, nullptr});
  try {
    flow->port =
        std::make_unique<UdpPort>(loop_, Endpoint(info_.anySource ? 0 : info_.listen.address, 0),
                                  [this, weak = std::weak_ptr(flow)](const Datagram& datagram) {
                                    if (const auto alive = weak.lock())
                                      Take(alive, Way::Back, datagram);
                                  });
  } catch (const SocketError&) {
    return nullptr;
  }
  flow->there.SetFaults(info_.faults);
  flow->back.SetFaults(info_.faults);
  if (flows_.size() >= kMostFlows) MakeRoom();
  flows_.push_back(flow);
  return flow;
}

void Relay::MakeRoom() {
  const auto oldest =
      std::min_element(flows_.begin(), flows_.end(),
                       [](const auto& a, const auto& b) { return a->lastUse < b->lastUse; });
  goneThere_ += (*oldest)->there.Counts();
  goneBack_ += (*oldest)->back.Counts();
  flows_.erase(oldest);
}

void Relay::Take(const std::shared_ptr<Flow>& flow, Way way, const Datagram& datagram) {
  flow->lastUse = ++order_;
  if (!tamper_) {
    Pass(flow, way, {datagram.bytes}, datagram.time);
    return;
  }
  for (const Passed& passed : tamper_(way, datagram))
    Pass(flow, way, passed, datagram.time);
}

void Relay::Pass(const std::shared_ptr<Flow>& flow, Way way, const Passed& passed,
                 Clock::time_point from) {
  LossyLink& link = way == Way::There ? flow->there : flow->back;
  for (const Fate& fate : link.Next()) {
    if (bytesUnderWay_ + passed.bytes.size() > kMostBytesUnderWay) return;
    Due due{from + passed.delay + fate.delay, ++order_, flow, way, passed.bytes};
    if (fate.damage != 0) Damage(fate.damage, due.bytes);
    bytesUnderWay_ += due.bytes.size();
    underWay_.push(std::move(due));
  }
  SendDue();
}

void Relay::SendDue() {
  const auto now = Clock::now();
  while (!underWay_.empty() && underWay_.top().time <= now) {
    const Due due = underWay_.top();
    underWay_.pop();
    bytesUnderWay_ -= due.bytes.size();
    const auto flow = due.flow.lock();
    if (!flow) continue;
    if (due.way == Way::There) {
      flow->port->TrySend(due.bytes, info_.target);
    } else {
      listening_.TrySend(due.bytes, flow->sender);
    }
  }
  if (!underWay_.empty()) timer_.At(underWay_.top().time);
}

}  // namespace wire
