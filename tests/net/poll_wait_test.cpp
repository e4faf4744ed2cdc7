#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>

#include "oxa_socket.h"

#include "net/loopback.h"
#include "support/test_support.h"

namespace {

using oxa_test::kHangGuardMs;
using oxa_test::Stopwatch;
using oxa_test::UniqueFd;
using std::chrono::milliseconds;

struct Pipe {
  UniqueFd read_end;
  UniqueFd write_end;
  Pipe() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) == 0) {
      read_end = UniqueFd(fds[0]);
      write_end = UniqueFd(fds[1]);
    }
  }
};

// SIGALRM after `ms`, once, without SA_RESTART so that a blocked poll is interrupted.
volatile sig_atomic_t g_alarms = 0;
volatile sig_atomic_t g_alarm_write_fd = -1;

void OnAlarm(int) {
  ++g_alarms;
  if (g_alarm_write_fd >= 0) (void)!write(g_alarm_write_fd, "!", 1);
}

void AlarmAfter(int ms) {
  struct sigaction action {};
  action.sa_handler = OnAlarm;
  sigemptyset(&action.sa_mask);
  sigaction(SIGALRM, &action, nullptr);
  itimerval timer{};
  timer.it_value.tv_sec = ms / 1000;
  timer.it_value.tv_usec = (ms % 1000) * 1000;
  setitimer(ITIMER_REAL, &timer, nullptr);
}

TEST(PollEx, InterruptedPollKeepsWaitingForTheRest) {
  Pipe p;
  pollfd wait = {p.read_end.get(), POLLIN, 0};
  unsigned int timeout = 400;
  AlarmAfter(50);
  Stopwatch watch;
  EXPECT_EQ(0, OXA_PollEx(&wait, 1, &timeout));
  EXPECT_EQ(1, g_alarms);
  EXPECT_EQ(0u, timeout);
  EXPECT_GE(watch.Elapsed(), milliseconds(395));
  EXPECT_LT(watch.Elapsed(), milliseconds(kHangGuardMs));
}

TEST(PollEx, ReportsTheTimeLeftAfterAnInterruption) {
  Pipe p;
  g_alarm_write_fd = p.write_end.get();  // the handler makes the pipe readable
  pollfd wait = {p.read_end.get(), POLLIN, 0};
  unsigned int timeout = kHangGuardMs;
  AlarmAfter(100);
  EXPECT_EQ(1, OXA_PollEx(&wait, 1, &timeout));
  EXPECT_EQ(1, g_alarms);
  EXPECT_TRUE(wait.revents & POLLIN);
  EXPECT_LE(timeout, kHangGuardMs - 90);
  EXPECT_GT(timeout, 0u);
  g_alarm_write_fd = -1;
}

TEST(PollEx, ZeroAndInfiniteTimeOuts) {
  Pipe p;
  pollfd wait = {p.read_end.get(), POLLIN, 0};
  unsigned int timeout = 0;
  EXPECT_EQ(0, OXA_PollEx(&wait, 1, &timeout));
  EXPECT_EQ(0u, timeout);
  ASSERT_EQ(1, write(p.write_end.get(), "x", 1));
  EXPECT_EQ(1, OXA_PollEx(&wait, 1, nullptr));
  timeout = OXA_INFINITE;
  EXPECT_EQ(1, OXA_PollEx(&wait, 1, &timeout));
  EXPECT_EQ(OXA_INFINITE, timeout) << "no limit is never written down";
  timeout = kHangGuardMs;
  EXPECT_EQ(1, OXA_PollEx(&wait, 1, &timeout));
  EXPECT_GE(timeout, kHangGuardMs - 100);
  EXPECT_EQ(1, OXA_Poll(&wait, 1, 0));
}

TEST(Select, CopyOrCallersTimeOut) {
  Pipe p;
  const int fd = p.read_end.get();
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd, &set);
  timeval tv = {0, 50000};
  EXPECT_EQ(0, OXA_Select(fd + 1, &set, nullptr, nullptr, &tv));
  EXPECT_EQ(0, tv.tv_sec);
  EXPECT_EQ(50000, tv.tv_usec) << "the caller's time-out is kept";
  FD_SET(fd, &set);
  EXPECT_EQ(0, OXA_SelectEx(fd + 1, &set, nullptr, nullptr, &tv));
  EXPECT_EQ(0, tv.tv_usec) << "the system used it up";
  ASSERT_EQ(1, write(p.write_end.get(), "x", 1));
  FD_SET(fd, &set);
  EXPECT_EQ(1, OXA_Select(fd + 1, &set, nullptr, nullptr, nullptr));
  EXPECT_EQ(1, OXA_FdIsSet(fd, &set));
}

TEST(FdIsSet, ReadsThirtyTwoBitWords) {
  fd_set set;
  FD_ZERO(&set);
  const int on[] = {0, 31, 32, 63, 64, 100, 1023};
  for (int fd : on)
    FD_SET(fd, &set);
  for (int fd = 0; fd < FD_SETSIZE; ++fd) {
    EXPECT_EQ(FD_ISSET(fd, &set) ? 1 : 0, OXA_FdIsSet(fd, &set)) << fd;
  }
  EXPECT_EQ(0, OXA_FdIsSet(-1, &set));
  EXPECT_EQ(0, OXA_FdIsSet(FD_SETSIZE, &set));
  EXPECT_EQ(0, OXA_FdIsSet(0, nullptr));
}

}  // namespace
