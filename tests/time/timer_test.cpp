#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "oxa_timer.h"

#include "support/test_support.h"

namespace {

using oxa_test::kHangGuardMs;
using oxa_test::ThreadCount;
using oxa_test::WaitForThreadCount;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// What a timer's callback saw: the start time of every call, its id, and (optionally) the
// result of killing itself. Each call can be made to work for a while before returning.
struct Calls {
  std::mutex mu;
  std::condition_variable cv;
  std::vector<Clock::time_point> starts;  // Guarded by mu.
  unsigned int id = 0xFFFFFFFFu;
  milliseconds work{0};
  bool kill_self = false;
  int kill_result = 99;

  // Waits until at least n calls were made; false after the hang guard.
  bool WaitFor(size_t n) {
    std::unique_lock<std::mutex> hold(mu);
    return cv.wait_for(hold, milliseconds(kHangGuardMs), [&] { return starts.size() >= n; });
  }
  size_t Count() {
    std::lock_guard<std::mutex> hold(mu);
    return starts.size();
  }
};

int Record(unsigned int timer_id, void* user_data) {
  auto* calls = static_cast<Calls*>(user_data);
  const Clock::time_point start = Clock::now();
  const int kill_result = calls->kill_self ? OXA_KillTimer(timer_id) : 99;
  {
    std::lock_guard<std::mutex> hold(calls->mu);
    calls->starts.push_back(start);
    calls->id = timer_id;
    calls->kill_result = kill_result;
  }
  std::this_thread::sleep_for(calls->work);  // the callback's own run time
  calls->cv.notify_all();
  return 0;
}

TEST(Timer, FirstCallAtOnceThenOnePeriodAfterEachCallReturns) {
  const int base = ThreadCount();
  Calls calls;
  calls.work = milliseconds(30);
  unsigned int id = 0xFFFFFFFFu;
  const Clock::time_point set_at = Clock::now();
  ASSERT_EQ(0, OXA_SetTimer(Record, &calls, 60, &id));
  ASSERT_TRUE(calls.WaitFor(4));
  EXPECT_EQ(0, OXA_KillTimer(id));
  const size_t calls_at_kill = calls.Count();
  EXPECT_EQ(id, calls.id);
  EXPECT_LT(calls.starts[0] - set_at, milliseconds(1000));  // no period before the first call
  for (size_t i = 1; i < 4; ++i) {
    const auto gap = calls.starts[i] - calls.starts[i - 1];
    EXPECT_GE(gap, milliseconds(90)) << "period runs from the end of the call, call " << i;
    EXPECT_LT(gap, milliseconds(2000)) << "call " << i;
  }
  EXPECT_TRUE(WaitForThreadCount(base));
  EXPECT_EQ(calls_at_kill, calls.Count()) << "no call after the kill";
}

TEST(Timer, KillEndsALongPeriodAtOnce) {
  const int base = ThreadCount();
  Calls calls;
  unsigned int id;
  ASSERT_EQ(0, OXA_SetTimer(Record, &calls, 600000, &id));
  ASSERT_TRUE(calls.WaitFor(1));
  oxa_test::Stopwatch watch;
  EXPECT_EQ(0, OXA_KillTimer(id));
  EXPECT_LT(watch.Elapsed().count(), kHangGuardMs);
  EXPECT_EQ(1u, calls.Count());
  EXPECT_TRUE(WaitForThreadCount(base));
}

TEST(Timer, ZeroPeriodCallsBackToBack) {
  Calls calls;
  unsigned int id;
  ASSERT_EQ(0, OXA_SetTimer(Record, &calls, 0, &id));
  EXPECT_TRUE(calls.WaitFor(200));
  EXPECT_EQ(0, OXA_KillTimer(id));
}

TEST(Timer, IdsAreTheLowestFreeSlotsOf256) {
  const int base = ThreadCount();
  EXPECT_EQ(0, OXA_InitTimer_Inter());
  EXPECT_EQ(-1, OXA_SetTimer(nullptr, nullptr, 1000, nullptr));
  EXPECT_EQ(-1, OXA_KillTimer(OXA_MAX_TIMERS));
  EXPECT_EQ(0, OXA_KillTimer(5));  // free: nothing to do
  unsigned int id = 0xFFFFFFFFu;
  ASSERT_EQ(0, OXA_SetTimer(nullptr, nullptr, 3600000, &id));  // a timer that only waits
  EXPECT_EQ(0u, id);
  EXPECT_TRUE(WaitForThreadCount(base + 1));
  for (unsigned int expected = 1; expected < OXA_MAX_TIMERS; ++expected) {
    ASSERT_EQ(0, OXA_SetTimer(nullptr, nullptr, 3600000, &id));
    ASSERT_EQ(expected, id);
  }
  id = 12345;
  EXPECT_EQ(-1, OXA_SetTimer(nullptr, nullptr, 3600000, &id));
  EXPECT_EQ(12345u, id);
  EXPECT_EQ(0, OXA_KillTimer(200));
  EXPECT_EQ(0, OXA_KillTimer(100));
  ASSERT_EQ(0, OXA_SetTimer(nullptr, nullptr, 3600000, &id));
  EXPECT_EQ(100u, id);
  for (unsigned int i = 0; i < OXA_MAX_TIMERS; ++i)
    EXPECT_EQ(0, OXA_KillTimer(i));
  EXPECT_TRUE(WaitForThreadCount(base));
  EXPECT_EQ(0, OXA_FiniTimer_Inter());
}

TEST(Timer, KilledFromItsOwnCallbackItEndsWhenTheCallReturns) {
  const int base = ThreadCount();
  Calls calls;
  calls.kill_self = true;
  unsigned int id;
  ASSERT_EQ(0, OXA_SetTimer(Record, &calls, 10, &id));
  ASSERT_TRUE(calls.WaitFor(1));
  EXPECT_TRUE(WaitForThreadCount(base));
  EXPECT_EQ(0, calls.kill_result);
  EXPECT_EQ(1u, calls.Count());
  unsigned int again;
  ASSERT_EQ(0, OXA_SetTimer(nullptr, nullptr, 1000, &again));
  EXPECT_EQ(id, again) << "the id was freed";
  EXPECT_EQ(0, OXA_KillTimer(again));
}

}  // namespace
