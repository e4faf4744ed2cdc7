#include <gtest/gtest.h>

#include <sys/time.h>
#include <time.h>

#include "oxa_time.h"

namespace {

// Milliseconds of the monotonic clock rounded to the nearest.
oxa_uint64 MonotonicRoundedMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<oxa_uint64>(ts.tv_sec) * 1000 + (ts.tv_nsec + 500000) / 1000000;
}

}  // namespace

TEST(TimeValue, NowFollowsTheWallClock) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  const oxa_int64 before = static_cast<oxa_int64>(tv.tv_sec) * 1000000 + tv.tv_usec;
  const oxa_int64 now = OXA_TimeNow();
  gettimeofday(&tv, nullptr);
  EXPECT_LE(before, now);
  EXPECT_LE(now, static_cast<oxa_int64>(tv.tv_sec) * 1000000 + tv.tv_usec);
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

TEST(TimeValue, AnsiTimeConversions) {
  EXPECT_EQ(-2000000, OXA_TimeFromAnsiTime(-2));
  EXPECT_EQ(1625389503000000LL, OXA_TimeFromAnsiTime(1625389503));
  EXPECT_EQ(1, OXA_AnsiTimeFromTime(1999999));
  EXPECT_EQ(-1, OXA_AnsiTimeFromTime(-1999999));
}
