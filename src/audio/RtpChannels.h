// The two ends of an audio stream: each channel owns one UDP socket and moves the packets of one
// stereo pair. They know nothing of sequence numbers; their manager does.
//
// No thread of their own. The ring of a receive channel has no lock: the manager holds its own
// around PutPacket and TakePacket. The address of a send channel has a small mutex.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "audio/IRtp.h"
#include "audio/RtpPacket.h"
#include "runtime/IDebugLog.h"
#include "sockets/IUdpSock.h"

namespace Network {

class INetManager;

class RtpSendChan final {
 public:
  // Opens the socket, unbound. If that fails, the failure is logged and every Send fails.
  // `netManager` outlives the channel.
  RtpSendChan(const std::wstring& name, INetManager* netManager, const RtpSendChanInfo& info);
  virtual ~RtpSendChan();
  RtpSendChan(const RtpSendChan&) = delete;
  RtpSendChan& operator=(const RtpSendChan&) = delete;

  const std::wstring& Name() const { return name_; }
  uint32_t PayloadType() const { return payloadType_; }

  // Any thread. Always succeeds. The address stands here alone; the socket has none of its own.
  RtpSendChanInfo GetSendChanAddr() const;
  ErrInfo SetSendChanAddr(const NetAddr& addr);

  // To the channel's address, on the caller's thread.
  ErrInfo Send(const RtpPacket& packet);

  // As Send, but without an address nothing is sent, which is no failure.
  ErrInfo SendIfOn(const RtpPacket& packet);

 private:
  ErrInfo SendTo(const RtpPacket& packet, const NetAddr& to);

  const std::wstring name_;
  const uint32_t payloadType_;
  mutable std::mutex addrMutex_;
  NetAddr addr_;  // under addrMutex_
  std::shared_ptr<IUdpSock> sock_;
};

class RtpRecvChan;

class IRtpReceiver {
 public:
  // On the worker thread of the channel's socket. The packet has a whole header.
  virtual void OnRtpPacket(RtpRecvChan* channel, RtpPacket packet) = 0;

 protected:
  ~IRtpReceiver() = default;
};

struct RtpRecvChanInfo {
  NetAddr BindAddr;
  IRtpReceiver* Receiver = nullptr;  // not owned
  uint32_t BufSize = kRingPackets;   // packets in the ring
};

class RtpRecvChan final : public IUdpReceiver {
 public:
  // Opens the socket: packets may come in before the constructor returns. If it can't be opened,
  // the failure is logged and the ring stays empty. `netManager` outlives the channel.
  RtpRecvChan(const std::wstring& name, INetManager* netManager, const RtpRecvChanInfo& info);

  void OnDatagramReceived(IUdpSock* sock, std::shared_ptr<Packet> packet,
                          const NetAddr& from) override;
  void OnError(IUdpSock* sock, ErrInfo err) override;

  // Waits for a delivery in progress, so not with a lock held that the receiver takes.
  virtual ~RtpRecvChan();
  RtpRecvChan(const RtpRecvChan&) = delete;
  RtpRecvChan& operator=(const RtpRecvChan&) = delete;

  const std::wstring& Name() const { return name_; }

  // Slot 0 is the packet of the next tick; `slot` is below BufSize. Replaces what was there.
  void PutPacket(RtpPacket packet, uint32_t slot);

  // The packet of slot 0, empty if none is there; all others move down by one. Logs when packets
  // begin and cease to come out.
  RtpPacket TakePacket();

 private:
  const std::wstring name_;
  const std::shared_ptr<IDebugLog> log_;
  IRtpReceiver* const receiver_;
  std::vector<RtpPacket> ring_;  // always BufSize slots
  bool streamOk_ = false;        // the latest TakePacket found a packet
  std::shared_ptr<IUdpSock> sock_;
};

}  // namespace Network
