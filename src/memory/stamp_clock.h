// The millisecond tick the pools stamp their blocks with.
#ifndef OXA_SRC_MEMORY_STAMP_CLOCK_H_
#define OXA_SRC_MEMORY_STAMP_CLOCK_H_

#include <time.h>

#include "oxa_base.h"

namespace oxa::internal {

/**
 * OXA_GetTimeTick64's clock read at the kernel's tick resolution (a few milliseconds behind at
 * most) for a fraction of the cost. Good for stamps that are only ever shown as wall-clock
 * seconds, such as the lend time in a leak report; idle time-outs use the exact tick.
 */
inline oxa_uint64 CoarseTickMs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<oxa_uint64>(now.tv_sec) * 1000u +
         static_cast<oxa_uint64>((now.tv_nsec + 500000) / 1000000);
}

}  // namespace oxa::internal

#endif  // OXA_SRC_MEMORY_STAMP_CLOCK_H_
