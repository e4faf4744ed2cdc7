#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <random>
#include <string>
#include <tuple>

#include "oxa_time.h"

namespace {

constexpr long long kUs = 1000000;
// Anything that passes through time_t stays within its range on 32-bit targets.
constexpr int kLastYear = sizeof(time_t) == 8 ? 2100 : 2037;

void UseTimeZone(const char* tz) {
  setenv("TZ", tz, 1);
  tzset();
}

OXA_TIME_EXP_T Fields(int year, int mon, int mday, int hour = 0, int min = 0, int sec = 0) {
  OXA_TIME_EXP_T exp = {};
  exp.tm_year = year - 1900;
  exp.tm_mon = mon;
  exp.tm_mday = mday;
  exp.tm_hour = hour;
  exp.tm_min = min;
  exp.tm_sec = sec;
  return exp;
}

long long ToTime(const OXA_TIME_EXP_T& exp) {
  oxa_int64 t = 12345;
  EXPECT_EQ(0, OXA_TimeFromExpTime(&exp, &t));
  return t;
}

}  // namespace

TEST(TimeFromExpTime, DocumentedDatesAndPreEpochFailure) {
  EXPECT_EQ(0, ToTime(Fields(1970, 0, 1)));
  EXPECT_EQ(951868800000000LL, ToTime(Fields(2000, 2, 1)));
  OXA_TIME_EXP_T exp = Fields(2000, 2, 1);
  exp.tm_usec = 17;
  EXPECT_EQ(951868800000017LL, ToTime(exp));

  oxa_int64 t = 12345;
  exp = Fields(1969, 11, 31, 23, 59, 59);
  EXPECT_EQ(-1, OXA_TimeFromExpTime(&exp, &t));
  EXPECT_EQ(12345, t);
  EXPECT_EQ(-1, OXA_TimeFromExpTime(nullptr, &t));
  EXPECT_EQ(-1, OXA_TimeFromExpTime(&exp, nullptr));
}

// Both directions against the system's own calendar, over random instants of 1970-kLastYear.
TEST(TimeFromExpTime, AgreesWithSystemCalendarBothWays) {
  std::mt19937 random(20210704);
  OXA_TIME_EXP_T last = Fields(kLastYear, 11, 31, 23, 59, 59);
  std::uniform_int_distribution<long long> seconds_in_range(0, ToTime(last) / kUs);
  for (int i = 0; i < 5000; ++i) {
    const time_t seconds = static_cast<time_t>(seconds_in_range(random));
    const long long t = seconds * kUs + i * 199;
    struct tm sys;
    ASSERT_NE(nullptr, gmtime_r(&seconds, &sys));
    OXA_TIME_EXP_T exp;
    ASSERT_EQ(0, OXA_ExpTimeFromTimeGMT(t, &exp));
    EXPECT_EQ(i * 199, exp.tm_usec);
    EXPECT_EQ(std::make_tuple(sys.tm_year, sys.tm_mon, sys.tm_mday, sys.tm_hour, sys.tm_min,
                              sys.tm_sec, sys.tm_wday, sys.tm_yday, 0, 0),
              std::make_tuple(exp.tm_year, exp.tm_mon, exp.tm_mday, exp.tm_hour, exp.tm_min,
                              exp.tm_sec, exp.tm_wday, exp.tm_yday, exp.tm_isdst, exp.tm_gmtoff));
    ASSERT_EQ(t, ToTime(exp)) << "at " << seconds;
    ASSERT_EQ(static_cast<long long>(timegm(&sys)) * kUs,
              ToTime(Fields(sys.tm_year + 1900, sys.tm_mon, sys.tm_mday, sys.tm_hour, sys.tm_min,
                            sys.tm_sec)));
  }
}

// Every first and last day of a month up to 2100, counted independently of time_t.
TEST(TimeFromExpTime, MonthAndLeapBoundariesTo2100) {
  const int month_days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  long long days = 0;
  for (int year = 1970; year <= 2100; ++year) {
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    for (int mon = 0; mon < 12; ++mon) {
      const int length = month_days[mon] + (mon == 1 && leap ? 1 : 0);
      ASSERT_EQ(days * 86400 * kUs, ToTime(Fields(year, mon, 1))) << year << "-" << mon + 1;
      days += length;
      ASSERT_EQ(days * 86400 * kUs - kUs, ToTime(Fields(year, mon, length, 23, 59, 59)));
    }
  }
}

TEST(TimeFromExpTime, OutOfRangeFieldsAddInAndOthersAreIgnored) {
  const long long day = 86400 * kUs;
  const long long base = ToTime(Fields(2021, 6, 4));
  EXPECT_EQ(base + day + 3600 * kUs, ToTime(Fields(2021, 6, 4, 25)));
  EXPECT_EQ(base - day, ToTime(Fields(2021, 6, 3)));
  EXPECT_EQ(ToTime(Fields(2021, 1, 28)), ToTime(Fields(2021, 2, 0)));
  EXPECT_EQ(ToTime(Fields(2022, 0, 1)), ToTime(Fields(2021, 12, 1)));
  EXPECT_EQ(ToTime(Fields(2020, 11, 1)), ToTime(Fields(2021, -1, 1)));
  EXPECT_EQ(base + 60 * kUs, ToTime(Fields(2021, 6, 4, 0, 0, 60)));
  OXA_TIME_EXP_T exp = Fields(2021, 6, 4);
  exp.tm_wday = 5;
  exp.tm_yday = 300;
  exp.tm_isdst = 1;
  exp.tm_gmtoff = 7200;
  EXPECT_EQ(base, ToTime(exp));
}

TEST(TimeFromExpTimeGMT, SubtractsOffsetAndReportsPreEpochAsSuccess) {
  OXA_TIME_EXP_T exp = Fields(2021, 6, 4, 10, 5, 3);
  exp.tm_gmtoff = 3600;
  oxa_int64 t = 0;
  EXPECT_EQ(0, OXA_TimeFromExpTimeGMT(&exp, &t));
  EXPECT_EQ(ToTime(Fields(2021, 6, 4, 9, 5, 3)), t);
  exp = Fields(1970, 0, 1);
  exp.tm_gmtoff = 3600;  // the epoch itself converts; only then is the offset applied
  EXPECT_EQ(0, OXA_TimeFromExpTimeGMT(&exp, &t));
  EXPECT_EQ(-3600 * kUs, t);

  t = 12345;
  exp = Fields(1969, 11, 31);
  EXPECT_EQ(0, OXA_TimeFromExpTimeGMT(&exp, &t));
  EXPECT_EQ(12345, t);
  EXPECT_EQ(-1, OXA_TimeFromExpTimeGMT(nullptr, &t));
  EXPECT_EQ(-1, OXA_TimeFromExpTimeGMT(&exp, nullptr));
}

TEST(ExpTimeFromTime, EpochAndOffset) {
  OXA_TIME_EXP_T exp;
  memset(&exp, 0x55, sizeof(exp));
  ASSERT_EQ(0, OXA_ExpTimeFromTimeGMT(0, &exp));
  EXPECT_EQ(std::make_tuple(0, 0, 70, 0, 1, 4, 0, 0, 0),
            std::make_tuple(exp.tm_usec, exp.tm_sec, exp.tm_year, exp.tm_mon, exp.tm_mday,
                            exp.tm_wday, exp.tm_yday, exp.tm_isdst, exp.tm_gmtoff));

  const long long t = ToTime(Fields(2021, 11, 31, 23, 30)) + 250000;
  for (int offset : {3600, -7200}) {
    OXA_TIME_EXP_T shifted, expected;
    ASSERT_EQ(0, OXA_ExpTimeFromTime(t, offset, &shifted));
    ASSERT_EQ(0, OXA_ExpTimeFromTimeGMT(t + offset * kUs, &expected));
    expected.tm_gmtoff = offset;
    EXPECT_EQ(0, memcmp(&expected, &shifted, sizeof(expected))) << offset;
  }
  EXPECT_EQ(-1, OXA_ExpTimeFromTime(0, 0, nullptr));
  EXPECT_EQ(-1, OXA_ExpTimeFromTimeGMT(0, nullptr));
  EXPECT_EQ(-1, OXA_ExpTimeFromTimeLocal(0, nullptr));
}

TEST(ExpTimeFromTimeLocal, LocalFieldsWithTheZoneOffset) {
  UseTimeZone("<+0530>-5:30");
  OXA_TIME_EXP_T exp;
  ASSERT_EQ(0, OXA_ExpTimeFromTimeLocal(ToTime(Fields(2021, 6, 4, 9, 5, 3)) + 250000, &exp));
  EXPECT_EQ(std::make_tuple(250000, 3, 35, 14, 4, 6, 121, 0, 0, 19800),
            std::make_tuple(exp.tm_usec, exp.tm_sec, exp.tm_min, exp.tm_hour, exp.tm_mday,
                            exp.tm_mon, exp.tm_year, exp.tm_wday, exp.tm_isdst, exp.tm_gmtoff));
}

// The offset follows the zone as it is now, so a winter and a summer date get the same one.
TEST(ExpTimeFromTimeLocal, OffsetComesFromTheCurrentTime) {
  UseTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
  OXA_TIME_EXP_T winter, summer;
  ASSERT_EQ(0, OXA_ExpTimeFromTimeLocal(ToTime(Fields(2021, 0, 15, 12)), &winter));
  ASSERT_EQ(0, OXA_ExpTimeFromTimeLocal(ToTime(Fields(2021, 6, 15, 12)), &summer));
  EXPECT_EQ(std::make_tuple(13, 0, 14, 1),
            std::make_tuple(winter.tm_hour, winter.tm_isdst, summer.tm_hour, summer.tm_isdst));
  EXPECT_EQ(winter.tm_gmtoff, summer.tm_gmtoff);
  EXPECT_TRUE(winter.tm_gmtoff == 3600 || winter.tm_gmtoff == 7200) << winter.tm_gmtoff;
}

TEST(CTime, FixedTwentyFiveBytesOfLocalTime) {
  UseTimeZone("UTC0");
  char text[40];
  memset(text, 'x', sizeof(text));
  ASSERT_EQ(0, OXA_CTime(text, 0, ToTime(Fields(2021, 6, 4, 9, 5, 3)) + 999999));
  EXPECT_EQ(std::string("Sun Jul 04 09:05:03 2021"), text);
  EXPECT_EQ('x', text[25]);

  UseTimeZone("<+0530>-5:30");
  ASSERT_EQ(0, OXA_CTime(text, sizeof(text), ToTime(Fields(2021, 6, 4, 9, 5, 3))));
  EXPECT_EQ(std::string("Sun Jul 04 14:35:03 2021"), text);
  EXPECT_EQ(-1, OXA_CTime(nullptr, sizeof(text), 0));
}

// Day and month names for every weekday and month, against the C locale's strftime.
TEST(CTime, NamesMatchTheCLocale) {
  UseTimeZone("UTC0");
  for (int day = 0; day < 400; day += 3) {
    const time_t seconds = 1600000000 + day * 86400 + day * 37;
    struct tm fields;
    ASSERT_NE(nullptr, gmtime_r(&seconds, &fields));
    char expected[40], text[25];
    strftime(expected, sizeof(expected), "%a %b %d %H:%M:%S %Y", &fields);
    ASSERT_EQ(0, OXA_CTime(text, sizeof(text), static_cast<long long>(seconds) * kUs));
    ASSERT_STREQ(expected, text);
  }
}
