// Sleeping for a number of milliseconds or microseconds.
#include <unistd.h>

#include "oxa_sysinfo.h"

extern "C" {

OXA_API int OXA_Sleep(unsigned int ms) {
  // The product is computed in 32 bits, as the interface documents: sleeps beyond about
  // 71 minutes wrap.
  return usleep(ms * 1000u);
}

OXA_API int OXA_USleep(unsigned int us) { return usleep(us); }

}  // extern "C"
