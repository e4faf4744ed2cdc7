// Time values from the wall clock and millisecond ticks from the monotonic clock.
#include <sys/time.h>
#include <time.h>

#include "oxa_time.h"

namespace {

constexpr long long kUsPerSecond = 1000000;
constexpr long kNsPerMs = 1000000;

}  // namespace

extern "C" {

OXA_API oxa_int64 OXA_TimeNow(void) {
  struct timeval now;
  gettimeofday(&now, nullptr);  // not checked: the wall clock is always readable here
  return static_cast<oxa_int64>(now.tv_sec) * kUsPerSecond + now.tv_usec;
}

OXA_API unsigned int OXA_GetTimeTick(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  // Computed in 32 bits on purpose: the tick wraps after about 49.7 days.
  return static_cast<unsigned int>(now.tv_sec) * 1000u +
         static_cast<unsigned int>((now.tv_nsec + kNsPerMs / 2) / kNsPerMs);
}

OXA_API oxa_uint64 OXA_GetTimeTick64(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<oxa_uint64>(now.tv_sec) * 1000u +
         static_cast<oxa_uint64>((now.tv_nsec + kNsPerMs / 2) / kNsPerMs);
}

OXA_API oxa_int64 OXA_TimeFromAnsiTime(oxa_int64 seconds) { return seconds * kUsPerSecond; }

OXA_API oxa_int64 OXA_AnsiTimeFromTime(oxa_int64 time) { return time / kUsPerSecond; }

}  // extern "C"
