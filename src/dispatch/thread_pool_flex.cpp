// The flexible pool's engine: creation, dispatch, the queue and destruction, and the
// OXA_ThreadPoolFlex_* wrappers.
#include "dispatch/thread_pool_flex.h"

#include <errno.h>
#include <stdlib.h>
#include <time.h>

#include <initializer_list>
#include <new>

#include "oxa_sysinfo.h"
#include "oxa_threadpoolflex.h"
#include "oxa_trace.h"

#include "frame/errno_util.h"

namespace oxa::internal {
namespace {

constexpr int32_t kMaxQueued = 65535;             // a dispatch fails while this many wait
constexpr int32_t kDefaultStackBytes = 0x100000;  // for a stack size of 0
constexpr int32_t kSmallestStackBytes = 0x40000;  // smaller sizes are raised to this
constexpr uint32_t kSpareItems = 1024;            // items kept for reuse (about 230 KiB)
constexpr unsigned int kAfterLastWorkerMs = 10;   // lets the last worker's thread finish
constexpr int kWaitForever = -1;

int32_t WorkerStackBytes(int stack_size) {
  if (stack_size == 0) return kDefaultStackBytes;
  return stack_size < kSmallestStackBytes ? kSmallestStackBytes : stack_size;
}

// REQUIRES: pool->mutex held.
FlexItem* NewItem(OXA_THREADPOOLFLEX_T* pool) {
  FlexItem* item = pool->spare;
  if (item == nullptr) return new (std::nothrow) FlexItem;
  pool->spare = item->next;
  --pool->spare_count;
  return item;
}

// REQUIRES: pool->mutex held.
void Append(OXA_THREADPOOLFLEX_T* pool, FlexItem* item) {
  item->next = nullptr;
  if (pool->queue.tail == nullptr) {
    pool->queue.head = item;
  } else {
    pool->queue.tail->next = item;
  }
  pool->queue.tail = item;
  ++pool->queue.count;
}

// A burst of items with no idle worker starts one worker per item, up to the maximum. When no
// worker can be started and none is alive, nobody would ever take the item: it is withdrawn.
// REQUIRES: pool->mutex held, the new item queued.
bool EnsureWorker(OXA_THREADPOOLFLEX_T* pool) {
  if (pool->idle.load() >= pool->queue.count || pool->alive >= pool->max_threads) return true;
  if (FlexStartWorker(pool)) {
    ++pool->alive;
    return true;
  }
  if (pool->alive > 0) return true;
  FlexRecycle(pool, FlexTake(pool));
  return false;
}

// Waits until the queue is empty: without limit for kWaitForever, else at most wait_ms.
// A worker that empties the queue of an exiting pool broadcasts `drained`.
void AwaitDrained(OXA_THREADPOOLFLEX_T* pool, int wait_ms) {
  const struct timespec deadline = FlexDeadline(wait_ms);
  pthread_mutex_lock(&pool->mutex);
  while (pool->queue.count > 0) {
    if (wait_ms == kWaitForever) {
      pthread_cond_wait(&pool->drained, &pool->mutex);
    } else if (pthread_cond_timedwait(&pool->drained, &pool->mutex, &deadline) == ETIMEDOUT) {
      break;
    }
  }
  pthread_mutex_unlock(&pool->mutex);
}

// Tells every worker to end and waits until the last has left; running handlers finish first.
void StopWorkers(OXA_THREADPOOLFLEX_T* pool) {
  pthread_mutex_lock(&pool->mutex);
  pool->state.store(kExit);
  const int32_t alive = pool->alive;
  pthread_cond_broadcast(&pool->work);
  pthread_mutex_unlock(&pool->mutex);
  if (alive == 0) return;
  RetryOnEintr([&] { return sem_wait(&pool->all_ended); });
  // The last worker posted under the mutex; once it is ours again, no worker touches the pool.
  pthread_mutex_lock(&pool->mutex);
  pthread_mutex_unlock(&pool->mutex);
  OXA_Sleep(kAfterLastWorkerMs);
}

// Frees what is left: queued items are dropped without their handler.
void FreePool(OXA_THREADPOOLFLEX_T* pool) {
  for (FlexItem* list : {pool->queue.head, pool->spare}) {
    while (list != nullptr) {
      FlexItem* next = list->next;
      delete list;
      list = next;
    }
  }
  sem_destroy(&pool->all_ended);
  pthread_cond_destroy(&pool->work);
  pthread_cond_destroy(&pool->drained);
  pthread_mutex_destroy(&pool->mutex);
  delete pool;
}

bool InitMonotonicCond(pthread_cond_t* cond) {
  pthread_condattr_t attr;
  if (pthread_condattr_init(&attr) != 0) return false;
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  const bool ok = pthread_cond_init(cond, &attr) == 0;
  pthread_condattr_destroy(&attr);
  return ok;
}

// Builds the pool's synchronisation objects; false when one cannot be made (nothing is left).
bool InitSync(OXA_THREADPOOLFLEX_T* pool) {
  if (!InitMonotonicCond(&pool->drained)) return false;
  if (InitMonotonicCond(&pool->work)) {
    if (pthread_mutex_init(&pool->mutex, nullptr) == 0) {
      if (sem_init(&pool->all_ended, 0, 0) == 0) return true;
      pthread_mutex_destroy(&pool->mutex);
    }
    pthread_cond_destroy(&pool->work);
  }
  pthread_cond_destroy(&pool->drained);
  return false;
}

}  // namespace

struct timespec FlexDeadline(long long ms) {
  constexpr long long kNsPerSecond = 1000000000LL;
  constexpr long long kNsPerMs = 1000000LL;
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long long end_ns = static_cast<long long>(now.tv_sec) * kNsPerSecond + now.tv_nsec +
                           (ms < 0 ? 0 : ms) * kNsPerMs;
  struct timespec deadline;
  deadline.tv_sec = static_cast<time_t>(end_ns / kNsPerSecond);
  deadline.tv_nsec = static_cast<long>(end_ns % kNsPerSecond);
  return deadline;
}

FlexItem* FlexTake(OXA_THREADPOOLFLEX_T* pool) {
  FlexItem* item = pool->queue.head;
  if (item == nullptr) return nullptr;
  pool->queue.head = item->next;
  if (pool->queue.head == nullptr) pool->queue.tail = nullptr;
  --pool->queue.count;
  if (pool->queue.count == 0 && pool->state.load() == kExiting) {
    pthread_cond_broadcast(&pool->drained);
  }
  return item;
}

void FlexRecycle(OXA_THREADPOOLFLEX_T* pool, FlexItem* item) {
  if (pool->spare_count >= kSpareItems) {
    delete item;
    return;
  }
  item->next = pool->spare;
  pool->spare = item;
  ++pool->spare_count;
}

}  // namespace oxa::internal

using oxa::internal::FlexItem;

extern "C" {

OXA_API OXA_THREADPOOLFLEX thrmgr_new(int max_threads, int idle_timeout_ms,
                                      OXA_THREADPOOLFLEX_HANDLER handler, int stack_size) {
  if (handler == nullptr || max_threads <= 0 || stack_size < 0) return nullptr;
  auto* pool = new (std::nothrow) OXA_THREADPOOLFLEX_T;
  if (pool == nullptr) return nullptr;
  if (!oxa::internal::InitSync(pool)) {
    oxa::internal::ErrnoSaver keep;
    delete pool;
    return nullptr;
  }
  pool->stack_size = oxa::internal::WorkerStackBytes(stack_size);
  pool->state.store(oxa::internal::kRunning);
  pool->max_threads = max_threads;
  pool->alive = 0;
  pool->idle.store(0);
  pool->idle_timeout_ms = static_cast<uint32_t>(idle_timeout_ms);
  pool->handler = handler;
  pool->spare = nullptr;
  pool->spare_count = 0;
  return pool;
}

OXA_API int thrmgr_dispatch(OXA_THREADPOOLFLEX pool, void* data) {
  if (pool == nullptr) return 0;
  OXA_TRACEINFO trace;  // read before the lock: it is the calling thread's own
  const bool has_trace = oxa::oxa_tlsTraceInfoOper::instance().getTraceInfo(&trace) == 0;
  pthread_mutex_lock(&pool->mutex);
  FlexItem* item = nullptr;
  if (pool->state.load() == oxa::internal::kRunning &&
      pool->queue.count < oxa::internal::kMaxQueued) {
    item = oxa::internal::NewItem(pool);
  }
  if (item == nullptr) {
    pthread_mutex_unlock(&pool->mutex);
    return 0;
  }
  item->data = data;
  item->has_trace = has_trace;
  if (has_trace) item->trace = trace;
  oxa::internal::Append(pool, item);
  const bool ok = oxa::internal::EnsureWorker(pool);
  const bool wake = ok && pool->idle.load() > 0;
  pthread_mutex_unlock(&pool->mutex);
  // Signalled after the unlock, so that the worker it wakes does not run into the held lock;
  // a waiting worker registered itself under the lock, so it cannot miss this signal.
  if (wake) pthread_cond_signal(&pool->work);
  return ok ? 1 : 0;
}

OXA_API int thrmgr_getQSize(OXA_THREADPOOLFLEX pool) {
  if (pool == nullptr) return OXA_ERROR;
  pthread_mutex_lock(&pool->mutex);
  const int count = pool->state.load() == oxa::internal::kRunning ? pool->queue.count : OXA_ERROR;
  pthread_mutex_unlock(&pool->mutex);
  return count;
}

OXA_API void thrmgr_destroy(OXA_THREADPOOLFLEX pool, int wait) {
  if (pool == nullptr) return;
  pthread_mutex_lock(&pool->mutex);
  const bool first = pool->state.load() == oxa::internal::kRunning;
  if (first) pool->state.store(oxa::internal::kExiting);
  pthread_mutex_unlock(&pool->mutex);
  if (!first) return;
  if (wait == oxa::internal::kWaitForever || wait > 0) oxa::internal::AwaitDrained(pool, wait);
  oxa::internal::StopWorkers(pool);
  oxa::internal::FreePool(pool);
}

OXA_API OXA_THREADPOOLFLEX OXA_ThreadPoolFlex_Create(int max_threads, int idle_timeout_ms,
                                                     OXA_THREADPOOLFLEX_HANDLER handler,
                                                     int stack_size) {
  return thrmgr_new(max_threads, idle_timeout_ms, handler, stack_size);
}

OXA_API int OXA_ThreadPoolFlex_Work(OXA_THREADPOOLFLEX pool, void* data) {
  return thrmgr_dispatch(pool, data) == 1 ? 0 : OXA_ERROR;
}

OXA_API int OXA_ThreadPoolFlex_Destroy(OXA_THREADPOOLFLEX pool) {
  thrmgr_destroy(pool, 0);
  return 0;
}

OXA_API int OXA_ThreadPoolFlex_DestroyEx(OXA_THREADPOOLFLEX pool, int wait) {
  thrmgr_destroy(pool, wait);
  return 0;
}

}  // extern "C"
