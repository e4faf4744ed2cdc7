// The records behind OXA_THREADPOOL handles: the process-wide table of pools and each pool's
// worker slots, and the worker steps shared by creation, submission and destruction.
//
// Lock order: the table lock (guarding only the in-use flags) is never held while a pool's
// mutex is taken. A pool's mutex is recursive because submission holds it while it calls
// PickIdleWorker and StartWorker, which take it again.
#ifndef OXA_SRC_DISPATCH_THREAD_POOL_TABLE_H_
#define OXA_SRC_DISPATCH_THREAD_POOL_TABLE_H_

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

#include <atomic>

#include "oxa_base.h"
#include "oxa_sync.h"
#include "oxa_threadpool.h"
#include "oxa_trace.h"

#include "frame/scoped_lock.h"

namespace oxa::internal {

constexpr unsigned int kMaxPools = 64;
constexpr unsigned int kMaxWorkers = MAX_THREAD_PER_THREADPOOL;
constexpr unsigned int kDefaultWorkerStackBytes = 0x100000;  // used when the pool says 0
constexpr int kNeverRetire = -1;                             // idle time-out of "never"

// One worker of a pool. The slot is free exactly when `thread` is OXA_INVALID_HANDLE; every
// path that frees a slot clears it whole (so its trace record is empty) before marking it free.
struct WorkerSlot {
  uint32_t index;                  // own index in the pool, fixed while the slot is in use
  OXA_THREADPOOL_T* pool;          // back-pointer, fixed while the slot is in use
  uint32_t idle;                   // 1: waiting and may be picked. Guarded by the pool mutex.
  uint32_t quit;                   // 1: exit once the item in hand (if any) has run. Guarded by
                                   // the pool mutex.
  OXA_HANDLE thread;               // the worker thread; OXA_INVALID_HANDLE marks a free slot.
                                   // Guarded by the pool mutex.
  sem_t wake;                      // one post hands over one work item or one quit order
  OXA_THREADPOOL_ROUTINE routine;  // the item; written by the submitter that reserved the
  void* arg;                       // slot (idle 1 -> 0) before its post, cleared by the
  OXA_TRACEINFO trace;             // worker after running it, before it marks itself idle
};

}  // namespace oxa::internal

// A pool record; OXA_THREADPOOL points to one entry of the table. The type keeps the public
// handle's tag name, so a handle converts to a record without a cast.
struct OXA_THREADPOOL_T {
  uint32_t in_use;                 // 1 while the entry belongs to a pool. Guarded by the table
                                   // lock.
  std::atomic<uint32_t> stopping;  // 1 from destruction on; submitters read it without a lock
  uint32_t max_count;              // most workers, at most kMaxWorkers
  uint32_t initial_count;          // workers started at creation; they never retire
  uint32_t curr_count;             // workers alive. Guarded by mutex.
  uint32_t stack_size;             // bytes per worker stack; 0 means kDefaultWorkerStackBytes
  int32_t idle_timeout_ms;         // kNeverRetire, or how long an extra worker waits for work
  pthread_mutex_t mutex;           // recursive; guards the worker slots and curr_count
  // kMaxWorkers slots, allocated when the entry first holds a pool and kept for the life of
  // the process, so a handle (and a worker's back-pointer) never dangles.
  oxa::internal::WorkerSlot* workers;
  // Signalled when a worker becomes idle or a slot frees, and broadcast when destruction
  // begins; waiting submitters sleep on it with the pool mutex. Created with the slots.
  pthread_cond_t worker_free;
  uint32_t waiting_submitters;  // submitters asleep on worker_free. Guarded by mutex.
  // Bumped (under mutex) whenever worker_free would be signalled; a submitter that spins
  // briefly before sleeping watches it without the lock.
  std::atomic<uint32_t> free_events;
  // The CPU the last hand-over came from, and the one the last item started on: a spinner
  // blocks at once when the partner it waits for may be queued behind it there.
  std::atomic<int> submitter_cpu;
  std::atomic<int> worker_cpu;
};

namespace oxa::internal {

// Tells submitters that a worker is idle or a slot is free: spinning ones see free_events
// move, and one sleeping one is woken.
// REQUIRES: pool->mutex held.
void SignalWorkerFree(OXA_THREADPOOL_T* pool);

// How many times a thread that expects its partner within microseconds looks again before it
// blocks: a worker that has just finished an item, a submitter that found every worker busy.
// Zero on a single processor, where spinning only delays the partner.
int SpinRounds();

// One round of such a wait for a partner last seen on `partner_cpu`: a pause of the
// processor; false, without a pause, when the partner may be queued behind us on this CPU
// and the caller should block instead.
bool SpinPause(const std::atomic<int>& partner_cpu);

// Clears a slot whole and marks it free.
void FreeWorkerSlot(WorkerSlot* slot);

// Reserves the lowest idle worker (idle 1 -> 0) and returns it; null when none is idle. A null
// pool prints a line and gives null.
WorkerSlot* PickIdleWorker(OXA_THREADPOOL_T* pool);

// Starts one worker in the lowest free slot and marks it idle; 0 or -1.
// REQUIRES: pool->mutex held.
int StartWorker(OXA_THREADPOOL_T* pool);

// Orders the lowest live worker to quit and joins it (after the routine it is running);
// 0, or -1 when the pool has no worker. Takes and releases pool->mutex; must not be called
// with it held.
int StopWorker(OXA_THREADPOOL_T* pool);

}  // namespace oxa::internal

#endif  // OXA_SRC_DISPATCH_THREAD_POOL_TABLE_H_
