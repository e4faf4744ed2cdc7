// The life of one pool worker: picked for an item, started, stopped, and its own loop, which
// may end in retirement after an idle time-out.
//
// Hand-over protocol: a submitter reserves an idle slot under the pool mutex (idle 1 -> 0),
// fills routine, argument and trace record, and posts the slot's semaphore. The worker reads
// them after its wait (the post orders the writes before), runs the routine without any lock,
// clears it, and only then marks itself idle under the mutex, so nobody writes the slot while
// the worker reads it.
//
// A quit order may arrive while an item is in hand (a hand-over and destruction racing): the
// worker runs the item first and reads the quit flag under the mutex afterwards, so an item
// that a submission reported as accepted always runs.
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <time.h>
#include <unistd.h>

#include "oxa_frame.h"
#include "oxa_sync.h"
#include "oxa_thread.h"
#include "oxa_trace.h"

#include "dispatch/thread_pool_table.h"
#include "frame/cpu_relax.h"
#include "frame/errno_util.h"
#include "frame/sanitizer_hooks.h"

namespace oxa::internal {
namespace {

oxa_tlsTraceInfoOper& Trace() { return oxa_tlsTraceInfoOper::instance(); }

unsigned int StackBytes(const OXA_THREADPOOL_T* pool) {
  return pool->stack_size == 0 ? kDefaultWorkerStackBytes : pool->stack_size;
}

// REQUIRES: pool->mutex held.
WorkerSlot* LowestFreeSlot(OXA_THREADPOOL_T* pool) {
  for (uint32_t i = 0; i < pool->max_count; ++i) {
    if (pool->workers[i].thread == OXA_INVALID_HANDLE) return &pool->workers[i];
  }
  return nullptr;
}

// REQUIRES: pool->mutex held.
WorkerSlot* LowestLiveSlot(OXA_THREADPOOL_T* pool) {
  for (uint32_t i = 0; i < pool->max_count; ++i) {
    if (pool->workers[i].thread != OXA_INVALID_HANDLE) return &pool->workers[i];
  }
  return nullptr;
}

// Gives the slot back after its thread has gone or never started; a submitter waiting for
// room may now start a worker in it.
// REQUIRES: pool->mutex held.
void ReleaseSlot(OXA_THREADPOOL_T* pool, WorkerSlot* slot) {
  OXA_SemDestroy(&slot->wake);
  FreeWorkerSlot(slot);
  --pool->curr_count;
  SignalWorkerFree(pool);
}

// One blocking wait of at most timeout_ms on the monotonic clock; true when the semaphore was
// taken. The hand-over latency of an extra worker is then the same as an initial one's.
bool TimedTake(sem_t* sem, unsigned int timeout_ms) {
  timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += static_cast<time_t>(timeout_ms / 1000);
  deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_nsec -= 1000000000L;
    ++deadline.tv_sec;
  }
  if (RetryOnEintr([&] { return sem_clockwait(sem, CLOCK_MONOTONIC, &deadline); }) != 0) {
    return false;
  }
  SemaphoreTaken(sem);
  return true;
}

// A worker beyond the initial count found no work within the idle time-out and ends itself.
// Nobody joins it, so it detaches.
void Retire() {
  Trace().eraseTraceInfo();  // the context of the last item would otherwise outlive the thread
  pthread_detach(pthread_self());
}

// A worker that has just finished often gets its next item within microseconds; it looks for
// it for a bounded while before it blocks, so a flood of items costs no sleep and wake-up per
// item. The look is a plain read of the semaphore's count (no atomic write bouncing the line
// the submitter posts to) until it shows a post.
bool LookBrieflyForItem(WorkerSlot* slot) {
  for (int round = SpinRounds(); round > 0; --round) {
    int posts = 0;
    sem_getvalue(&slot->wake, &posts);
    if (posts > 0 && sem_trywait(&slot->wake) == 0) return true;
    if (!SpinPause(slot->pool->submitter_cpu)) return false;
  }
  return false;
}

// Waits for the next post. False when the worker retired instead; the slot is then no longer
// the worker's.
bool AwaitWake(WorkerSlot* slot) {
  OXA_THREADPOOL_T* pool = slot->pool;
  if (LookBrieflyForItem(slot)) return true;
  if (pool->idle_timeout_ms == kNeverRetire || slot->index < pool->initial_count) {
    while (OXA_SemWait(&slot->wake) != 0) {
    }
    return true;
  }
  if (TimedTake(&slot->wake, static_cast<unsigned int>(pool->idle_timeout_ms))) return true;
  // A hand-over may have raced with the time-out: the submitter picked this slot while it was
  // still idle. Under the mutex nobody can pick it any more, so one more try settles it.
  {
    PthreadLock hold(&pool->mutex);
    if (OXA_SemTimedWait(&slot->wake, 0) == 0) return true;
    ReleaseSlot(pool, slot);  // the slot is no longer this worker's
  }
  Retire();
  return false;
}

void RunItem(WorkerSlot* slot) {
  if (slot->routine == nullptr) return;
  Trace().setTraceInfo(slot->trace);
  slot->pool->worker_cpu.store(sched_getcpu(), std::memory_order_relaxed);
  slot->routine(slot->arg);
  slot->routine = nullptr;
  slot->arg = nullptr;
}

// After an item (or an empty wake-up): false when the worker was ordered to quit; otherwise
// it is idle again and a waiting submitter hears of it.
bool BackToIdle(WorkerSlot* slot) {
  PthreadLock hold(&slot->pool->mutex);
  if (slot->quit == 1) return false;
  slot->idle = 1;
  SignalWorkerFree(slot->pool);
  return true;
}

void* WorkerMain(void* param) {
  if (param == nullptr) {
    OXA_OutputDebug("trovik !!! f_Thread_Svc pParam == NULL error, return NULL 1\n");
    return nullptr;
  }
  auto* slot = static_cast<WorkerSlot*>(param);
  for (;;) {
    if (!AwaitWake(slot)) return nullptr;
    RunItem(slot);
    if (!BackToIdle(slot)) {
      Trace().eraseTraceInfo();
      return nullptr;
    }
  }
}

}  // namespace

void SignalWorkerFree(OXA_THREADPOOL_T* pool) {
  pool->free_events.fetch_add(1, std::memory_order_release);  // pairs with SpinForFreeWorker
  if (pool->waiting_submitters != 0) pthread_cond_signal(&pool->worker_free);
}

int SpinRounds() {
  // Items are often tiny: the partner's answer then comes within microseconds, far sooner than
  // a futex sleep and wake-up on both sides. The bound (some tens of microseconds) keeps an
  // idle pool from burning the CPU. A single processor never spins: the partner cannot run
  // while we do.
  static const int rounds = sysconf(_SC_NPROCESSORS_ONLN) > 1 ? 1024 : 0;
  return rounds;
}

bool SpinPause(const std::atomic<int>& partner_cpu) {
  // On a loaded machine the scheduler often puts the producer and the workers on one CPU. A
  // spinner there holds the CPU its partner is queued for; measured, yielding it hands the
  // CPU to other processes for whole time slices, while a futex sleep gets the wake-up
  // preference. So a spinner whose partner last ran on its own CPU blocks at once.
  if (partner_cpu.load(std::memory_order_relaxed) == sched_getcpu()) return false;
  CpuRelax();
  return true;
}

void FreeWorkerSlot(WorkerSlot* slot) {
  *slot = WorkerSlot{};
  slot->thread = OXA_INVALID_HANDLE;
}

WorkerSlot* PickIdleWorker(OXA_THREADPOOL_T* pool) {
  if (pool == nullptr) {
    OXA_OutputDebug("trovik !!! OXA_GetIdle_Local pThreadPool == NULL error, return NULL 1\n");
    return nullptr;
  }
  PthreadLock hold(&pool->mutex);
  for (uint32_t i = 0; i < pool->max_count; ++i) {
    WorkerSlot& slot = pool->workers[i];
    if (slot.idle == 1 && slot.thread != OXA_INVALID_HANDLE) {
      slot.idle = 0;
      return &slot;
    }
  }
  return nullptr;
}

int StartWorker(OXA_THREADPOOL_T* pool) {
  if (pool->curr_count == pool->max_count) {
    OXA_OutputDebug(
        "trovik !!! OXA_CreateThread_Local (pThreadPool->nCurrCount == pThreadPool->nMaxCount) "
        "error, return -1, 1\n");
    return OXA_ERROR;
  }
  WorkerSlot* slot = LowestFreeSlot(pool);
  if (slot == nullptr) return OXA_ERROR;
  slot->routine = nullptr;
  const int sem_result = OXA_SemCreate(&slot->wake, 0);
  if (sem_result != 0) {
    ErrnoSaver keep;
    OXA_OutputDebug("trovik !!! OXA_CreateThread_Local OXA_SemCreate error, return -1 2\n");
    return sem_result;
  }
  slot->index = static_cast<uint32_t>(slot - pool->workers);
  slot->quit = 0;
  slot->pool = pool;
  const OXA_HANDLE thread = OXA_Thread_Create(WorkerMain, slot, StackBytes(pool), 0, 0, 0);
  if (thread == OXA_INVALID_HANDLE) {
    ErrnoSaver keep;
    OXA_OutputDebug("trovik !!! OXA_CreateThread_Local OXA_Thread_Create error, return -1 3\n");
    OXA_SemDestroy(&slot->wake);
    FreeWorkerSlot(slot);
    return OXA_ERROR;
  }
  slot->thread = thread;
  slot->idle = 1;
  ++pool->curr_count;
  return 0;
}

int StopWorker(OXA_THREADPOOL_T* pool) {
  WorkerSlot* slot = nullptr;
  OXA_HANDLE thread = OXA_INVALID_HANDLE;
  {
    PthreadLock hold(&pool->mutex);
    if (pool->curr_count == 0) return OXA_ERROR;
    slot = LowestLiveSlot(pool);
    if (slot == nullptr) return 0;
    slot->quit = 1;
    slot->idle = 0;
    OXA_SemPost(&slot->wake);
    thread = slot->thread;
  }
  // The slot stays live (thread set) while we wait, so nobody else takes or frees it; the
  // worker cannot retire either, because the post above is waiting for it.
  OXA_Thread_Wait(thread);
  PthreadLock hold(&pool->mutex);
  ReleaseSlot(pool, slot);
  return 0;
}

}  // namespace oxa::internal
