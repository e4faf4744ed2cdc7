// The life of one worker of a flexible pool: wait for work, run items, and end on shutdown or
// after one idle time-out without work.
#include <errno.h>
#include <pthread.h>
#include <sched.h>

#include "oxa_trace.h"

#include "dispatch/thread_pool_flex.h"

namespace oxa::internal {
namespace {

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

// Waits until an item is queued or the pool ends; false when the idle time-out passed first (at
// once for a time-out of 0). REQUIRES: pool->mutex held.
bool AwaitItem(OXA_THREADPOOLFLEX_T* pool) {
  if (pool->queue.head != nullptr || pool->state.load() == kExit) return true;
  if (pool->idle_timeout_ms == 0) return false;
  // Before sleeping, give the processor away once: a dispatcher that is about to queue the
  // next item then does so without having to wake this worker, which spares a flood of items
  // a sleep and a wake-up per item.
  pthread_mutex_unlock(&pool->mutex);
  sched_yield();
  pthread_mutex_lock(&pool->mutex);
  if (pool->queue.head != nullptr || pool->state.load() == kExit) return true;
  const struct timespec deadline = FlexDeadline(pool->idle_timeout_ms);
  pool->idle.fetch_add(1);
  int rc = 0;
  while (pool->queue.head == nullptr && pool->state.load() != kExit && rc != ETIMEDOUT) {
    rc = pthread_cond_timedwait(&pool->work, &pool->mutex, &deadline);
  }
  pool->idle.fetch_sub(1);
  return pool->queue.head != nullptr || pool->state.load() == kExit;
}

}  // namespace

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
  pthread_mutex_lock(&pool->mutex);
  while (AwaitItem(pool) && pool->state.load() != kExit) {
    FlexItem* taken = FlexTake(pool);
    const FlexItem item = *taken;
    FlexRecycle(pool, taken);
    pthread_mutex_unlock(&pool->mutex);
    Run(pool->handler, item, &has_context);
    pthread_mutex_lock(&pool->mutex);
  }
  Leave(pool);
  return nullptr;
}

}  // namespace
}  // namespace oxa::internal
