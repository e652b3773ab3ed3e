#include "Units.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "platform/interfaces.h"
#include "platform/socket.h"
#include "platform/startup.h"
#include "platform/text.h"

namespace ctl {

using namespace Network;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

// Any local address, any free port: where answers come back to.
NetAddr AnyAddr() {
  NetAddr addr;
  addr.SetFromText(L"0.0.0.0");
  return addr;
}

// The same unit, answering from two addresses of this machine because it hears at all of them.
bool IsSameUnit(const Unit& a, const Unit& b, const std::vector<platform::Interface>& own) {
  const auto isOwn = [&own](const NetAddr& addr) {
    return std::any_of(own.begin(), own.end(), [&](const platform::Interface& interface) {
      return std::ranges::equal(interface.address.address, addr.Raw().address);
    });
  };
  return a.id == b.id && a.type == b.type && a.rtpPort == b.rtpPort &&
         a.control.Port() == b.control.Port() && isOwn(a.control) && isOwn(b.control);
}

[[noreturn]] void NoSocket(const ErrInfo& err) {
  throw Failure{
      kNoPort, "can't open a control socket; have too many sockets been opened? (qz640ctl doctor)" +
                   platform::WideToUtf8Lossy(err.ToString())};
}

}  // namespace

std::string ToText(const NetAddr& addr) {
  return platform::WideToUtf8Lossy(addr.ToText());
}

bool IsBefore(const NetAddr& a, const NetAddr& b) {
  const auto key = [](const NetAddr& addr) {
    return std::pair(std::to_array(addr.Raw().address), addr.Port());
  };
  return key(a) < key(b);
}

bool IsPortFree(const std::string& addr, uint32_t port) {
  NetAddr local;
  local.SetFromTextAndPort(platform::Utf8ToWideLossy(addr), port);
  platform::Socket sock;
  return sock.OpenUdp().Ok() && sock.Bind(local.Raw()).Ok();
}

std::string Unit::Id() const {
  return platform::WideToUtf8Lossy(id);
}
std::string Unit::Type() const {
  return platform::WideToUtf8Lossy(type);
}
std::string Unit::Control() const {
  return ToText(control);
}

NetAddr Unit::Output(uint32_t output) const {
  NetAddr addr;
  addr.SetFromTextAndPort(control.ToText(), rtpPort + 2 * output);
  return addr;
}

NetAddr ParseAddr(const std::string& text, uint16_t defaultPort) {
  NetAddr addr;
  // The limited broadcast address is the value that stands for "undefined" in the system.
  if (!addr.SetFromText(platform::Utf8ToWideLossy(text))) {
    throw Failure{kUsage, "\"" + text + "\" is no address; it must read a.b.c.d or a.b.c.d:port" +
                              (text.starts_with("255.255.255.255")
                                   ? " (for a broadcast give the subnet's broadcast address)"
                                   : "")};
  }
  if (addr.Port() == 0) addr.SetFromTextAndPort(addr.ToText(), defaultPort);
  return addr;
}

Discovery::Discovery()
    : net_(INetManager::Create()),
      manager_(IJsonUdpManager::Create(L"qz640ctl.find", net_.get())) {}

Discovery::~Discovery() {
  manager_->Stop();
  manager_.reset();
}

std::vector<NetAddr> Discovery::AllInterfaces() {
  std::vector<NetAddr> all;
  for (const platform::Interface& interface : platform::ListInterfaces()) {
    NetAddr addr(interface.broadcast);
    if (!addr.SetFromTextAndPort(addr.ToText(), kDiscoveryPort)) continue;
    if (std::find(all.begin(), all.end(), addr) == all.end()) all.push_back(addr);
  }
  return all;
}

std::vector<Unit> Discovery::Find(const std::vector<NetAddr>& to, uint32_t timeoutMs,
                                  uint32_t roundMs) {
  JsonUdpInfo info;
  info.Receiver = this;
  info.BindAddr = AnyAddr();
  info.Broadcast = true;
  manager_->Init(info);
  const ErrInfo err = manager_->Start();
  if (!err.IsOk()) NoSocket(err);

  const auto end = steady_clock::now() + milliseconds(timeoutMs);
  size_t before = 0;
  size_t after = 0;
  do {
    before = after;
    for (const NetAddr& addr : to)
      manager_->SendDirect(std::make_shared<JsonMsgDevFind>(), addr);
    if (platform::WaitForStop(roundMs)) break;
    std::lock_guard lock(mutex_);
    after = units_.size();
  } while ((after == 0 || after > before) && steady_clock::now() < end);
  manager_->Stop();

  std::lock_guard lock(mutex_);
  std::sort(units_.begin(), units_.end(),
            [](const Unit& a, const Unit& b) { return IsBefore(a.control, b.control); });
  const std::vector<platform::Interface> own = platform::ListInterfaces();
  std::vector<Unit> found;
  for (const Unit& unit : units_) {
    const auto same = [&](const Unit& other) { return IsSameUnit(unit, other, own); };
    if (std::none_of(found.begin(), found.end(), same)) found.push_back(unit);
  }
  return found;
}

void Discovery::OnMsgReceived(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg,
                              const NetAddr& from) {
  if (dynamic_cast<const JsonMsgAck*>(msg.get())) return;
  manager->SendDirect(std::make_shared<JsonMsgAck>(msg->msg_id), from);
  const auto* info = dynamic_cast<const JsonMsgDevInfo*>(msg.get());
  if (!info) return;
  std::lock_guard lock(mutex_);
  const bool known = std::any_of(units_.begin(), units_.end(),
                                 [&](const Unit& unit) { return unit.control == from; });
  if (known) return;
  units_.push_back(ToUnit(*info, from));
}

NetAddr ControlAddr(const std::string& name) {
  NetAddr addr;
  if (!addr.SetFromText(platform::Utf8ToWideLossy(name)) || addr.Port() == 0) return {};
  return addr;
}

Unit ToUnit(const JsonMsgDevInfo& info, const NetAddr& from) {
  return {from, info.unit_id, info.unit_type, info.rtp_port, info.inputs, info.outputs};
}

Unit FindUnit(const std::string& name, const std::vector<NetAddr>& discoverAt, uint32_t timeoutMs) {
  const NetAddr addr = ControlAddr(name);
  if (addr.IsDefined()) {
    UnitLink link(addr, timeoutMs);
    return ToUnit(*link.Ask<JsonMsgDevInfo>(std::make_shared<JsonMsgGetDevInfo>()), addr);
  }

  const std::vector<Unit> all = Discovery().Find(discoverAt, timeoutMs);
  std::vector<Unit> named;
  std::string others;
  for (const Unit& unit : all) {
    if (unit.Id() == name) named.push_back(unit);
    others += (others.empty() ? "" : ", ") + unit.Id();
  }
  if (named.size() == 1) return named.front();
  if (named.size() > 1) {
    throw Failure{kRefused, std::to_string(named.size()) + " units are called \"" + name +
                                "\"; name one by its address, such as " + named.front().Control()};
  }
  if (all.empty()) {
    throw Failure{kNoAnswer,
                  "no unit answered the discovery; is one running, with \"AddrStr\" set "
                  "to an address of this network? (qz640ctl doctor looks closer)"};
  }
  throw Failure{kNoAnswer,
                "no unit \"" + name + "\" answered; name one of these that did: " + others};
}

UnitLink::UnitLink(const NetAddr& control, uint32_t timeoutMs)
    : control_(control),
      timeoutMs_(timeoutMs),
      net_(INetManager::Create()),
      connect_(IJsonUdpConnect::Create(L"qz640ctl", net_.get())) {
  JsonUdpInfo info;
  info.Receiver = this;
  info.BindAddr = AnyAddr();
  connect_->Init(info);
  const ErrInfo err = connect_->Start();
  if (!err.IsOk()) NoSocket(err);
}

UnitLink::~UnitLink() {
  connect_->Stop();
  connect_.reset();
}

std::shared_ptr<JsonMsg> UnitLink::Exchange(const std::shared_ptr<JsonMsg>& request,
                                            const Wanted& wanted) {
  const std::string name = platform::WideToUtf8Lossy(request->msg);
  std::unique_lock lock(mutex_);
  wanted_ = wanted;
  answer_.reset();
  sent_.reset();
  error_.clear();
  connect_->Send(request, control_);
  const bool done = changed_.wait_for(lock, milliseconds(timeoutMs_), [&] {
    const bool acknowledged = sent_ == request;
    return !error_.empty() || (wanted ? answer_ != nullptr : acknowledged);
  });
  wanted_ = nullptr;
  if (const auto* refusal = dynamic_cast<const JsonMsgError*>(answer_.get())) {
    throw Failure{kRefused, "the unit refused \"" + name +
                                "\": " + platform::WideToUtf8Lossy(refusal->txt) + " (code " +
                                std::to_string(refusal->code) + ")"};
  }
  if (answer_) return answer_;
  if (!error_.empty()) {
    throw Failure{kNoAnswer, ToText(control_) + " doesn't acknowledge \"" + name +
                                 "\": is a unit running there, and does a firewall let UDP "
                                 "through?"};
  }
  if (!done || wanted) {
    throw Failure{kNoAnswer, ToText(control_) + " has not answered \"" + name + "\" within " +
                                 std::to_string(timeoutMs_) +
                                 " ms; give it longer with --timeout, or look at the unit's log"};
  }
  return nullptr;
}

void UnitLink::Tell(const std::shared_ptr<JsonMsg>& request) {
  Exchange(request, nullptr);
}

void UnitLink::OnMsgSent(IJsonUdpManager*, const std::shared_ptr<JsonMsg>& msg) {
  std::lock_guard lock(mutex_);
  sent_ = msg;
  changed_.notify_all();
}

void UnitLink::OnMsgReceived(IJsonUdpManager*, const std::shared_ptr<JsonMsg>& msg,
                             const NetAddr& from) {
  std::lock_guard lock(mutex_);
  if (!(from == control_) || !wanted_) return;
  if (!wanted_(*msg) && !dynamic_cast<const JsonMsgError*>(msg.get())) return;
  answer_ = msg;
  changed_.notify_all();
}

void UnitLink::OnError(IJsonUdpManager*, ErrInfo err) {
  std::lock_guard lock(mutex_);
  error_ = err.ToString();
  changed_.notify_all();
}

}  // namespace ctl
