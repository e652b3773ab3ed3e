#include "platform/thread.h"

#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace platform {

uint32_t ThreadNumber() {
  thread_local const uint32_t number = static_cast<uint32_t>(gettid());
  return number;
}

namespace {

bool SetRealTime() {
  // Round robin, as several such threads share a core. Not the highest priority, which belongs to
  // the kernel's own threads.
  sched_param param{};
  param.sched_priority = std::min(80, sched_get_priority_max(SCHED_RR));
  if (pthread_setschedparam(pthread_self(), SCHED_RR, &param) == 0) return true;

  rlimit limit{};
  if (getrlimit(RLIMIT_RTPRIO, &limit) != 0 || limit.rlim_cur == 0) return false;
  param.sched_priority =
      static_cast<int>(std::min<rlim_t>(limit.rlim_cur, static_cast<rlim_t>(param.sched_priority)));
  return pthread_setschedparam(pthread_self(), SCHED_RR, &param) == 0;
}

}  // namespace

void SetTimeCritical() {
  if (SetRealTime()) return;
  // The kernel lets the sleeps of ordinary threads end 50 us late, to wake several at once.
  prctl(PR_SET_TIMERSLACK, 1UL);
}

bool CanBeTimeCritical() {
  int policy = 0;
  sched_param param{};
  const int slack = prctl(PR_GET_TIMERSLACK);
  if (pthread_getschedparam(pthread_self(), &policy, &param) != 0 || !SetRealTime()) return false;
  pthread_setschedparam(pthread_self(), policy, &param);
  // Linux from 6.12 on gives a thread that comes back from real time the default slack, whatever it
  // had before.
  if (slack > 0) prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(slack));
  return true;
}

}  // namespace platform
