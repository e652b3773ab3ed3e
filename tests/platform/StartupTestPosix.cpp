// The process around the program, each time in a child process that has its own descriptors and
// signals. A child ends itself by an alarm if it hangs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>

#include "platform/clock.h"
#include "platform/startup.h"

namespace {

// Runs `body` in a child process; its result is the exit status.
class Child {
 public:
  explicit Child(const std::function<int()>& body) : id_(fork()) {
    if (id_ != 0) return;
    alarm(20);
    signal(SIGINT, SIG_DFL);  // ignored where the tests run in the background
    signal(SIGHUP, SIG_DFL);
    _exit(body());
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Exit status, or minus the signal that killed it.
  int Wait() const {
    int status = 0;
    while (waitpid(id_, &status, 0) == -1 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  const pid_t id_;
};

bool IsNullDevice(int descriptor, int mode) {
  struct stat here {};
  struct stat null {};
  return fstat(descriptor, &here) == 0 && stat("/dev/null", &null) == 0 &&
         here.st_rdev == null.st_rdev && (fcntl(descriptor, F_GETFL) & O_ACCMODE) == mode;
}

// Started with closed standard descriptors, the first socket would get number 0 and the wait for a
// character would read from it.
TEST(Startup, ClosedDescriptorsAreOpenedOnTheNullDevice) {
  for (int closed = 0; closed < 8; ++closed) {
    const Child child([closed] {
      for (int descriptor = 0; descriptor < 3; ++descriptor) {
        if (closed & (1 << descriptor)) close(descriptor);
      }
      platform::Startup();
      if (dup(0) < 3) return 10;
      for (int descriptor = 0; descriptor < 3; ++descriptor) {
        const int mode = descriptor == 0 ? O_RDONLY : O_WRONLY;
        const bool wasClosed = (closed & (1 << descriptor)) != 0;
        if (wasClosed && !IsNullDevice(descriptor, mode)) return 20 + descriptor;
      }
      if (closed & 1) platform::WaitForInput();  // the end of input is there at once
      return 0;
    });
    EXPECT_EQ(child.Wait(), 0) << "closed: " << closed;
  }
}

// As a script's background job; and where no descriptor is left. The input stays open.
TEST(Startup, SignalsBeforeTheWaitEndItUnlessTheyWereIgnored) {
  int input[2];
  ASSERT_EQ(pipe2(input, O_CLOEXEC), 0);
  const Child child([&] {
    dup2(input[0], STDIN_FILENO);
    const rlimit none{3, 3};
    setrlimit(RLIMIT_NOFILE, &none);
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    platform::Startup();
    raise(SIGINT);
    if (platform::WaitForStop(0)) return 1;
    raise(SIGTERM);
    platform::WaitForInput();
    return platform::WaitForStop(0) ? 42 : 2;
  });
  EXPECT_EQ(child.Wait(), 42);
  close(input[0]);
  close(input[1]);
}

// What nohup gives a program is open for writing alone. It is no input; it hasn't ended either.
TEST(Startup, AnInputThatCannotBeReadEndsNothing) {
  const Child child([] {
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDIN_FILENO);
    platform::Startup();
    std::jthread late([] {
      platform::SystemClock().Sleep(50);  // a wait that such an input ends has ended by now
      kill(getpid(), SIGTERM);
    });
    platform::WaitForInput();
    return platform::WaitForStop(0) ? 42 : 1;
  });
  EXPECT_EQ(child.Wait(), 42);
}

// A session on a terminal of its own, with the program as a job of it. What is typed for the shell
// must not stop the program in the background, nor end it; once it is in the foreground a line ends
// it, and the shell gets nothing of what was typed.
TEST(Startup, InTheBackgroundTheTerminalIsTheShells) {
  const Child session([] {
    setsid();
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master == -1 || grantpt(master) != 0 || unlockpt(master) != 0) return 1;
    const int terminal = open(ptsname(master), O_RDWR);  // becomes the session's
    dup2(terminal, STDIN_FILENO);
    signal(SIGTTOU, SIG_IGN);
    if (write(master, "stop\nls\n", 8) != 8) return 2;

    const pid_t job = fork();
    if (job == 0) {
      setpgid(0, 0);
      platform::Startup();
      platform::WaitForInput();
      _exit(platform::WaitForStop(0) ? 1 : 42);
    }
    setpgid(job, job);
    int status = 0;
    for (int i = 0; i < 30; ++i) {  // long enough for the job to come to its wait
      if (waitpid(job, &status, WNOHANG | WUNTRACED) != 0) return WIFSTOPPED(status) ? 3 : 4;
      platform::SystemClock().Sleep(10);
    }
    tcsetpgrp(terminal, job);
    waitpid(job, &status, 0);
    tcsetpgrp(terminal, getpgrp());
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 42) return 5;
    pollfd left{terminal, POLLIN, 0};
    return poll(&left, 1, 0) == 0 ? 42 : 6;
  });
  EXPECT_EQ(session.Wait(), 42);
}

// A sleep of 1 ms that ends 50 us late costs as much of a tick's time. Threads inherit it.
TEST(Startup, TheTimerPeriodIsExactInThreadsToCome) {
  const Child child([] {
    const int before = prctl(PR_GET_TIMERSLACK);
    platform::BeginTimerPeriod();
    int inThread = 0;
    std::thread([&] { inThread = prctl(PR_GET_TIMERSLACK); }).join();
    platform::EndTimerPeriod();
    return inThread == 1000 && prctl(PR_GET_TIMERSLACK) == before ? 42 : 1;
  });
  EXPECT_EQ(child.Wait(), 42);
}

// Not the time of Greenwich: users compare it with their own clock.
TEST(SystemClock, LocalTimeIsThatOfTheTimeZone) {
  const Child child([] {
    setenv("TZ", "TEST-05:30", 1);
    tzset();
    int minutes = -1;
    // Times are cached, by the thread.
    std::thread([&] {
      const platform::LocalTime local = platform::SystemClock().Local();
      minutes = local.hour * 60 + local.minute;
    }).join();
    const int64_t utc = platform::SystemClock().WallSeconds() / 60;
    const int64_t ahead = (minutes - utc % 1440 + 1440) % 1440;
    return ahead == 330 || ahead == 329 ? 42 : 1;  // between the two a minute may have begun
  });
  EXPECT_EQ(child.Wait(), 42);
}

}  // namespace
