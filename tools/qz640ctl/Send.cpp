// The commands that show the protocol itself: send, listen.
#include "Commands.h"
#include "platform/startup.h"
#include "wire/Explain.h"

namespace ctl {

using wire::Clock;
using wire::Json;

namespace {

// What has no answer of its own may still be refused; a unit says so within milliseconds.
constexpr auto kErrorTime = std::chrono::milliseconds(250);

Json ParseRequest(const std::string& text) {
  std::string why;
  try {
    const Json request = Json::parse(text);
    wire::TextAt(request, "msg");
    if (request.contains("msg_id")) wire::NumberAt(request, "msg_id");
    return request;
  } catch (const Json::exception& error) {
    why = wire::WhyNoJson(error);
  } catch (const wire::BadMessage& error) {
    why = error.what();
  }
  throw Failure{kUsage,
                "that is no request: " + why + R"(; it must read like '{"msg":"get_inputs"}')"};
}

void Print(const char* what, Clock::duration after, const Json& message, Output& out) {
  const double ms = std::chrono::duration<double, std::milli>(after).count();
  out.Object(Fields().Add("what", what).Add("after_ms", ms).Add("text", wire::ToText(message)));
  out.Line(std::string(what) + " after " + FormatNumber(ms, 1) + " ms  " + wire::ToAscii(message));
}

std::string Join(const std::vector<std::string>& all) {
  std::string text;
  for (const std::string& one : all)
    text += (text.empty() ? "" : "; ") + one;
  return text;
}

}  // namespace

// Numbered where the request isn't, repeated until it is acknowledged.
int RunSend(Session& session, const std::string& name, const std::string& text, Output& out) {
  const Json request = ParseRequest(text);
  const std::string type = request["msg"];
  const auto given = ControlOf(name);
  const wire::Endpoint to = given ? *given : session.FindUnit(name).control;
  wire::Link& link = session.Link();
  link.Clear();
  const auto start = Clock::now();
  uint32_t id = 0;
  bool acknowledged = false;
  for (int i = 0; i < wire::kTransmissions && !acknowledged; ++i) {
    if (i == 0 && !request.contains("msg_id")) {
      id = link.Send(to, type, request);
    } else {
      if (i == 0) id = wire::NumberAt(request, "msg_id");
      link.SendWithId(id, to, type, request);
    }
    acknowledged = link.WaitAcks(id, 1, wire::kAckTimeout);
  }
  if (!acknowledged) {
    Json sent = request;
    sent["msg_id"] = id;
    const auto refused = wire::Explain(wire::Encode(sent)).refused;
    if (!refused.empty()) {
      throw Failure{kNoAnswer, to.ToText() + " doesn't acknowledge it: " + Join(refused)};
    }
    throw wire::NoAnswer(wire::NoAnswer::Missing::Acknowledgement, to, type);
  }
  const wire::Message ack = link.AcksOf(id).front();
  Print("acknowledged", ack.time - start, ack.body, out);

  const bool asks = type.starts_with("get_") && type != "get_state";
  const auto answer = link.TakeIf([&](const wire::Message& message) { return message.from == to; },
                                  asks ? session.Timeout() : kErrorTime);
  if (!answer) {
    if (asks) throw wire::NoAnswer(wire::NoAnswer::Missing::Answer, to, type);
    out.Line("no answer, as is right");
    return kDone;
  }
  Print("answered", answer->time - start, answer->body, out);
  return answer->type == "error" ? kRefused : kDone;
}

int RunListen(Session& session, const ListenOptions& options, Output& out) {
  const wire::Endpoint at = ParseEndpoint(options.at, 0);
  uint32_t next = 1;
  std::optional<uint32_t> latest;
  wire::Bytes latestBytes;
  std::unique_ptr<wire::UdpPort> port;
  const auto take = [&](const wire::Datagram& datagram) {
    wire::Explanation says = wire::Explain(datagram.bytes);
    const bool taken = says.refused.empty();
    if (taken && says.name != "ack") {
      port->TrySend(wire::Encode({{"msg", "ack"}, {"msg_id", next++}, {"ack_msg_id", *says.id}}),
                    datagram.from);
      const bool same = latest == says.id;
      if (same && latestBytes == datagram.bytes) {
        says.remarks.push_back("a repeat: not carried out again");
      } else if (same) {
        says.remarks.push_back("it has the number of the message before: a unit would drop it");
      }
      latest = says.id;
      latestBytes = datagram.bytes;
    }
    const std::string number = says.id ? " " + std::to_string(*says.id) : "";
    out.Object(Fields()
                   .Add("from", datagram.from.ToText())
                   .Add("bytes", datagram.bytes.size())
                   .Add("msg", says.name)
                   .Add("taken", taken)
                   .Add("refused", Join(says.refused))
                   .Add("remarks", Join(says.remarks)));
    std::string line = datagram.from.ToText() + "  " + (taken ? "taken" : "refused") + ":";
    if (taken) line += " " + says.name + number;
    if (options.explain && !taken) line += " " + Join(says.refused);
    if (options.explain && !says.remarks.empty()) line += "; but " + Join(says.remarks);
    out.Line(line);
  };
  port = std::make_unique<wire::UdpPort>(session.Loop(), at, take);
  out.Object(Fields().Add("listening", port->Local().ToText()));
  out.Line("listening at " + port->Local().ToText() + " until Ctrl-C");
  const wire::Loop::Shield shield(session.Loop());
  while (!session.Loop().RunUntil([] { return platform::WaitForStop(0); }, std::chrono::hours(1))) {
  }
  return kDone;
}

}  // namespace ctl
