/** \file
 * liboxa: threads and thread-local keys. A new thread inherits its creator's trace context.
 */
#ifndef OXA_THREAD_H_
#define OXA_THREAD_H_

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A thread's start routine. */
typedef void* (*OXA_THREAD_ROUTINE)(void* arg);

/** A thread-local key: the system key, 32 bits; OXA_INVALID_TLS_KEY means no key. */
typedef unsigned int OXA_TLS_KEY;
/** The invalid key, all ones: returned when no key can be made, refused by the key functions. */
#define OXA_INVALID_TLS_KEY ((OXA_TLS_KEY)-1)

/**
 * Starts a joinable thread on routine(arg). stack_size 0 keeps the system default; a size
 * below the system minimum fails. reserved is accepted and ignored. policy and priority are
 * set on the thread attributes, so a priority outside the policy's range fails; the attributes
 * inherit the creator's scheduling, so policy and priority take effect only where the system
 * applies them. Returns the thread's handle; OXA_INVALID_HANDLE when the attributes are
 * refused or the thread cannot be started (errno tells why: EINVAL, EAGAIN, ENOMEM ...), and
 * for a null routine (errno unchanged). Nothing is left behind on failure. The thread must be
 * waited for once with OXA_Thread_Wait.
 *
 * When the creator carries a trace context, the thread starts with a copy of it, installed
 * before routine runs and erased after it returns; such a thread's result is always null.
 * A creator without a context starts routine directly.
 */
OXA_API OXA_HANDLE OXA_Thread_Create(OXA_THREAD_ROUTINE routine, void* arg, unsigned int stack_size,
                                     int reserved, int priority, int policy);
/**
 * Starts a detached thread on routine(arg), with the stack size rules and the trace hand-over
 * of OXA_Thread_Create; no handle is returned. 1 (OXA_TRUE) on success; 0 (OXA_FALSE) when
 * the thread cannot be started (errno set, nothing left behind) or routine is null.
 */
OXA_API int OXA_ThreadDetached_Create(OXA_THREAD_ROUTINE routine, void* arg,
                                      unsigned int stack_size);
/**
 * Ends the calling thread with a null result; does not return. A trace context installed for
 * the thread by its start is erased on the way out.
 */
OXA_API void OXA_Thread_Exit(void);
/**
 * Waits for a joinable thread to end (its result is discarded). 0; -1 for OXA_INVALID_HANDLE
 * (no system call) or when the join fails (errno: EDEADLK for the calling thread itself,
 * EINVAL for a detached thread, ESRCH). A thread must not be waited for twice.
 */
OXA_API int OXA_Thread_Wait(OXA_HANDLE thread);
/** The calling thread's handle; cannot fail. */
OXA_API OXA_HANDLE OXA_Thread_GetSelfId(void);
/** Not supported on this platform: always -2. */
OXA_API int OXA_Thread_Suspend(void);
/** Not supported on this platform: always -2. */
OXA_API int OXA_Thread_Resume(void);
/**
 * Changes a running thread's priority under its current policy. 0; -1 for OXA_INVALID_HANDLE
 * (no system call), or when the system refuses (errno: EINVAL for a priority outside the
 * policy's range, EPERM without the privilege, ESRCH); the thread is then unchanged.
 */
OXA_API int OXA_Thread_SetPriority(OXA_HANDLE thread, int priority);
/**
 * Only checks that policy is a scheduling policy the system accepts: 0 when it is; -1 when it
 * is not (errno EINVAL) or the handle is OXA_INVALID_HANDLE. The thread itself is left
 * unchanged, on purpose.
 */
OXA_API int OXA_Thread_SetSchedPolicy(OXA_HANDLE thread, int policy);

/**
 * Creates a thread-local key without destructor; the key, or OXA_INVALID_TLS_KEY when the
 * system has none left (errno EAGAIN) or no memory (ENOMEM).
 */
OXA_API OXA_TLS_KEY OXA_ThreadTls_Create(void);
/**
 * Sets the calling thread's value under key. 0; -1 for OXA_INVALID_TLS_KEY (no system call) or
 * when the system refuses (errno ENOMEM, or EINVAL for a key that does not exist).
 */
OXA_API int OXA_ThreadTls_SetValue(OXA_TLS_KEY key, void* value);
/**
 * The calling thread's value under key; null for OXA_INVALID_TLS_KEY or when the thread set
 * no value.
 */
OXA_API void* OXA_ThreadTls_GetValue(OXA_TLS_KEY key);
/**
 * Deletes a key; values stored under it are not freed. 0; -1 for OXA_INVALID_TLS_KEY (no
 * system call) or a key the system refuses (errno EINVAL).
 */
OXA_API int OXA_ThreadTls_Destroy(OXA_TLS_KEY key);

/**
 * The start trampoline of threads whose creator carries a trace context: installs the
 * context carried in param, runs the routine (its result is dropped), then erases the context
 * and frees param, also when the routine ends the thread with OXA_Thread_Exit. Always returns
 * null. A null param prints "pfnThreadStartAddress, pParam is null!" on standard error.
 */
OXA_API void* pfnThreadStartAddress(void* param);
/** Identical to pfnThreadStartAddress, message included; always returns null. */
OXA_API void* pfnDetachedThreadStartAddress(void* param);

#ifdef __cplusplus
}  // extern "C"

/**
 * A joinable thread. The destructor neither joins nor detaches: call Wait() once. Methods
 * return the functions' results; a successful Wait() forgets the handle, so later calls that
 * need it return -1.
 */
class OXA_API OXA_Thread {
 public:
  /** No thread yet: the handle is OXA_INVALID_HANDLE. */
  OXA_Thread();
  /** Does nothing: a thread still running is neither waited for nor detached. */
  ~OXA_Thread();
  OXA_Thread(const OXA_Thread&) = delete;
  OXA_Thread& operator=(const OXA_Thread&) = delete;

  /**
   * Starts the thread with OXA_Thread_Create and keeps its handle (OXA_INVALID_HANDLE on
   * failure, replacing any earlier one). 0; -1 when creation failed (errno as there).
   */
  int Create(OXA_THREAD_ROUTINE routine, void* arg, unsigned int stack_size, int reserved,
             int priority, int policy);
  /**
   * OXA_Thread_Wait on the kept handle: 0, after which the handle is forgotten; -1 when no
   * thread is kept or the join fails.
   */
  int Wait();
  /** Not supported: always -2. */
  int Suspend();
  /** Not supported: always -2. */
  int Resume();
  /** OXA_Thread_SetPriority on the kept handle: 0, or -1 (also when no thread is kept). */
  int SetPriority(int priority);
  /** OXA_Thread_SetSchedPolicy on the kept handle: 0, or -1 (also when no thread is kept). */
  int SetSchedPolicy(int policy);

 private:
  OXA_HANDLE handle_;
};
#endif  // __cplusplus

#endif /* OXA_THREAD_H_ */
