// A controller's end of the control protocol: one UDP port, messages with numbers of their own,
// repeats until they are acknowledged, an acknowledgement for everything that comes in, long
// attachments in segments. On the thread of its loop, and only while that waits: see Loop.h.
//
//   wire::Link link(loop);
//   link.Tell(unit, "set_inputs", {{"inputs", {"127.0.0.1:9000"}}});
//   const wire::Message answer = link.Ask(unit, "get_inputs", "inputs");
//   EXPECT_EQ(answer.body["inputs"][0], "127.0.0.1:9000");
//
// Send and what looks at the single datagram are for who wants to see what a unit really does.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "wire/Loop.h"
#include "wire/Message.h"

namespace wire {

// How the protocol repeats and cuts up.
constexpr auto kAckTimeout = std::chrono::milliseconds(50);
constexpr int kTransmissions = 5;  // of a datagram that nobody acknowledges, the first included
constexpr size_t kSegmentBytes = 1300;

// How long a call waits for an answer where its caller doesn't say.
constexpr auto kAnswerTime = std::chrono::seconds(3);

// Nobody acknowledged, or nobody answered in time.
struct NoAnswer : std::runtime_error {
  enum class Missing { Acknowledgement, Answer };
  NoAnswer(Missing what, const Endpoint& unit, const std::string& requestType);

  Missing missing;
  Endpoint to;
  std::string type;  // of the request
};

// The unit answered with "error".
struct Refused : std::runtime_error {
  Refused(const std::string& requestType, uint32_t errorCode, const std::string& errorText);

  std::string type;  // of the request
  uint32_t code;
  std::string text;  // the unit's own, UTF-8
};

class Link {
 public:
  using Test = std::function<bool(const Message&)>;

  // Port 0 takes a free one. Throws SocketError.
  explicit Link(Loop& loop, const Endpoint& local = {});

  const Endpoint& Local() const { return port_.Local(); }

  // With false nothing that comes in is acknowledged. True at first.
  void Acknowledge(bool yes) { acknowledge_ = yes; }

  // -- One datagram, no waiting. All throw SocketError. --

  // `members` is an object of the message's own keys. An attachment is announced and goes along.
  // Returns the message's number, which no other link of this process uses.
  uint32_t Send(const Endpoint& to, const std::string& type, const Json& members = Json::object(),
                const Bytes& attachment = {});

  // The same with the number given; `members` may also name "att" otherwise.
  void SendWithId(uint32_t id, const Endpoint& to, const std::string& type,
                  const Json& members = Json::object(), const Bytes& attachment = {});

  void SendAck(uint32_t acknowledgedId, const Endpoint& to);
  void SendRaw(const Bytes& bytes, const Endpoint& to) { port_.Send(bytes, to); }

  // -- Exchanges, which run the loop. --

  // Sends until it is acknowledged, an attachment above 1300 bytes as head and segments. Returns
  // the message's number. Throws NoAnswer after `transmissions` of one datagram, SocketError.
  uint32_t Tell(const Endpoint& to, const std::string& type, const Json& members = Json::object(),
                const Bytes& attachment = {}, int transmissions = kTransmissions);

  // Tell, and then the answer of that type from there, within `limit` in all. An answer shows that
  // the request has arrived, also where its acknowledgement was lost. Throws Refused when "error"
  // comes instead, with the number of this request.
  Message Ask(const Endpoint& to, const std::string& type, const std::string& answerType,
              const Json& members = Json::object(), const Bytes& attachment = {},
              Clock::duration limit = kAnswerTime);

  // Takes the oldest message of that type that nobody has taken, from anybody or from `from`,
  // waiting for it. Repeats of a message, which have its number and sender, are left out.
  std::optional<Message> Take(const std::string& type,
                              const std::optional<Endpoint>& from = std::nullopt,
                              Clock::duration limit = kAnswerTime);
  std::optional<Message> TakeIf(const Test& test, Clock::duration limit = kAnswerTime);

  // Waits until `count` acknowledgements of that message, or messages of that type with their
  // repeats, have come since the beginning or the latest Clear.
  bool WaitAcks(uint32_t id, size_t count = 1, Clock::duration limit = kAnswerTime);
  bool WaitCount(const std::string& type, size_t count, Clock::duration limit = kAnswerTime);

  // -- What has come, oldest first, since the beginning or the latest Clear; the latest 10,000. --

  // All datagrams but acknowledgements, repeats and segments included.
  const std::deque<Message>& Received() const { return received_; }
  const std::deque<Message>& Acks() const { return acks_; }
  std::vector<Message> AcksOf(uint32_t id) const;

  // What was no message, or a segment that doesn't fit, and why: "127.0.0.1:8000: ...".
  const std::deque<std::string>& Complaints() const { return complaints_; }

  // Forgets all of it, and what nobody has taken.
  void Clear();

 private:
  // A message whose segments are coming.
  struct Assembly {
    Message head;
    uint32_t announced = 0;
    uint32_t next = 0;  // number of the next segment
  };

  void OnDatagram(const Datagram& datagram);
  void Accept(const Message& message);
  void Assemble(Assembly& assembly, const Message& segment);
  size_t AckCount(uint32_t id) const;

  // How long and how often an exchange goes on, and what else than acknowledgements ends it.
  struct Exchange {
    int transmissions = kTransmissions;
    Clock::time_point end = Clock::time_point::max();
    std::function<bool()> answered = [] { return false; };
  };
  void Tell(uint32_t id, const Endpoint& to, const std::string& type, const Json& members,
            const Bytes& attachment, const Exchange& exchange);
  void TellDatagram(uint32_t id, const Endpoint& to, const std::string& type, const Json& members,
                    const Bytes& attachment, const Exchange& exchange);

  Loop& loop_;
  bool acknowledge_ = true;
  std::deque<Message> received_;
  std::deque<Message> acks_;
  std::deque<Message> untaken_;
  std::deque<std::string> complaints_;
  std::set<std::pair<Endpoint, uint32_t>> seen_;        // sender and number
  std::deque<std::pair<Endpoint, uint32_t>> seenLast_;  // the same in the order of coming
  std::map<Endpoint, Assembly> assemblies_;
  UdpPort port_;
};

}  // namespace wire
