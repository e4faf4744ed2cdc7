/* Compiled as C99 with -pedantic: the public headers must stay valid C. The frame suite calls
 * this function, so the flat interface is also exercised from C code. */
#include <stddef.h>

#include "oxa.h"

int oxa_c_api_smoke(void);

int oxa_c_api_smoke(void) {
  pthread_mutex_t mutex;
  OXA_TIME_EXP_T fields;
  oxa_int64 back = 0;
  int failures = 0;

  if (OXA_GetOXAVersion() != 0x0101000Cu) ++failures;
  if (OXA_MutexCreate(&mutex, 0xFFFFFFFFu) != 0) ++failures;
  if (OXA_MutexLock(&mutex) != 0 || OXA_MutexLock(&mutex) != 0) ++failures; /* recursive */
  if (OXA_MutexUnlock(&mutex) != 0 || OXA_MutexUnlock(&mutex) != 0) ++failures;
  if (OXA_MutexDestroy(&mutex) != 0) ++failures;
  if (OXA_MutexLock(NULL) != OXA_ERROR) ++failures;
  if (OXA_TimeFromAnsiTime(2) != 2000000LL) ++failures;
  if (OXA_ExpTimeFromTimeGMT(86400LL * 1000000LL, &fields) != 0 || fields.tm_mday != 2) ++failures;
  if (OXA_TimeFromExpTime(&fields, &back) != 0 || back != 86400LL * 1000000LL) ++failures;
  if (OXA_ThreadTls_GetValue(OXA_INVALID_TLS_KEY) != NULL) ++failures;
  return failures;
}
