/** \file
 * liboxa: library start and stop, version, the per-thread last-error slot and debug output.
 */
#ifndef OXA_FRAME_H_
#define OXA_FRAME_H_

#include <pthread.h>

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Points to the text "version: 1.1.15.460672". No function of the library reads it. */
OXA_API extern const char* pVersion;

/**
 * Starts the library. Calls are counted: the first one ignores SIGPIPE and starts the modules
 * that keep process-wide state (network, message queue, thread pool, last-error slot); later
 * ones only raise the count. Every call, first or nested, then sets the default address
 * family g_Af from the adapters found (left as it is when none are found or the query fails).
 * Returns 0 on success; -1 when a module failed to start, in which case every module started
 * so far is stopped again, the count stays 0, nothing is printed, and a later call starts
 * over. Serialised with OXA_Fini by the initialisation lock.
 */
OXA_API int OXA_InitEx(void);
/** Same as OXA_InitEx: 0, or -1 when a module failed to start. */
OXA_API int OXA_Init(void);

/**
 * Lowers the start count; the call that brings it to 0 ends logging (OXA_Log(0, 0)) and stops
 * every started module and the global memory pool. Returns 0 (the result of releasing the
 * initialisation lock). The count is not guarded, on purpose: an unmatched call wraps it to
 * 0xFFFFFFFF, and the next OXA_InitEx brings it back to 0 without starting anything.
 */
OXA_API int OXA_Fini(void);
/** Same as OXA_Fini: returns 0. */
OXA_API int OXA_FiniEx(void);

/** The library version as bytes 1, 1, 0, 12 from the most significant: 0x0101000C. */
OXA_API unsigned int OXA_GetOXAVersion(void);

/**
 * Stores code as the calling thread's last error. Returns 0; -1 when the library is not
 * started (the slot exists only between OXA_Init and the last OXA_Fini) or the system cannot
 * store the value; the stored code is then unchanged. The library itself never calls it: its
 * own failures are reported by results and errno.
 */
OXA_API int OXA_SetLastError(unsigned int code);
/**
 * The calling thread's last error; 0 when the thread set none or the library is not started.
 * Values are lost with the last OXA_Fini.
 */
OXA_API unsigned int OXA_GetLastError(void);

/** The calling thread's errno. Cannot fail. */
OXA_API int OXA_GetSystemLastError(void);
/** Sets the calling thread's errno to code. Cannot fail. */
OXA_API void OXA_SetSystemLastError(int code);
/**
 * The system's text for an errno value ("Unknown error N" for a number it does not know);
 * never null. The text is constant or lives in a per-thread buffer that stays valid until the
 * same thread calls this function again. Thread-safe.
 */
OXA_API const char* OXA_GetSystemErrorString(int code);

/**
 * Formats one line (printf rules; format must not be null) and writes it with a newline added
 * to standard error in one fputs, with no lock, level or time stamp of the library. The text
 * is cut at 5,117 characters. When formatting fails the line is "OXA_OutputDebug error,input
 * parameter is too long!!!" without a newline. Returns the result of fputs: non-negative, or
 * EOF on error. Allocates nothing.
 */
OXA_API int OXA_OutputDebug(const char* format, ...) __attribute__((format(printf, 1, 2)));
/**
 * Writes text unchanged, with no newline added, to standard error. Returns the result of
 * fputs: non-negative, or EOF on error and for a null text (nothing is written then).
 */
OXA_API int OXA_OutputDebugString(const char* text);
/** Does nothing: debug statements can stay in place at no cost. */
OXA_API void OXA_Debug(const char* format, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}  // extern "C"

/** The implementation behind OXA_SetLastError, with the same results: 0, or -1. */
OXA_API int OXA_SetLastError_Inter(unsigned int code);
/** The implementation behind OXA_GetLastError: the last error, 0 when none or not started. */
OXA_API unsigned int OXA_GetLastError_Inter();
/**
 * The error module's start, called by the first OXA_InitEx: creates the last-error key. 0, or
 * -1 when the system refuses a key (nothing is created then).
 */
OXA_API int OXA_InitError_Inter();
/**
 * The error module's stop, called by the last OXA_Fini: deletes the last-error key if it
 * exists, and with it every thread's stored value. Always 0.
 */
OXA_API int OXA_FiniError_Inter();

namespace oxa {

/** The thread-specific-data key that holds each thread's last error. */
OXA_API extern pthread_key_t g_cOxaTlsKey;
/** True while g_cOxaTlsKey exists. */
OXA_API extern bool g_bOxaCreateTlsKeySuccess;

/**
 * Creates g_cOxaTlsKey (no destructor) and, on success, sets g_bOxaCreateTlsKeySuccess.
 * Returns the pthread result: 0, or an error number such as EAGAIN (the flag is then unchanged).
 */
OXA_API int CreateTlsKey();
/**
 * Deletes g_cOxaTlsKey and clears g_bOxaCreateTlsKeySuccess, also when the deletion fails.
 * Returns the pthread result: 0, or an error number such as EINVAL.
 */
OXA_API int DestroyTlsKey();
/** The calling thread's value under g_cOxaTlsKey; null when unset. The key must exist. */
OXA_API void* GetTlsValue();
/**
 * Sets the calling thread's value under g_cOxaTlsKey. Returns the pthread result: 0, or an
 * error number (ENOMEM, or EINVAL for a key that does not exist).
 */
OXA_API int SetTlsValue(void* value);

}  // namespace oxa
#endif  // __cplusplus

#endif /* OXA_FRAME_H_ */
