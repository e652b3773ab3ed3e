// RTP audio as its users see it: the set-up of a manager, and the managers' interfaces.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "audio/Format.h"
#include "audio/ISyncManager.h"
#include "runtime/ErrInfo.h"
#include "sockets/NetAddr.h"

namespace Network {

class INetManager;
class RtpPacket;

struct RtpSendChanInfo {
  NetAddr Addr;  // undefined: nothing is sent
  uint32_t PayloadType = 0;
};

struct RtpManagerInfo {
  uint32_t SampleFreq = 0;                 // Hz
  uint32_t PacketSmplSize = 0;             // samples per channel and packet
  uint32_t RecvBufSize = kRingPackets;     // packets in each receive ring
  uint32_t RecvBufPos = kRingDelay;        // ring slot of a stream's first packet
  std::vector<NetAddr> RecvAddrs;          // one local address for each receive channel
  std::vector<RtpSendChanInfo> SendChans;  // one entry for each send channel

  ErrInfo IsValid() const;
};

// What stands between a packet and its channel; nothing in this system sets one. False: the packets
// in `out` go out in place of `packet`.
class IRtpSendFilter {
 public:
  virtual bool Filter(const RtpPacket& packet, std::vector<RtpPacket>& out) = 0;

 protected:
  ~IRtpSendFilter() = default;
};

// All channels of one unit, and the destinations of those that send. RecvPackets and SendPackets
// are called on the thread of the ticks; Init only while no tick runs; SetSendChanAddr and
// GetSendChanAddr on any thread, but not during Init.
class IRtpManager : public ISyncSource {
 public:
  virtual ~IRtpManager() = default;

  virtual ErrInfo Init(const RtpManagerInfo& info) = 0;  // replaces all channels
  virtual ErrInfo Start() = 0;
  virtual void Stop() = 0;
  virtual bool IsStarted() = 0;
  virtual uint64_t GetRecvChanCount() = 0;
  virtual uint64_t GetSendChanCount() = 0;
  virtual ErrInfo SetSendChanAddr(uint64_t index, const NetAddr& addr) = 0;

  // One packet from each receive ring; an empty entry where nothing arrived for this tick.
  virtual ErrInfo RecvPackets(std::vector<RtpPacket>& packets) = 0;

  // One packet for each send channel, stamped here with one sequence number and timestamp.
  virtual ErrInfo SendPackets(std::vector<RtpPacket>& packets) = 0;

  virtual void SetSendFilter(IRtpSendFilter* filter) = 0;

  // Where the packets of a send channel go; undefined: nowhere, or there is no such channel.
  virtual NetAddr GetSendChanAddr(uint64_t index) = 0;
};

// Float buffers of the caller: two for each channel, left then right, `count` samples each. On the
// thread of the ticks.
class IRtpAudio {
 public:
  virtual ErrInfo RecvAudio(const std::vector<float*>& buffers, uint32_t count) = 0;
  virtual ErrInfo SendAudio(const std::vector<float*>& buffers, uint32_t count) = 0;

 protected:
  ~IRtpAudio() = default;
};

class IRtpAudioManager : public IRtpManager, public IRtpAudio {
 public:
  // The caller owns the object; `netManager` outlives it.
  static IRtpAudioManager* Create(const std::wstring& name, INetManager* netManager);
};

}  // namespace Network
