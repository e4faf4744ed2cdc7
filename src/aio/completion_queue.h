// A completion queue: a fixed array of worker slots, each with one epoll instance, one event
// buffer, one recursive slot lock and one thread.
#ifndef OXA_SRC_AIO_COMPLETION_QUEUE_H_
#define OXA_SRC_AIO_COMPLETION_QUEUE_H_

#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>

#include <atomic>

#include "oxa_base.h"

namespace oxa::internal {

// One worker. Everything but `stop` is written before the thread starts and read-only
// afterwards; the lock serialises the worker's batches of events with binding and unbinding.
// The queue's wake-up descriptor sits in every worker's epoll set, so an idle worker blocks
// without a time-out and still sees a stop order at once.
struct AioWorkerSlot {
  std::atomic<int> stop;  // 1 asks the worker to end; pairs with its acquire load
  int callback_mode;      // 1: callbacks run under `lock`; else it is released around them
  int epoll_fd;
  int event_capacity;  // 65536 / workers + 1
  epoll_event* events;
  pthread_mutex_t lock;  // recursive
  OXA_HANDLE thread;
  sem_t* started;  // posted by the worker once it runs at its priority; only for the start
};

// The epoll tag of the wake-up descriptor: never a table index, so batches skip it.
constexpr int kWakeTag = -1;

// The worker thread's routine; arg is its AioWorkerSlot.
void* AioWorkerMain(void* arg);

}  // namespace oxa::internal

// The queue behind a handle: the count as created and the slots that follow it in the same
// zero-filled allocation. A count below 1 has no slots and no wake-up descriptor.
struct OXA_AIO_QUEUE {
  int workers;
  oxa::internal::AioWorkerSlot* slots;
  int wake_fd;  // an eventfd written once, when the workers are told to stop; never read
};

namespace oxa::internal {

// The queue behind a handle, or null for a null or (void*)-1 handle.
OXA_AIO_QUEUE* QueueFromHandle(void* handle);

// The slot that owns fd in this queue, or null when the handle is bad, the queue has no
// workers, fd is outside the table or the worker has no epoll instance.
AioWorkerSlot* QueueSlotFor(void* handle, int fd);

}  // namespace oxa::internal

#endif  // OXA_SRC_AIO_COMPLETION_QUEUE_H_
