#include <gtest/gtest.h>

#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "oxa_sync.h"

#include "support/test_support.h"

namespace {

using oxa_test::kHangGuardMs;
using oxa_test::Stopwatch;
using std::chrono::milliseconds;

// True once thread `tid` of this process is blocked in the kernel (state S), within the guard.
bool WaitUntilBlocked(long tid) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
  Stopwatch watch;
  while (watch.Elapsed() < milliseconds(kHangGuardMs)) {
    std::ifstream stat(path);
    std::string line;
    std::getline(stat, line);
    const auto end_of_name = line.rfind(')');
    if (end_of_name != std::string::npos && line.compare(end_of_name, 3, ") S") == 0) return true;
    std::this_thread::sleep_for(milliseconds(1));
  }
  return false;
}

TEST(Semaphore, NullPointerGivesMinusOne) {
  EXPECT_EQ(-1, OXA_SemCreate(nullptr, 0));
  EXPECT_EQ(-1, OXA_SemDestroy(nullptr));
  EXPECT_EQ(-1, OXA_SemWait(nullptr));
  EXPECT_EQ(-1, OXA_SemTimedWait(nullptr, 10));
  EXPECT_EQ(-1, OXA_SemPost(nullptr));
}

TEST(Semaphore, TimedWaitZeroTriesOnceAndOthersPollUntilTheTimeOut) {
  sem_t sem;
  ASSERT_EQ(0, OXA_SemCreate(&sem, 1));
  EXPECT_EQ(0, OXA_SemTimedWait(&sem, 0));
  Stopwatch once;
  EXPECT_EQ(-1, OXA_SemTimedWait(&sem, 0));
  EXPECT_LT(once.Elapsed(), milliseconds(1000));

  Stopwatch polled;
  EXPECT_EQ(-1, OXA_SemTimedWait(&sem, 50));
  EXPECT_GE(polled.Elapsed(), milliseconds(50));
  EXPECT_LT(polled.Elapsed(), milliseconds(2000));
  EXPECT_EQ(0, OXA_SemDestroy(&sem));
}

TEST(Semaphore, TimedWaitsTakeAPostFromAnotherThread) {
  sem_t sem;
  oxa::oxa_sem object;
  ASSERT_EQ(0, OXA_SemCreate(&sem, 0));
  std::promise<void> started;
  auto waited = std::async(std::launch::async, [&] {
    started.set_value();
    return OXA_SemTimedWait(&sem, kHangGuardMs) + object.wait(static_cast<int>(kHangGuardMs));
  });
  started.get_future().wait();
  ASSERT_EQ(0, OXA_SemPost(&sem));
  ASSERT_EQ(0, object.post(1));
  EXPECT_EQ(0, waited.get());
  EXPECT_EQ(0, OXA_SemDestroy(&sem));
}

TEST(Semaphore, WaitResumesAfterAnInterruption) {
  static std::atomic<int> handled{0};
  struct sigaction action {};
  action.sa_handler = [](int) { ++handled; };
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: a blocked sem_wait fails with EINTR
  struct sigaction previous {};
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, &previous));

  sem_t sem;
  ASSERT_EQ(0, OXA_SemCreate(&sem, 0));
  std::promise<std::pair<pthread_t, long>> started;
  auto waited = std::async(std::launch::async, [&] {
    started.set_value({pthread_self(), syscall(SYS_gettid)});
    return OXA_SemWait(&sem);
  });
  const auto waiter = started.get_future().get();
  EXPECT_TRUE(WaitUntilBlocked(waiter.second));
  ASSERT_EQ(0, pthread_kill(waiter.first, SIGUSR1));
  Stopwatch guard;
  while (handled == 0 && guard.Elapsed() < milliseconds(kHangGuardMs))
    std::this_thread::yield();
  EXPECT_EQ(1, handled.load());
  ASSERT_EQ(0, OXA_SemPost(&sem));  // still waiting: only this post ends the wait
  EXPECT_EQ(0, waited.get());
  EXPECT_EQ(0, OXA_SemDestroy(&sem));
  sigaction(SIGUSR1, &previous, nullptr);
}

TEST(Sema, PostStopsAtTheMaximum) {
  OXA_Sema full(1, 1);
  EXPECT_EQ(-1, full.Post());
  EXPECT_EQ(0, full.TimedWait(0));
  EXPECT_EQ(-1, full.TimedWait(0)) << "the refused post must not have counted";

  OXA_Sema two(0, 2);
  EXPECT_EQ(0, two.Post());
  EXPECT_EQ(0, two.Post());
  EXPECT_EQ(-1, two.Post());
  EXPECT_EQ(0, two.Wait());
  EXPECT_EQ(0, two.Post());
}

TEST(Sema, ConcurrentPostersNeverExceedTheMaximum) {
  constexpr unsigned int kMaximum = 3;
  OXA_Sema sema(0, kMaximum);
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back([&] {
      for (int i = 0; i < 200; ++i)
        sema.Post();
    });
  }
  for (auto& poster : posters)
    poster.join();
  unsigned int taken = 0;
  while (sema.TimedWait(0) == 0)
    ++taken;
  EXPECT_EQ(kMaximum, taken);
}

TEST(OxaSem, PostCountsAndNonPositiveCountsPostNothing) {
  oxa::oxa_sem sem;
  EXPECT_EQ(0, sem.post(0));
  EXPECT_EQ(0, sem.post(-2));
  EXPECT_EQ(-1, sem.wait(0));
  EXPECT_EQ(0, sem.post(3));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(0, sem.wait(0));
  EXPECT_EQ(-1, sem.wait(0));
  EXPECT_EQ(0, sem.post_1());
  EXPECT_EQ(0, sem.wait(-1));

  oxa::oxa_sem preset(2);
  EXPECT_EQ(0, preset.wait(0));
  EXPECT_EQ(0, preset.wait(0));
  EXPECT_EQ(-1, preset.wait(0));
  ASSERT_EQ(0, preset.destroy());
  EXPECT_EQ(-1, preset.init(-1)) << "a negative initial value is refused";
  EXPECT_EQ(0, preset.init(0));
}

// 999 ms puts the deadline's nanoseconds past a second almost surely: a wrong carry shows as
// EINVAL instead of ETIMEDOUT.
TEST(OxaSem, TimedWaitEndsAtItsWallClockDeadline) {
  oxa::oxa_sem sem;
  for (int ms : {50, 999}) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, sem.wait(ms));
    EXPECT_EQ(ETIMEDOUT, errno);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, milliseconds(ms) - std::chrono::microseconds(5));
    EXPECT_LT(elapsed, milliseconds(ms + 2000));
  }
}

}  // namespace
