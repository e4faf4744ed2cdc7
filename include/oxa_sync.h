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
 * says (a type it refuses leaves a default, normal mutex), -1 only for a null pointer.
 */
OXA_API int OXA_MutexCreate(pthread_mutex_t* mutex, unsigned int type);
/**
 * Destroys a mutex. 0; -1 for a null pointer, or when the system refuses (errno EBUSY while it
 * is locked; the mutex then stays usable).
 */
OXA_API int OXA_MutexDestroy(pthread_mutex_t* mutex);
/**
 * Locks, waiting as long as needed. 0; -1 for a null pointer, or when the system refuses
 * (errno: EDEADLK for an error-checking mutex the caller holds, EAGAIN when a recursive one is
 * locked too often).
 */
OXA_API int OXA_MutexLock(pthread_mutex_t* mutex);
/**
 * Locks when it is free (or, for a recursive mutex, held by the caller). Never blocks. 0; -1
 * for a null pointer, when it is busy (errno EBUSY) or on another error.
 */
OXA_API int OXA_MutexTryLock(pthread_mutex_t* mutex);
/**
 * Unlocks. 0; -1 for a null pointer, or when the system refuses (errno EPERM for an
 * error-checking or recursive mutex the caller does not hold).
 */
OXA_API int OXA_MutexUnlock(pthread_mutex_t* mutex);

/* ---- Semaphores (process-private): a null pointer gives -1. ---- */

/**
 * Initialises a process-private semaphore with the initial value. The result of sem_init: 0,
 * or -1 (errno EINVAL for a value above SEM_VALUE_MAX); -1 also for a null pointer.
 */
OXA_API int OXA_SemCreate(sem_t* sem, unsigned int initial);
/** Destroys a semaphore. The result of sem_destroy: 0, or -1; -1 also for a null pointer. */
OXA_API int OXA_SemDestroy(sem_t* sem);
/**
 * Takes the semaphore, waiting as long as needed; an interrupted wait resumes. 0; -1 for a
 * null pointer or when sem_wait fails otherwise (errno set).
 */
OXA_API int OXA_SemWait(sem_t* sem);
/**
 * Takes the semaphore within timeout_ms: 0 when taken; -1 on time-out (errno EAGAIN) or for a
 * null pointer. 0 tries once. The wait polls every 10 ms on the 32-bit millisecond tick, so
 * it may end up to 10 ms past the time-out; 0xFFFFFFFF never runs out.
 */
OXA_API int OXA_SemTimedWait(sem_t* sem, unsigned int timeout_ms);
/**
 * Posts the semaphore. The result of sem_post: 0, or -1 (errno EOVERFLOW at SEM_VALUE_MAX);
 * -1 also for a null pointer.
 */
OXA_API int OXA_SemPost(sem_t* sem);

/*
 * ---- Condition variables ----
 * Time-outs run on the monotonic clock, so setting the wall clock does not change them. A null
 * condition or mutex gives -1; otherwise the system's result is returned as it is: 0 or an
 * error number such as ETIMEDOUT, never -1.
 */

/**
 * Initialises a condition that measures time on the monotonic clock, and prints
 * "OXA_CondCreate pCond:%p,pCondAttr:%p" on standard error. 0; -1 for a null pointer, or when
 * memory or the system fails (errno set; nothing is left behind and nothing printed).
 * Creating the same storage again without destroying it re-initialises it and replaces its
 * attribute.
 */
OXA_API int OXA_CondCreate(pthread_cond_t* cond);
/**
 * Destroys a condition and its clock attribute; prints "OXA_CondDestroy pCond:%p,pCondAttr:%p"
 * on standard error for a condition made by OXA_CondCreate. The pthread result: 0, or an error
 * number; -1 for a null pointer.
 */
OXA_API int OXA_CondDestroy(pthread_cond_t* cond);
/**
 * Waits for a signal; the caller holds mutex. 0 when woken; a spurious wake-up returns 0 too,
 * so re-check the predicate. Otherwise an error number from the system; -1 when cond or
 * mutex is null.
 */
OXA_API int OXA_CondWait(pthread_cond_t* cond, pthread_mutex_t* mutex);
/**
 * Waits for a signal at most timeout_ms on the monotonic clock (one wait, no retry); the
 * caller holds mutex. 0 when woken (possibly spuriously or by an interruption), ETIMEDOUT when
 * the time ran out (0 ms: at once), another error number from the system; -1 when cond or
 * mutex is null. 0xFFFFFFFF is a time-out like any other (about 49.7 days), not an endless
 * wait.
 */
OXA_API int OXA_CondTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                              unsigned int timeout_ms);
/** Wakes one waiter. The pthread result (0); -1 for a null pointer. */
OXA_API int OXA_CondSignal(pthread_cond_t* cond);
/** Wakes every waiter. The pthread result (0); -1 for a null pointer. */
OXA_API int OXA_CondBroadCast(pthread_cond_t* cond);

#ifdef __cplusplus
}  // extern "C"

/**
 * A mutex owned in place; recursive by default. Construction cannot fail visibly (as with
 * OXA_MutexCreate); the destructor destroys the mutex, which must not be held then.
 */
class OXA_API OXA_Mutex {
 public:
  /** A recursive mutex. */
  OXA_Mutex();
  /** A mutex of the given type, as OXA_MutexCreate reads it (0xFFFFFFFF: recursive). */
  explicit OXA_Mutex(unsigned int type);
  ~OXA_Mutex();
  OXA_Mutex(const OXA_Mutex&) = delete;
  OXA_Mutex& operator=(const OXA_Mutex&) = delete;

  /** OXA_MutexLock: 0, or -1 with errno set. */
  int Lock();
  /** OXA_MutexUnlock: 0, or -1 with errno set. */
  int Unlock();
  /** OXA_MutexTryLock: 0, or -1 when busy (errno EBUSY) or on error. Never blocks. */
  int TryLock();

 private:
  pthread_mutex_t mutex_;
};

/**
 * A mutex owned in place; normal (not recursive) by default, unlike OXA_Mutex. Construction
 * cannot fail visibly; the destructor destroys the mutex, which must not be held then.
 */
class OXA_API OXA_UniqueMutex {
 public:
  /** A normal mutex: locking it twice from one thread deadlocks. */
  OXA_UniqueMutex();
  /** A mutex of the given type, as OXA_MutexCreate reads it (0xFFFFFFFF: recursive). */
  explicit OXA_UniqueMutex(unsigned int type);
  ~OXA_UniqueMutex();
  OXA_UniqueMutex(const OXA_UniqueMutex&) = delete;
  OXA_UniqueMutex& operator=(const OXA_UniqueMutex&) = delete;

  /** OXA_MutexLock: 0, or -1 with errno set. */
  int Lock();
  /** OXA_MutexUnlock: 0, or -1 with errno set. */
  int Unlock();
  /** OXA_MutexTryLock: 0, or -1 when busy (errno EBUSY) or on error. Never blocks. */
  int TryLock();

 private:
  pthread_mutex_t mutex_;
};

/**
 * A condition on the monotonic clock, owned in place. Methods forward to the functions and
 * return their results: 0 or a system error number, never -1 except for a null mutex.
 */
class OXA_API OXA_Cond {
 public:
  /** OXA_CondCreate on itself (prints its line); a failure is not reported. */
  OXA_Cond();
  /** OXA_CondDestroy on itself (prints its line). No thread may wait on it then. */
  ~OXA_Cond();
  OXA_Cond(const OXA_Cond&) = delete;
  OXA_Cond& operator=(const OXA_Cond&) = delete;

  /** OXA_CondWait: waits with mutex held; 0 when woken (also spuriously), -1 for null mutex. */
  int Wait(pthread_mutex_t* mutex);
  /**
   * OXA_CondTimedWait: one wait of at most timeout_ms with mutex held; 0 when woken (also
   * spuriously), ETIMEDOUT when the time ran out, -1 for a null mutex.
   */
  int TimedWait(pthread_mutex_t* mutex, unsigned int timeout_ms);
  /** OXA_CondSignal: wakes one waiter; 0. */
  int Signal();
  /** OXA_CondBroadCast: wakes every waiter; 0. */
  int BroadCast();

 private:
  pthread_cond_t cond_;
};

/**
 * A semaphore with a maximum: Post() refuses (-1) when the value has reached it. Posts are
 * serialised, so the check and the post are one step for other posters (a waiter may still
 * lower the value in between).
 */
class OXA_API OXA_Sema {
 public:
  /**
   * A semaphore holding initial, capped at maximum. The initial value is not checked against
   * the maximum, and a failure of the semaphore's creation is not reported.
   */
  OXA_Sema(unsigned int initial, unsigned int maximum);
  /** Destroys the semaphore, then the post lock. No thread may wait on it then. */
  ~OXA_Sema();
  OXA_Sema(const OXA_Sema&) = delete;
  OXA_Sema& operator=(const OXA_Sema&) = delete;

  /** OXA_SemWait: takes the semaphore, waiting as long as needed; 0, or -1 (errno set). */
  int Wait();
  /**
   * OXA_SemTimedWait: takes the semaphore within timeout_ms (polled every 10 ms); 0, or -1 on
   * time-out.
   */
  int TimedWait(unsigned int timeout_ms);
  /**
   * Posts unless the value has reached the maximum. The sem_post result (0, or -1 with errno
   * set); -1 without posting when the value is at or above the maximum or cannot be read.
   */
  int Post();

 private:
  sem_t sem_;
  unsigned int maximum_;
  OXA_Mutex post_lock_;
};

namespace oxa {

/**
 * A mutex owned in place; recursive by default. Construction cannot fail visibly; the
 * destructor destroys the mutex, which must not be held then.
 */
class OXA_API oxa_mutex {
 public:
  /** A recursive mutex. */
  oxa_mutex();
  /** A mutex of the given type, as OXA_MutexCreate reads it (-1: recursive, 0: normal). */
  explicit oxa_mutex(int type);
  ~oxa_mutex();
  oxa_mutex(const oxa_mutex&) = delete;
  oxa_mutex& operator=(const oxa_mutex&) = delete;

  /** OXA_MutexLock: 0, or -1 with errno set. */
  int lock();
  /** OXA_MutexUnlock: 0, or -1 with errno set. */
  int unlock();
  /** OXA_MutexTryLock: 0, or -1 when busy (errno EBUSY) or on error. Never blocks. */
  int trylock();

 private:
  pthread_mutex_t mutex_;
};

/**
 * A recursive mutex owned in place, with a virtual destructor that destroys it (it must not be
 * held then).
 */
class OXA_API oxa_recursive_mutex {
 public:
  /** A recursive mutex; a failure is not reported. */
  oxa_recursive_mutex();
  virtual ~oxa_recursive_mutex();
  oxa_recursive_mutex(const oxa_recursive_mutex&) = delete;
  oxa_recursive_mutex& operator=(const oxa_recursive_mutex&) = delete;

  /** OXA_MutexLock: 0, or -1 with errno set. The holder may lock again. */
  int lock();
  /** OXA_MutexUnlock: 0, or -1 (errno EPERM when the caller does not hold it). */
  int unlock();
  /** OXA_MutexTryLock: 0 when free or held by the caller, -1 when busy (errno EBUSY). */
  int trylock();

 private:
  pthread_mutex_t mutex_;
};

/** A semaphore owned in place, with a virtual destructor that calls destroy(). */
class OXA_API oxa_sem {
 public:
  /** init(0); a failure is not reported. */
  oxa_sem();
  /** init(initial); a failure (a negative initial value, for one) is not reported. */
  explicit oxa_sem(int initial);
  virtual ~oxa_sem();
  oxa_sem(const oxa_sem&) = delete;
  oxa_sem& operator=(const oxa_sem&) = delete;

  /** Initialises the semaphore; 0, or -1 when the system refuses (a negative value: EINVAL). */
  int init(int initial);
  /** Destroys the semaphore; 0, or -1 when the system refuses (errno set). */
  int destroy();
  /**
   * Posts n times; n below 1 posts nothing and returns 0. 0; -1 when a post fails (errno
   * EOVERFLOW at SEM_VALUE_MAX), after which no further post is made.
   */
  int post(int n);
  /** post(1): 0, or -1. */
  int post_1();
  /**
   * Takes the semaphore: ms < 0 waits without limit (an interrupted wait returns -1 with
   * EINTR); otherwise waits at most ms against the wall clock (interruptions resume; setting
   * the clock moves the deadline), 0 testing once. 0; -1 on time-out (errno ETIMEDOUT), when
   * the clock cannot be read, or on another error.
   */
  int wait(int ms);

 private:
  sem_t sem_;
};

}  // namespace oxa
#endif  // __cplusplus

#endif /* OXA_SYNC_H_ */
