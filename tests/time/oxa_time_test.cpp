#include "oxa_time.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <tuple>

using oxa::oxa_time;

namespace {

void UseTimeZone(const char* tz) {
  setenv("TZ", tz, 1);
  tzset();
}

auto DateOf(const oxa_time& t) {
  return std::make_tuple(t.get_year(), t.get_mon(), t.get_day(), t.get_hour(), t.get_min(),
                         t.get_sec(), t.get_week_day(), t.get_year_day());
}

}  // namespace

TEST(OxaTime, BreaksDownLocalTime) {
  UseTimeZone("UTC0");
  const oxa_time t(951868800 + 3723);  // Wednesday 2000-03-01 01:02:03
  EXPECT_EQ(951868800 + 3723, t.get_time());
  EXPECT_EQ(std::make_tuple(2000, 2, 1, 1, 2, 3, 3, 60), DateOf(t));
  EXPECT_EQ(t.get_day(), t.get_mon_day());
  UseTimeZone("<+0530>-5:30");
  EXPECT_EQ(std::make_tuple(1970, 0, 1, 5, 30, 0, 4, 0), DateOf(oxa_time(0)));
  // Only the low 32 bits fit a 32-bit time_t.
  EXPECT_EQ(sizeof(time_t) == 4 ? 5 : 0x100000005LL, oxa_time(0x100000005LL).get_time());
}

TEST(OxaTime, ArithmeticRecomputesAndClampsAtZero) {
  UseTimeZone("UTC0");
  oxa_time t(86399);
  t += oxa_time(1);
  EXPECT_EQ(std::make_tuple(1970, 0, 2, 0, 0, 0, 5, 1), DateOf(t));
  t -= oxa_time(86401);
  EXPECT_EQ(0, t.get_time());
  EXPECT_EQ(std::make_tuple(1970, 0, 1, 0, 0, 0, 4, 0), DateOf(t));
  const oxa_time a(10), b(20);
  EXPECT_TRUE(a < b && b > a && a != b && a == oxa_time(10));
  EXPECT_FALSE(a > b || b < a || a == b || a != oxa_time(10));
}

// Copying keeps the broken-down time; assigning breaks the seconds down again.
TEST(OxaTime, CopyKeepsFieldsAssignmentRecomputes) {
  UseTimeZone("UTC0");
  const oxa_time original(0);
  UseTimeZone("<+0530>-5:30");
  const oxa_time copy(original);
  oxa_time assigned(1000);
  assigned = original;
  EXPECT_EQ(0, copy.get_time());
  EXPECT_EQ(0, assigned.get_time());
  EXPECT_EQ(0, copy.get_hour());
  EXPECT_EQ(5, assigned.get_hour());
}

TEST(OxaTime, NowAndTime2tm) {
  const time_t before = time(nullptr);
  oxa_time t;
  const time_t now = t.now();
  EXPECT_LE(before, t.get_time());
  EXPECT_EQ(now, t.get_time());
  t.update_time();
  EXPECT_LE(now, t.get_time());
  EXPECT_LE(t.get_time(), time(nullptr));

  UseTimeZone("UTC0");
  struct tm fields;
  memset(&fields, 0x55, sizeof(fields));
  EXPECT_EQ(nullptr, oxa_time::time2tm(-1, &fields));
  EXPECT_EQ(0x55555555, fields.tm_year);
  EXPECT_EQ(nullptr, oxa_time::time2tm(0, nullptr));
  EXPECT_EQ(&fields, oxa_time::time2tm(86400 * 366, &fields));
  EXPECT_EQ(std::make_tuple(71, 0, 2),
            std::make_tuple(fields.tm_year, fields.tm_mon, fields.tm_mday));
}
