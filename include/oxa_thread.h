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
#define OXA_INVALID_TLS_KEY ((OXA_TLS_KEY)-1)

/**
 * Starts a joinable thread on routine(arg). stack_size 0 keeps the system default; a size
 * below the system minimum fails. reserved is accepted and ignored. policy and priority are
 * set on the thread attributes, so a priority outside the policy's range fails; the attributes
 * inherit the creator's scheduling, so policy and priority take effect only where the system
 * applies them. Returns the thread's handle, or OXA_INVALID_HANDLE (also for a null routine),
 * with errno set. The thread must be waited for once with OXA_Thread_Wait.
 *
 * When the creator carries a trace context, the thread starts with a copy of it, installed
 * before routine runs and erased after it returns; such a thread's result is always null.
 * A creator without a context starts routine directly.
 */
OXA_API OXA_HANDLE OXA_Thread_Create(OXA_THREAD_ROUTINE routine, void* arg, unsigned int stack_size,
                                     int reserved, int priority, int policy);
/**
 * Starts a detached thread on routine(arg), with the stack size rules and the trace hand-over
 * of OXA_Thread_Create; 1 (OXA_TRUE) on success, 0 (OXA_FALSE) on failure or a null routine.
 */
OXA_API int OXA_ThreadDetached_Create(OXA_THREAD_ROUTINE routine, void* arg,
                                      unsigned int stack_size);
/** Ends the calling thread. */
OXA_API void OXA_Thread_Exit(void);
/** Waits for a joinable thread to end (its result is discarded); 0, or -1 (also for
 * OXA_INVALID_HANDLE). */
OXA_API int OXA_Thread_Wait(OXA_HANDLE thread);
/** The calling thread's handle. */
OXA_API OXA_HANDLE OXA_Thread_GetSelfId(void);
/** Not supported on this platform: always -2. */
OXA_API int OXA_Thread_Suspend(void);
/** Not supported on this platform: always -2. */
OXA_API int OXA_Thread_Resume(void);
/**
 * Changes a running thread's priority under its current policy; 0, or -1 (also for
 * OXA_INVALID_HANDLE, or a priority outside the policy's range).
 */
OXA_API int OXA_Thread_SetPriority(OXA_HANDLE thread, int priority);
/**
 * Checks that policy is a scheduling policy the system accepts: 0 when it is, -1 when it is
 * not or the handle is invalid. The thread itself is left unchanged.
 */
OXA_API int OXA_Thread_SetSchedPolicy(OXA_HANDLE thread, int policy);

/** Creates a thread-local key without destructor; the key, or OXA_INVALID_TLS_KEY. */
OXA_API OXA_TLS_KEY OXA_ThreadTls_Create(void);
/** Sets the calling thread's value under key; 0, or -1 (also for the invalid key). */
OXA_API int OXA_ThreadTls_SetValue(OXA_TLS_KEY key, void* value);
/** The calling thread's value under key; null for the invalid key or when unset. */
OXA_API void* OXA_ThreadTls_GetValue(OXA_TLS_KEY key);
/** Deletes a key; 0, or -1 (also for the invalid key). */
OXA_API int OXA_ThreadTls_Destroy(OXA_TLS_KEY key);

/**
 * The start trampoline of threads whose creator carries a trace context: installs the
 * context carried in param, runs the routine, erases the context and frees param. Always
 * returns null. A null param prints "pfnThreadStartAddress, pParam is null!" on standard error.
 */
OXA_API void* pfnThreadStartAddress(void* param);
/** Identical to pfnThreadStartAddress. */
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
  OXA_Thread();
  ~OXA_Thread();
  OXA_Thread(const OXA_Thread&) = delete;
  OXA_Thread& operator=(const OXA_Thread&) = delete;

  /** Starts the thread and keeps its handle (invalid on failure); 0, or -1 when creation
   * failed. */
  int Create(OXA_THREAD_ROUTINE routine, void* arg, unsigned int stack_size, int reserved,
             int priority, int policy);
  int Wait();
  int Suspend();
  int Resume();
  int SetPriority(int priority);
  int SetSchedPolicy(int policy);

 private:
  OXA_HANDLE handle_;
};
#endif  // __cplusplus

#endif /* OXA_THREAD_H_ */
