/** \file
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

/**
 * Now, from the wall clock (gettimeofday), in microseconds since the epoch. The clock read is
 * not checked: there is no failure value. Thread-safe.
 */
OXA_API oxa_int64 OXA_TimeNow(void);
/**
 * Milliseconds of the monotonic clock, rounded to the nearest, computed in 32 bits: the value
 * wraps after about 49.7 days, so compare ticks by unsigned difference. Thread-safe.
 */
OXA_API unsigned int OXA_GetTimeTick(void);
/** Milliseconds of the monotonic clock, rounded to the nearest, in 64 bits. Thread-safe. */
OXA_API oxa_uint64 OXA_GetTimeTick64(void);
/** Seconds since the epoch to a time value (seconds x 1,000,000); no failure value. */
OXA_API oxa_int64 OXA_TimeFromAnsiTime(oxa_int64 seconds);
/** A time value to seconds since the epoch, truncating towards zero; no failure value. */
OXA_API oxa_int64 OXA_AnsiTimeFromTime(oxa_int64 time);

/**
 * Fills exp with the GMT calendar fields of time / 1,000,000 + offset_s seconds; tm_usec is
 * time % 1,000,000 (both truncate towards zero) and tm_gmtoff is offset_s. With a 32-bit
 * time_t only the low 32 bits of the seconds are converted.
 * Returns 0; -1 when exp is null or (with a 64-bit time_t) the seconds lie beyond the
 * system's calendar (errno EOVERFLOW); exp is then untouched. Thread-safe.
 */
OXA_API int OXA_ExpTimeFromTime(oxa_int64 time, int offset_s, OXA_TIME_EXP_T* exp);
/**
 * OXA_ExpTimeFromTime with offset 0: the GMT fields of time, tm_gmtoff 0. 0; -1 for a null
 * record or a time beyond the system's calendar (exp untouched).
 */
OXA_API int OXA_ExpTimeFromTimeGMT(oxa_int64 time, OXA_TIME_EXP_T* exp);
/**
 * Fills exp with the local calendar fields of time (localtime_r) and tm_usec as
 * OXA_ExpTimeFromTime does. tm_gmtoff is taken from the current time, not from the given one:
 * the local and the GMT fields of now are both read back by mktime as standard time and
 * tm_gmtoff is their difference, so a time in another season keeps the offset in force now.
 * Returns 0; -1 when exp is null, the wall clock cannot be read, or (with a 64-bit time_t) the
 * seconds lie beyond the system's calendar; exp is then untouched.
 */
OXA_API int OXA_ExpTimeFromTimeLocal(oxa_int64 time, OXA_TIME_EXP_T* exp);
/**
 * Reads tm_usec, tm_sec, tm_min, tm_hour, tm_mday, tm_mon and tm_year as a GMT date and
 * stores its time value in *time. tm_wday, tm_yday, tm_isdst and tm_gmtoff are ignored. Fields
 * are not range-checked: an hour of 25 is the next day's 01:00, a day of 0 the last day of the
 * previous month, and a month outside 0-11 carries into the year.
 * Returns 0; -1 when exp or time is null or the date lies before the epoch (*time untouched).
 */
OXA_API int OXA_TimeFromExpTime(const OXA_TIME_EXP_T* exp, oxa_int64* time);
/**
 * As OXA_TimeFromExpTime, then subtracts tm_gmtoff seconds, so the fields are read as local
 * fields of that offset. Returns 0; -1 when exp or time is null. A date before the epoch
 * (taken as GMT, before the offset is applied) returns 0 as well and leaves *time unchanged,
 * on purpose: callers that need to tell must check the date themselves.
 */
OXA_API int OXA_TimeFromExpTimeGMT(const OXA_TIME_EXP_T* exp, oxa_int64* time);

/**
 * Writes the local time of time as "Www Mmm DD hh:mm:ss YYYY" and a terminating zero, e.g.
 * "Sun Jul 04 09:05:03 2021": exactly 25 bytes, whatever size says, so the buffer must hold
 * 25 bytes. English day and month names whatever the locale, the day with a leading zero, no
 * newline. Returns 0; -1 when buffer is null or (with a 64-bit time_t) the time lies beyond the
 * system's calendar, with nothing written. Thread-safe.
 */
OXA_API int OXA_CTime(char* buffer, unsigned int size, oxa_int64 time);
/**
 * Formats tm_sec to tm_isdst of exp (tm_usec and tm_gmtoff are not used) into buffer of size
 * bytes with win32_strftime_extra, and stores that function's result in *length.
 * Returns 0 (even when nothing fitted: *length is then 0), or -1 when buffer, length, format
 * or exp is null (nothing is written). Thread-safe.
 */
OXA_API int OXA_StrFmtTime(char* buffer, unsigned int* length, unsigned int size,
                           const char* format, const OXA_TIME_EXP_T* exp);
/**
 * strftime into buffer of size bytes, after expanding these conversions of format:
 *   %C  the century as "%2d" of (tm_year + 1970) / 100 (the usual century only for
 *       1900-1929 and 2000-2029; 2030-2099 give 21)
 *   %D  "%m/%d/%y"       %e  the day of month as "%2d" (blank-padded)
 *   %R  "%H:%M"          %T  "%H:%M:%S"          %r  "%I:%M:%S %p"
 * Any other conversion, "%%" included, is passed on to strftime unchanged.
 * Returns the number of characters written without the terminating zero, or 0 when the
 * result does not fit (strftime's rule), when the expanded format alone reaches size
 * characters (buffer then holds an empty string if size > 0), when the work buffer of
 * size + 11 bytes cannot be allocated, or when buffer, format or fields is null.
 */
OXA_API unsigned int win32_strftime_extra(char* buffer, unsigned int size, const char* format,
                                          const struct tm* fields);

#ifdef __cplusplus
}  // extern "C"

namespace oxa {

/**
 * A wall-clock time in microseconds since the epoch (a plain value: arithmetic wraps in 64
 * bits), with static helpers between timeval, microseconds, milliseconds and seconds.
 * Not synchronised: share one object between threads only under a lock.
 */
class OXA_API oxa_time_tick {
 public:
  /** The current time, as now(). */
  oxa_time_tick();
  /** The value us, in microseconds (any value; negative ones too). */
  oxa_time_tick(long long us);  // NOLINT(google-explicit-constructor): a value type
  /** Copies the other's value. */
  oxa_time_tick(const oxa_time_tick& other);
  /** Copies the other's value; returns *this. */
  oxa_time_tick& operator=(const oxa_time_tick& other);
  virtual ~oxa_time_tick();

  /** Now in microseconds from gettimeofday; -1 when the clock cannot be read. */
  static long long now();
  /** The value in microseconds. */
  long long get_time() const;
  /** Sets the value to now() (-1 when the clock cannot be read). */
  void update_time();
  /** Adds the other's value (wrapping in 64 bits); returns *this. */
  oxa_time_tick& operator+=(const oxa_time_tick& other);
  /** Subtracts the other's value (wrapping in 64 bits; the result may be negative); *this. */
  oxa_time_tick& operator-=(const oxa_time_tick& other);

  /** tv_sec x 1000 + (tv_usec + 500) / 1000; -1 for null or a field equal to -1. */
  static long long timeval2ms(const struct timeval* tv);
  /** Writes ms / 1000 seconds and (ms % 1000) x 1000 microseconds; nothing for ms < 0 or null. */
  static void ms2timeval(long long ms, struct timeval* tv);
  /** tv_sec x 1,000,000 + tv_usec; -1 for null or a field equal to -1. */
  static long long timeval2us(const struct timeval* tv);
  /** Writes us / 1,000,000 seconds and the remaining microseconds; nothing for us < 0 or null. */
  static void us2timeval(long long us, struct timeval* tv);
  /** Microseconds to milliseconds, rounded half up (1499 is 1, 1500 is 2); -1 for us < 0. */
  static long long us2ms(long long us);
  /** Microseconds to seconds, rounded half up (499,999 is 0, 500,000 is 1); -1 for us < 0. */
  static long long us2s(long long us);
  /** Milliseconds to seconds, rounded half up (499 is 0, 500 is 1); -1 for ms < 0. */
  static long long ms2s(long long ms);

 private:
  long long value_;
};

/** True when a and b hold the same microsecond value. */
OXA_API bool operator==(const oxa_time_tick& a, const oxa_time_tick& b);
/** True when a's microsecond value is below b's. */
OXA_API bool operator<(const oxa_time_tick& a, const oxa_time_tick& b);
/** True when a's microsecond value is above b's. */
OXA_API bool operator>(const oxa_time_tick& a, const oxa_time_tick& b);

/**
 * Seconds since the epoch as a time_t (32 bits on 32-bit targets) together with their
 * broken-down local time, which every change of the seconds recomputes. Not synchronised.
 */
class OXA_API oxa_time {
 public:
  /** The current time, as now(). */
  oxa_time();
  /**
   * Stores seconds as a time_t (on a 32-bit time_t its low 32 bits) and breaks it down; a time
   * the system cannot break down gives all-zero fields.
   */
  oxa_time(long long seconds);  // NOLINT(google-explicit-constructor): a value type
  /** Copies the seconds and the broken-down time. */
  oxa_time(const oxa_time& other);
  /** Copies the seconds and breaks them down again in the zone as it is now. */
  oxa_time& operator=(const oxa_time& other);
  virtual ~oxa_time();

  /**
   * Sets the seconds from time(NULL), breaks them down in the zone as it is now and returns
   * them. No failure value.
   */
  time_t now();
  /** The seconds. */
  time_t get_time() const;
  /** As now(). */
  void update_time();
  /** The year, e.g. 2021. */
  int get_year() const;
  /** The month, 0-11 (January is 0). */
  int get_mon() const;
  /** The day of the month, 1-31. */
  int get_day() const;
  /** The day of the month, 1-31: the same as get_day(). */
  int get_mon_day() const;
  /** The hour of the local time, 0-23. */
  int get_hour() const;
  /** The minute of the local time, 0-59. */
  int get_min() const;
  /** The second of the local time, 0-60. */
  int get_sec() const;
  /** The day of the week, 0-6 (Sunday is 0). */
  int get_week_day() const;
  /** The day of the year, 0-365. */
  int get_year_day() const;
  /** Adds the other's seconds (wrapping in the width of time_t) and breaks them down; *this. */
  oxa_time& operator+=(const oxa_time& other);
  /**
   * Subtracts the other's seconds; a negative result becomes 0 (1970-01-01 00:00:00 GMT). The
   * fields are broken down again; returns *this.
   */
  oxa_time& operator-=(const oxa_time& other);

  /**
   * Local broken-down time of seconds (as a time_t) into fields by localtime_r.
   * Returns fields; null when fields is null, seconds is negative (fields untouched) or the
   * system cannot break the time down. Thread-safe.
   */
  static struct tm* time2tm(long long seconds, struct tm* fields);

 private:
  time_t seconds_;
  struct tm fields_;
};

/** True when a and b hold the same seconds. */
OXA_API bool operator==(const oxa_time& a, const oxa_time& b);
/** True when a and b hold different seconds. */
OXA_API bool operator!=(const oxa_time& a, const oxa_time& b);
/** True when a's seconds are below b's. */
OXA_API bool operator<(const oxa_time& a, const oxa_time& b);
/** True when a's seconds are above b's. */
OXA_API bool operator>(const oxa_time& a, const oxa_time& b);

}  // namespace oxa
#endif  // __cplusplus

#endif /* OXA_TIME_H_ */
