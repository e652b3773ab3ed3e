#include "control/SendQueue.h"

#include <algorithm>
#include <iterator>

namespace Network {

bool OutgoingMsg::IsLastOfMessage() const {
  if (wire == leader && (leader->att == 0 || !leader->attachment.empty())) return true;
  const auto* segment = dynamic_cast<const JsonMsgAtt*>(wire.get());
  return segment && segment->seg_number == segment->seg_count - 1;
}

SendQueue::Key SendQueue::KeyOf(const NetAddr& addr) {
  Key key = 0;
  for (const uint8_t byte : addr.Raw().address)
    key = key << 8 | byte;
  for (const uint8_t byte : addr.Raw().port)
    key = key << 8 | byte;
  return key;
}

// Does `action` to a destination, and files it anew: with messages it stands in line by its turn;
// without, it is remembered by its judgement, or forgotten when there was none.
template <typename Action>
void SendQueue::Change(Key key, Action action) {
  Destination& destination = destinations_[key];
  if (destination.messages.empty()) {
    quiet_.erase(destination.judged);
  } else {
    turns_.erase(destination.Turn());
  }
  action(destination);
  if (!destination.messages.empty()) {
    turns_.emplace(destination.Turn(), key);
    return;
  }
  if (destination.judged == 0) {
    destinations_.erase(key);
    return;
  }
  quiet_.emplace(destination.judged, key);
  if (quiet_.size() <= kMaxKnown) return;
  destinations_.erase(quiet_.begin()->second);
  quiet_.erase(quiet_.begin());
}

SendQueue::PushResult SendQueue::Push(std::vector<OutgoingMsg> datagrams) {
  const size_t count = datagrams.size();
  const Key key = KeyOf(datagrams.front().addr);
  std::reverse(datagrams.begin(), datagrams.end());

  PushResult result;
  std::lock_guard lock(lock_);
  Change(key, [&](Destination& destination) {
    const bool isBegun = !begun_.empty() && KeyOf(begun_.back().addr) == key;
    const size_t forThis = destination.waiting + (isBegun ? begun_.size() : 0);
    if (forThis >= kMaxForOne) {
      result.full = forThis;
      return;
    }
    while (waiting_ + begun_.size() >= kMaxInAll) {
      OutgoingMsg dropped = DropMessageBelow(destination.rank);
      if (!dropped.IsValid()) {
        result.full = waiting_ + begun_.size();
        return;
      }
      result.dropped.push_back(std::move(dropped));
    }
    destination.messages.push_back({++numbers_, std::move(datagrams)});
    destination.waiting += count;
    waiting_ += count;
  });
  return result;
}

// Takes away the latest message of the destination whose turn comes last, if its class is below
// `rank`. An invalid one if there is none.
OutgoingMsg SendQueue::DropMessageBelow(Class rank) {
  OutgoingMsg dropped;
  if (turns_.empty()) return dropped;
  const auto [turn, key] = *turns_.rbegin();
  if (turn.first <= rank) return dropped;
  Change(key, [&](Destination& destination) {
    std::vector<OutgoingMsg>& datagrams = destination.messages.back().datagrams;
    destination.waiting -= datagrams.size();
    waiting_ -= datagrams.size();
    dropped = std::move(datagrams.back());
    destination.messages.pop_back();
  });
  return dropped;
}

OutgoingMsg SendQueue::TryPop() {
  std::lock_guard lock(lock_);
  if (begun_.empty()) {
    if (turns_.empty()) return {};
    Change(turns_.begin()->second, [&](Destination& destination) {
      begun_ = std::move(destination.messages.front().datagrams);
      destination.messages.pop_front();
      destination.waiting -= begun_.size();
      waiting_ -= begun_.size();
    });
  }
  OutgoingMsg next = std::move(begun_.back());
  begun_.pop_back();
  return next;
}

void SendQueue::Acknowledged(const NetAddr& to) {
  std::lock_guard lock(lock_);
  Judge(to, Class::Acknowledges);
}

void SendQueue::RanOut(const NetAddr& to) {
  std::vector<OutgoingMsg> rest;  // dies after the unlock
  std::lock_guard lock(lock_);
  rest.swap(begun_);
  Judge(to, Class::LetsRunOut);
}

void SendQueue::Judge(const NetAddr& to, Class rank) {
  Change(KeyOf(to), [&](Destination& destination) {
    destination.rank = rank;
    destination.judged = ++judgements_;
  });
}

}  // namespace Network
