/** \file
 * liboxa: the flexible thread pool, a shared work queue served by detached workers.
 *
 * A pool has one handler; callers queue void* data items, and each item is passed to the
 * handler once, on one of the pool's workers, in queue order. Workers start on demand (while
 * fewer are idle than items are queued) up to the pool's maximum, and a worker that finds no
 * work for the idle time-out ends itself; a pool that is not used holds no thread. The queue
 * holds at most 65,535 items: a dispatch fails while 65,535 are queued.
 *
 * Each item carries the dispatching thread's trace context (oxa_trace.h), which the handler
 * sees as its own thread's context; an item dispatched by a thread without one runs with none.
 *
 * The thrmgr_* functions are the engine; the OXA_ThreadPoolFlex_* functions wrap them with
 * the library's 0/-1 results. Nothing is printed and the last-error slot is not set.
 * Pools need no OXA_Init.
 */
#ifndef OXA_THREADPOOLFLEX_H_
#define OXA_THREADPOOLFLEX_H_

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The pool's handler, called once per item with its data. */
typedef void (*OXA_THREADPOOLFLEX_HANDLER)(void* data);

/** A flexible pool; null for no pool. */
typedef struct OXA_THREADPOOLFLEX_T* OXA_THREADPOOLFLEX;

/**
 * Creates a pool of at most max_threads workers, each ending after idle_timeout_ms without
 * work (0: as soon as the queue is empty; the value is taken as unsigned, so a negative one
 * means about 49.7 days), each with a stack of stack_size bytes (0 means 1 MiB; a smaller
 * non-zero size is raised to 256 KiB). No worker starts yet.
 * Returns the pool, or null when handler is null, max_threads is 0 or negative, stack_size is
 * negative, or memory or a lock cannot be had (nothing is left behind).
 */
OXA_API OXA_THREADPOOLFLEX thrmgr_new(int max_threads, int idle_timeout_ms,
                                      OXA_THREADPOOLFLEX_HANDLER handler, int stack_size);
/**
 * Queues data for the handler and starts a worker when fewer are idle than items are queued
 * and the pool is below its maximum. 1 when queued; 0 for a null pool, a pool being destroyed,
 * a full queue, no memory, or when no worker could be started and none is alive; on 0 the item
 * is not queued and the handler never sees it. Thread-safe.
 */
OXA_API int thrmgr_dispatch(OXA_THREADPOOLFLEX pool, void* data);
/** Items queued and not yet taken by a worker; -1 for a null pool or one being destroyed. */
OXA_API int thrmgr_getQSize(OXA_THREADPOOLFLEX pool);
/**
 * Destroys a pool; nothing for a null pool or one already being destroyed. First, dispatches
 * start failing. Then, depending on wait:
 * - -1: waits until the queue is empty, however long that takes;
 * - above 0: waits until the queue is empty, at most wait milliseconds;
 * - 0 or below -1: does not wait for the queue.
 * Then every worker is told to end; handlers already running are waited for, items still
 * queued are dropped without calling the handler, and the pool is freed.
 * Must not be called from the pool's own handler.
 */
OXA_API void thrmgr_destroy(OXA_THREADPOOLFLEX pool, int wait);

/**
 * thrmgr_new: the pool, or null when handler is null, max_threads is not above 0, stack_size is
 * negative, or memory or a lock cannot be had.
 */
OXA_API OXA_THREADPOOLFLEX OXA_ThreadPoolFlex_Create(int max_threads, int idle_timeout_ms,
                                                     OXA_THREADPOOLFLEX_HANDLER handler,
                                                     int stack_size);
/**
 * thrmgr_dispatch: 0 when queued, -1 otherwise (null pool, pool being destroyed, full queue,
 * no memory, no worker).
 */
OXA_API int OXA_ThreadPoolFlex_Work(OXA_THREADPOOLFLEX pool, void* data);
/**
 * thrmgr_destroy(pool, 0): drops queued items at once, waits for running handlers, frees the
 * pool; always 0 (also for a null pool).
 */
OXA_API int OXA_ThreadPoolFlex_Destroy(OXA_THREADPOOLFLEX pool);
/** thrmgr_destroy(pool, wait); always 0 (also for a null pool). */
OXA_API int OXA_ThreadPoolFlex_DestroyEx(OXA_THREADPOOLFLEX pool, int wait);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif /* OXA_THREADPOOLFLEX_H_ */
