/*
 * liboxa: system information and small services.
 */
#ifndef OXA_SYSINFO_H_
#define OXA_SYSINFO_H_

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Sleeps ms milliseconds (usleep of ms * 1000, a 32-bit product); usleep's result. */
OXA_API int OXA_Sleep(unsigned int ms);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif /* OXA_SYSINFO_H_ */
