#include "audio/RtpManager.h"

#include <algorithm>
#include <utility>

#include "runtime/Clocks.h"
#include "runtime/Environment.h"
#include "runtime/Format.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\RtpManager";

// The number nearest to `last` that ends in the given bits: a step of half the range or more reads
// as a step back.
int64_t ExtendSeq(int64_t last, uint16_t bits) {
  return last + static_cast<int16_t>(static_cast<uint16_t>(bits - static_cast<uint16_t>(last)));
}

int64_t ExtendTs(int64_t last, uint32_t bits) {
  return last + static_cast<int32_t>(bits - static_cast<uint32_t>(last));
}

}  // namespace

RtpManager::RtpManager(const std::wstring& name, INetManager* netManager)
    : name_(name),
      netManager_(netManager),
      log_(GetDebugLog()),
      sendSeries_(Format(L"%s.Send", name)),
      recvSeries_(Format(L"%s.Recv", name)) {
  for (StatSeries* series : {&sendSeries_, &recvSeries_})
    series->Configure(StatSeries::kMeanAndSpread, 1, static_cast<int64_t>(ClockFrequency()), 1000,
                      0, 50);
  positionGate_.SetPeriod(1);
}

RtpManager::~RtpManager() {
  // Each waits for a delivery in progress, which still needs all of this object.
  recvChans_.clear();
  sendChans_.clear();
}

void RtpManager::AddTarget(ISyncTarget* target) {
  targets_.insert(target);
}

ErrInfo RtpManager::DelTarget(ISyncTarget* target) {
  ErrInfo err = ERR_HERE("Network::RtpManager::DelTarget");
  if (targets_.erase(target) == 0) return err.SetText(L"Sync target not found");
  return err;
}

ErrInfo RtpManager::Init(const RtpManagerInfo& info) {
  if (ErrInfo err = info.IsValid(); !err.IsOk()) return err;

  // The old channels end first, as the new ones may want their ports, and outside the lock, as
  // each waits for a delivery that may want it. Such a delivery still goes by the old set-up, which
  // fits the old rings.
  std::vector<std::shared_ptr<RtpRecvChan>> recvChans;
  {
    ScopedLock lock(recvChansLock_);
    recvChans.swap(recvChans_);
  }
  recvChans.clear();
  {
    ScopedLock lock(recvChansLock_);
    info_ = info;
  }

  for (const NetAddr& addr : info.RecvAddrs) {
    const std::wstring name = Format(L"%s.Recv.%d", name_, recvChans.size());
    const RtpRecvChanInfo chanInfo{addr, this, info.RecvBufSize};
    recvChans.push_back(std::make_shared<RtpRecvChan>(name, netManager_, chanInfo));
  }
  {
    ScopedLock lock(recvChansLock_);
    recvChans_.swap(recvChans);
  }

  sendChans_.clear();
  for (const RtpSendChanInfo& chanInfo : info.SendChans) {
    const std::wstring name = Format(L"%s.Send.%d", name_, sendChans_.size());
    sendChans_.push_back(std::make_shared<RtpSendChan>(name, netManager_, chanInfo));
  }
  return ERR_HERE("Network::RtpManager::Init");
}

ErrInfo RtpManager::Start() {
  started_ = true;
  return ERR_HERE("Network::RtpManager::Start");
}

void RtpManager::Stop() {
  started_ = false;
  sendSeries_.Flush();
  // The worker still receives, and adds to this series under the lock.
  ScopedLock lock(recvChansLock_);
  recvSeries_.Flush();
}

bool RtpManager::IsStarted() {
  return started_;
}

uint64_t RtpManager::GetRecvChanCount() {
  return recvChans_.size();
}

uint64_t RtpManager::GetSendChanCount() {
  return sendChans_.size();
}

ErrInfo RtpManager::SetSendChanAddr(uint64_t index, const NetAddr& addr) {
  if (index >= sendChans_.size())
    return ERR_HERE("Network::RtpManager::SetSendChanAddr").SetText(L"Incorrect channel index");
  return sendChans_[index]->SetSendChanAddr(addr);
}

NetAddr RtpManager::GetSendChanAddr(uint64_t index) {
  return index < sendChans_.size() ? sendChans_[index]->GetSendChanAddr().Addr : NetAddr();
}

void RtpManager::SetSendFilter(IRtpSendFilter* filter) {
  filter_ = filter;
}

void RtpManager::WriteLog(const std::wstring& line) const {
  if (log_) log_->Write(line);
}

void RtpManager::Report(int64_t pos, uint32_t sampleFreq) {
  for (ISyncTarget* target : targets_)
    target->OnSync(this, pos, sampleFreq);
}

// A stream is anchored on its first packet: that packet goes RecvBufPos slots ahead of the next
// tick, so that each later one has that many ticks to spare before it is missed. With 9 slots and
// 5: packet 1000 lies in slot 5 and comes out at the sixth tick; 1003 is the furthest ahead that
// still has a slot. From then on the position moves by one a tick and knows nothing of the sender's
// clock, so the two drift apart until a packet has no place any more. That packet becomes the new
// anchor, which costs one jump and brings the delay back to where it began; waiting for the old
// position to fit again would be silence without an end.
void RtpManager::OnRtpPacket(RtpRecvChan* channel, RtpPacket packet) {
  const RtpHeader header = packet.GetHeader();
  bool notify = true;
  int64_t pos = 0;
  uint32_t sampleFreq = 0;
  {
    ScopedLock lock(recvChansLock_);
    int64_t seq = 0;
    if (stream_.Ok) {
      const int64_t oldTs = stream_.TsPos;
      seq = Follow(header);
      notify = stream_.TsPos != oldTs;
    }
    if (!stream_.Ok) seq = Anchor(header);

    const int64_t slot = seq - stream_.SeqNumPos;
    if (slot >= 0 && slot < int64_t{info_.RecvBufSize})
      channel->PutPacket(std::move(packet), static_cast<uint32_t>(slot));
    pos = stream_.TsPos;
    sampleFreq = info_.SampleFreq;
  }
  if (notify) Report(pos, sampleFreq);
}

int64_t RtpManager::Follow(const RtpHeader& header) {
  StreamPos& s = stream_;
  const int64_t oldSeq = s.SeqNum;
  const int64_t seq = ExtendSeq(s.SeqNum, header.SeqNumber);
  const int64_t ts = ExtendTs(s.TsPos, header.Timestamp);
  if (seq > s.SeqNum) {
    s.SeqNum = seq;
    recvSeries_.Sample(ClockRead(nullptr));
    if (positionGate_.Due())
      WriteLog(Format(L"STATISTICS: %s: SeqNumPos=%I64d, SeqNum=%I64d, PosInBuf=%I64d", name_,
                      s.SeqNumPos, s.SeqNum, seq - s.SeqNumPos));
  }
  s.TsPos = std::max(s.TsPos, ts);

  // The position is lost in two cases. The stream ran dry: the ticks have gone on past the highest
  // number that ever came, as when slot 0 waits for 1010 and nothing newer than 1008 is here. Or it
  // ran ahead: this packet would need a slot after the last. A packet that is merely late, 1007
  // while 1012 has come already, is neither; it finds no slot and is dropped.
  if (s.SeqNum < s.SeqNumPos || seq >= s.SeqNumPos + int64_t{info_.RecvBufSize}) {
    s.Ok = false;
    WriteLog(
        Format(L"%s: Stream ERROR. SeqNumPos=%I64d, SeqNum=%I64d, seq_num=%I64d, "
               L"old_seq_num=%I64d, PosInBuf=%I64d",
               name_, s.SeqNumPos, s.SeqNum, seq, oldSeq, seq - s.SeqNumPos));
  }
  return seq;
}

// Makes this packet the first of the stream. The rings keep what they hold: it comes out at the
// next ticks unless packets of the new stream replace it.
int64_t RtpManager::Anchor(const RtpHeader& header) {
  Report(-1, info_.SampleFreq);
  StreamPos& s = stream_;
  s.Ok = true;
  s.SeqNum = header.SeqNumber;
  s.SeqNumPos = s.SeqNum - int64_t{info_.RecvBufPos};
  s.TsPos = header.Timestamp;
  WriteLog(Format(L"%s: Stream OK. SeqNumPos=%I64d, SeqNum=%I64d, PosInBuf=%I64d", name_,
                  s.SeqNumPos, s.SeqNum, s.SeqNum - s.SeqNumPos));
  return s.SeqNum;
}

ErrInfo RtpManager::RecvPackets(std::vector<RtpPacket>& packets) {
  ScopedLock lock(recvChansLock_);
  packets.resize(recvChans_.size());
  for (size_t i = 0; i < packets.size(); ++i)
    packets[i] = recvChans_[i]->TakePacket();
  ++stream_.SeqNumPos;
  return ERR_HERE("Network::RtpManager::RecvPackets");
}

ErrInfo RtpManager::SendPackets(std::vector<RtpPacket>& packets) {
  sendSeries_.Sample(ClockRead(nullptr));
  const size_t count = std::min(packets.size(), sendChans_.size());
  for (size_t i = 0; i < count; ++i) {
    RtpHeader header = packets[i].GetHeader();
    header.SeqNumber = static_cast<uint16_t>(sendSeq_);
    header.Timestamp = static_cast<uint32_t>(sendTs_);
    packets[i].SetHeader(header);
    SendOne(*sendChans_[i], packets[i]);
  }
  ++sendSeq_;
  sendTs_ += kTickSamples;  // however many samples the packets hold
  return ERR_HERE("Network::RtpManager::SendPackets");
}

// A datagram that can't be sent is one line in the log; the stream goes on.
void RtpManager::SendOne(RtpSendChan& channel, const RtpPacket& packet) {
  if (filter_) {
    std::vector<RtpPacket> replacements;
    if (!filter_->Filter(packet, replacements)) {
      for (const RtpPacket& replacement : replacements)
        channel.Send(replacement);
      return;
    }
  }
  channel.SendIfOn(packet);
}

}  // namespace Network
