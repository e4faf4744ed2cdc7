// strftime with a few conversions supplied by the library, and formatting of the expanded
// calendar record.
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <memory>
#include <new>

#include "oxa_time.h"

namespace {

// Room beyond the caller's size in the work buffer. A replacement is appended while fewer
// than size characters are held and is never checked against the room left; the longest one
// ("%I:%M:%S %p", or an int printed by "%2d") has 11 characters, and the terminating zero
// then lands on the last spare byte.
constexpr size_t kSpareBytes = 11;

// Expands the library's own conversions of format into work, which has size + kSpareBytes
// bytes. Stops once size characters are held; returns the number of characters written.
size_t ExpandFormat(const char* format, size_t size, const struct tm& fields, char* work) {
  size_t used = 0;
  const char* in = format;
  while (*in != '\0' && used < size) {
    if (in[0] != '%') {
      work[used++] = *in++;
      continue;
    }
    const char* replacement = nullptr;
    char number[kSpareBytes + 1];
    switch (in[1]) {
      case 'C':
        // (tm_year + 1970) / 100, not + 1900: callers depend on it. Only the years 1900-1929
        // and 2000-2029 get the usual century.
        snprintf(number, sizeof(number), "%2lld",
                 (static_cast<long long>(fields.tm_year) + 1970) / 100);
        replacement = number;
        break;
      case 'D':
        replacement = "%m/%d/%y";
        break;
      case 'e':
        snprintf(number, sizeof(number), "%2d", fields.tm_mday);
        replacement = number;
        break;
      case 'R':
        replacement = "%H:%M";
        break;
      case 'T':
        replacement = "%H:%M:%S";
        break;
      case 'r':
        replacement = "%I:%M:%S %p";
        break;
      default:
        break;
    }
    if (replacement != nullptr) {
      const size_t length = strlen(replacement);
      memcpy(work + used, replacement, length);
      used += length;
      in += 2;
    } else {
      // Any other conversion, "%%" included, goes through whole; a lone '%' at the end of
      // the format is copied alone.
      work[used++] = *in++;
      if (*in != '\0') work[used++] = *in++;
    }
  }
  work[used] = '\0';
  return used;
}

// The format is the caller's, expanded at run time, so it cannot be checked when compiling.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
size_t FormatFields(char* buffer, size_t size, const char* format, const struct tm& fields) {
  return strftime(buffer, size, format, &fields);
}
#pragma GCC diagnostic pop

}  // namespace

// ---- C entry points ---------------------------------------------------------

extern "C" {

OXA_API unsigned int win32_strftime_extra(char* buffer, unsigned int size, const char* format,
                                          const struct tm* fields) {
  if (buffer == nullptr || format == nullptr || fields == nullptr) return 0;
  if (size > SIZE_MAX - kSpareBytes) return 0;  // the work buffer could not be sized
  std::unique_ptr<char[]> work(new (std::nothrow) char[size + kSpareBytes]);
  if (!work) return 0;
  if (ExpandFormat(format, size, *fields, work.get()) >= size) {
    // Even the expanded format does not fit, so neither would its result.
    if (size > 0) buffer[0] = '\0';
    return 0;
  }
  return static_cast<unsigned int>(FormatFields(buffer, size, work.get(), *fields));
}

OXA_API int OXA_StrFmtTime(char* buffer, unsigned int* length, unsigned int size,
                           const char* format, const OXA_TIME_EXP_T* exp) {
  if (buffer == nullptr || length == nullptr || format == nullptr || exp == nullptr) {
    return OXA_ERROR;
  }
  // Microseconds and the offset have no place in a struct tm and are not used.
  struct tm fields = {};
  fields.tm_sec = exp->tm_sec;
  fields.tm_min = exp->tm_min;
  fields.tm_hour = exp->tm_hour;
  fields.tm_mday = exp->tm_mday;
  fields.tm_mon = exp->tm_mon;
  fields.tm_year = exp->tm_year;
  fields.tm_wday = exp->tm_wday;
  fields.tm_yday = exp->tm_yday;
  fields.tm_isdst = exp->tm_isdst;
  *length = win32_strftime_extra(buffer, size, format, &fields);
  return 0;
}

}  // extern "C"
