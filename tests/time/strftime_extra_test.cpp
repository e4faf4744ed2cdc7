#include <gtest/gtest.h>

#include <string.h>
#include <time.h>

#include <memory>
#include <string>

#include "oxa_time.h"

namespace {

// Sunday 2021-07-04 09:05:03, day 185 of the year.
struct tm July4th(int hour = 9) {
  struct tm fields = {};
  fields.tm_year = 121;
  fields.tm_mon = 6;
  fields.tm_mday = 4;
  fields.tm_hour = hour;
  fields.tm_min = 5;
  fields.tm_sec = 3;
  fields.tm_yday = 184;
  return fields;
}

std::string Format(const char* format, const struct tm& fields, unsigned int size = 64) {
  char buffer[64];
  const unsigned int length = win32_strftime_extra(buffer, size, format, &fields);
  EXPECT_EQ(strlen(buffer), length) << format;
  return buffer;
}

}  // namespace

TEST(StrftimeExtra, ExpandsItsOwnConversions) {
  const struct tm fields = July4th();
  EXPECT_EQ("07/04/21", Format("%D", fields));
  EXPECT_EQ("20", Format("%C", fields));
  EXPECT_EQ(" 4", Format("%e", fields));
  EXPECT_EQ("09:05", Format("%R", fields));
  EXPECT_EQ("09:05:03", Format("%T", fields));
  EXPECT_EQ("09:05:03 AM", Format("%r", fields));
  EXPECT_EQ("09:05:03 PM", Format("%r", July4th(21)));
  // "%%" and the system's own conversions pass through whole.
  EXPECT_EQ("[07/04/21 09:05:03] 2021 %D %e 185", Format("[%D %T] %Y %%D %%e %j", fields));
}

// (year + 1970) / 100: the usual century only for 1900-1929 and 2000-2029.
TEST(StrftimeExtra, CenturyCountsFrom1970) {
  struct tm fields = July4th();
  for (const auto& [year, century] :
       {std::make_pair(1929, "19"), std::make_pair(1930, "20"), std::make_pair(1999, "20"),
        std::make_pair(2029, "20"), std::make_pair(2030, "21"), std::make_pair(2035, "21")}) {
    fields.tm_year = year - 1900;
    EXPECT_EQ(century, Format("%C", fields)) << year;
  }
}

TEST(StrftimeExtra, SizeLimits) {
  const struct tm fields = July4th();
  char buffer[16];
  memset(buffer, 'x', sizeof(buffer));
  // The expanded format "%m/%d/%y" alone reaches 8 characters.
  EXPECT_EQ(0u, win32_strftime_extra(buffer, 8, "%D", &fields));
  EXPECT_EQ('\0', buffer[0]);
  EXPECT_EQ(8u, win32_strftime_extra(buffer, 9, "%D", &fields));
  EXPECT_STREQ("07/04/21", buffer);
  EXPECT_EQ(0u, win32_strftime_extra(buffer, 4, "%Y", &fields));  // "2021" needs 5 bytes
  EXPECT_EQ(0u, win32_strftime_extra(buffer, 4, "abcdefgh", &fields));
  EXPECT_EQ('\0', buffer[0]);
  buffer[0] = 'x';
  EXPECT_EQ(0u, win32_strftime_extra(buffer, 0, "%D", &fields));
  EXPECT_EQ('x', buffer[0]);

  // Replacements appended at the very end of the room write past neither buffer (the
  // sanitizer build watches).
  for (unsigned int size = 1; size < 40; ++size) {
    std::unique_ptr<char[]> exact(new char[size]);
    const unsigned int length = win32_strftime_extra(exact.get(), size, "a%r%e%C%T%", &fields);
    EXPECT_LT(length, size);
    if (length > 0) {
      EXPECT_EQ(length, strlen(exact.get()));
    }
  }
}

TEST(StrFmtTime, FormatsTheRecordAndStoresTheLength) {
  OXA_TIME_EXP_T exp = {999999, 3, 5, 9, 4, 6, 121, 0, 184, 0, 3600};
  char buffer[64];
  unsigned int length = 99;
  ASSERT_EQ(0, OXA_StrFmtTime(buffer, &length, sizeof(buffer), "%D %T %a %j", &exp));
  EXPECT_STREQ("07/04/21 09:05:03 Sun 185", buffer);
  EXPECT_EQ(strlen(buffer), length);
  exp.tm_year = 135;
  ASSERT_EQ(0, OXA_StrFmtTime(buffer, &length, sizeof(buffer), "%C", &exp));
  EXPECT_STREQ("21", buffer);
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
