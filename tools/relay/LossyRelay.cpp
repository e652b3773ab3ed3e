#include "relay/LossyRelay.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "runtime/Clocks.h"

namespace relay {

namespace {

constexpr char kSourceFile[] = "tools\\LossyRelay";

constexpr uint32_t kMaxDatagram = 65536;
constexpr uint32_t kIdleWaitMs = 1000;
constexpr int64_t kTicksPerMs = 10'000;

LinkCounts& operator+=(LinkCounts& sum, const LinkCounts& more) {
  sum.taken += more.taken;
  sum.lost += more.lost;
  sum.duplicated += more.duplicated;
  sum.heldBack += more.heldBack;
  sum.corrupted += more.corrupted;
  return sum;
}

}  // namespace

LossyRelay::LossyRelay(Network::INetManager* netManager) : netManager_(netManager) {}

LossyRelay::~LossyRelay() {
  Stop();
}

ErrInfo LossyRelay::Start(const RelayInfo& info) {
  Stop();
  info_ = info;
  Network::UdpSockInfo sockInfo;
  sockInfo.BindAddr = info.listen;
  sockInfo.MaxPacketSize = kMaxDatagram;
  sockInfo.Receiver = this;
  const Sock sock = netManager_->CreateUdpSock();
  {
    std::lock_guard lock(mutex_);
    listening_ = sock;
    goneThere_ = goneBack_ = {};
    flowsMade_ = 0;
    stop_ = false;
  }
  ErrInfo err = sock->Open(sockInfo);
  if (!err.IsOk()) {
    Stop();
    return err;
  }
  try {
    thread_ = std::thread([this] { Run(); });
  } catch (const std::system_error& error) {
    Stop();
    return ERR_HERE("relay::LossyRelay::Start")
        .SetCode(static_cast<uint32_t>(error.code().value()), L"Can not start relay thread");
  }
  return ERR_HERE("relay::LossyRelay::Start");
}

void LossyRelay::Stop() {
  Sock listening;
  {
    std::lock_guard lock(mutex_);
    listening = std::exchange(listening_, nullptr);
    stop_ = true;
  }
  // Before the sockets go that the thread sends on.
  wake_.Set();
  if (thread_.joinable()) thread_.join();
  // Closed before the flows are taken, and without the lock that its callback takes: no flow is
  // added after this.
  if (listening) listening->Destroy();

  std::vector<std::unique_ptr<Flow>> flows;
  {
    std::lock_guard lock(mutex_);
    for (const auto& flow : flows_) {
      goneThere_ += flow->there.Counts();
      goneBack_ += flow->back.Counts();
    }
    flows.swap(flows_);
  }
  for (const auto& flow : flows)
    flow->towardsTarget->Destroy();
  std::lock_guard lock(mutex_);
  underWay_ = {};
  bytesUnderWay_ = 0;
}

void LossyRelay::SetFaults(const LinkFaults& faults) {
  std::lock_guard lock(mutex_);
  info_.faults = faults;
  for (const auto& flow : flows_) {
    flow->there.SetFaults(faults);
    flow->back.SetFaults(faults);
  }
}

LinkCounts LossyRelay::CountsThere() const {
  std::lock_guard lock(mutex_);
  LinkCounts sum = goneThere_;
  for (const auto& flow : flows_)
    sum += flow->there.Counts();
  return sum;
}

LinkCounts LossyRelay::CountsBack() const {
  std::lock_guard lock(mutex_);
  LinkCounts sum = goneBack_;
  for (const auto& flow : flows_)
    sum += flow->back.Counts();
  return sum;
}

void LossyRelay::OnDatagramReceived(Network::IUdpSock* sock,
                                    std::shared_ptr<Network::Packet> packet,
                                    const Network::NetAddr& from) {
  std::unique_lock lock(mutex_);
  Flow* flow = FindFlow(sock, from);
  if (!flow && sock == listening_.get()) {
    lock.unlock();
    AddFlow(from);
    lock.lock();
    flow = FindFlow(sock, from);
  }
  if (!flow || !listening_) return;
  flow->lastUse = ++order_;
  if (sock == listening_.get()) {
    Take(flow->there, flow->towardsTarget, info_.target, *packet);
  } else {
    Take(flow->back, listening_, flow->sender, *packet);
  }
}

// What a socket reports ends in the log; the network goes on.
void LossyRelay::OnError(Network::IUdpSock*, ErrInfo) {}

LossyRelay::Flow* LossyRelay::FindFlow(const Network::IUdpSock* sock,
                                       const Network::NetAddr& from) {
  const bool fromSender = sock == listening_.get();
  const auto found = std::find_if(flows_.begin(), flows_.end(), [&](const auto& flow) {
    return fromSender ? flow->sender == from : flow->towardsTarget.get() == sock;
  });
  return found == flows_.end() ? nullptr : found->get();
}

// On the manager's worker, the only thread that adds flows, so that none is made twice.
void LossyRelay::AddFlow(const Network::NetAddr& sender) {
  Network::UdpSockInfo sockInfo;
  sockInfo.BindAddr.SetFromTextAndPort(info_.listen.ToText(), 0);
  sockInfo.MaxPacketSize = kMaxDatagram;
  sockInfo.Receiver = this;
  const Sock sock = netManager_->CreateUdpSock();
  if (!sock->Open(sockInfo).IsOk()) {  // the failure is in the log; the datagram is lost
    sock->Destroy();
    return;
  }
  std::unique_ptr<Flow> removed;
  {
    std::lock_guard lock(mutex_);
    if (flows_.size() >= kMaxFlows) {
      const auto oldest =
          std::min_element(flows_.begin(), flows_.end(),
                           [](const auto& a, const auto& b) { return a->lastUse < b->lastUse; });
      goneThere_ += (*oldest)->there.Counts();
      goneBack_ += (*oldest)->back.Counts();
      removed = std::move(*oldest);
      flows_.erase(oldest);
    }
    const uint64_t number = (info_.number << 32) + 2 * flowsMade_++;
    flows_.push_back(std::make_unique<Flow>(Flow{sender, sock, LossyLink(info_.seed, number),
                                                 LossyLink(info_.seed, number + 1), ++order_}));
    flows_.back()->there.SetFaults(info_.faults);
    flows_.back()->back.SetFaults(info_.faults);
  }
  if (removed) removed->towardsTarget->Destroy();
}

void LossyRelay::Take(LossyLink& link, const Sock& sock, const Network::NetAddr& to,
                      const Network::Packet& packet) {
  const int64_t now = ClockTicks100ns();
  for (const Arrival& arrival : link.Next()) {
    if (bytesUnderWay_ + packet.Size() > kMaxBytesUnderWay) return;  // as a full router drops
    Due due{now + arrival.delay, ++order_, sock, to, {}};
    due.bytes.assign(packet.Data(), packet.Data() + packet.Size());
    if (arrival.damage != 0) Damage(arrival.damage, due.bytes.data(), due.bytes.size());
    bytesUnderWay_ += due.bytes.size();
    underWay_.push(std::move(due));
  }
  wake_.Set();
}

void LossyRelay::Run() {
  std::vector<Due> due;
  for (;;) {
    const uint32_t wait = TakeDue(&due);
    {
      std::lock_guard lock(mutex_);
      if (stop_) return;
    }
    for (const Due& copy : due)
      copy.sock->Send(copy.bytes.data(), copy.bytes.size(), copy.to);
    if (due.empty()) wake_.Wait(wait);
  }
}

// Takes out what is due, in its order. The result is the time to the next, in milliseconds.
uint32_t LossyRelay::TakeDue(std::vector<Due>* due) {
  due->clear();
  std::lock_guard lock(mutex_);
  const int64_t now = ClockTicks100ns();
  while (!underWay_.empty() && underWay_.top().time <= now) {
    bytesUnderWay_ -= underWay_.top().bytes.size();
    due->push_back(underWay_.top());
    underWay_.pop();
  }
  if (underWay_.empty()) return kIdleWaitMs;
  const int64_t ms = (underWay_.top().time - now + kTicksPerMs - 1) / kTicksPerMs;
  return static_cast<uint32_t>(std::min<int64_t>(ms, kIdleWaitMs));
}

}  // namespace relay
