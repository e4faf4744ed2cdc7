/** \file
 * liboxa: mutexes, semaphores and condition variables over caller-owned storage, and the
 * classes that own them in place.
 */
#ifndef OXA_SYNC_H_
#define OXA_SYNC_H_

#include <pthread.h>
#include <semaphore.h>

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Mutexes: a null pointer gives -1 everywhere. ---- */

/**
 * Initialises a mutex. type 0xFFFFFFFF (-1) selects a recursive mutex; any other value is the
 * system's mutex type (0 normal, 1 recursive, 2 error-checking). Returns 0 whatever the system
 * says, -1 only for a null pointer.
 */
OXA_API int OXA_MutexCreate(pthread_mutex_t* mutex, unsigned int type);
/** Destroys a mutex; 0, or -1 on error (for example while it is locked). */
OXA_API int OXA_MutexDestroy(pthread_mutex_t* mutex);
/** Locks; 0, or -1 on error. */
OXA_API int OXA_MutexLock(pthread_mutex_t* mutex);
/** Locks when it is free; 0, or -1 when it is busy or on error. Never blocks. */
OXA_API int OXA_MutexTryLock(pthread_mutex_t* mutex);
/** Unlocks; 0, or -1 on error. */
OXA_API int OXA_MutexUnlock(pthread_mutex_t* mutex);

/* ---- Semaphores (process-private): a null pointer gives -1. ---- */

/** Initialises a semaphore with the initial value; the result of sem_init (0 or -1). */
OXA_API int OXA_SemCreate(sem_t* sem, unsigned int initial);
/** Destroys a semaphore; the result of sem_destroy. */
OXA_API int OXA_SemDestroy(sem_t* sem);
/** Takes the semaphore, waiting as long as needed (interrupted waits resume); 0 or -1. */
OXA_API int OXA_SemWait(sem_t* sem);
/**
 * Takes the semaphore within timeout_ms: 0 when taken, -1 on time-out. 0 tries once. The wait
 * polls every 10 ms on the millisecond tick, so it may end up to 10 ms past the time-out.
 */
OXA_API int OXA_SemTimedWait(sem_t* sem, unsigned int timeout_ms);
/** Posts the semaphore; the result of sem_post. */
OXA_API int OXA_SemPost(sem_t* sem);

/*
 * ---- Condition variables ----
 * Time-outs run on the monotonic clock, so setting the wall clock does not change them. A null
 * condition or mutex gives -1; otherwise the system's result is returned as it is: 0 or an
 * error number such as ETIMEDOUT, never -1.
 */

/**
 * Initialises a condition that measures time on the monotonic clock; 0 or -1 (errno set).
 * Prints "OXA_CondCreate pCond:%p,pCondAttr:%p" on standard error. Creating the same storage
 * again without destroying it re-initialises it and replaces its attribute.
 */
OXA_API int OXA_CondCreate(pthread_cond_t* cond);
/**
 * Destroys a condition and its clock attribute; prints "OXA_CondDestroy pCond:%p,pCondAttr:%p"
 * on standard error for a condition made by OXA_CondCreate. The pthread result.
 */
OXA_API int OXA_CondDestroy(pthread_cond_t* cond);
/** Waits for a signal; the caller holds mutex. A spurious wake-up returns 0: re-check. */
OXA_API int OXA_CondWait(pthread_cond_t* cond, pthread_mutex_t* mutex);
/**
 * Waits for a signal at most timeout_ms (one wait, no retry); 0 when woken (possibly
 * spuriously or by an interruption), ETIMEDOUT when the time ran out. 0xFFFFFFFF is a time-out
 * like any other (about 49.7 days), not an endless wait.
 */
OXA_API int OXA_CondTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                              unsigned int timeout_ms);
/** Wakes one waiter; the pthread result. */
OXA_API int OXA_CondSignal(pthread_cond_t* cond);
/** Wakes every waiter; the pthread result. */
OXA_API int OXA_CondBroadCast(pthread_cond_t* cond);

#ifdef __cplusplus
}  // extern "C"

/** A mutex owned in place; recursive by default. Methods return the functions' results. */
class OXA_API OXA_Mutex {
 public:
  OXA_Mutex();
  explicit OXA_Mutex(unsigned int type);
  ~OXA_Mutex();
  OXA_Mutex(const OXA_Mutex&) = delete;
  OXA_Mutex& operator=(const OXA_Mutex&) = delete;

  int Lock();
  int Unlock();
  int TryLock();

 private:
  pthread_mutex_t mutex_;
};

/** A mutex owned in place; normal (not recursive) by default. */
class OXA_API OXA_UniqueMutex {
 public:
  OXA_UniqueMutex();
  explicit OXA_UniqueMutex(unsigned int type);
  ~OXA_UniqueMutex();
  OXA_UniqueMutex(const OXA_UniqueMutex&) = delete;
  OXA_UniqueMutex& operator=(const OXA_UniqueMutex&) = delete;

  int Lock();
  int Unlock();
  int TryLock();

 private:
  pthread_mutex_t mutex_;
};

/** A condition on the monotonic clock, owned in place. Methods forward to the functions. */
class OXA_API OXA_Cond {
 public:
  OXA_Cond();
  ~OXA_Cond();
  OXA_Cond(const OXA_Cond&) = delete;
  OXA_Cond& operator=(const OXA_Cond&) = delete;

  int Wait(pthread_mutex_t* mutex);
  int TimedWait(pthread_mutex_t* mutex, unsigned int timeout_ms);
  int Signal();
  int BroadCast();

 private:
  pthread_cond_t cond_;
};

/**
 * A semaphore with a maximum: Post() refuses (-1) when the value has reached it. Posts are
 * serialised, so the check and the post are one step for other posters.
 */
class OXA_API OXA_Sema {
 public:
  OXA_Sema(unsigned int initial, unsigned int maximum);
  ~OXA_Sema();
  OXA_Sema(const OXA_Sema&) = delete;
  OXA_Sema& operator=(const OXA_Sema&) = delete;

  int Wait();
  int TimedWait(unsigned int timeout_ms);
  /** Posts unless the value has reached the maximum: the sem_post result, or -1 without
   * posting. */
  int Post();

 private:
  sem_t sem_;
  unsigned int maximum_;
  OXA_Mutex post_lock_;
};

namespace oxa {

/** A mutex owned in place; recursive by default. */
class OXA_API oxa_mutex {
 public:
  oxa_mutex();
  explicit oxa_mutex(int type);
  ~oxa_mutex();
  oxa_mutex(const oxa_mutex&) = delete;
  oxa_mutex& operator=(const oxa_mutex&) = delete;

  int lock();
  int unlock();
  int trylock();

 private:
  pthread_mutex_t mutex_;
};

/** A recursive mutex owned in place, with a virtual destructor. */
class OXA_API oxa_recursive_mutex {
 public:
  oxa_recursive_mutex();
  virtual ~oxa_recursive_mutex();
  oxa_recursive_mutex(const oxa_recursive_mutex&) = delete;
  oxa_recursive_mutex& operator=(const oxa_recursive_mutex&) = delete;

  int lock();
  int unlock();
  int trylock();

 private:
  pthread_mutex_t mutex_;
};

/** A semaphore owned in place, with a virtual destructor. */
class OXA_API oxa_sem {
 public:
  oxa_sem();
  explicit oxa_sem(int initial);
  virtual ~oxa_sem();
  oxa_sem(const oxa_sem&) = delete;
  oxa_sem& operator=(const oxa_sem&) = delete;

  /** Initialises the semaphore; 0, or -1 when the system refuses. */
  int init(int initial);
  /** Destroys the semaphore; 0, or -1 when the system refuses. */
  int destroy();
  /** Posts n times; n below 1 posts nothing and returns 0; the first failing post's -1. */
  int post(int n);
  int post_1();
  /**
   * Takes the semaphore: ms < 0 waits without limit (an interrupted wait returns -1 with
   * EINTR); otherwise waits at most ms against the wall clock, 0 testing once. 0 or -1.
   */
  int wait(int ms);

 private:
  sem_t sem_;
};

}  // namespace oxa
#endif  // __cplusplus

#endif /* OXA_SYNC_H_ */
