/** \file
 * liboxa: pools of worker threads that run one routine with one argument at a time.
 *
 * All pools live in one process-wide table of 64 pools; a pool handle points into that table
 * and stays valid for the life of the process (a destroyed pool's entry is reused by a later
 * creation). Each pool has up to MAX_THREAD_PER_THREADPOOL workers. A work item is handed
 * straight to one idle worker (the one with the lowest index); there is no queue, so a
 * submission that finds every worker busy and the pool at its maximum either fails at once or
 * waits until a worker is free. Pools grow on demand; workers beyond the initial count may
 * retire after an idle time-out.
 *
 * Each item carries the submitter's trace context (oxa_trace.h): the worker installs it
 * before running the item. An item that makes the pool start a new worker runs with an empty
 * trace context instead.
 *
 * Failures print one line starting "trovik !!!" on standard error (OXA_OutputDebug).
 */
#ifndef OXA_THREADPOOL_H_
#define OXA_THREADPOOL_H_

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Most workers one pool may have; also the upper bound of a pool's maximum count. */
#define MAX_THREAD_PER_THREADPOOL 512

/** A work item's routine; its result is ignored. */
typedef void* (*OXA_THREADPOOL_ROUTINE)(void* arg);

/** A pool handle: a stable pointer into the process-wide pool table; null for no pool. */
typedef struct OXA_THREADPOOL_T* OXA_THREADPOOL;

/**
 * Creates a pool and starts initial_count workers, each with a stack of stack_size bytes
 * (0 means 1 MiB). The pool may grow to max_count workers (at most
 * MAX_THREAD_PER_THREADPOOL). A worker beyond the initial count that waits idle_timeout_ms
 * for work retires; -1 keeps every worker until the pool is destroyed (any other negative value
 * is taken as unsigned, about 49.7 days). The initial workers never retire.
 *
 * Returns the pool, or null when max_count is above the limit, all 64 pools exist, memory for
 * the workers' slots runs out, or a worker could not be started (an initial count above
 * max_count fails this way; errno is kept from the failed start). Each failure but the one of
 * memory (errno ENOMEM) prints a line. A failed creation leaves no worker behind and the table
 * entry free.
 */
OXA_API OXA_THREADPOOL OXA_ThreadPool_CreateFlex(unsigned int initial_count, unsigned int max_count,
                                                 unsigned int stack_size, int idle_timeout_ms);
/**
 * OXA_ThreadPool_CreateFlex(initial_count, max_count, 0, -1): the pool, or null with its
 * failures.
 */
OXA_API OXA_THREADPOOL OXA_ThreadPool_Create(unsigned int initial_count, unsigned int max_count);
/**
 * OXA_ThreadPool_CreateFlex(initial_count, max_count, stack_size, -1): the pool, or null with
 * its failures.
 */
OXA_API OXA_THREADPOOL OXA_ThreadPool_CreateEx(unsigned int initial_count, unsigned int max_count,
                                               unsigned int stack_size);

/**
 * Hands routine(arg) to the pool's lowest idle worker, starting a new worker when none is
 * idle and the pool is below its maximum. Returns 0 when a worker took the item (it will run,
 * even if destruction begins meanwhile); -1 for a null pool or routine (a line is printed), a
 * pool being destroyed or destroyed (until a later creation reuses its table entry), or a failed
 * worker start (a line is printed).
 *
 * When every worker is busy and the pool is at its maximum: with wait 0 the call fails at
 * once (-1); with any other wait it waits, without limit, until a worker is idle (0) or the
 * pool is being destroyed (-1). Thread-safe.
 */
OXA_API int OXA_ThreadPool_WorkEx(OXA_THREADPOOL pool, OXA_THREADPOOL_ROUTINE routine, void* arg,
                                  int wait);
/**
 * OXA_ThreadPool_WorkEx(pool, routine, arg, 0): 0 when a worker took the item; -1 at once when
 * no worker is free, and for the failures of OXA_ThreadPool_WorkEx.
 */
OXA_API int OXA_ThreadPool_Work(OXA_THREADPOOL pool, OXA_THREADPOOL_ROUTINE routine, void* arg);

/**
 * Destroys a pool: further submissions fail (waiting ones return -1), then every worker is
 * stopped and joined, each after the routine it is running returns. Returns 0, or -1 for a null
 * pool (a line is printed). Must not be called from one of the pool's own work items, nor
 * twice for the same pool.
 */
OXA_API int OXA_ThreadPool_Destroy(OXA_THREADPOOL pool);

#ifdef __cplusplus
}  // extern "C"

/**
 * The thread-pool module's start: creates the pool table's lock and empties the table.
 * Always 0. Called by library start-up; pools must not be alive when it runs.
 */
OXA_API int OXA_InitThreadPool_Inter();
/**
 * The module's stop: destroys the table's lock (pools still alive are left as they are). 0, or
 * -1 when the lock cannot be destroyed (errno set).
 */
OXA_API int OXA_FiniThreadPool_Inter();

/**
 * Holds one pool handle. The destructor does nothing: call Destroy() to stop the pool.
 */
class OXA_API OXA_ThreadPool {
 public:
  /** Holds no pool. */
  OXA_ThreadPool();
  /** Does nothing: the pool, if any, keeps running. */
  ~OXA_ThreadPool();
  OXA_ThreadPool(const OXA_ThreadPool&) = delete;
  OXA_ThreadPool& operator=(const OXA_ThreadPool&) = delete;

  /**
   * OXA_ThreadPool_Create(initial_count, max_count); 0 when a pool was created, else -1. The
   * handle held before is replaced either way (a pool it named keeps running, unreachable
   * through this object).
   */
  int Create(unsigned int initial_count, unsigned int max_count);
  /**
   * OXA_ThreadPool_Destroy on the held handle (which is kept as it is): 0, or -1 when no pool
   * is held. Must not be called twice.
   */
  int Destroy();
  /** OXA_ThreadPool_Work on the held handle: 0 when a worker took the item, else -1. */
  int Work(OXA_THREADPOOL_ROUTINE routine, void* arg);

 private:
  OXA_THREADPOOL handle_;
};
#endif  // __cplusplus

#endif /* OXA_THREADPOOL_H_ */
