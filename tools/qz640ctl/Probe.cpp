#include "Probe.h"

#include <algorithm>
#include <chrono>

#include "platform/clock.h"
#include "platform/text.h"
#include "runtime/Clocks.h"

namespace ctl {

using namespace Network;

Probe::Probe()
    : net_(INetManager::Create()),
      manager_(IJsonUdpManager::Create(L"qz640ctl.probe", net_.get())) {
  JsonUdpInfo info;
  info.Receiver = this;
  info.BindAddr.SetFromText(L"0.0.0.0");
  info.Broadcast = true;
  manager_->Init(info);
  const ErrInfo err = manager_->Start();
  if (err.IsOk()) return;
  throw Failure{kNoPort,
                "can't open a control socket:" + platform::WideToUtf8Lossy(err.ToString())};
}

Probe::~Probe() {
  manager_->Stop();
}

void Probe::SetAcknowledge(bool on) {
  std::lock_guard lock(mutex_);
  acknowledge_ = on;
}

int64_t Probe::Send(const std::shared_ptr<JsonMsg>& msg, const NetAddr& to) {
  const int64_t now = ClockRead(nullptr);
  manager_->SendDirect(msg, to);
  return now;
}

void Probe::Clear() {
  std::lock_guard lock(mutex_);
  arrivals_.clear();
}

std::optional<Probe::Arrival> Probe::Wait(const Test& test, uint32_t milliseconds) {
  std::unique_lock lock(mutex_);
  std::optional<Arrival> found;
  arrived_.wait_for(lock, std::chrono::milliseconds(milliseconds), [&] {
    const auto first = std::find_if(arrivals_.begin(), arrivals_.end(), test);
    if (first != arrivals_.end()) found = *first;
    return found.has_value();
  });
  return found;
}

std::vector<Probe::Arrival> Probe::Collect(const Test& test, uint32_t milliseconds) {
  platform::GetClock().Sleep(milliseconds);
  std::lock_guard lock(mutex_);
  std::vector<Arrival> all;
  std::copy_if(arrivals_.begin(), arrivals_.end(), std::back_inserter(all), test);
  return all;
}

void Probe::OnMsgReceived(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg,
                          const NetAddr& from) {
  const int64_t now = ClockRead(nullptr);
  const bool isAck = dynamic_cast<const JsonMsgAck*>(msg.get()) != nullptr;
  bool acknowledge = false;
  {
    std::lock_guard lock(mutex_);
    arrivals_.push_back({msg, from, now});
    acknowledge = acknowledge_ && !isAck;
    arrived_.notify_all();
  }
  if (acknowledge) manager->SendDirect(std::make_shared<JsonMsgAck>(msg->msg_id), from);
}

}  // namespace ctl
