/*
 * liboxa: time values (microseconds since 1970-01-01 UTC), monotonic millisecond ticks,
 * calendar conversion and text forms.
 */
#ifndef OXA_TIME_H_
#define OXA_TIME_H_

#include <sys/time.h>
#include <time.h>

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/** An expanded time: eleven signed 32-bit fields, in this order. */
typedef struct OXA_TIME_EXP_T {
  int32_t tm_usec;   /**< microseconds within the second, 0-999999 */
  int32_t tm_sec;    /**< seconds, 0-60 */
  int32_t tm_min;    /**< minutes, 0-59 */
  int32_t tm_hour;   /**< hours, 0-23 */
  int32_t tm_mday;   /**< day of month, 1-31 */
  int32_t tm_mon;    /**< month, 0-11 (January is 0) */
  int32_t tm_year;   /**< years since 1900 */
  int32_t tm_wday;   /**< day of week, 0-6 (Sunday is 0) */
  int32_t tm_yday;   /**< day of year, 0-365 */
  int32_t tm_isdst;  /**< daylight-saving flag, as the system's broken-down time */
  int32_t tm_gmtoff; /**< offset from GMT in seconds east */
} OXA_TIME_EXP_T;

/** Now, from the wall clock, in microseconds since the epoch. */
OXA_API oxa_int64 OXA_TimeNow(void);
/** Monotonic milliseconds, rounded to the nearest, in 32 bits (wraps after about 49.7 days). */
OXA_API unsigned int OXA_GetTimeTick(void);
/** Monotonic milliseconds, rounded to the nearest, in 64 bits. */
OXA_API oxa_uint64 OXA_GetTimeTick64(void);
/** Seconds since the epoch to a time value. */
OXA_API oxa_int64 OXA_TimeFromAnsiTime(oxa_int64 seconds);
/** A time value to seconds since the epoch, truncating. */
OXA_API oxa_int64 OXA_AnsiTimeFromTime(oxa_int64 time);

/** GMT fields of time shifted by offset_s seconds; tm_gmtoff = offset_s. 0, or -1 for null. */
OXA_API int OXA_ExpTimeFromTime(oxa_int64 time, int offset_s, OXA_TIME_EXP_T* exp);
/** GMT fields of time; 0, or -1 for a null record. */
OXA_API int OXA_ExpTimeFromTimeGMT(oxa_int64 time, OXA_TIME_EXP_T* exp);
/**
 * Local fields of time. tm_gmtoff is the zone's standard offset as it is now (summer time is
 * not counted, and the offset is that of the current time, not of the given one). 0, or -1.
 */
OXA_API int OXA_ExpTimeFromTimeLocal(oxa_int64 time, OXA_TIME_EXP_T* exp);
/**
 * Reads usec, sec, min, hour, mday, mon and year as GMT (the other fields are ignored and
 * out-of-range values simply add in). 0; -1 for null arguments or a date before the epoch.
 */
OXA_API int OXA_TimeFromExpTime(const OXA_TIME_EXP_T* exp, oxa_int64* time);
/**
 * As OXA_TimeFromExpTime, then subtracts tm_gmtoff seconds. -1 for null arguments; a date
 * before the epoch returns 0 and leaves *time unchanged.
 */
OXA_API int OXA_TimeFromExpTimeGMT(const OXA_TIME_EXP_T* exp, oxa_int64* time);

/**
 * Writes the local time as "Www Mmm DD hh:mm:ss YYYY" and a terminating zero: exactly 25
 * bytes, whatever size says. 0, or -1 for a null buffer.
 */
OXA_API int OXA_CTime(char* buffer, unsigned int size, oxa_int64 time);
/**
 * Formats the record (fields sec to isdst) with strftime rules plus %C, %D, %e, %R, %T and %r
 * (see win32_strftime_extra); *length receives the formatted length (0 when it did not fit).
 * 0, or -1 when buffer, length or exp is null.
 */
OXA_API int OXA_StrFmtTime(char* buffer, unsigned int* length, unsigned int size,
                           const char* format, const OXA_TIME_EXP_T* exp);
/**
 * strftime with %C (century of year + 1970, /100), %D, %e, %R, %T and %r expanded first; the
 * length written, or 0 when the result or the expanded format does not fit in size.
 */
OXA_API unsigned int win32_strftime_extra(char* buffer, unsigned int size, const char* format,
                                          const struct tm* fields);

#ifdef __cplusplus
}  // extern "C"

namespace oxa {

/** A wall-clock time in microseconds. */
class OXA_API oxa_time_tick {
 public:
  oxa_time_tick();
  oxa_time_tick(long long us);  // NOLINT(google-explicit-constructor): a value type
  oxa_time_tick(const oxa_time_tick& other);
  oxa_time_tick& operator=(const oxa_time_tick& other);
  virtual ~oxa_time_tick();

  /** Now in microseconds from the wall clock; -1 when the clock cannot be read. */
  static long long now();
  long long get_time() const;
  void update_time();
  oxa_time_tick& operator+=(const oxa_time_tick& other);
  oxa_time_tick& operator-=(const oxa_time_tick& other);

  /** Milliseconds of tv, rounded; -1 for null or a field equal to -1. */
  static long long timeval2ms(const struct timeval* tv);
  /** Writes ms into tv; nothing for a negative value or null. */
  static void ms2timeval(long long ms, struct timeval* tv);
  /** Microseconds of tv; -1 for null or a field equal to -1. */
  static long long timeval2us(const struct timeval* tv);
  /** Writes us into tv; nothing for a negative value or null. */
  static void us2timeval(long long us, struct timeval* tv);
  /** Rounded conversions; -1 for a negative value. */
  static long long us2ms(long long us);
  static long long us2s(long long us);
  static long long ms2s(long long ms);

 private:
  long long value_;
};

OXA_API bool operator==(const oxa_time_tick& a, const oxa_time_tick& b);
OXA_API bool operator<(const oxa_time_tick& a, const oxa_time_tick& b);
OXA_API bool operator>(const oxa_time_tick& a, const oxa_time_tick& b);

/** Seconds since the epoch with their broken-down local time, kept in step. */
class OXA_API oxa_time {
 public:
  oxa_time();
  oxa_time(long long seconds);  // NOLINT(google-explicit-constructor): a value type
  oxa_time(const oxa_time& other);
  oxa_time& operator=(const oxa_time& other);
  virtual ~oxa_time();

  /** Sets the seconds from time(NULL) and returns them. */
  time_t now();
  time_t get_time() const;
  void update_time();
  int get_year() const;
  int get_mon() const;
  int get_day() const;
  int get_mon_day() const;
  int get_hour() const;
  int get_min() const;
  int get_sec() const;
  int get_week_day() const;
  int get_year_day() const;
  oxa_time& operator+=(const oxa_time& other);
  /** A negative result becomes 0. */
  oxa_time& operator-=(const oxa_time& other);

  /** Local broken-down time of seconds into fields; fields, or null for null or seconds < 0. */
  static struct tm* time2tm(long long seconds, struct tm* fields);

 private:
  time_t seconds_;
  struct tm fields_;
};

OXA_API bool operator==(const oxa_time& a, const oxa_time& b);
OXA_API bool operator!=(const oxa_time& a, const oxa_time& b);
OXA_API bool operator<(const oxa_time& a, const oxa_time& b);
OXA_API bool operator>(const oxa_time& a, const oxa_time& b);

}  // namespace oxa
#endif  // __cplusplus

#endif /* OXA_TIME_H_ */
