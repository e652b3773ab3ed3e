// What the tests of the control protocol share: messages as datagrams and back, and a user of a
// manager or connection that records what is reported to it. Any thread.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "control/IJsonUdp.h"
#include "control/JsonMsgs.h"

using DatagramBytes = std::vector<uint8_t>;

// The datagram of a message as it stands, `att` included.
inline DatagramBytes ToDatagram(const Network::JsonMsg& msg) {
  Network::Packet packet(msg.attachment.size() + 4096);
  const ErrInfo err = msg.ToPacket(packet);
  EXPECT_TRUE(err.IsOk());
  return DatagramBytes(packet.Data(), packet.Data() + packet.Size());
}

inline std::shared_ptr<Network::JsonMsg> FromDatagram(const DatagramBytes& bytes) {
  Network::Packet packet(bytes.size());
  packet.Resize(bytes.size());
  std::copy(bytes.begin(), bytes.end(), packet.Data());
  return std::shared_ptr<Network::JsonMsg>(Network::JsonMsg::FromPacket(packet));
}

// Bytes of which each shows its place, so that a gap or a swap shows.
inline DatagramBytes PatternBytes(size_t size, uint32_t seed = 0) {
  DatagramBytes bytes(size);
  uint32_t state = seed * 2654435761U + 1;
  for (uint8_t& byte : bytes) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<uint8_t>(state >> 24);
  }
  return bytes;
}

struct ReceivedMsg {
  std::shared_ptr<Network::JsonMsg> msg;
  Network::NetAddr from;
};

// A failure that is reported to it dies here, and so ends in the log, where the test takes it.
class RecordingReceiver final : public Network::IJsonUdpReceiver {
 public:
  // Called without a lock, on the caller's thread, after the recording. Set before the start.
  std::function<void(const std::shared_ptr<Network::JsonMsg>&)> onSent;
  std::function<void(const std::shared_ptr<Network::JsonMsg>&, const Network::NetAddr&)> onReceived;
  std::function<void(const std::wstring&)> onError;

  void OnMsgSent(Network::IJsonUdpManager* manager,
                 const std::shared_ptr<Network::JsonMsg>& msg) override {
    Record(manager, [&] { sent_.push_back(msg); });
    if (onSent) onSent(msg);
  }

  void OnMsgReceived(Network::IJsonUdpManager* manager,
                     const std::shared_ptr<Network::JsonMsg>& msg,
                     const Network::NetAddr& from) override {
    Record(manager, [&] { received_.push_back({msg, from}); });
    if (onReceived) onReceived(msg, from);
  }

  void OnError(Network::IJsonUdpManager* manager, ErrInfo err) override {
    Record(manager, [&] { errors_.push_back(err.ToString()); });
    if (onError) onError(err.ToString());
  }

  std::vector<std::shared_ptr<Network::JsonMsg>> Sent() const { return Copy(sent_); }
  std::vector<ReceivedMsg> Received() const { return Copy(received_); }
  std::vector<std::wstring> Errors() const { return Copy(errors_); }

  // The source of the latest call.
  Network::IJsonUdpManager* Source() const { return Copy(source_); }

  // Waits, ten seconds at most, until `done` holds; it is looked at after each call.
  bool WaitUntil(const std::function<bool(const RecordingReceiver&)>& done) const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
      const size_t seen = Copy(calls_);
      if (done(*this)) return true;
      std::unique_lock lock(mutex_);
      if (!called_.wait_until(lock, end, [&] { return calls_ != seen; })) return false;
    }
  }

 private:
  template <typename Action>
  void Record(Network::IJsonUdpManager* manager, Action action) {
    std::lock_guard lock(mutex_);
    source_ = manager;
    action();
    ++calls_;
    called_.notify_all();
  }

  template <typename T>
  T Copy(const T& value) const {
    std::lock_guard lock(mutex_);
    return value;
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable called_;
  std::vector<std::shared_ptr<Network::JsonMsg>> sent_;
  std::vector<ReceivedMsg> received_;
  std::vector<std::wstring> errors_;
  Network::IJsonUdpManager* source_ = nullptr;
  size_t calls_ = 0;
};
