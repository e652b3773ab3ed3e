// The clock of a unit, and how positions are reported between clocks and streams.
#pragma once

#include <cstdint>
#include <string>

#include "runtime/ErrInfo.h"

namespace Network {

class ISyncSource;

class ISyncTarget {
 public:
  // `pos` in samples at `freq` Hz. A negative position or a freq of 0: the source has lost its
  // position.
  virtual void OnSync(ISyncSource* source, int64_t pos, uint32_t freq) = 0;

 protected:
  ~ISyncTarget() = default;
};

class ISyncSource {
 public:
  // Targets aren't owned. The set may be changed only while the source is stopped.
  virtual void AddTarget(ISyncTarget* target) = 0;
  virtual ErrInfo DelTarget(ISyncTarget* target) = 0;  // fails when it isn't in the set

 protected:
  ~ISyncSource() = default;
};

struct SyncInfo {
  uint32_t SyncFreq = 0;  // Hz
  uint32_t SyncStep = 0;  // samples from tick to tick
};

// Calls its targets every SyncStep samples of SyncFreq, all on one time-critical thread, which
// serves other clocks too: what a target takes long over makes those late. As a target it takes the
// position reports of a source and locks its ticks to that source's rate. A target must not call
// SetSyncFreq, GetSyncFreq or Stop from its OnSync.
class ISyncManager : public ISyncSource, public ISyncTarget {
 public:
  virtual ~ISyncManager() = default;

  virtual ErrInfo Init(const SyncInfo& info) = 0;  // before Start
  virtual ErrInfo SetSyncFreq(uint32_t freq, uint32_t step) = 0;
  virtual uint32_t GetSyncFreq() = 0;
  virtual ErrInfo SetSpeed(double speed) = 0;  // 1.0 is real time; set it with the ticks stopped
  virtual double GetSpeed() = 0;
  virtual ErrInfo Start() = 0;
  virtual ErrInfo Stop() = 0;  // when it returns no tick runs any more
  virtual bool IsStarted() = 0;

  // `name` stands in the log lines. The caller owns the object.
  static ISyncManager* Create(const std::wstring& name);
};

}  // namespace Network
