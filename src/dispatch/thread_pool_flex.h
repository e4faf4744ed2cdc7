// The record behind OXA_THREADPOOLFLEX and the steps that its dispatch, worker and destroy
// files share.
//
// Locking: the pool mutex guards the queue, the spare items, the state changes and the
// worker accounting; handlers always run without it.
//
// Workers wait for items on a condition rather than on a semaphore with one post per item: a
// dispatch wakes a worker only while one is asleep, and a signal that finds no sleeper costs
// nothing, whereas every post to a semaphore that a sleeper has not yet left is a system call.
#ifndef OXA_SRC_DISPATCH_THREAD_POOL_FLEX_H_
#define OXA_SRC_DISPATCH_THREAD_POOL_FLEX_H_

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <time.h>

#include <atomic>

#include "oxa_threadpoolflex.h"
#include "oxa_trace.h"

namespace oxa::internal {

enum FlexState : int32_t { kRunning = 0, kExiting = 1, kExit = 2 };

struct FlexItem {
  FlexItem* next;
  void* data;
  OXA_TRACEINFO trace;  // the dispatcher's context
  bool has_trace;       // the dispatcher had one
};

struct FlexQueue {
  FlexItem* head = nullptr;
  FlexItem* tail = nullptr;
  int32_t count = 0;
};

// The monotonic-clock time ms milliseconds from now, for the pool's conditions.
struct timespec FlexDeadline(long long ms);

}  // namespace oxa::internal

struct OXA_THREADPOOLFLEX_T {
  int32_t stack_size;          // bytes per worker, after the default and the floor
  std::atomic<int32_t> state;  // FlexState; written under mutex, read anywhere
  int32_t max_threads;
  int32_t alive;              // workers running. Guarded by mutex.
  std::atomic<int32_t> idle;  // workers waiting for work. Changed under mutex.
  uint32_t idle_timeout_ms;
  OXA_THREADPOOLFLEX_HANDLER handler;
  sem_t all_ended;                 // posted by the last worker to end after state kExit
  pthread_cond_t work;             // signalled for an item while a worker waits; broadcast at
                                   // shutdown
  pthread_mutex_t mutex;           // plain
  pthread_cond_t drained;          // the queue became empty while the pool is exiting
  oxa::internal::FlexQueue queue;  // guarded by mutex
  oxa::internal::FlexItem* spare;  // items kept for reuse. Guarded by mutex.
  uint32_t spare_count;
};

namespace oxa::internal {

// Unlinks the oldest item, or null. REQUIRES: pool->mutex held.
FlexItem* FlexTake(OXA_THREADPOOLFLEX_T* pool);
// Keeps item for reuse or frees it. REQUIRES: pool->mutex held.
void FlexRecycle(OXA_THREADPOOLFLEX_T* pool, FlexItem* item);
// Starts one detached worker with the pool's stack size; false when the system refuses.
bool FlexStartWorker(OXA_THREADPOOLFLEX_T* pool);

}  // namespace oxa::internal

#endif  // OXA_SRC_DISPATCH_THREAD_POOL_FLEX_H_
