// Creating and destroying completion queues, and the queue-wide settings.
#include "aio/completion_queue.h"

#include <errno.h>
#include <sched.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <new>

#include "oxa_aio.h"
#include "oxa_sysinfo.h"
#include "oxa_thread.h"

#include "aio/socket_table.h"
#include "frame/errno_util.h"
#include "frame/pthread_result.h"

namespace oxa::internal {
namespace {

constexpr unsigned int kWorkerStackBytes = 2u * 1024u * 1024u;
// NOLINTNEXTLINE(performance-no-int-to-ptr): the interface fixes these handle values
void* const kBadQueue = reinterpret_cast<void*>(static_cast<intptr_t>(-1));

static_assert(sizeof(OXA_AIO_QUEUE) % alignof(AioWorkerSlot) == 0,
              "the slots follow the queue header in one allocation");

// One zero-filled block: the queue header, then max(workers, 0) slots.
OXA_AIO_QUEUE* NewQueue(int workers) {
  const size_t count = workers > 0 ? static_cast<size_t>(workers) : 0;
  if (count > (SIZE_MAX - sizeof(OXA_AIO_QUEUE)) / sizeof(AioWorkerSlot)) {
    errno = ENOMEM;
    return nullptr;
  }
  void* memory = calloc(1, sizeof(OXA_AIO_QUEUE) + count * sizeof(AioWorkerSlot));
  if (memory == nullptr) return nullptr;
  auto* queue = new (memory) OXA_AIO_QUEUE{workers, nullptr, -1};
  auto* slots = reinterpret_cast<AioWorkerSlot*>(queue + 1);
  for (size_t i = 0; i < count; ++i)
    new (&slots[i]) AioWorkerSlot{};
  queue->slots = slots;
  return queue;
}

int InitRecursiveLock(pthread_mutex_t* lock) {
  pthread_mutexattr_t attr;
  if (ZeroOrError(pthread_mutexattr_init(&attr)) != 0) return OXA_ERROR;
  int rc = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  if (rc == 0) rc = pthread_mutex_init(lock, &attr);
  pthread_mutexattr_destroy(&attr);
  return ZeroOrError(rc);
}

// Releases what StartWorker made, once the thread (if any) has ended.
void ReleaseWorker(AioWorkerSlot* slot) {
  close(slot->epoll_fd);
  slot->epoll_fd = -1;
  delete[] slot->events;
  slot->events = nullptr;
  pthread_mutex_destroy(&slot->lock);
}

// An epoll instance that already watches the queue's wake-up descriptor (level-triggered:
// once written, it wakes every worker, however many waits follow).
int NewEpollWithWake(int wake_fd) {
  // The size hint of 65536 descriptors that epoll_create once took is ignored by the kernel.
  const int epoll_fd = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_fd < 0) return -1;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = kWakeTag;
  if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, wake_fd, &event) != 0) {
    ErrnoSaver keep;
    close(epoll_fd);
    return -1;
  }
  return epoll_fd;
}

// Makes one worker's epoll instance, event buffer and lock, then starts its thread. On
// failure nothing of the slot is left and errno tells the failing step.
int StartWorker(AioWorkerSlot* slot, int callback_mode, int workers, int wake_fd) {
  slot->stop.store(0, std::memory_order_relaxed);
  slot->callback_mode = callback_mode;
  slot->epoll_fd = NewEpollWithWake(wake_fd);
  if (slot->epoll_fd < 0) return OXA_ERROR;
  slot->event_capacity = kMaxSockets / workers + 1;
  slot->events = new (std::nothrow) epoll_event[static_cast<size_t>(slot->event_capacity)];
  const int lock_rc = slot->events == nullptr ? OXA_ERROR : InitRecursiveLock(&slot->lock);
  if (lock_rc != 0) {
    const int saved = slot->events == nullptr ? ENOMEM : errno;
    close(slot->epoll_fd);
    slot->epoll_fd = -1;
    delete[] slot->events;
    slot->events = nullptr;
    errno = saved;
    return OXA_ERROR;
  }
  // The queue is handed out only once its workers run at their priority. A worker that had
  // not run yet could otherwise stay behind busy real-time siblings at the ordinary priority
  // and leave its sockets unserved for as long as the kernel's throttle lets them run alone
  // (about a second).
  sem_t started;
  sem_init(&started, 0, 0);
  slot->started = &started;
  slot->thread = OXA_Thread_Create(AioWorkerMain, slot, kWorkerStackBytes, 0, 0, SCHED_OTHER);
  if (slot->thread == OXA_INVALID_HANDLE) {
    const int saved = errno;
    sem_destroy(&started);
    ReleaseWorker(slot);
    errno = saved;
    return OXA_ERROR;
  }
  while (sem_wait(&started) != 0 && errno == EINTR) {
  }
  sem_destroy(&started);
  return 0;
}

// Stops the first `count` workers together: the flags first, then one write of the wake-up
// descriptor, which every idle worker's wait returns for. Then waits for and releases them
// one by one.
void StopWorkers(OXA_AIO_QUEUE* queue, int count) {
  for (int i = 0; i < count; ++i)
    queue->slots[i].stop.store(1, std::memory_order_release);  // pairs with AioWorkerMain
  if (count > 0) {
    const uint64_t one = 1;
    // Cannot fail short of a counter near 2^64; a wake-up already pending does as well.
    const ssize_t written = RetryOnEintr([&] { return write(queue->wake_fd, &one, sizeof one); });
    static_cast<void>(written);
  }
  for (int i = 0; i < count; ++i) {
    OXA_Thread_Wait(queue->slots[i].thread);
    ReleaseWorker(&queue->slots[i]);
  }
}

// REQUIRES: every worker has been stopped. The slots are trivially destructible.
void FreeQueue(OXA_AIO_QUEUE* queue) {
  if (queue->wake_fd != -1) close(queue->wake_fd);
  free(queue);
}

}  // namespace

OXA_AIO_QUEUE* QueueFromHandle(void* handle) {
  if (handle == nullptr || handle == kBadQueue) return nullptr;
  return static_cast<OXA_AIO_QUEUE*>(handle);
}

AioWorkerSlot* QueueSlotFor(void* handle, int fd) {
  OXA_AIO_QUEUE* queue = QueueFromHandle(handle);
  if (queue == nullptr || queue->workers < 1 || !IsTableIndex(fd)) return nullptr;
  AioWorkerSlot* slot = &queue->slots[fd % queue->workers];
  return slot->epoll_fd == -1 ? nullptr : slot;
}

}  // namespace oxa::internal

// ---- C entry points -------------------------------------------------------------------

using oxa::internal::kBadQueue;

extern "C" {

OXA_API void* OXA_AIO_CreateQueueEx(int workers, int callback_mode) {
  OXA_AIO_QUEUE* queue = oxa::internal::NewQueue(workers);
  if (queue == nullptr) return kBadQueue;
  if (workers > 0) {
    queue->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (queue->wake_fd == -1) {
      oxa::internal::ErrnoSaver keep;
      oxa::internal::FreeQueue(queue);
      return kBadQueue;
    }
  }
  for (int i = 0; i < workers; ++i) {
    if (oxa::internal::StartWorker(&queue->slots[i], callback_mode, workers, queue->wake_fd) != 0) {
      const int saved = errno;
      oxa::internal::StopWorkers(queue, i);
      oxa::internal::FreeQueue(queue);
      errno = saved;
      return kBadQueue;
    }
  }
  return queue;
}

OXA_API void* OXA_AsyncIO_CreateQueueEx_New(int workers) {
  return OXA_AIO_CreateQueueEx(workers, 1);
}

OXA_API void* OXA_AsyncIO_CreateQueueEx2(void) {
  return OXA_AsyncIO_CreateQueueEx_New((OXA_GetCPUNumber() + 1) * 2);
}

OXA_API int OXA_AsyncIO_DestroyQueueEx(void* handle) {
  OXA_AIO_QUEUE* queue = oxa::internal::QueueFromHandle(handle);
  if (queue == nullptr) return OXA_ERROR;
  oxa::internal::StopWorkers(queue, queue->workers > 0 ? queue->workers : 0);
  oxa::internal::FreeQueue(queue);
  return 0;
}

OXA_API int OXA_AsyncIO_SetIOQueueMemorySize(int bytes) {
  if (bytes < 1) return OXA_ERROR;
  // Pairs with the relaxed load in PushSendRequest: the value alone matters, nothing it guards.
  __atomic_store_n(&g_max_socket_send_dataMemory, bytes, __ATOMIC_RELAXED);
  return 0;
}

}  // extern "C"
