#include "audio/SyncManager.h"

#include <cmath>
#include <exception>
#include <limits>
#include <system_error>

#include "platform/text.h"
#include "platform/thread.h"
#include "runtime/Clocks.h"
#include "runtime/Environment.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\SyncManager";

constexpr uint32_t kSleepMs = 1;
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
  // The span is in samples of SyncFreq, its limit a fifth of a second at the source's own rate: a
  // source at twice the rate takes twice as long to be trusted.
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
  }
  return ERR_HERE("Network::SyncManager::SetSyncFreq");
}

uint32_t SyncManager::GetSyncFreq() {
  ScopedLock out(outMutex_);
  return static_cast<uint32_t>(syncFreq_);
}

ErrInfo SyncManager::SetSpeed(double speed) {
  speed_ = speed;
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
  stopEvent_.Reset();
  ResetPhaseAndReports();
  try {
    thread_ = std::thread([this] { RunThread(); });
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
  stopEvent_.Set();
  thread_.join();
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
}

// The absolute counter is scaled, not a difference: a new speed moves the clock as a whole.
int64_t SyncManager::ReadClock(uint32_t* frequency) const {
  const int64_t counter = ClockRead(frequency);
  const double speed = speed_;
  return speed == 1.0 ? counter : ScaleCounter(counter, speed);
}

int64_t SyncManager::ReadClockInSamples() const {
  uint32_t frequency = 0;
  const int64_t clock = ReadClock(&frequency);
  return MulDiv64(clock, syncFreq_, frequency);
}

void SyncManager::OnSync(ISyncSource*, int64_t pos, uint32_t freq) {
  uint32_t frequency = 0;
  const int64_t clock = ReadClock(&frequency);
  ScopedLock in(inMutex_);
  reports_.Report(pos, freq, MulDiv64(clock, syncFreq_, frequency), syncFreq_);
}

void SyncManager::LogChange(const wchar_t* change) {
  if (log_) log_->Write(name_ + change);
}

void SyncManager::RunThread() {
  platform::SetTimeCritical();
  uint32_t wait = kSleepMs;
  for (;;) {
    try {
      if (WaitForStop(wait)) return;
      wait = kSleepMs;
      // The thread starts before Start sets the flag.
      if (running_ && Pass()) wait = 0;
    } catch (...) {
      // Out of memory while a line was written: the ticks to come go on.
    }
  }
}

bool SyncManager::WaitForStop(uint32_t milliseconds) {
  if (milliseconds == 0) return stopEvent_.Wait(0);
  const int64_t t = ReadClock();
  outWaitFreq_.Sample(t);
  outWaitDur_.Sample(t);
  const bool stopped = stopEvent_.Wait(milliseconds);
  outWaitDur_.Finish(ReadClock());
  return stopped;
}

bool SyncManager::Pass() {
  ScopedLock out(outMutex_);
  if (phase_.OutBase >= 0 && phase_.OutDue >= 0) {
    SyncRatio present;
    {
      ScopedLock in(inMutex_);
      present = reports_.Ratio();
    }
    const bool wasLocked = phase_.Ratio.IsValid();
    phase_.SetRatio(present);
    if (present.IsValid() != wasLocked) LogChange(wasLocked ? L": Sync FAIL" : L": Sync LOCK");
  }

  const SyncPhase::Step step = phase_.Advance(ReadClockInSamples(), syncStep_);
  if (step == SyncPhase::Step::Wait) return false;
  if (step == SyncPhase::Step::Late) {
    {
      ScopedLock in(inMutex_);
      reports_ = {};
    }
    phase_ = {};
    LogChange(L": Sync FAIL. Internal sync timeout.");
  }
  Tick();
  // Looking again at once lets a late thread catch up, tick after tick. A manager without a step
  // has a tick due at every look; it mustn't take the processor for itself.
  return syncStep_ > 0;
}

void SyncManager::Tick() {
  const int64_t t = ReadClock();
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
  outSyncDur_.Finish(ReadClock());
}

}  // namespace Network
