#include "wire/Link.h"

#include <algorithm>
#include <atomic>
#include <random>

namespace wire {

namespace {

// What a link remembers of the past, so that one that runs for days doesn't grow.
constexpr size_t kMemory = 10'000;

// A unit knows a repeat by the number alone. Two programs that both began at 1 would be taken for
// one that repeats itself.
uint32_t NextId() {
  static std::atomic<uint32_t> next{std::random_device()()};
  return next++;
}

template <typename T>
void Remember(std::deque<T>& all, T one) {
  if (all.size() >= kMemory) all.pop_front();
  all.push_back(std::move(one));
}

Link::Test IsAckOf(uint32_t id) {
  return [id](const Message& ack) { return NumberAt(ack.body, "ack_msg_id") == id; };
}

std::string NoAnswerText(NoAnswer::Missing missing, const Endpoint& to, const std::string& type) {
  return to.ToText() +
         (missing == NoAnswer::Missing::Acknowledgement ? " doesn't acknowledge \""
                                                        : " has not answered \"") +
         type + "\"";
}

}  // namespace

NoAnswer::NoAnswer(Missing what, const Endpoint& unit, const std::string& requestType)
    : std::runtime_error(NoAnswerText(what, unit, requestType)),
      missing(what),
      to(unit),
      type(requestType) {}

Refused::Refused(const std::string& requestType, uint32_t errorCode, const std::string& errorText)
    : std::runtime_error("the unit refused \"" + requestType + "\": " + errorText + " (code " +
                         std::to_string(errorCode) + ")"),
      type(requestType),
      code(errorCode),
      text(errorText) {}

Link::Link(Loop& loop, const Endpoint& local)
    : loop_(loop), port_(loop, local, [this](const Datagram& datagram) { OnDatagram(datagram); }) {}

uint32_t Link::Send(const Endpoint& to, const std::string& type, const Json& members,
                    const Bytes& attachment) {
  const uint32_t id = NextId();
  SendWithId(id, to, type, members, attachment);
  return id;
}

void Link::SendWithId(uint32_t id, const Endpoint& to, const std::string& type, const Json& members,
                      const Bytes& attachment) {
  Json object = members;
  object["msg"] = type;
  object["msg_id"] = id;
  if (!attachment.empty() && !object.contains("att")) object["att"] = attachment.size();
  loop_.Trace("->", to, ToText(object));
  port_.Send(Encode(object, attachment), to);
}

void Link::SendAck(uint32_t acknowledgedId, const Endpoint& to) {
  Send(to, "ack", {{"ack_msg_id", acknowledgedId}});
}

uint32_t Link::Tell(const Endpoint& to, const std::string& type, const Json& members,
                    const Bytes& attachment, int transmissions) {
  const uint32_t id = NextId();
  Exchange exchange;
  exchange.transmissions = transmissions;
  Tell(id, to, type, members, attachment, exchange);
  return id;
}

void Link::Tell(uint32_t id, const Endpoint& to, const std::string& type, const Json& members,
                const Bytes& attachment, const Exchange& exchange) {
  if (attachment.size() <= kSegmentBytes) {
    TellDatagram(id, to, type, members, attachment, exchange);
    return;
  }
  // The head announces the whole length and carries nothing.
  Json head = members;
  head["att"] = attachment.size();
  TellDatagram(id, to, type, head, {}, exchange);
  const size_t count = (attachment.size() + kSegmentBytes - 1) / kSegmentBytes;
  for (size_t i = 0; i < count; ++i) {
    const auto at = attachment.begin() + static_cast<std::ptrdiff_t>(i * kSegmentBytes);
    const size_t size = std::min(kSegmentBytes, attachment.size() - i * kSegmentBytes);
    TellDatagram(NextId(), to, "attach",
                 {{"leader_id", id}, {"seg_count", count}, {"seg_number", i}},
                 Bytes(at, at + static_cast<std::ptrdiff_t>(size)), exchange);
  }
}

void Link::TellDatagram(uint32_t id, const Endpoint& to, const std::string& type,
                        const Json& members, const Bytes& attachment, const Exchange& exchange) {
  const size_t before = AckCount(id);
  const auto done = [&] { return AckCount(id) > before || exchange.answered(); };
  for (int i = 0; i < exchange.transmissions; ++i) {
    SendWithId(id, to, type, members, attachment);
    const auto left = exchange.end - Clock::now();
    if (loop_.RunUntil(done, std::min<Clock::duration>(kAckTimeout, left))) return;
    if (left <= kAckTimeout) throw NoAnswer(NoAnswer::Missing::Answer, to, type);
  }
  throw NoAnswer(NoAnswer::Missing::Acknowledgement, to, type);
}

Message Link::Ask(const Endpoint& to, const std::string& type, const std::string& answerType,
                  const Json& members, const Bytes& attachment, Clock::duration limit) {
  // An answer that nobody took came too late for an earlier request.
  std::erase_if(untaken_, [&](const Message& message) {
    return message.from == to && message.type == answerType;
  });
  const uint32_t id = NextId();
  const auto isAnswer = [&](const Message& message) {
    if (message.from != to) return false;
    return message.type == answerType ||
           (message.type == "error" && NumberAt(message.body, "err_msg_id") == id);
  };
  Exchange exchange;
  exchange.end = Clock::now() + limit;
  exchange.answered = [&] { return std::any_of(untaken_.begin(), untaken_.end(), isAnswer); };
  Tell(id, to, type, members, attachment, exchange);
  const auto answer = TakeIf(isAnswer, exchange.end - Clock::now());
  if (!answer) throw NoAnswer(NoAnswer::Missing::Answer, to, type);
  if (answer->type == answerType) return *answer;
  throw Refused(type, NumberAt(answer->body, "code"), TextAt(answer->body, "txt"));
}

std::optional<Message> Link::Take(const std::string& type, const std::optional<Endpoint>& from,
                                  Clock::duration limit) {
  return TakeIf(
      [&](const Message& message) {
        return message.type == type && (!from || message.from == *from);
      },
      limit);
}

std::optional<Message> Link::TakeIf(const Test& test, Clock::duration limit) {
  std::optional<Message> taken;
  loop_.RunUntil(
      [&] {
        const auto found = std::find_if(untaken_.begin(), untaken_.end(), test);
        if (found == untaken_.end()) return false;
        taken = std::move(*found);
        untaken_.erase(found);
        return true;
      },
      limit);
  return taken;
}

bool Link::WaitAcks(uint32_t id, size_t count, Clock::duration limit) {
  return loop_.RunUntil([&] { return AckCount(id) >= count; }, limit);
}

bool Link::WaitCount(const std::string& type, size_t count, Clock::duration limit) {
  return loop_.RunUntil(
      [&] {
        return static_cast<size_t>(std::count_if(
                   received_.begin(), received_.end(),
                   [&](const Message& message) { return message.type == type; })) >= count;
      },
      limit);
}

std::vector<Message> Link::AcksOf(uint32_t id) const {
  std::vector<Message> all;
  std::copy_if(acks_.begin(), acks_.end(), std::back_inserter(all), IsAckOf(id));
  return all;
}

size_t Link::AckCount(uint32_t id) const {
  return static_cast<size_t>(std::count_if(acks_.begin(), acks_.end(), IsAckOf(id)));
}

void Link::Clear() {
  received_.clear();
  acks_.clear();
  untaken_.clear();
  complaints_.clear();
}

void Link::OnDatagram(const Datagram& datagram) {
  try {
    const Message message = Decode(datagram.bytes, datagram.from, datagram.time);
    loop_.Trace("<-", message.from, message.text);
    if (message.type == "ack") {
      NumberAt(message.body, "ack_msg_id");
      Remember(acks_, message);
      return;
    }
    Remember(received_, message);
    if (acknowledge_) SendAck(message.id, message.from);
    // Repeats are known for each sender by itself, unlike in a unit, which has one latest number
    // for all: two units that have just started answer with the same.
    const std::pair key(message.from, message.id);
    if (!seen_.insert(key).second) return;
    seenLast_.push_back(key);
    if (seenLast_.size() > kMemory) {
      seen_.erase(seenLast_.front());
      seenLast_.pop_front();
    }
    Accept(message);
  } catch (const std::runtime_error& error) {  // no message, or an acknowledgement not sent
    loop_.Trace("<-", datagram.from, std::string("not understood: ") + error.what());
    Remember(complaints_, datagram.from.ToText() + ": " + error.what());
  }
}

// Once a message is whole, the call that waits for it gets it. Between head and segments nothing
// else may come from the same sender.
void Link::Accept(const Message& message) {
  const auto open = assemblies_.find(message.from);
  if (message.type == "attach") {
    if (open == assemblies_.end()) throw BadMessage("a segment without a head");
    Assemble(open->second, message);
    return;
  }
  if (open != assemblies_.end()) {
    assemblies_.erase(open);
    throw BadMessage("\"" + message.type + "\" between the segments of another message");
  }
  const uint32_t announced = message.body.contains("att") ? NumberAt(message.body, "att") : 0;
  if (message.attachment.size() == announced) {
    Remember(untaken_, message);
    return;
  }
  if (announced > kMostAttachment) throw BadMessage("an attachment above 1 MiB");
  assemblies_[message.from] = {message, announced, 0};
}

void Link::Assemble(Assembly& assembly, const Message& segment) {
  const Endpoint from = segment.from;
  const size_t held = assembly.head.attachment.size();
  // A message that lacks one of these three is no segment, and ends no assembly.
  const uint32_t leader = NumberAt(segment.body, "leader_id");
  const uint32_t number = NumberAt(segment.body, "seg_number");
  const uint32_t count = NumberAt(segment.body, "seg_count");
  const bool fits = leader == assembly.head.id && number == assembly.next &&
                    assembly.next < count && segment.attachment.size() <= assembly.announced - held;
  if (!fits) {
    assemblies_.erase(from);
    throw BadMessage("a segment that doesn't fit");
  }
  assembly.head.attachment.insert(assembly.head.attachment.end(), segment.attachment.begin(),
                                  segment.attachment.end());
  if (++assembly.next < count) return;
  const Message whole = std::move(assembly.head);
  const uint32_t announced = assembly.announced;
  assemblies_.erase(from);
  if (whole.attachment.size() != announced) throw BadMessage("segments shorter than announced");
  Remember(untaken_, whole);
}

}  // namespace wire
