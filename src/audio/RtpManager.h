// All channels of one unit, and the jitter logic between them: packets that come in are placed in
// the rings by sequence number, and each tick takes one packet from every ring and moves on by one.
//
// Threads: OnRtpPacket on the worker of the net manager, RecvPackets and SendPackets on the thread
// of the ticks, the rest on the owner's thread. Lock: RecvChansLock over the stream position, the
// rings, the receive channels and the set-up. It is held while targets hear of the position -1:
// they must not call back then.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "audio/IRtp.h"
#include "audio/RtpChannels.h"
#include "runtime/Statistics.h"
#include "runtime/TrackedMutex.h"

namespace Network {

class RtpManager final : public IRtpManager, public IRtpReceiver {
 public:
  // `name` begins the names of the channels and stands in the log lines; `netManager` outlives the
  // object.
  RtpManager(const std::wstring& name, INetManager* netManager);

  void AddTarget(ISyncTarget* target) override;
  ErrInfo DelTarget(ISyncTarget* target) override;
  ~RtpManager() override;
  RtpManager(const RtpManager&) = delete;
  RtpManager& operator=(const RtpManager&) = delete;

  // Packets may come in meanwhile, ticks may not. The stream position is kept.
  ErrInfo Init(const RtpManagerInfo& info) override;

  // Start and Stop only set the flag and end the statistics: packets are taken and sent whenever
  // they are asked for. Stop after the last tick.
  ErrInfo Start() override;
  void Stop() override;
  bool IsStarted() override;

  uint64_t GetRecvChanCount() override;
  uint64_t GetSendChanCount() override;
  ErrInfo SetSendChanAddr(uint64_t index, const NetAddr& addr) override;
  NetAddr GetSendChanAddr(uint64_t index) override;
  ErrInfo RecvPackets(std::vector<RtpPacket>& packets) override;
  ErrInfo SendPackets(std::vector<RtpPacket>& packets) override;
  void SetSendFilter(IRtpSendFilter* filter) override;

  void OnRtpPacket(RtpRecvChan* channel, RtpPacket packet) override;

  // `index` is below GetSendChanCount.
  uint32_t SendChanPayloadType(uint64_t index) const { return sendChans_[index]->PayloadType(); }

 private:
  // Where the stream stands. Numbers are extended beyond the bits that they have on the wire.
  struct StreamPos {
    bool Ok = false;
    int64_t SeqNumPos = 0;  // the sequence number of ring slot 0; negative early in a stream
    int64_t SeqNum = 0;     // highest seen
    int64_t TsPos = 0;      // highest timestamp seen
  };

  // Under RecvChansLock; both return the packet's extended sequence number. Follow clears the
  // stream's Ok when the packet shows that the position is lost.
  int64_t Follow(const RtpHeader& header);
  int64_t Anchor(const RtpHeader& header);

  void SendOne(RtpSendChan& channel, const RtpPacket& packet);
  void Report(int64_t pos, uint32_t sampleFreq);
  void WriteLog(const std::wstring& line) const;

  const std::wstring name_;
  INetManager* const netManager_;
  const std::shared_ptr<IDebugLog> log_;
  std::set<ISyncTarget*> targets_;  // changed only while no packets come in
  bool started_ = false;

  // Used on the thread of the ticks alone.
  IRtpSendFilter* filter_ = nullptr;
  int64_t sendSeq_ = 0;  // sequence number and timestamp of the next SendPackets; both go on over
  int64_t sendTs_ = 0;   // stops and new channels
  StatSeries sendSeries_;

  TrackedMutex recvChansLock_{L"RtpManager::RecvChansLock"};
  RtpManagerInfo info_;
  StreamPos stream_;
  StatSeries recvSeries_;
  StatInterval positionGate_;

  std::vector<std::shared_ptr<RtpRecvChan>> recvChans_;
  std::vector<std::shared_ptr<RtpSendChan>> sendChans_;
};

}  // namespace Network
