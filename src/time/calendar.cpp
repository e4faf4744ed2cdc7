// Conversion between time values and the expanded calendar record, and the fixed text form.
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include "oxa_time.h"

#include "time/wrapping_math.h"

using oxa::internal::WrappingAdd;
using oxa::internal::WrappingMul;

// The record is shared with code built elsewhere: eleven 32-bit fields, no padding.
#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(OXA_TIME_EXP_T) == 44, "expanded time record is ABI");
static_assert(offsetof(OXA_TIME_EXP_T, tm_usec) == 0, "expanded time record is ABI");
static_assert(offsetof(OXA_TIME_EXP_T, tm_sec) == 4, "expanded time record is ABI");
static_assert(offsetof(OXA_TIME_EXP_T, tm_min) == 8, "expanded time record is ABI");
static_assert(offsetof(OXA_TIME_EXP_T, tm_hour) == 12, "expanded time record is ABI");
static_assert(offsetof(OXA_TIME_EXP_T, tm_mday) == 16, "expanded time record is ABI");
static_assert(offsetof(OXA_TIME_EXP_T, tm_mon) == 20, "expanded time record is ABI");
static_assert(offsetof(OXA_TIME_EXP_T, tm_year) == 24, "expanded time record is ABI");
static_assert(offsetof(OXA_TIME_EXP_T, tm_wday) == 28, "expanded time record is ABI");
static_assert(offsetof(OXA_TIME_EXP_T, tm_yday) == 32, "expanded time record is ABI");
static_assert(offsetof(OXA_TIME_EXP_T, tm_isdst) == 36, "expanded time record is ABI");
static_assert(offsetof(OXA_TIME_EXP_T, tm_gmtoff) == 40, "expanded time record is ABI");
#endif

namespace {

constexpr long long kUsPerSecond = 1000000;

// Days before each month in a year that starts on 1 March (index 0 is January).
constexpr long long kMarchYearMonthOffset[12] = {306, 337, 0,   31,  61,  92,
                                                 122, 153, 184, 214, 245, 275};
// Days from 1 March 1900 to 1 January 1970.
constexpr long long kDaysMarch1900ToEpoch = 25508;

constexpr char kDayNames[7][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr char kMonthNames[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
// "Www Mmm DD hh:mm:ss YYYY" without its terminating zero.
constexpr size_t kCTimeLength = 24;

// Division rounding towards minus infinity (b > 0).
long long FloorDiv(long long a, long long b) {
  const long long q = a / b;
  return (a % b != 0 && a < 0) ? q - 1 : q;
}

// Whole seconds of a time value; the sub-second part is time % 1'000'000 (both truncate
// towards zero, so a negative value gives a negative microsecond field).
time_t SecondsOf(oxa_int64 time, long long offset_s) {
  // On a 32-bit time_t the low 32 bits are kept.
  return static_cast<time_t>(WrappingAdd(time / kUsPerSecond, offset_s));
}

void CopyFields(const struct tm& fields, int32_t usec, int32_t offset_s, OXA_TIME_EXP_T* exp) {
  exp->tm_usec = usec;
  exp->tm_sec = fields.tm_sec;
  exp->tm_min = fields.tm_min;
  exp->tm_hour = fields.tm_hour;
  exp->tm_mday = fields.tm_mday;
  exp->tm_mon = fields.tm_mon;
  exp->tm_year = fields.tm_year;
  exp->tm_wday = fields.tm_wday;
  exp->tm_yday = fields.tm_yday;
  exp->tm_isdst = fields.tm_isdst;
  exp->tm_gmtoff = offset_s;
}

// The zone's offset as it is now, whatever time is being converted: the local and the GMT
// fields of the current time are both read back by mktime as standard time, and their
// difference is the offset. False when the wall clock cannot be read.
bool CurrentZoneOffset(int32_t* offset_s) {
  struct timeval now_tv;
  if (gettimeofday(&now_tv, nullptr) != 0) return false;
  const time_t now = now_tv.tv_sec;
  struct tm local_fields = {};
  struct tm gmt_fields = {};
  localtime_r(&now, &local_fields);
  gmtime_r(&now, &gmt_fields);
  local_fields.tm_isdst = 0;
  const time_t local_as_standard = mktime(&local_fields);
  const time_t gmt_as_standard = mktime(&gmt_fields);
  *offset_s = static_cast<int32_t>(local_as_standard - gmt_as_standard);
  return true;
}

// Seconds since the epoch of the GMT calendar fields, by the closed formula on a calendar
// whose year begins on 1 March (so the leap day is the last day of its year). Fields out of
// range add in; a month outside 0-11 carries into the year rather than indexing off the
// table. 64-bit arithmetic cannot overflow here for any 32-bit field values.
long long SecondsFromFields(const OXA_TIME_EXP_T& exp) {
  long long year = exp.tm_year;
  long long month = exp.tm_mon;
  const long long carried_years = FloorDiv(month, 12);
  year += carried_years;
  month -= carried_years * 12;
  if (month < 2) --year;  // January and February end the previous March-based year

  const long long centuries = FloorDiv(year, 100);
  long long days = 365 * year + FloorDiv(year, 4) - centuries + FloorDiv(centuries + 3, 4);
  days += kMarchYearMonthOffset[month] + exp.tm_mday - 1;
  days -= kDaysMarch1900ToEpoch;
  return ((days * 24 + exp.tm_hour) * 60 + exp.tm_min) * 60 + exp.tm_sec;
}

// The time value of the GMT fields; false (and nothing written) before the epoch.
bool TimeFromFields(const OXA_TIME_EXP_T& exp, oxa_int64* time) {
  const long long seconds = SecondsFromFields(exp);
  if (seconds < 0) return false;
  *time = WrappingAdd(WrappingMul(seconds, kUsPerSecond), exp.tm_usec);
  return true;
}

}  // namespace

// ---- C entry points ---------------------------------------------------------

extern "C" {

OXA_API int OXA_ExpTimeFromTime(oxa_int64 time, int offset_s, OXA_TIME_EXP_T* exp) {
  if (exp == nullptr) return OXA_ERROR;
  const time_t seconds = SecondsOf(time, offset_s);
  struct tm fields;
  if (gmtime_r(&seconds, &fields) == nullptr) return OXA_ERROR;  // errno EOVERFLOW
  CopyFields(fields, static_cast<int32_t>(time % kUsPerSecond), offset_s, exp);
  return 0;
}

OXA_API int OXA_ExpTimeFromTimeGMT(oxa_int64 time, OXA_TIME_EXP_T* exp) {
  return OXA_ExpTimeFromTime(time, 0, exp);
}

OXA_API int OXA_ExpTimeFromTimeLocal(oxa_int64 time, OXA_TIME_EXP_T* exp) {
  if (exp == nullptr) return OXA_ERROR;
  int32_t offset_s = 0;
  if (!CurrentZoneOffset(&offset_s)) return OXA_ERROR;
  const time_t seconds = SecondsOf(time, 0);
  struct tm fields;
  if (localtime_r(&seconds, &fields) == nullptr) return OXA_ERROR;  // errno EOVERFLOW
  CopyFields(fields, static_cast<int32_t>(time % kUsPerSecond), offset_s, exp);
  return 0;
}

OXA_API int OXA_TimeFromExpTime(const OXA_TIME_EXP_T* exp, oxa_int64* time) {
  if (exp == nullptr || time == nullptr) return OXA_ERROR;
  return TimeFromFields(*exp, time) ? 0 : OXA_ERROR;
}

OXA_API int OXA_TimeFromExpTimeGMT(const OXA_TIME_EXP_T* exp, oxa_int64* time) {
  if (exp == nullptr || time == nullptr) return OXA_ERROR;
  oxa_int64 gmt_time = 0;
  // A date before the epoch is reported as success with *time untouched: callers rely on it.
  if (!TimeFromFields(*exp, &gmt_time)) return 0;
  *time = WrappingAdd(gmt_time, -static_cast<long long>(exp->tm_gmtoff) * kUsPerSecond);
  return 0;
}

OXA_API int OXA_CTime(char* buffer, unsigned int /*size: the text is always 25 bytes*/,
                      oxa_int64 time) {
  if (buffer == nullptr) return OXA_ERROR;
  const time_t seconds = SecondsOf(time, 0);
  struct tm f;
  if (localtime_r(&seconds, &f) == nullptr) return OXA_ERROR;  // errno EOVERFLOW
  // Names come from tables, not from the locale; a year beyond four digits is cut so that
  // exactly 25 bytes are written all the same.
  char text[64];
  snprintf(text, sizeof(text), "%s %s %02d %02d:%02d:%02d %04d", kDayNames[f.tm_wday],
           kMonthNames[f.tm_mon], f.tm_mday, f.tm_hour, f.tm_min, f.tm_sec, f.tm_year + 1900);
  memcpy(buffer, text, kCTimeLength);
  buffer[kCTimeLength] = '\0';
  return 0;
}

}  // extern "C"
