// A tour of time values, ticks and calendar conversion.
#include <cstdio>

#include "oxa_time.h"

namespace {

void PrintFields(const char* title, const OXA_TIME_EXP_T& t) {
  std::printf("  %-22s %04d-%02d-%02d %02d:%02d:%02d.%06d  weekday %d, yearday %d, offset %+ds\n",
              title, t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
              t.tm_usec, t.tm_wday, t.tm_yday, t.tm_gmtoff);
}

}  // namespace

int main() {
  const oxa_int64 now = OXA_TimeNow();
  std::printf("OXA_TimeNow            %lld us since 1970-01-01 UTC\n", now);
  std::printf("OXA_GetTimeTick        %u ms of monotonic time (32 bits)\n", OXA_GetTimeTick());
  std::printf("OXA_GetTimeTick64      %llu ms\n", OXA_GetTimeTick64());

  OXA_TIME_EXP_T fields;
  OXA_ExpTimeFromTimeGMT(now, &fields);
  PrintFields("GMT:", fields);
  OXA_ExpTimeFromTime(now, 8 * 3600, &fields);
  PrintFields("GMT+8 (offset given):", fields);
  OXA_ExpTimeFromTimeLocal(now, &fields);
  PrintFields("local:", fields);

  char text[32];
  OXA_CTime(text, sizeof text, now);
  std::printf("OXA_CTime              %s\n", text);

  unsigned int length = 0;
  OXA_StrFmtTime(text, &length, sizeof text, "%D %T (%C)", &fields);
  std::printf("OXA_StrFmtTime         \"%s\" (%u characters; %%D %%T %%C)\n", text, length);

  OXA_TIME_EXP_T leap = {};
  leap.tm_year = 2000 - 1900;
  leap.tm_mon = 1;
  leap.tm_mday = 29;
  leap.tm_hour = 12;
  oxa_int64 back = 0;
  OXA_TimeFromExpTime(&leap, &back);
  std::printf("2000-02-29 12:00 GMT   = %lld us = %lld s\n", back, OXA_AnsiTimeFromTime(back));

  oxa::oxa_time local_now;
  std::printf("oxa::oxa_time          %04d-%02d-%02d %02d:%02d:%02d local, weekday %d\n",
              local_now.get_year(), local_now.get_mon() + 1, local_now.get_day(),
              local_now.get_hour(), local_now.get_min(), local_now.get_sec(),
              local_now.get_week_day());
  std::printf("us2ms(1499) = %lld, us2ms(1500) = %lld\n", oxa::oxa_time_tick::us2ms(1499),
              oxa::oxa_time_tick::us2ms(1500));
  return 0;
}
