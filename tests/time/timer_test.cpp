#include <gtest/gtest.h>

#include <chrono>
#include <future>
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

// The start time of every call of a timer's callback. Each call works for `work` before it
// returns.
struct Calls {
  oxa_test::Collector<Clock::time_point> starts;
  milliseconds work{0};
};

int Record(unsigned int /*timer_id*/, void* user_data) {
  auto* calls = static_cast<Calls*>(user_data);
  calls->starts.Add(Clock::now());
  std::this_thread::sleep_for(calls->work);  // the callback's own run time
  return 0;
}

// Kills its timer by the id it was given. A second call would set the promise twice, which
// ends the test program.
int KillSelf(unsigned int timer_id, void* result) {
  static_cast<std::promise<int>*>(result)->set_value(OXA_KillTimer(timer_id));
  return 0;
}

TEST(Timer, FirstCallAtOnceThenOnePeriodAfterEachCallReturns) {
  const int base = ThreadCount();
  Calls calls;
  calls.work = milliseconds(30);
  unsigned int id = 0xFFFFFFFFu;
  const Clock::time_point set_at = Clock::now();
  ASSERT_EQ(0, OXA_SetTimer(Record, &calls, 60, &id));
  ASSERT_TRUE(calls.starts.WaitFor(4));
  EXPECT_EQ(0, OXA_KillTimer(id));
  const std::vector<Clock::time_point> starts = calls.starts.Snapshot();
  EXPECT_LT(starts[0] - set_at, milliseconds(2500));  // no period before the first call
  for (size_t i = 1; i < 4; ++i) {
    const auto gap = starts[i] - starts[i - 1];
    EXPECT_GE(gap, milliseconds(90)) << "period runs from the end of the call, call " << i;
    EXPECT_LT(gap, milliseconds(2000)) << "call " << i;
  }
  EXPECT_TRUE(WaitForThreadCount(base));
  EXPECT_EQ(starts.size(), calls.starts.Count()) << "no call after the kill";
}

TEST(Timer, ZeroPeriodCallsBackToBack) {
  Calls calls;
  unsigned int id;
  ASSERT_EQ(0, OXA_SetTimer(Record, &calls, 0, &id));
  EXPECT_TRUE(calls.starts.WaitFor(200));
  EXPECT_EQ(0, OXA_KillTimer(id));
}

// Timers without a callback only wait; killing them must cut their hour-long waits short.
TEST(Timer, IdsAreTheLowestFreeSlotsOf256AndKillEndsTheWaitAtOnce) {
  const int base = ThreadCount();
  EXPECT_EQ(0, OXA_InitTimer_Inter());
  EXPECT_EQ(-1, OXA_SetTimer(nullptr, nullptr, 1000, nullptr));
  EXPECT_EQ(-1, OXA_KillTimer(OXA_MAX_TIMERS));
  EXPECT_EQ(0, OXA_KillTimer(5));  // free: nothing to do
  unsigned int id = 0xFFFFFFFFu;
  for (unsigned int expected = 0; expected < OXA_MAX_TIMERS; ++expected) {
    ASSERT_EQ(0, OXA_SetTimer(nullptr, nullptr, 3600000, &id));
    ASSERT_EQ(expected, id);
  }
  EXPECT_TRUE(WaitForThreadCount(base + OXA_MAX_TIMERS));
  id = 12345;
  EXPECT_EQ(-1, OXA_SetTimer(nullptr, nullptr, 3600000, &id));
  EXPECT_EQ(12345u, id);
  EXPECT_EQ(0, OXA_KillTimer(200));
  EXPECT_EQ(0, OXA_KillTimer(100));
  ASSERT_EQ(0, OXA_SetTimer(nullptr, nullptr, 3600000, &id));
  EXPECT_EQ(100u, id);
  oxa_test::Stopwatch watch;
  for (unsigned int i = 0; i < OXA_MAX_TIMERS; ++i)
    EXPECT_EQ(0, OXA_KillTimer(i));
  EXPECT_LT(watch.Elapsed().count(), kHangGuardMs);
  EXPECT_TRUE(WaitForThreadCount(base));
  EXPECT_EQ(0, OXA_FiniTimer_Inter());
}

TEST(Timer, KilledFromItsOwnCallbackItEndsWhenTheCallReturns) {
  const int base = ThreadCount();
  std::promise<int> killed;
  std::future<int> result = killed.get_future();
  unsigned int other, id, again;
  ASSERT_EQ(0, OXA_SetTimer(nullptr, nullptr, 3600000, &other));  // so that the id is not 0
  ASSERT_EQ(0, OXA_SetTimer(KillSelf, &killed, 10, &id));
  ASSERT_EQ(std::future_status::ready, result.wait_for(milliseconds(kHangGuardMs)));
  EXPECT_EQ(0, result.get());
  EXPECT_TRUE(WaitForThreadCount(base + 1));
  ASSERT_EQ(0, OXA_SetTimer(nullptr, nullptr, 1000, &again));
  EXPECT_EQ(id, again) << "the id was freed";
  EXPECT_EQ(0, OXA_KillTimer(again));
  EXPECT_EQ(0, OXA_KillTimer(other));
}

}  // namespace
