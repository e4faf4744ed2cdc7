#include <gtest/gtest.h>

#include <limits.h>
#include <sys/time.h>

#include "oxa_time.h"

using oxa::oxa_time_tick;

namespace {

long long WallClockUs() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<long long>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

}  // namespace

TEST(TimeTick, RoundedConversionsRefuseNegatives) {
  EXPECT_EQ(1, oxa_time_tick::us2ms(1499));
  EXPECT_EQ(2, oxa_time_tick::us2ms(1500));
  EXPECT_EQ(-1, oxa_time_tick::us2ms(-1));
  EXPECT_EQ(0, oxa_time_tick::us2s(499999));
  EXPECT_EQ(1, oxa_time_tick::us2s(500000));
  EXPECT_EQ(-1, oxa_time_tick::us2s(-1));
  EXPECT_EQ(1, oxa_time_tick::ms2s(1499));
  EXPECT_EQ(2, oxa_time_tick::ms2s(1500));
  EXPECT_EQ(-1, oxa_time_tick::ms2s(-5));
  EXPECT_EQ(LLONG_MAX / 1000 + 1, oxa_time_tick::us2ms(LLONG_MAX));  // no overflow at the top
}

TEST(TimeTick, TimevalConversions) {
  struct timeval tv = {1, 499};
  EXPECT_EQ(1000, oxa_time_tick::timeval2ms(&tv));
  tv = {2, 999500};
  EXPECT_EQ(3000, oxa_time_tick::timeval2ms(&tv));
  EXPECT_EQ(2999500, oxa_time_tick::timeval2us(&tv));
  for (struct timeval bad : {timeval{-1, 0}, timeval{0, -1}}) {
    EXPECT_EQ(-1, oxa_time_tick::timeval2ms(&bad));
    EXPECT_EQ(-1, oxa_time_tick::timeval2us(&bad));
  }
  EXPECT_EQ(-1, oxa_time_tick::timeval2ms(nullptr));
  EXPECT_EQ(-1, oxa_time_tick::timeval2us(nullptr));

  oxa_time_tick::ms2timeval(12345, &tv);
  EXPECT_EQ(12, tv.tv_sec);
  EXPECT_EQ(345000, tv.tv_usec);
  oxa_time_tick::us2timeval(7654321, &tv);
  EXPECT_EQ(7, tv.tv_sec);
  EXPECT_EQ(654321, tv.tv_usec);
  oxa_time_tick::ms2timeval(-1, &tv);
  oxa_time_tick::us2timeval(-1, &tv);
  EXPECT_EQ(7, tv.tv_sec);
  EXPECT_EQ(654321, tv.tv_usec);
  oxa_time_tick::ms2timeval(1, nullptr);
  oxa_time_tick::us2timeval(1, nullptr);
}

TEST(TimeTick, ValueArithmeticAndComparison) {
  oxa_time_tick a(1000);
  const oxa_time_tick b(250);
  a += b;
  EXPECT_EQ(1250, a.get_time());
  a -= oxa_time_tick(2000);
  EXPECT_EQ(-750, a.get_time());
  oxa_time_tick c(a);
  EXPECT_TRUE(c == a);
  c = b;
  EXPECT_TRUE(c == b && a < b && b > a);
  EXPECT_FALSE(a > b || b < a || a == b);
}

TEST(TimeTick, ReadsTheWallClock) {
  const long long before = WallClockUs();
  oxa_time_tick tick;
  const long long now = oxa_time_tick::now();
  const long long after = WallClockUs();
  EXPECT_LE(before, tick.get_time());
  EXPECT_LE(tick.get_time(), now);
  EXPECT_LE(now, after);
  tick.update_time();
  EXPECT_GE(tick.get_time(), now);
  EXPECT_LE(tick.get_time(), WallClockUs());
}
