// The clock readings and oxa_time_tick.
#include <gtest/gtest.h>

#include <limits.h>
#include <sys/time.h>
#include <time.h>

#include "oxa_time.h"

using oxa::oxa_time_tick;

namespace {

long long WallClockUs() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<long long>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

// Milliseconds of the monotonic clock rounded to the nearest.
oxa_uint64 MonotonicRoundedMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<oxa_uint64>(ts.tv_sec) * 1000 + (ts.tv_nsec + 500000) / 1000000;
}

}  // namespace

TEST(TimeValue, NowReadsTheWallClock) {
  const long long before = WallClockUs();
  const oxa_int64 now = OXA_TimeNow();
  oxa_time_tick tick;
  const long long tick_now = oxa_time_tick::now();
  const long long after = WallClockUs();
  EXPECT_TRUE(before <= now && now <= tick.get_time() && tick.get_time() <= tick_now &&
              tick_now <= after);
  tick.update_time();
  EXPECT_TRUE(after <= tick.get_time() && tick.get_time() <= WallClockUs());

  EXPECT_EQ(-2000000, OXA_TimeFromAnsiTime(-2));
  EXPECT_EQ(1, OXA_AnsiTimeFromTime(1999999));
  EXPECT_EQ(-1, OXA_AnsiTimeFromTime(-1999999));
}

// Truncating instead of rounding would fall below the lower bound about half the time.
TEST(TimeValue, TicksAreRoundedMonotonicMilliseconds) {
  for (int i = 0; i < 2000; ++i) {
    const oxa_uint64 before = MonotonicRoundedMs();
    const oxa_uint64 tick64 = OXA_GetTimeTick64();
    const unsigned int tick32 = OXA_GetTimeTick();
    const oxa_uint64 after = MonotonicRoundedMs();
    ASSERT_LE(before, tick64);
    ASSERT_LE(tick64, after);
    ASSERT_LE(tick32 - static_cast<unsigned int>(before), after - before);
  }
}

TEST(TimeTick, ConversionsRoundAndRefuseNegativesValuesMayGoBelowZero) {
  EXPECT_EQ(1, oxa_time_tick::us2ms(1499));
  EXPECT_EQ(2, oxa_time_tick::us2ms(1500));
  EXPECT_EQ(-1, oxa_time_tick::us2ms(-1));
  EXPECT_EQ(LLONG_MAX / 1000 + 1, oxa_time_tick::us2ms(LLONG_MAX));  // no overflow at the top
  EXPECT_EQ(0, oxa_time_tick::us2s(499999));
  EXPECT_EQ(1, oxa_time_tick::us2s(500000));
  EXPECT_EQ(2, oxa_time_tick::ms2s(1500));
  EXPECT_EQ(-1, oxa_time_tick::ms2s(-5));

  struct timeval tv = {1, 499};
  EXPECT_EQ(1000, oxa_time_tick::timeval2ms(&tv));
  tv = {2, 999500};
  EXPECT_EQ(3000, oxa_time_tick::timeval2ms(&tv));
  EXPECT_EQ(2999500, oxa_time_tick::timeval2us(&tv));
  const struct timeval bad[] = {{-1, 0}, {0, -1}};
  for (const struct timeval* p : {&bad[0], &bad[1], static_cast<const timeval*>(nullptr)}) {
    EXPECT_EQ(-1, oxa_time_tick::timeval2ms(p));
    EXPECT_EQ(-1, oxa_time_tick::timeval2us(p));
  }

  oxa_time_tick::ms2timeval(12345, &tv);
  EXPECT_TRUE(tv.tv_sec == 12 && tv.tv_usec == 345000);
  oxa_time_tick::us2timeval(7654321, &tv);
  oxa_time_tick::ms2timeval(-1, &tv);  // negatives write nothing
  oxa_time_tick::us2timeval(-1, &tv);
  EXPECT_TRUE(tv.tv_sec == 7 && tv.tv_usec == 654321);
  oxa_time_tick::ms2timeval(1, nullptr);
  oxa_time_tick::us2timeval(1, nullptr);

  // No clamping here, unlike oxa_time.
  oxa_time_tick a(1000);
  a -= oxa_time_tick(2000);
  a += oxa_time_tick(250);
  EXPECT_EQ(-750, a.get_time());
  EXPECT_TRUE(a < oxa_time_tick(0) && oxa_time_tick(0) > a && a == oxa_time_tick(-750));
}
