// Calendar conversion, oxa_time, and the text forms of a time.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "oxa_time.h"

using oxa::oxa_time;

namespace {

constexpr long long kUs = 1000000;
// Anything that passes through time_t stays within its range on 32-bit targets.
constexpr int kLastYear = sizeof(time_t) == 8 ? 2100 : 2037;

void UseTimeZone(const char* tz) {
  setenv("TZ", tz, 1);
  tzset();
}

OXA_TIME_EXP_T Fields(int year, int mon, int mday, int hour = 0, int min = 0, int sec = 0) {
  return {0, sec, min, hour, mday, mon, year - 1900, 0, 0, 0, 0};
}

long long ToTime(const OXA_TIME_EXP_T& exp) {
  oxa_int64 t = 12345;
  EXPECT_EQ(0, OXA_TimeFromExpTime(&exp, &t));
  return t;
}

// Sunday 2021-07-04 09:05:03, day 185 of the year.
struct tm July4th() {
  const time_t seconds = 1625389503;
  struct tm fields;
  gmtime_r(&seconds, &fields);
  return fields;
}

std::string Format(const char* format, const struct tm& fields) {
  char buffer[64];
  const unsigned int length = win32_strftime_extra(buffer, sizeof(buffer), format, &fields);
  EXPECT_EQ(strlen(buffer), length) << format;
  return buffer;
}

auto DateOf(const OXA_TIME_EXP_T& e) {
  return std::make_tuple(e.tm_usec, e.tm_sec, e.tm_min, e.tm_hour, e.tm_mday, e.tm_mon, e.tm_year,
                         e.tm_wday, e.tm_yday, e.tm_isdst, e.tm_gmtoff);
}

auto LocalDateOf(const oxa::oxa_time& t) {
  return std::make_tuple(t.get_year(), t.get_mon(), t.get_day(), t.get_hour(), t.get_min(),
                         t.get_sec(), t.get_week_day(), t.get_year_day());
}

}  // namespace

// Fields out of their range simply add in; day of week, day of year, DST flag and offset are
// not read.
TEST(Calendar, ExamplesQuirksAndNullArguments) {
  const struct {
    OXA_TIME_EXP_T exp;
    long long seconds;
  } cases[] = {
      {Fields(1970, 0, 1), 0},
      {{17, 0, 0, 0, 1, 2, 100, 0, 0, 0, 0}, 951868800},  // 2000-03-01, plus 17 us below
      {{0, 3, 5, 9, 4, 6, 121, 5, 300, 1, 7200}, 1625389503},
      {Fields(2021, 6, 4, 25), 1625446800},  // 2021-07-05 01:00
      {Fields(2021, 2, 0), 1614470400},      // 2021-02-28
      {Fields(2021, 12, 1), 1640995200},     // 2022-01-01
      {Fields(2021, -1, 1), 1606780800},     // 2020-12-01
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.seconds * kUs + c.exp.tm_usec, ToTime(c.exp)) << c.seconds;

  // Before the epoch: -1 and nothing written, but the GMT variant reports success.
  oxa_int64 t = 12345;
  OXA_TIME_EXP_T exp = Fields(1969, 11, 31, 23, 59, 59);
  EXPECT_EQ(-1, OXA_TimeFromExpTime(&exp, &t));
  EXPECT_EQ(0, OXA_TimeFromExpTimeGMT(&exp, &t));
  EXPECT_EQ(12345, t);
  // The GMT variant converts first, then subtracts the offset: the epoch itself may go below 0.
  exp = {0, 3, 5, 10, 4, 6, 121, 0, 0, 0, 3600};
  EXPECT_EQ(0, OXA_TimeFromExpTimeGMT(&exp, &t));
  EXPECT_EQ(1625389503 * kUs, t);
  exp = {0, 0, 0, 0, 1, 0, 70, 0, 0, 0, 3600};
  EXPECT_EQ(0, OXA_TimeFromExpTimeGMT(&exp, &t));
  EXPECT_EQ(-3600 * kUs, t);

  // Back to fields: those of the shifted time in GMT, with the offset in the last field.
  ASSERT_EQ(0, OXA_ExpTimeFromTimeGMT(0, &exp));
  EXPECT_EQ(std::make_tuple(0, 0, 0, 0, 1, 0, 70, 4, 0, 0, 0), DateOf(exp));
  ASSERT_EQ(0, OXA_ExpTimeFromTime(1640993400250000LL, 3600, &exp));  // 2021-12-31 23:30:00.25
  EXPECT_EQ(std::make_tuple(250000, 0, 30, 0, 1, 0, 122, 6, 0, 0, 3600), DateOf(exp));
  ASSERT_EQ(0, OXA_ExpTimeFromTime(1640993400250000LL, -7200, &exp));
  EXPECT_EQ(std::make_tuple(250000, 0, 30, 21, 31, 11, 121, 5, 364, 0, -7200), DateOf(exp));

  EXPECT_EQ(-1, OXA_TimeFromExpTime(nullptr, &t));
  EXPECT_EQ(-1, OXA_TimeFromExpTime(&exp, nullptr));
  EXPECT_EQ(-1, OXA_TimeFromExpTimeGMT(nullptr, &t));
  EXPECT_EQ(-1, OXA_TimeFromExpTimeGMT(&exp, nullptr));
  EXPECT_EQ(-1, OXA_ExpTimeFromTime(0, 0, nullptr));
  EXPECT_EQ(-1, OXA_ExpTimeFromTimeGMT(0, nullptr));
  EXPECT_EQ(-1, OXA_ExpTimeFromTimeLocal(0, nullptr));
  EXPECT_EQ(-1, OXA_CTime(nullptr, 25, 0));
  EXPECT_EQ(-3600 * kUs, t);
}

// Both directions against the system's own calendar: every month's first second and the
// second before it, and random instants, from 1970 to kLastYear.
TEST(Calendar, AgreesWithSystemCalendarBothWays) {
  std::vector<time_t> instants;
  for (int year = 1970; year <= kLastYear; ++year) {
    for (int mon = 0; mon < 12; ++mon) {
      struct tm first = {0, 0, 0, 1, mon, year - 1900, 0, 0, 0, 0, nullptr};
      instants.push_back(timegm(&first));
      if (instants.back() > 0) instants.push_back(instants.back() - 1);
    }
  }
  std::mt19937 random(20210704);
  std::uniform_int_distribution<long long> in_range(0, instants.back());
  for (int i = 0; i < 3000; ++i)
    instants.push_back(static_cast<time_t>(in_range(random)));

  for (size_t i = 0; i < instants.size(); ++i) {
    const int usec = static_cast<int>(i * 199 % kUs);
    const long long t = static_cast<long long>(instants[i]) * kUs + usec;
    struct tm sys;
    ASSERT_NE(nullptr, gmtime_r(&instants[i], &sys));
    OXA_TIME_EXP_T exp;
    ASSERT_EQ(0, OXA_ExpTimeFromTimeGMT(t, &exp));
    ASSERT_EQ(std::make_tuple(usec, sys.tm_sec, sys.tm_min, sys.tm_hour, sys.tm_mday, sys.tm_mon,
                              sys.tm_year, sys.tm_wday, sys.tm_yday, 0, 0),
              DateOf(exp))
        << "at " << instants[i];
    ASSERT_EQ(t, ToTime(exp)) << "at " << instants[i];
  }
}

TEST(Calendar, LocalFieldsTakeTheOffsetOfTheZoneAsItIsNow) {
  UseTimeZone("<+0530>-5:30");
  OXA_TIME_EXP_T exp;
  ASSERT_EQ(0, OXA_ExpTimeFromTimeLocal(1625389503 * kUs + 250000, &exp));
  EXPECT_EQ(std::make_tuple(250000, 3, 35, 14, 4, 6, 121, 0, 184, 0, 19800), DateOf(exp));

  // Summer time is not counted, and a winter and a summer date get the same offset.
  UseTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
  OXA_TIME_EXP_T winter, summer;
  ASSERT_EQ(0, OXA_ExpTimeFromTimeLocal(ToTime(Fields(2021, 0, 15, 12)), &winter));
  ASSERT_EQ(0, OXA_ExpTimeFromTimeLocal(ToTime(Fields(2021, 6, 15, 12)), &summer));
  EXPECT_EQ(std::make_tuple(13, 0, 14, 1),
            std::make_tuple(winter.tm_hour, winter.tm_isdst, summer.tm_hour, summer.tm_isdst));
  EXPECT_EQ(winter.tm_gmtoff, summer.tm_gmtoff);
  EXPECT_TRUE(winter.tm_gmtoff == 3600 || winter.tm_gmtoff == 7200) << winter.tm_gmtoff;
}

// Exactly 25 bytes whatever the size says, in the local zone, with the C locale's names.
TEST(Calendar, CTimeWritesTwentyFiveBytes) {
  UseTimeZone("<+0530>-5:30");
  char text[40];
  memset(text, 'x', sizeof(text));
  ASSERT_EQ(0, OXA_CTime(text, 0, 1625389503 * kUs + 999999));
  EXPECT_EQ(std::string("Sun Jul 04 14:35:03 2021"), text);
  EXPECT_EQ('x', text[25]);

  UseTimeZone("UTC0");
  for (time_t seconds = 1600000000; seconds < 1640000000; seconds += 86400 * 3 + 37) {
    struct tm fields;
    ASSERT_NE(nullptr, gmtime_r(&seconds, &fields));
    char expected[40];
    strftime(expected, sizeof(expected), "%a %b %d %H:%M:%S %Y", &fields);
    ASSERT_EQ(0, OXA_CTime(text, 25, static_cast<long long>(seconds) * kUs));
    ASSERT_STREQ(expected, text);
  }
}

TEST(StrftimeExtra, ExpandsItsOwnConversionsAndPassesTheRestThrough) {
  struct tm fields = July4th();
  EXPECT_EQ("07/04/21|20| 4|09:05|09:05:03|09:05:03 AM|%D %e 185 2021",
            Format("%D|%C|%e|%R|%T|%r|%%D %%e %j %Y", fields));
  fields.tm_hour = 21;
  EXPECT_EQ("09:05:03 PM", Format("%r", fields));
  // The century is (years since 1900 + 1970) / 100: usual only for 1930-2029.
  std::string centuries;
  for (int year : {1929, 1930, 2029, 2030}) {
    fields.tm_year = year - 1900;
    centuries += Format("%C ", fields);
  }
  EXPECT_EQ("19 20 20 21 ", centuries);
}

TEST(StrftimeExtra, SizeLimits) {
  const struct tm fields = July4th();
  char buffer[16];
  memset(buffer, 'x', sizeof(buffer));
  // The expanded format "%m/%d/%y" alone reaches 8 characters: an empty result.
  EXPECT_EQ(0u, win32_strftime_extra(buffer, 8, "%D", &fields));
  EXPECT_EQ('\0', buffer[0]);
  EXPECT_EQ(8u, win32_strftime_extra(buffer, 9, "%D", &fields));
  EXPECT_STREQ("07/04/21", buffer);
  EXPECT_EQ(0u, win32_strftime_extra(buffer, 4, "%Y", &fields));  // "2021" needs 5 bytes
  buffer[0] = 'x';
  EXPECT_EQ(0u, win32_strftime_extra(buffer, 0, "%D", &fields));
  EXPECT_EQ('x', buffer[0]);

  // Replacements appended at the very end of the room write past neither buffer (the
  // sanitizer build watches).
  for (unsigned int size = 1; size < 40; ++size) {
    std::unique_ptr<char[]> exact(new char[size]);
    const unsigned int length = win32_strftime_extra(exact.get(), size, "a%r%e%C%T%", &fields);
    EXPECT_LT(length, size);
    EXPECT_TRUE(length == 0 || length == strlen(exact.get())) << size;
  }
}

// Fields 2-10 of the record map onto the system's broken-down time.
TEST(StrftimeExtra, StrFmtTimeFormatsTheRecordAndStoresTheLength) {
  OXA_TIME_EXP_T exp = {999999, 3, 5, 9, 4, 6, 135, 0, 184, 0, 3600};
  char buffer[64];
  unsigned int length = 99;
  ASSERT_EQ(0, OXA_StrFmtTime(buffer, &length, sizeof(buffer), "%D %T %a %j %C", &exp));
  EXPECT_STREQ("07/04/35 09:05:03 Sun 185 21", buffer);
  EXPECT_EQ(strlen(buffer), length);
  ASSERT_EQ(0, OXA_StrFmtTime(buffer, &length, 3, "%Y", &exp));
  EXPECT_EQ(0u, length);

  length = 99;
  EXPECT_EQ(-1, OXA_StrFmtTime(nullptr, &length, sizeof(buffer), "%D", &exp));
  EXPECT_EQ(-1, OXA_StrFmtTime(buffer, nullptr, sizeof(buffer), "%D", &exp));
  EXPECT_EQ(-1, OXA_StrFmtTime(buffer, &length, sizeof(buffer), nullptr, &exp));
  EXPECT_EQ(-1, OXA_StrFmtTime(buffer, &length, sizeof(buffer), "%D", nullptr));
  EXPECT_EQ(99u, length);
  const struct tm fields = July4th();
  EXPECT_EQ(0u, win32_strftime_extra(nullptr, 8, "%D", &fields));
  EXPECT_EQ(0u, win32_strftime_extra(buffer, 8, nullptr, &fields));
  EXPECT_EQ(0u, win32_strftime_extra(buffer, 8, "%D", nullptr));
}

// Copying keeps the broken-down time; assigning breaks the seconds down again.
TEST(OxaTime, BreaksDownLocalTimeAndClampsAtZero) {
  UseTimeZone("UTC0");
  const oxa_time epoch(0);
  UseTimeZone("<+0530>-5:30");
  const oxa_time copy(epoch);
  oxa_time assigned(1000);
  assigned = epoch;
  EXPECT_EQ(0, copy.get_hour());
  EXPECT_EQ(std::make_tuple(1970, 0, 1, 5, 30, 0, 4, 0), LocalDateOf(assigned));
  EXPECT_TRUE(copy.get_time() == 0 && assigned.get_time() == 0);
  // Only the low 32 bits fit a 32-bit time_t.
  EXPECT_EQ(sizeof(time_t) == 4 ? 5 : 0x100000005LL, oxa_time(0x100000005LL).get_time());

  UseTimeZone("UTC0");
  oxa_time t(951868800 + 86399);  // Wednesday 2000-03-01 23:59:59
  EXPECT_EQ(std::make_tuple(2000, 2, 1, 23, 59, 59, 3, 60), LocalDateOf(t));
  EXPECT_EQ(t.get_day(), t.get_mon_day());
  t += oxa_time(1);
  EXPECT_EQ(std::make_tuple(2000, 2, 2, 0, 0, 0, 4, 61), LocalDateOf(t));
  t -= oxa_time(951868800 + 86401);
  EXPECT_EQ(std::make_tuple(1970, 0, 1, 0, 0, 0, 4, 0), LocalDateOf(t));
  EXPECT_TRUE(t < oxa_time(1) && oxa_time(1) > t && t != oxa_time(1) && t == oxa_time(0));
}

TEST(OxaTime, NowAndTime2tm) {
  const time_t before = time(nullptr);
  oxa_time t;
  EXPECT_LE(before, t.get_time());
  const time_t now = t.now();
  EXPECT_TRUE(now == t.get_time() && now <= time(nullptr));

  UseTimeZone("UTC0");
  struct tm fields;
  fields.tm_year = 12345;
  EXPECT_EQ(nullptr, oxa_time::time2tm(-1, &fields));
  EXPECT_EQ(12345, fields.tm_year);
  EXPECT_EQ(nullptr, oxa_time::time2tm(0, nullptr));
  EXPECT_EQ(&fields, oxa_time::time2tm(86400 * 366, &fields));
  EXPECT_TRUE(fields.tm_year == 71 && fields.tm_mon == 0 && fields.tm_mday == 2);
}
