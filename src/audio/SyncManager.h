// The clock of one unit: turns the performance counter into ticks of SyncStep samples and calls its
// targets on each. It can lock the ticks to the rate of a source that reports its positions.
//
// Thread: none of its own. While started it is a client of the heartbeat, one of whose
// time-critical threads makes all of its passes; all targets run there.
// Locks: OutMutex (tick state, held during a tick), then InMutex (reports of the source); outside
// of both a lifecycle mutex, so that Start and Stop may come from any thread. A look that finds no
// tick due takes none of them.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "audio/Heartbeat.h"
#include "audio/ISyncManager.h"
#include "runtime/Statistics.h"
#include "runtime/TrackedMutex.h"

namespace Network {

// How far a source has come while the local clock came how far, both in samples of SyncFreq.
struct SyncRatio {
  int64_t source = 0;
  int64_t local = 0;

  bool IsValid() const { return source > 0 && local > 0; }
};

// The position reports of a source, from the first to the latest since the last reset: their span
// grows as long as reports come, and with it the precision of the ratio.
struct SyncReports {
  uint32_t InFreq = 0;  // rate of the source in Hz; 0: no report is held
  int32_t InCount = 0;
  int64_t InFirstPos = 0;  // positions of the source in samples of SyncFreq
  int64_t InLastPos = 0;
  int64_t InFirstClock = 0;  // local clock at these reports, in samples of SyncFreq
  int64_t InLastClock = 0;

  // `now`: the local clock in samples of syncFreq. The rest as in ISyncTarget::OnSync.
  void Report(int64_t pos, uint32_t freq, int64_t now, int32_t syncFreq);

  // Not valid before five reports and a fifth of a second.
  SyncRatio Ratio() const;
};

// Where the ticks stand on the local clock.
struct SyncPhase {
  enum class Step { Wait, Tick, Late };

  SyncRatio Ratio;       // valid: the ticks follow the source; else the local clock
  int64_t OutDue = -1;   // elapsed position of the latest tick; negative: none yet
  int64_t OutBase = -1;  // local clock in samples that counts as elapsed 0; negative: none yet

  // Takes over the ratio of the moment. Where it begins or ends to be valid, elapsed 0 moves to the
  // latest tick, so that the change of rate causes no jump.
  void SetRatio(const SyncRatio& present);

  // Whether a tick is due at local clock `now`, and if so, counts it as given. Late: more than 20
  // steps have been missed; the tick is due and the caller starts anew after it.
  Step Advance(int64_t now, int32_t step);

  // The local clock at which the next tick is due; negative: at once.
  int64_t NextTick(int32_t step) const;
};

class SyncManager final : public ISyncManager, private IBeatClient {
 public:
  explicit SyncManager(const std::wstring& name);
  ~SyncManager() override;
  SyncManager(const SyncManager&) = delete;
  SyncManager& operator=(const SyncManager&) = delete;

  void AddTarget(ISyncTarget* target) override;
  ErrInfo DelTarget(ISyncTarget* target) override;
  void OnSync(ISyncSource* source, int64_t pos, uint32_t freq) override;

  ErrInfo Init(const SyncInfo& info) override;
  ErrInfo SetSyncFreq(uint32_t freq, uint32_t step) override;
  uint32_t GetSyncFreq() override;
  ErrInfo SetSpeed(double speed) override;
  double GetSpeed() override;
  ErrInfo Start() override;
  ErrInfo Stop() override;
  bool IsStarted() override;

  // One look at the clock, with the tick if one is due. True when it ticked and wants to look again
  // at once. Public for tests of a manager that isn't started.
  bool Pass();

 private:
  bool OnBeat(int64_t now) override;
  int64_t DueAt() const override { return dueAt_; }

  // `counter` is a reading of the counter, not yet multiplied by the speed. The last two under
  // OutMutex.
  bool Pass(int64_t counter);
  void FollowSource();
  int64_t CounterOfNextTick() const;

  void Tick();
  int64_t Scaled(int64_t counter) const;
  int64_t InSamples(int64_t counter) const;
  void ResetPhaseAndReports();
  void LogChange(const wchar_t* change);

  const std::wstring name_;
  const std::shared_ptr<IDebugLog> log_;
  std::set<ISyncTarget*> targets_;  // changed only while stopped

  std::mutex lifecycleMutex_;
  std::atomic<bool> running_{false};

  // What a look needs to know without a lock.
  std::atomic<int64_t> dueAt_{0};  // no tick is due before the counter gets there; 0: look closely
  std::atomic<bool> hasSource_{false};  // a source has reported: each look evaluates its reports

  TrackedMutex outMutex_{L"SyncManager::OutMutex"};
  TrackedMutex inMutex_{L"SyncManager::InMutex"};
  int32_t syncFreq_ = 0;  // written under both mutexes, read under either
  int32_t syncStep_ = 0;
  SyncReports reports_;  // under inMutex_
  SyncPhase phase_;      // under outMutex_
  int64_t outPos_ = 0;   // position handed to the targets; goes on over stops and new rates
  std::atomic<double> speed_{1.0};

  // Of the heartbeat's thread: the counter when this clock began to wait; 0 while it doesn't.
  int64_t waitFrom_ = 0;

  // Fed by the heartbeat's thread, flushed by Stop once no pass runs any more.
  StatSeries outSyncFreq_;
  StatSeries outSyncDur_;
  StatSeries outWaitFreq_;
  StatSeries outWaitDur_;
};

}  // namespace Network
