#include "audio/SyncManager.h"

#include <cmath>
#include <exception>
#include <limits>
#include <system_error>
#include <utility>

#include "platform/clock.h"
#include "platform/text.h"
#include "runtime/Clocks.h"
#include "runtime/Environment.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\SyncManager";

constexpr int64_t kMaxMissedSteps = 20;
constexpr int32_t kMinReports = 5;

// The counter times `speed`, cut to 64 bits: the speed comes from outside and may be infinite or no
// number at all.
int64_t ScaleCounter(int64_t counter, double speed) {
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  const double scaled = static_cast<double>(counter) * speed;
  if (scaled >= kLimit) return std::numeric_limits<int64_t>::max();
  if (scaled <= -kLimit) return std::numeric_limits<int64_t>::min();
  return std::isnan(scaled) ? 0 : static_cast<int64_t>(scaled);
}

}  // namespace

void SyncReports::Report(int64_t pos, uint32_t freq, int64_t now, int32_t syncFreq) {
  const bool lost = freq == 0 || pos < 0;
  const bool stale = InFreq != 0 && SaturatingSub(now, InLastClock) > 2 * int64_t{syncFreq};
  if (lost || stale) {
    *this = {};
    return;
  }
  if (InFreq == 0) {
    InFreq = freq;
    InFirstPos = MulDiv64(pos, syncFreq, InFreq);
    InFirstClock = now;
  }
  if (InCount < std::numeric_limits<int32_t>::max()) ++InCount;
  InLastPos = MulDiv64(pos, syncFreq, InFreq);
  InLastClock = now;
}

SyncRatio SyncReports::Ratio() const {
  // The span is counted in samples of SyncFreq, but its limit in samples of the source's own rate.
  // At equal rates that is a fifth of a second. A source at 96000 Hz under a clock at 48000 Hz must
  // have reported for two fifths: 19200 samples, of which our clock counts 48000 a second.
  const int64_t span = SaturatingSub(InLastPos, InFirstPos);
  if (InFreq == 0 || InCount < kMinReports || span < int64_t{InFreq / 5}) return {};
  return {span, SaturatingSub(InLastClock, InFirstClock)};
}

void SyncPhase::SetRatio(const SyncRatio& present) {
  if (present.IsValid() != Ratio.IsValid()) {
    const int64_t elapsed = Ratio.IsValid() ? MulDiv64(OutDue, Ratio.local, Ratio.source) : OutDue;
    OutBase = SaturatingAdd(OutBase, elapsed);
    OutDue = 0;
  }
  Ratio = present;
}

SyncPhase::Step SyncPhase::Advance(int64_t now, int32_t step) {
  if (OutBase < 0) OutBase = now;
  int64_t elapsed = SaturatingSub(now, OutBase);
  if (Ratio.IsValid()) elapsed = MulDiv64(elapsed, Ratio.source, Ratio.local);

  if (OutDue < 0) {
    OutDue = elapsed;
    return Step::Tick;
  }
  const int64_t due = SaturatingAdd(OutDue, step);
  if (elapsed < due) return Step::Wait;
  if (SaturatingSub(elapsed, due) > step * kMaxMissedSteps) return Step::Late;
  OutDue = due;
  return Step::Tick;
}

int64_t SyncPhase::NextTick(int32_t step) const {
  if (OutBase < 0 || OutDue < 0) return -1;
  int64_t elapsed = SaturatingAdd(OutDue, step);
  if (Ratio.IsValid()) elapsed = SaturatingAdd(MulDiv64(elapsed, Ratio.local, Ratio.source), 1);
  return SaturatingAdd(OutBase, elapsed);
}

ISyncManager* ISyncManager::Create(const std::wstring& name) {
  return new SyncManager(name);
}

SyncManager::SyncManager(const std::wstring& name)
    : name_(name),
      log_(GetDebugLog()),
      outSyncFreq_(name + L".OutSyncFreq"),
      outSyncDur_(name + L".OutSyncDur"),
      outWaitFreq_(name + L".OutWaitFreq"),
      outWaitDur_(name + L".OutWaitDur") {
  const auto configure = [](StatSeries& series, StatSeries::Mode mode) {
    series.Configure(mode, 1, static_cast<int64_t>(ClockFrequency()), 1000, 0, 50);
  };
  configure(outSyncFreq_, StatSeries::kMeanAndSpread);
  configure(outSyncDur_, StatSeries::kMeanOnly);
  configure(outWaitFreq_, StatSeries::kMeanAndSpread);
  configure(outWaitDur_, StatSeries::kMeanOnly);
}

SyncManager::~SyncManager() {
  Stop();
}

void SyncManager::AddTarget(ISyncTarget* target) {
  targets_.insert(target);
}

ErrInfo SyncManager::DelTarget(ISyncTarget* target) {
  if (targets_.erase(target) == 0)
    return ERR_HERE("Network::SyncManager::DelTarget").SetText(L"Sync target not found");
  return ERR_HERE("Network::SyncManager::DelTarget");
}

ErrInfo SyncManager::Init(const SyncInfo& info) {
  syncFreq_ = static_cast<int32_t>(info.SyncFreq);
  syncStep_ = static_cast<int32_t>(info.SyncStep);
  return ERR_HERE("Network::SyncManager::Init");
}

ErrInfo SyncManager::SetSyncFreq(uint32_t freq, uint32_t step) {
  ScopedLock out(outMutex_);
  ScopedLock in(inMutex_);
  const auto newFreq = static_cast<int32_t>(freq);
  const auto newStep = static_cast<int32_t>(step);
  if (newFreq != syncFreq_ || newStep != syncStep_) {
    syncFreq_ = newFreq;
    syncStep_ = newStep;
    reports_ = {};
    phase_ = {};
    dueAt_ = 0;
  }
  return ERR_HERE("Network::SyncManager::SetSyncFreq");
}

uint32_t SyncManager::GetSyncFreq() {
  ScopedLock out(outMutex_);
  return static_cast<uint32_t>(syncFreq_);
}

ErrInfo SyncManager::SetSpeed(double speed) {
  speed_ = speed;
  dueAt_ = 0;
  return ERR_HERE("Network::SyncManager::SetSpeed");
}

double SyncManager::GetSpeed() {
  return speed_;
}

bool SyncManager::IsStarted() {
  return running_;
}

ErrInfo SyncManager::Start() {
  std::lock_guard lifecycle(lifecycleMutex_);
  if (running_) return ERR_HERE("Network::SyncManager::Start");
  ResetPhaseAndReports();
  waitFrom_ = ClockRead(nullptr);
  try {
    Heartbeat::OfProcess().Add(*this);
  } catch (const std::system_error& error) {
    return ERR_HERE("Network::SyncManager::Start")
        .SetCode(static_cast<uint32_t>(error.code().value()), L"Can not start sync thread");
  }
  running_ = true;
  return ERR_HERE("Network::SyncManager::Start");
}

ErrInfo SyncManager::Stop() {
  std::lock_guard lifecycle(lifecycleMutex_);
  if (!running_) return ERR_HERE("Network::SyncManager::Stop");
  running_ = false;
  Heartbeat::OfProcess().Remove(*this);
  outSyncFreq_.Flush();
  outSyncDur_.Flush();
  outWaitFreq_.Flush();
  outWaitDur_.Flush();
  return ERR_HERE("Network::SyncManager::Stop");
}

void SyncManager::ResetPhaseAndReports() {
  ScopedLock out(outMutex_);
  ScopedLock in(inMutex_);
  reports_ = {};
  phase_ = {};
  dueAt_ = 0;
}

// The speed multiplies the counter itself and not the time since the start. So a speed that changes
// sets the clock elsewhere: after 1000 s of counting, going from 1 to 2 puts it 1000 s ahead, and
// the next pass gives up the old phase as one that has been missed.
int64_t SyncManager::Scaled(int64_t counter) const {
  const double speed = speed_;
  return speed == 1.0 ? counter : ScaleCounter(counter, speed);
}

int64_t SyncManager::InSamples(int64_t counter) const {
  return MulDiv64(Scaled(counter), syncFreq_, platform::kCounterFrequency);
}

void SyncManager::OnSync(ISyncSource*, int64_t pos, uint32_t freq) {
  const int64_t counter = ClockRead(nullptr);
  ScopedLock in(inMutex_);
  reports_.Report(pos, freq, InSamples(counter), syncFreq_);
  hasSource_ = true;
}

void SyncManager::LogChange(const wchar_t* change) {
  if (log_) log_->Write(name_ + change);
}

// Hundreds of clocks are looked at a thousand times a second, and most looks find nothing due: so
// that costs two series and a comparison, no lock and no reading of the counter.
bool SyncManager::OnBeat(int64_t now) {
  if (waitFrom_ != 0) {
    const int64_t from = Scaled(std::exchange(waitFrom_, 0));
    outWaitFreq_.Sample(from);
    outWaitDur_.Sample(from);
    outWaitDur_.Finish(Scaled(now));
  }
  if ((now >= dueAt_ || hasSource_) && Pass(now)) return true;
  waitFrom_ = now;
  return false;
}

bool SyncManager::Pass() {
  return Pass(ClockRead(nullptr));
}

bool SyncManager::Pass(int64_t counter) {
  ScopedLock out(outMutex_);
  if (hasSource_ && phase_.OutBase >= 0 && phase_.OutDue >= 0) FollowSource();

  const SyncPhase::Step step = phase_.Advance(InSamples(counter), syncStep_);
  if (step == SyncPhase::Step::Late) {
    {
      ScopedLock in(inMutex_);
      reports_ = {};
    }
    phase_ = {};
    LogChange(L": Sync FAIL. Internal sync timeout.");
  }
  dueAt_ = CounterOfNextTick();
  if (step == SyncPhase::Step::Wait) return false;
  Tick();
  // Looking again at once lets a late clock catch up, tick after tick. A manager without a step has
  // a tick due at every look; it mustn't take the processor for itself.
  return syncStep_ > 0;
}

void SyncManager::FollowSource() {
  SyncRatio present;
  {
    ScopedLock in(inMutex_);
    present = reports_.Ratio();
    hasSource_ = reports_.InFreq != 0;
  }
  const bool wasLocked = phase_.Ratio.IsValid();
  phase_.SetRatio(present);
  if (present.IsValid() != wasLocked) LogChange(wasLocked ? L": Sync FAIL" : L": Sync LOCK");
}

// The first counter value at which a pass finds the next tick due. 0, look at every chance, where
// there is none to be found: before the first tick, without a step, and at a speed that stops the
// clock or turns it back.
int64_t SyncManager::CounterOfNextTick() const {
  const int64_t due = phase_.NextTick(syncStep_);
  if (due < 0 || syncFreq_ <= 0 || syncStep_ <= 0) return 0;

  // MulDiv64 cuts off, and cut off again the quotient would come out below `due`.
  int64_t counter = MulDiv64(due, platform::kCounterFrequency, syncFreq_);
  if (MulDiv64(counter, syncFreq_, platform::kCounterFrequency) < due) ++counter;
  const double speed = speed_;
  if (speed == 1.0) return counter;

  // The division is rounded, the product at the look again: 200 ns make up for both.
  const double unscaled = static_cast<double>(counter) / speed;
  constexpr double kLimit = 4611686018427387904.0;  // 2^62
  return unscaled > 0 && unscaled < kLimit ? static_cast<int64_t>(unscaled) + 2 : 0;
}

void SyncManager::Tick() {
  const int64_t t = Scaled(ClockRead(nullptr));
  outSyncFreq_.Sample(t);
  outSyncDur_.Sample(t);
  for (ISyncTarget* target : targets_) {
    try {
      target->OnSync(this, outPos_, static_cast<uint32_t>(syncFreq_));
    } catch (const std::exception& error) {
      // Out of memory at worst. The other targets and the ticks to come go on.
      LogChange((L": Sync target failed: " + platform::Utf8ToWideLossy(error.what())).c_str());
    }
  }
  outPos_ += syncStep_;
  outSyncDur_.Finish(Scaled(ClockRead(nullptr)));
}

}  // namespace Network
