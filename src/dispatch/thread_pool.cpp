// The process-wide pool table, creation, submission and destruction of pools, and the
// OXA_ThreadPool class.
//
// Lock order: g_table_lock is never held while a pool mutex is taken (see
// thread_pool_table.h).
#include <errno.h>
#include <pthread.h>
#include <sched.h>

#include <cstddef>
#include <new>

#include "oxa_frame.h"
#include "oxa_sync.h"
#include "oxa_threadpool.h"
#include "oxa_trace.h"

#include "dispatch/thread_pool_table.h"
#include "frame/errno_util.h"

using oxa::internal::kMaxPools;
using oxa::internal::kMaxWorkers;
using oxa::internal::PthreadLock;
using oxa::internal::WorkerSlot;

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(WorkerSlot) == 244, "worker slot: 5 words, sem_t, 2 pointers, trace record");
static_assert(offsetof(WorkerSlot, wake) == 20 && offsetof(WorkerSlot, trace) == 44,
              "worker slot fields in order, no gaps");
static_assert(offsetof(OXA_THREADPOOL_T, workers) == 52,
              "pool record: 7 words, mutex, slot pointer, then the submitters' wake-up");
#endif

namespace {

constexpr unsigned int kPlainMutex = 0;
constexpr unsigned int kRecursiveMutex = 0xFFFFFFFFu;

// Guards only the in-use flags of g_pools. Zero is a valid unlocked mutex, so pools can be
// created before the module's start has run.
pthread_mutex_t g_table_lock = PTHREAD_MUTEX_INITIALIZER;

// Zero-initialised statics: every entry free, no worker slots allocated yet.
OXA_THREADPOOL_T g_pools[kMaxPools];

void ResetPool(OXA_THREADPOOL_T* pool) {
  pool->in_use = 0;
  pool->stopping.store(0, std::memory_order_relaxed);
  pool->max_count = pool->initial_count = pool->curr_count = pool->stack_size = 0;
  pool->idle_timeout_ms = 0;
  pool->mutex = pthread_mutex_t{};
  pool->waiting_submitters = 0;
  pool->free_events.store(0, std::memory_order_relaxed);
  pool->submitter_cpu.store(-1, std::memory_order_relaxed);
  pool->worker_cpu.store(-1, std::memory_order_relaxed);
  if (pool->workers == nullptr) return;
  for (unsigned int i = 0; i < kMaxWorkers; ++i)
    oxa::internal::FreeWorkerSlot(&pool->workers[i]);
}

// Takes the lowest free table entry; null when all are in use.
OXA_THREADPOOL_T* ReservePool() {
  PthreadLock hold(&g_table_lock);
  for (OXA_THREADPOOL_T& pool : g_pools) {
    if (pool.in_use == 0) {
      pool.in_use = 1;
      return &pool;
    }
  }
  return nullptr;
}

void ReleasePool(OXA_THREADPOOL_T* pool) {
  PthreadLock hold(&g_table_lock);
  pool->in_use = 0;
}

// The entry's worker slots exist from its first pool on; false when they cannot be allocated.
// REQUIRES: the caller reserved the entry, so no other thread touches it.
bool EnsureWorkerSlots(OXA_THREADPOOL_T* pool) {
  if (pool->workers != nullptr) return true;
  WorkerSlot* slots = new (std::nothrow) WorkerSlot[kMaxWorkers]();
  if (slots == nullptr) {
    errno = ENOMEM;
    return false;
  }
  for (unsigned int i = 0; i < kMaxWorkers; ++i)
    oxa::internal::FreeWorkerSlot(&slots[i]);
  pool->workers = slots;
  pthread_cond_init(&pool->worker_free, nullptr);  // kept with the slots, never destroyed
  return true;
}

int StartInitialWorkers(OXA_THREADPOOL_T* pool) {
  PthreadLock hold(&pool->mutex);
  for (uint32_t i = 0; i < pool->initial_count; ++i) {
    if (oxa::internal::StartWorker(pool) != 0) {
      OXA_OutputDebug(
          "trovik !!! OXA_InitThread_Local OXA_CreateThread_Local error, return -1 2\n");
      return OXA_ERROR;
    }
  }
  return 0;
}

// Stops every worker, each after the routine it is running returns. Workers that retire
// meanwhile simply leave fewer to stop.
void StopAllWorkers(OXA_THREADPOOL_T* pool) {
  const uint32_t rounds = pool->max_count;
  for (uint32_t i = 0; i < rounds; ++i)
    oxa::internal::StopWorker(pool);
}

// Stores the item in a reserved slot and wakes its worker.
// REQUIRES: pool->mutex held; slot reserved by PickIdleWorker.
void HandOver(WorkerSlot* slot, OXA_THREADPOOL_ROUTINE routine, void* arg, bool with_trace) {
  slot->routine = routine;
  slot->arg = arg;
  // A slot that has just been started keeps the empty record it was cleared to: an item that
  // makes the pool grow runs without the submitter's context.
  if (with_trace) oxa::oxa_tlsTraceInfoOper::instance().getTraceInfo(&slot->trace);
  slot->pool->submitter_cpu.store(sched_getcpu(), std::memory_order_relaxed);
  OXA_SemPost(&slot->wake);
}

bool IsStopping(const OXA_THREADPOOL_T* pool) {
  // Relaxed: the flag only turns submitters away and publishes no other data. A submitter
  // that misses a just-set flag is one that arrived a moment earlier; the check under the
  // pool lock in TryHandOver turns it away.
  return pool->stopping.load(std::memory_order_relaxed) != 0;
}

// One attempt to place an item: 0 when a worker took it, 1 when every worker is busy and the
// pool is full, -1 when a new worker could not be started.
// REQUIRES: pool->mutex held.
int TryHandOver(OXA_THREADPOOL_T* pool, OXA_THREADPOOL_ROUTINE routine, void* arg) {
  // Checked again under the lock: a submitter that passed the unlocked check before
  // destruction began must not start a worker that destruction no longer counts.
  if (IsStopping(pool)) return OXA_ERROR;
  if (WorkerSlot* idle = oxa::internal::PickIdleWorker(pool)) {
    HandOver(idle, routine, arg, true);
    return 0;
  }
  if (pool->curr_count >= pool->max_count) return 1;
  if (oxa::internal::StartWorker(pool) != 0) return OXA_ERROR;
  WorkerSlot* fresh = oxa::internal::PickIdleWorker(pool);  // the new worker: nobody else
  if (fresh == nullptr) return OXA_ERROR;                   // can mark a slot idle meanwhile
  HandOver(fresh, routine, arg, false);
  return 0;
}

// Waits outside the lock, for a few rounds, until a worker becomes free; the pool's counter
// of such events was `seen` when the caller last found none.
void SpinForFreeWorker(const OXA_THREADPOOL_T* pool, uint32_t seen) {
  for (int round = oxa::internal::SpinRounds(); round > 0; --round) {
    if (pool->free_events.load(std::memory_order_acquire) != seen || IsStopping(pool)) return;
    if (!oxa::internal::SpinPause(pool->worker_cpu)) return;
  }
}

// One sleep until a worker is free or destruction begins.
// REQUIRES: pool->mutex held exactly once (it is recursive), so the wait releases it.
void SleepUntilWorkerFree(OXA_THREADPOOL_T* pool) {
  ++pool->waiting_submitters;
  pthread_cond_wait(&pool->worker_free, &pool->mutex);
  --pool->waiting_submitters;
  // Destruction waits for the last waiting submitter to leave before it drops the mutex.
  if (IsStopping(pool) && pool->waiting_submitters == 0) {
    pthread_cond_broadcast(&pool->worker_free);
  }
}

// Places an item. With `wait`, a submitter that finds every worker busy first watches briefly
// for one to become idle and then sleeps on the pool's condition, which workers signal when
// they become idle and destruction broadcasts: it goes on as soon as it can, without polling.
int Submit(OXA_THREADPOOL_T* pool, OXA_THREADPOOL_ROUTINE routine, void* arg, bool wait) {
  for (bool spun = false;; spun = true) {
    uint32_t seen;
    {
      PthreadLock hold(&pool->mutex);
      const int result = TryHandOver(pool, routine, arg);
      if (result != 1) return result;
      if (!wait) return OXA_ERROR;
      if (spun) {
        SleepUntilWorkerFree(pool);
        continue;
      }
      seen = pool->free_events.load(std::memory_order_relaxed);
    }
    SpinForFreeWorker(pool, seen);
  }
}

// Turns new submissions away and wakes every waiting submitter, who then gives up.
void BeginStopping(OXA_THREADPOOL_T* pool) {
  // Under the pool lock, so that no hand-over in progress can start a worker after this.
  PthreadLock hold(&pool->mutex);
  pool->stopping.store(1, std::memory_order_relaxed);
  pthread_cond_broadcast(&pool->worker_free);
}

// Returns once no submitter sleeps on the pool's condition any more.
void AwaitWaitingSubmitters(OXA_THREADPOOL_T* pool) {
  PthreadLock hold(&pool->mutex);
  while (pool->waiting_submitters != 0)
    pthread_cond_wait(&pool->worker_free, &pool->mutex);
}

}  // namespace

// ---- Module start and stop --------------------------------------------------

OXA_API int OXA_InitThreadPool_Inter() {
  const int result = OXA_MutexCreate(&g_table_lock, kPlainMutex);
  if (result != 0) return result;
  for (OXA_THREADPOOL_T& pool : g_pools)
    ResetPool(&pool);
  return 0;
}

OXA_API int OXA_FiniThreadPool_Inter() { return OXA_MutexDestroy(&g_table_lock); }

// ---- Class ------------------------------------------------------------------

OXA_ThreadPool::OXA_ThreadPool() : handle_(nullptr) {}

// Leaves the pool running: destruction is the owner's explicit Destroy().
OXA_ThreadPool::~OXA_ThreadPool() = default;

int OXA_ThreadPool::Create(unsigned int initial_count, unsigned int max_count) {
  handle_ = OXA_ThreadPool_Create(initial_count, max_count);
  return handle_ != nullptr ? 0 : OXA_ERROR;
}

int OXA_ThreadPool::Destroy() { return OXA_ThreadPool_Destroy(handle_); }

int OXA_ThreadPool::Work(OXA_THREADPOOL_ROUTINE routine, void* arg) {
  return OXA_ThreadPool_Work(handle_, routine, arg);
}

// ---- C entry points ---------------------------------------------------------

extern "C" {

OXA_API OXA_THREADPOOL OXA_ThreadPool_CreateFlex(unsigned int initial_count, unsigned int max_count,
                                                 unsigned int stack_size, int idle_timeout_ms) {
  if (max_count > kMaxWorkers) {
    OXA_OutputDebug(
        "trovik !!! OXA_ThreadPool_Create nMaxCount > MAX_THREAD_PER_THREADPOOL error, return -1 "
        "1\n");
    return nullptr;
  }
  OXA_THREADPOOL_T* pool = ReservePool();
  if (pool == nullptr) {
    OXA_OutputDebug(
        "trovik !!! OXA_ThreadPool_Create OXA_GetIdleThreadPool_Local error, return -1 2\n");
    return nullptr;
  }
  if (!EnsureWorkerSlots(pool)) {
    ReleasePool(pool);
    return nullptr;
  }
  pool->initial_count = initial_count;
  pool->max_count = max_count;
  pool->stack_size = stack_size;
  pool->idle_timeout_ms = idle_timeout_ms;
  pool->curr_count = 0;
  OXA_MutexCreate(&pool->mutex, kRecursiveMutex);
  if (StartInitialWorkers(pool) != 0) {
    oxa::internal::ErrnoSaver keep;  // from the failed worker start
    StopAllWorkers(pool);            // the pool mutex is left as it is, to be created anew
    OXA_OutputDebug("trovik !!! OXA_ThreadPool_Create OXA_InitThread_Local error, return -1 3\n");
    ReleasePool(pool);
    return nullptr;
  }
  pool->stopping.store(0, std::memory_order_relaxed);
  return pool;
}

OXA_API OXA_THREADPOOL OXA_ThreadPool_Create(unsigned int initial_count, unsigned int max_count) {
  return OXA_ThreadPool_CreateFlex(initial_count, max_count, 0, oxa::internal::kNeverRetire);
}

OXA_API OXA_THREADPOOL OXA_ThreadPool_CreateEx(unsigned int initial_count, unsigned int max_count,
                                               unsigned int stack_size) {
  return OXA_ThreadPool_CreateFlex(initial_count, max_count, stack_size,
                                   oxa::internal::kNeverRetire);
}

OXA_API int OXA_ThreadPool_WorkEx(OXA_THREADPOOL pool, OXA_THREADPOOL_ROUTINE routine, void* arg,
                                  int wait) {
  if (pool == nullptr || routine == nullptr) {
    OXA_OutputDebug("trovik !!! OXA_ThreadPool_Work param error, return -1 1\n");
    return OXA_ERROR;
  }
  if (IsStopping(pool)) return OXA_ERROR;
  return Submit(pool, routine, arg, wait != 0);
}

OXA_API int OXA_ThreadPool_Work(OXA_THREADPOOL pool, OXA_THREADPOOL_ROUTINE routine, void* arg) {
  return OXA_ThreadPool_WorkEx(pool, routine, arg, 0);
}

OXA_API int OXA_ThreadPool_Destroy(OXA_THREADPOOL pool) {
  if (pool == nullptr) {
    OXA_OutputDebug("trovik !!! OXA_ThreadPool_Destroy pThreadPool == NULL return\n");
    return OXA_ERROR;
  }
  BeginStopping(pool);
  StopAllWorkers(pool);
  AwaitWaitingSubmitters(pool);
  OXA_MutexDestroy(&pool->mutex);
  ReleasePool(pool);
  return 0;
}

}  // extern "C"
