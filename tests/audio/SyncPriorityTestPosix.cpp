// The ticks have the priority that the system permits.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <thread>

#include "audio/SyncManager.h"
#include "platform/thread.h"
#include "support/CapturedLog.h"

TEST(SyncBeat, TicksAreRealTimeWhereThatIsPermitted) {
  class Target final : public Network::ISyncTarget {
   public:
    void OnSync(Network::ISyncSource*, int64_t, uint32_t) override {
      int now = SCHED_OTHER;
      sched_param param{};
      pthread_getschedparam(pthread_self(), &now, &param);
      priority = param.sched_priority;
      policy = now;
    }
    std::atomic<int> policy{-1};
    std::atomic<int> priority{0};
  } target;
  Network::SyncManager sync(L"unit");
  sync.AddTarget(&target);
  sync.SetSyncFreq(48000, 192);
  sync.Start();
  while (target.policy == -1)
    std::this_thread::yield();
  sync.Stop();
  EXPECT_EQ(target.policy == SCHED_RR, platform::CanBeTimeCritical());
  EXPECT_LE(target.priority, 80) << "above that the kernel's own threads wait for the ticks";
  Log().Clear();
}
