// The life of one worker of a flexible pool: wait for work, run items, and end on shutdown or
// after one idle time-out without work.
#include <errno.h>
#include <time.h>

#include "oxa_thread.h"
#include "oxa_trace.h"

#include "dispatch/thread_pool_flex.h"
#include "frame/errno_util.h"

namespace oxa::internal {
namespace {

constexpr long kNsPerSecond = 1000000000L;
constexpr long kNsPerMs = 1000000L;
constexpr uint32_t kMsPerSecond = 1000;

void* FlexWorker(void* arg);

oxa_tlsTraceInfoOper& Trace() { return oxa_tlsTraceInfoOper::instance(); }

// The worker leaves: the last one to go after shutdown tells the destroyer, which frees the
// pool only after it has taken the mutex once more, that is after this unlock. Nothing of the
// library is touched after it, so a process may exit as soon as the pool is destroyed.
// REQUIRES: pool->mutex held; released here.
void Leave(OXA_THREADPOOLFLEX_T* pool) {
  Trace().eraseTraceInfo();
  --pool->alive;
  if (pool->alive == 0 && pool->state.load() == kExit) sem_post(&pool->all_ended);
  pthread_mutex_unlock(&pool->mutex);
}

// Runs one item with its dispatcher's context; an item without one runs with none.
void Run(OXA_THREADPOOLFLEX_HANDLER handler, const FlexItem& item, bool* has_context) {
  if (item.has_trace) {
    Trace().setTraceInfo(item.trace);
    *has_context = true;
  } else if (*has_context) {
    Trace().eraseTraceInfo();
    *has_context = false;
  }
  handler(item.data);
}

}  // namespace

// A blocking wait on the monotonic clock rather than a poll: a worker wakes the moment an item
// is posted, and a change of the wall clock does not stretch its idle time-out.
bool FlexWaitWork(sem_t* sem, uint32_t timeout_ms) {
  if (timeout_ms == 0) return RetryOnEintr([&] { return sem_trywait(sem); }) == 0;
  struct timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += static_cast<time_t>(timeout_ms / kMsPerSecond);
  deadline.tv_nsec += static_cast<long>(timeout_ms % kMsPerSecond) * kNsPerMs;
  if (deadline.tv_nsec >= kNsPerSecond) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= kNsPerSecond;
  }
  return RetryOnEintr([&] { return sem_clockwait(sem, CLOCK_MONOTONIC, &deadline); }) == 0;
}

bool FlexStartWorker(OXA_THREADPOOLFLEX_T* pool) {
  // A plain detached thread: a thread started through the library's own thread functions
  // would erase the creator's trace context after the worker returned, that is after the
  // destroyer may already have gone on.
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) return false;
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attr, static_cast<size_t>(pool->stack_size));
  pthread_t thread;
  const bool started = pthread_create(&thread, &attr, FlexWorker, pool) == 0;
  pthread_attr_destroy(&attr);
  return started;
}

namespace {

void* FlexWorker(void* arg) {
  auto* pool = static_cast<OXA_THREADPOOLFLEX_T*>(arg);
  bool has_context = false;
  for (;;) {
    if (pool->state.load() == kExit) break;
    bool woken = sem_trywait(&pool->work) == 0;  // busy: work is waiting, not idle
    if (!woken) {
      pool->idle.fetch_add(1);
      woken = FlexWaitWork(&pool->work, pool->idle_timeout_ms);
      pool->idle.fetch_sub(1);
    }
    if (pool->state.load() == kExit) break;
    pthread_mutex_lock(&pool->mutex);
    FlexItem* taken = FlexTake(pool);
    if (taken == nullptr && !woken) {
      // Deciding to leave under the mutex keeps `alive` true for dispatch: an item queued
      // before this point is taken above, one queued after it sees this worker gone.
      Leave(pool);
      return nullptr;
    }
    FlexItem item;
    if (taken != nullptr) {
      item = *taken;
      FlexRecycle(pool, taken);
    }
    pthread_mutex_unlock(&pool->mutex);
    if (taken != nullptr) Run(pool->handler, item, &has_context);
  }
  pthread_mutex_lock(&pool->mutex);
  Leave(pool);
  return nullptr;
}

}  // namespace
}  // namespace oxa::internal
