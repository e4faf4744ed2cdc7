#include <gtest/gtest.h>

#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "oxa_sync.h"

#include "support/test_support.h"

namespace {

using oxa_test::kHangGuardMs;
using oxa_test::Stopwatch;
using std::chrono::milliseconds;

TEST(Semaphore, NullPointersFailTimedWaitZeroTriesOnceAndOthersPoll) {
  EXPECT_EQ(-1, OXA_SemCreate(nullptr, 0));
  EXPECT_EQ(-1, OXA_SemTimedWait(nullptr, 10));
  for (auto* fn : {OXA_SemDestroy, OXA_SemWait, OXA_SemPost})
    EXPECT_EQ(-1, fn(nullptr));
  sem_t sem;
  ASSERT_EQ(0, OXA_SemCreate(&sem, 1));
  EXPECT_EQ(0, OXA_SemTimedWait(&sem, 0));
  EXPECT_EQ(-1, OXA_SemTimedWait(&sem, 0));
  Stopwatch polled;
  EXPECT_EQ(-1, OXA_SemTimedWait(&sem, 50));
  EXPECT_GE(polled.Elapsed(), milliseconds(50));
  EXPECT_LT(polled.Elapsed(), milliseconds(2000));
  EXPECT_EQ(0, OXA_SemDestroy(&sem));
}

// Signals without SA_RESTART make the system's waits fail with EINTR; each wait must go on
// until its post. Signals that land between the waits do no harm.
TEST(Semaphore, WaitsSurviveSignalsUntilTheirPost) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  struct sigaction previous {};
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, &previous));
  sem_t sem;
  oxa::oxa_sem object;
  ASSERT_EQ(0, OXA_SemCreate(&sem, 0));
  std::promise<pthread_t> started;
  auto waited = std::async(std::launch::async, [&] {
    started.set_value(pthread_self());
    return OXA_SemWait(&sem) + OXA_SemTimedWait(&sem, kHangGuardMs) +
           object.wait(static_cast<int>(kHangGuardMs));
  });
  const pthread_t waiter = started.get_future().get();
  auto interrupt = [&] {
    for (int i = 0; i < 5; ++i) {
      pthread_kill(waiter, SIGUSR1);
      EXPECT_EQ(std::future_status::timeout, waited.wait_for(milliseconds(5)));
    }
  };
  interrupt();
  ASSERT_EQ(0, OXA_SemPost(&sem));
  interrupt();
  ASSERT_EQ(0, OXA_SemPost(&sem));
  interrupt();
  ASSERT_EQ(0, object.post(1));
  EXPECT_EQ(0, waited.get());
  EXPECT_EQ(0, OXA_SemDestroy(&sem));
  sigaction(SIGUSR1, &previous, nullptr);
}

TEST(Sema, PostsNeverExceedTheMaximum) {
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
  EXPECT_EQ(kMaximum, taken) << "a refused post must not count";
  EXPECT_EQ(0, sema.Post()) << "the maximum applies to the value, not to the posts made";
  EXPECT_EQ(0, sema.Wait());
}

TEST(OxaSem, PostCountsAndNonPositiveCountsPostNothing) {
  oxa::oxa_sem sem(1);
  EXPECT_EQ(0, sem.post(0));
  EXPECT_EQ(0, sem.post(-2));
  EXPECT_EQ(0, sem.post(3));
  EXPECT_EQ(0, sem.post_1());
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(0, sem.wait(i % 2 == 0 ? 0 : -1));
  EXPECT_EQ(-1, sem.wait(0));
  ASSERT_EQ(0, sem.destroy());
  EXPECT_EQ(-1, sem.init(-1)) << "a negative initial value is refused";
  EXPECT_EQ(0, sem.init(0));
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
    // The deadline is taken in whole microseconds from the wall clock.
    EXPECT_GE(elapsed, milliseconds(ms) - std::chrono::microseconds(5));
    EXPECT_LT(elapsed, milliseconds(ms + 2000));
  }
}

}  // namespace
