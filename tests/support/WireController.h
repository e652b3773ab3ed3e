// A controller as a unit meets it: one UDP socket, messages with numbers of their own, repeats
// until they are acknowledged, and an acknowledgement for everything that comes in. Shares no code
// with the emulator. Incoming messages are handled on the socket's thread and kept until a test
// takes them.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/WireJson.h"
#include "support/WireSocket.h"

namespace wire {

struct Message {
  std::string type;
  uint32_t id = 0;
  std::string text;  // the JSON as it stood in the datagram
  Json body;
  Bytes attachment;  // the bytes behind the text
  Endpoint from;
  Clock::time_point time;
};

class Controller {
 public:
  // On any port of the address.
  explicit Controller(const std::string& address);

  const Endpoint& Local() const { return socket_.Local(); }

  // With false, nothing that comes in is acknowledged. True at first.
  void Acknowledge(bool yes);

  // Sends one datagram: `members` are further members of the message, as in R"("freq":[1])".
  // Returns the number of the message.
  uint32_t Send(const Endpoint& to, const std::string& type, const std::string& members = {},
                const Bytes& attachment = {});

  // The same with the number given.
  void SendWithId(uint32_t id, const Endpoint& to, const std::string& type,
                  const std::string& members = {}, const Bytes& attachment = {});

  // Any bytes.
  void SendRaw(const Endpoint& to, const Bytes& bytes) { socket_.Send(bytes, to); }

  // Sends, repeats every 50 ms, and returns once it is acknowledged. A failure of the test if it
  // never is.
  uint32_t Tell(const Endpoint& to, const std::string& type, const std::string& members = {},
                const Bytes& attachment = {});

  // Tell, and then the next answer of the type from there. A failure of the test, and an empty
  // message, if none comes.
  Message Ask(const Endpoint& to, const std::string& type, const std::string& answerType,
              const std::string& members = {});

  // Takes the oldest message of that type that nobody has taken, from anybody or from `from`,
  // waiting for it. Repeats of a message that came already count as messages of their own with
  // `repeats`, else they are left out.
  std::optional<Message> Take(const std::string& type,
                              const std::optional<Endpoint>& from = std::nullopt,
                              Clock::duration patience = kPatience);

  // All messages so far but acknowledgements, repeats included.
  std::vector<Message> Received() const;

  // The acknowledgements so far of the message with that number.
  std::vector<Message> AcksOf(uint32_t id) const;

  // Waits until so many acknowledgements of it have come. False if they don't.
  bool WaitAcks(uint32_t id, size_t count = 1, Clock::duration patience = kPatience) const;

  // Waits until `count` messages of that type have come in all, repeats included.
  bool WaitCount(const std::string& type, size_t count, Clock::duration patience = kPatience) const;

  // What came in and was no message: JSON errors, missing members.
  std::vector<std::string> Complaints() const;

 private:
  void OnDatagram(const Datagram& datagram);

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool acknowledge_ = true;
  uint32_t nextId_ = 5001;
  std::vector<Message> received_;
  std::vector<Message> acks_;
  std::deque<Message> untaken_;
  std::set<std::pair<std::string, uint32_t>> seen_;  // sender and number
  std::vector<std::string> complaints_;

  Socket socket_;  // last: its thread uses the others
};

// The datagram of a message: its JSON text, a zero byte, the attachment.
Bytes MakeDatagram(const std::string& text, const Bytes& attachment = {});

}  // namespace wire
