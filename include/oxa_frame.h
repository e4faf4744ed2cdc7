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
 * that keep process-wide state; later ones only raise the count. 0 on success; -1 when a
 * module failed to start, in which case every module started so far is stopped again and a
 * later call starts over. Serialised with OXA_Fini by the initialisation lock.
 */
OXA_API int OXA_InitEx(void);
/** Same as OXA_InitEx. */
OXA_API int OXA_Init(void);

/**
 * Lowers the start count; the call that brings it to 0 stops every started module. Returns 0.
 * The count is not guarded: an unmatched call wraps it to 0xFFFFFFFF, and the next OXA_InitEx
 * brings it back to 0 without starting anything.
 */
OXA_API int OXA_Fini(void);
/** Same as OXA_Fini. */
OXA_API int OXA_FiniEx(void);

/** The library version as bytes 1, 1, 0, 12 from the most significant: 0x0101000C. */
OXA_API unsigned int OXA_GetOXAVersion(void);

/**
 * Stores code as the calling thread's last error. 0; -1 when the library is not started (the
 * slot exists only between OXA_Init and the last OXA_Fini). The library itself never calls it.
 */
OXA_API int OXA_SetLastError(unsigned int code);
/** The calling thread's last error; 0 when none was set or the library is not started. */
OXA_API unsigned int OXA_GetLastError(void);

/** The calling thread's errno. */
OXA_API int OXA_GetSystemLastError(void);
/** Sets the calling thread's errno. */
OXA_API void OXA_SetSystemLastError(int code);
/**
 * The system's text for an errno value. The text lives in a per-thread buffer that stays valid
 * until the same thread calls this function again.
 */
OXA_API const char* OXA_GetSystemErrorString(int code);

/**
 * Formats one line (printf rules) and writes it with a newline added to standard error,
 * unbuffered by any lock or time stamp of the library. The text is cut at 5,117 characters.
 * When formatting fails the line is "OXA_OutputDebug error,input parameter is too long!!!"
 * without a newline. Returns the result of fputs: non-negative, or EOF on error.
 */
OXA_API int OXA_OutputDebug(const char* format, ...) __attribute__((format(printf, 1, 2)));
/** Writes text unchanged, with no newline added, to standard error; the result of fputs. */
OXA_API int OXA_OutputDebugString(const char* text);
/** Does nothing: debug statements can stay in place at no cost. */
OXA_API void OXA_Debug(const char* format, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}  // extern "C"

/** The implementations behind OXA_SetLastError and OXA_GetLastError. */
OXA_API int OXA_SetLastError_Inter(unsigned int code);
OXA_API unsigned int OXA_GetLastError_Inter();
/** The error module's start (creates the last-error key; 0 or -1) and stop (always 0). */
OXA_API int OXA_InitError_Inter();
OXA_API int OXA_FiniError_Inter();

namespace oxa {

/** The thread-specific-data key that holds each thread's last error. */
OXA_API extern pthread_key_t g_cOxaTlsKey;
/** True while g_cOxaTlsKey exists. */
OXA_API extern bool g_bOxaCreateTlsKeySuccess;

/** Creates g_cOxaTlsKey (no destructor) and sets the success flag; the pthread result. */
OXA_API int CreateTlsKey();
/** Deletes g_cOxaTlsKey and clears the success flag, also on failure; the pthread result. */
OXA_API int DestroyTlsKey();
/** The calling thread's value under g_cOxaTlsKey. */
OXA_API void* GetTlsValue();
/** Sets the calling thread's value under g_cOxaTlsKey; the pthread result. */
OXA_API int SetTlsValue(void* value);

}  // namespace oxa
#endif  // __cplusplus

#endif /* OXA_FRAME_H_ */
