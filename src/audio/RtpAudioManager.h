// The audio side of a unit: float buffers of its caller in, packets out, and back. One call moves
// one packet a channel, at once, on the caller's thread; nothing is kept in between.
//
// No thread and no lock of its own; RecvAudio and SendAudio run on the thread of the ticks, OnSync
// on the worker of the net manager.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "audio/IRtp.h"
#include "audio/RtpManager.h"

namespace Network {

class RtpAudioManager final : public IRtpAudioManager, public ISyncTarget {
 public:
  RtpAudioManager(const std::wstring& name, INetManager* netManager);

  // Targets see the timestamps of the received stream as positions, and -1 at each new beginning.
  void AddTarget(ISyncTarget* target) override;
  ErrInfo DelTarget(ISyncTarget* target) override;
  ~RtpAudioManager() override;
  RtpAudioManager(const RtpAudioManager&) = delete;
  RtpAudioManager& operator=(const RtpAudioManager&) = delete;

  ErrInfo Init(const RtpManagerInfo& info) override;
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

  // A failure may leave earlier pairs written; the tick is spent then too.
  ErrInfo RecvAudio(const std::vector<float*>& buffers, uint32_t count) override;

  // A failure sends nothing at all.
  ErrInfo SendAudio(const std::vector<float*>& buffers, uint32_t count) override;

  void OnSync(ISyncSource* source, int64_t pos, uint32_t freq) override;

 private:
  std::shared_ptr<RtpManager> manager_;
  std::set<ISyncTarget*> targets_;  // changed only while no packets come in
};

}  // namespace Network
