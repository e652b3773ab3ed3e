// The datagrams of a connection that wait for their turn.
//
// One datagram is on its way at a time, and one that nobody acknowledges takes 250 ms. So the
// destinations are served in three classes: first those that acknowledged what was sent to them
// last, then those not heard of yet, then those that let it run out. Within a class the message
// that came first goes first; messages to one destination keep their order, and a message that has
// begun is finished before another begins. A peer that acknowledges then waits for one dead peer's
// message at most (250 ms), however many dead ones ask.
//
// Any thread. The lock is a leaf: nothing else is called while it is held.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "control/JsonMsgs.h"
#include "sockets/NetAddr.h"

namespace Network {

// One datagram to be sent reliably.
struct OutgoingMsg {
  std::shared_ptr<JsonMsg> leader;  // what Send was given
  std::shared_ptr<JsonMsg> wire;    // what travels: the leader itself or one of its segments
  NetAddr addr;

  bool IsValid() const { return leader && wire; }

  // With its acknowledgement the whole message has arrived.
  bool IsLastOfMessage() const;
};

class SendQueue {
 public:
  // Datagrams that may wait. A peer that asks and never acknowledges would fill memory otherwise.
  static constexpr size_t kMaxForOne = 256;
  static constexpr size_t kMaxInAll = 4096;

  // Destinations with nothing waiting whose class is remembered. The one that was judged longest
  // ago is forgotten first.
  static constexpr size_t kMaxKnown = 1024;

  struct PushResult {
    size_t full = 0;  // datagrams that wait and leave no room; 0: the message was taken

    // Messages to destinations of a lower class that made room for this one, a datagram of each.
    // Otherwise a few dead peers would fill the queue, and no answer to a living one would get in.
    std::vector<OutgoingMsg> dropped;
  };

  // Takes the datagrams of one message, at least one and all to one address, whole or not at all.
  // As long as there is room for one, a long message may go beyond it.
  PushResult Push(std::vector<OutgoingMsg> datagrams);

  // The next datagram, out of the queue; an invalid one when none waits. Its fate is to be known
  // before the next call.
  OutgoingMsg TryPop();

  // The fate of a datagram to `to`. One that ran out takes the rest of its message with it.
  void Acknowledged(const NetAddr& to);
  void RanOut(const NetAddr& to);

 private:
  enum class Class { Acknowledges, NotHeardOf, LetsRunOut };  // in the order of serving

  struct Message {
    uint64_t number;                     // rises with each message that comes
    std::vector<OutgoingMsg> datagrams;  // the last one first
  };

  struct Destination {
    Class rank = Class::NotHeardOf;
    uint64_t judged = 0;  // when its class was set last, as a count; 0: never
    size_t waiting = 0;   // datagrams of its messages
    std::deque<Message> messages;

    std::pair<Class, uint64_t> Turn() const { return {rank, messages.front().number}; }
  };

  using Key = uint64_t;  // address and port
  static Key KeyOf(const NetAddr& addr);

  template <typename Action>
  void Change(Key key, Action action);
  void Judge(const NetAddr& to, Class rank);
  OutgoingMsg DropMessageBelow(Class rank);

  std::mutex lock_;
  std::map<Key, Destination> destinations_;
  std::map<std::pair<Class, uint64_t>, Key> turns_;  // of the destinations with messages
  std::map<uint64_t, Key> quiet_;   // those without, by the time of their judgement
  std::vector<OutgoingMsg> begun_;  // what is left of the message that has begun, last one first
  size_t waiting_ = 0;              // datagrams of all destinations' messages
  uint64_t numbers_ = 0;
  uint64_t judgements_ = 0;
};

}  // namespace Network
