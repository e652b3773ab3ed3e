#include "platform/thread.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace platform {

uint32_t ThreadNumber() {
  thread_local const uint32_t number = static_cast<uint32_t>(gettid());
  return number;
}

void SetTimeCritical() {
  // Round robin, as several such threads share a core. Not the highest priority, which belongs to
  // the kernel's own threads.
  sched_param param{};
  param.sched_priority = std::min(80, sched_get_priority_max(SCHED_RR));
  if (pthread_setschedparam(pthread_self(), SCHED_RR, &param) == 0) return;

  rlimit limit{};
  if (getrlimit(RLIMIT_RTPRIO, &limit) == 0 && limit.rlim_cur > 0) {
    param.sched_priority = static_cast<int>(
        std::min<rlim_t>(limit.rlim_cur, static_cast<rlim_t>(param.sched_priority)));
    pthread_setschedparam(pthread_self(), SCHED_RR, &param);
  }
}

}  // namespace platform
