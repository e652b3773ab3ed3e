#include "support/WireController.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace wire {

namespace {

constexpr auto kRepeatAfter = std::chrono::milliseconds(50);

std::string TextOf(const Bytes& bytes, size_t end) {
  return {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(end)};
}

std::string AckText(uint32_t acknowledged, uint32_t id) {
  return R"({"ack_msg_id":)" + std::to_string(acknowledged) + R"(,"msg":"ack","msg_id":)" +
         std::to_string(id) + "}";
}

// Throws std::runtime_error if the datagram is no message.
Message Decode(const Datagram& datagram) {
  const auto zero = std::find(datagram.bytes.begin(), datagram.bytes.end(), uint8_t{0});
  if (zero == datagram.bytes.end()) throw std::runtime_error("no zero byte behind the text");
  Message message;
  message.text = TextOf(datagram.bytes, static_cast<size_t>(zero - datagram.bytes.begin()));
  message.attachment.assign(zero + 1, datagram.bytes.end());
  message.body = Json::Parse(message.text);
  message.type = message.body["msg"].string;
  message.id = static_cast<uint32_t>(message.body["msg_id"].integer);
  message.from = datagram.from;
  message.time = datagram.time;
  return message;
}

}  // namespace

Bytes MakeDatagram(const std::string& text, const Bytes& attachment) {
  Bytes bytes(text.begin(), text.end());
  bytes.push_back(0);
  bytes.insert(bytes.end(), attachment.begin(), attachment.end());
  return bytes;
}

Controller::Controller(const std::string& address)
    : socket_({address, 0}, [this](const Datagram& datagram) { OnDatagram(datagram); }) {}

void Controller::Acknowledge(bool yes) {
  std::lock_guard lock(mutex_);
  acknowledge_ = yes;
}

uint32_t Controller::Send(const Endpoint& to, const std::string& type, const std::string& members,
                          const Bytes& attachment) {
  uint32_t id = 0;
  {
    std::lock_guard lock(mutex_);
    id = nextId_++;
  }
  SendWithId(id, to, type, members, attachment);
  return id;
}

void Controller::SendWithId(uint32_t id, const Endpoint& to, const std::string& type,
                            const std::string& members, const Bytes& attachment) {
  // The order of the members is free; another one than the emulator's own shows that it is.
  std::string text = R"({"msg":)" + Quoted(type) + R"(,"msg_id":)" + std::to_string(id);
  if (!members.empty()) text += "," + members;
  text += "}";
  socket_.Send(MakeDatagram(text, attachment), to);
}

uint32_t Controller::Tell(const Endpoint& to, const std::string& type, const std::string& members,
                          const Bytes& attachment) {
  const uint32_t id = Send(to, type, members, attachment);
  const Clock::time_point deadline = Clock::now() + kPatience;
  while (!WaitAcks(id, 1, kRepeatAfter)) {
    if (Clock::now() > deadline) {
      ADD_FAILURE() << to.ToText() << " doesn't acknowledge " << type << " " << members;
      break;
    }
    SendWithId(id, to, type, members, attachment);
  }
  return id;
}

Message Controller::Ask(const Endpoint& to, const std::string& type, const std::string& answerType,
                        const std::string& members) {
  Tell(to, type, members);
  std::optional<Message> answer = Take(answerType, to);
  if (!answer) ADD_FAILURE() << to.ToText() << " doesn't answer " << type << " " << members;
  return answer.value_or(Message{});
}

std::optional<Message> Controller::Take(const std::string& type,
                                        const std::optional<Endpoint>& from,
                                        Clock::duration patience) {
  std::unique_lock lock(mutex_);
  std::optional<Message> taken;
  changed_.wait_for(lock, patience, [&] {
    const auto found = std::find_if(untaken_.begin(), untaken_.end(), [&](const Message& message) {
      return message.type == type && (!from || message.from == *from);
    });
    if (found == untaken_.end()) return false;
    taken = *found;
    untaken_.erase(found);
    return true;
  });
  return taken;
}

std::vector<Message> Controller::Received() const {
  std::lock_guard lock(mutex_);
  return received_;
}

std::vector<Message> Controller::AcksOf(uint32_t id) const {
  std::lock_guard lock(mutex_);
  std::vector<Message> all;
  for (const Message& ack : acks_) {
    if (ack.body["ack_msg_id"].integer == id) all.push_back(ack);
  }
  return all;
}

bool Controller::WaitAcks(uint32_t id, size_t count, Clock::duration patience) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, patience, [&] {
    const auto matches = [&](const Message& ack) { return ack.body["ack_msg_id"].integer == id; };
    return static_cast<size_t>(std::count_if(acks_.begin(), acks_.end(), matches)) >= count;
  });
}

bool Controller::WaitCount(const std::string& type, size_t count, Clock::duration patience) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, patience, [&] {
    const auto matches = [&](const Message& message) { return message.type == type; };
    return static_cast<size_t>(std::count_if(received_.begin(), received_.end(), matches)) >= count;
  });
}

std::vector<std::string> Controller::Complaints() const {
  std::lock_guard lock(mutex_);
  return complaints_;
}

void Controller::OnDatagram(const Datagram& datagram) {
  std::unique_lock lock(mutex_);
  try {
    const Message message = Decode(datagram);
    if (message.type == "ack") {
      message.body["ack_msg_id"];
      acks_.push_back(message);
    } else {
      received_.push_back(message);
      if (seen_.emplace(message.from.ToText(), message.id).second) untaken_.push_back(message);
      if (acknowledge_) {
        socket_.Send(MakeDatagram(AckText(message.id, nextId_++)), message.from);
      }
    }
  } catch (const std::runtime_error& error) {
    complaints_.push_back(error.what());
  }
  changed_.notify_all();
}

}  // namespace wire
