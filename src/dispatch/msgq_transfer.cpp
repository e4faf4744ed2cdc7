// Sending to and receiving from the table's message queues, and the receive's wait step.
#include <pthread.h>
#include <stddef.h>
#include <string.h>

#include "oxa_msgq.h"
#include "oxa_sync.h"
#include "oxa_time.h"

#include "dispatch/msgq_table.h"

// The message record is part of the interface: three 32-bit words, then the payload.
static_assert(offsetof(OXA_MQ_MSG, data) == 12 && sizeof(OXA_MQ_MSG) == 12 + OXA_MQ_MAX_MSG_LEN,
              "message layout is ABI");

namespace oxa::internal {
namespace {

constexpr unsigned int kNoTimeLimit = 0xFFFFFFFFu;

// Counts the calling receiver inside a record for the whole call, so that a destruction
// leaves the record's locks and conditions alone while it may still use them.
class ReceiverGuard {
 public:
  explicit ReceiverGuard(OXA_MQ_INTER* queue) : queue_(queue) { queue_->receivers.fetch_add(1); }
  ~ReceiverGuard() { queue_->receivers.fetch_sub(1); }
  ReceiverGuard(const ReceiverGuard&) = delete;
  ReceiverGuard& operator=(const ReceiverGuard&) = delete;

 private:
  OXA_MQ_INTER* const queue_;
};

// Wakes every thread in the wait step on cond, if there is one. The broadcast comes after
// both locks are released, so that the woken thread does not run into a held lock; no wake-up
// is lost, as a waiter holds `lock` from before it let go of the queue's lock until it waits.
void WakeWaiters(const std::atomic<uint32_t>& waiters, pthread_mutex_t* lock,
                 pthread_cond_t* cond) {
  if (waiters.load() == 0) return;
  OXA_MutexLock(lock);
  OXA_MutexUnlock(lock);
  OXA_CondBroadCast(cond);
}

// Takes the head message into msg. A message longer than the caller's capacity is lost: it
// leaves the queue, only type and priority are copied, and -1 is returned. Its node goes back
// to the spare nodes rather than leaking.
// REQUIRES: queue_lock held and a message queued; released here.
int TakeHead(OXA_MQ_INTER* queue, OXA_MQ_MSG* msg) {
  MsgNode* node = queue->list.PopHead();
  --queue->count;
  msg->type = node->type;
  msg->priority = node->priority;
  if (msg->length < node->length) {
    queue->list.Recycle(node);
    OXA_MutexUnlock(&queue->queue_lock);
    return OXA_ERROR;
  }
  msg->length = node->length;
  memcpy(msg->data, node->data(), static_cast<size_t>(node->length));
  queue->list.Recycle(node);
  const bool wake = queue->space_waiters.load() != 0;
  OXA_MutexUnlock(&queue->queue_lock);
  if (wake) WakeWaiters(queue->space_waiters, &queue->space_lock, &queue->space);
  return 0;
}

// REQUIRES: queue_lock held; released here.
int Append(OXA_MQ_INTER* queue, const OXA_MQ_MSG* msg) {
  MsgNode* node = queue->list.NewNode(msg->length);
  if (node == nullptr) {
    OXA_MutexUnlock(&queue->queue_lock);
    return OXA_ERROR;
  }
  node->type = msg->type;
  node->priority = msg->priority;
  node->length = msg->length;
  memcpy(node->data(), msg->data, static_cast<size_t>(msg->length));
  if (!queue->list.Insert(node)) {
    queue->list.Recycle(node);
    OXA_MutexUnlock(&queue->queue_lock);
    return OXA_ERROR;
  }
  ++queue->count;
  const bool wake = queue->arrival_waiters.load() != 0;
  OXA_MutexUnlock(&queue->queue_lock);
  if (wake) WakeWaiters(queue->arrival_waiters, &queue->receive_lock, &queue->arrival);
  return 0;
}

// The receive loop. The time left shrinks by the ticks each wait took; a wait is the only
// way to spend time here, so an empty queue with time left always waits, and a time-out of 0
// waits (without limit) for one send and then gives up.
int Receive(OXA_MQ_INTER* queue, OXA_MQ_MSG* msg, unsigned int timeout_ms, uint32_t generation) {
  unsigned int start = OXA_GetTimeTick();
  unsigned int remaining = timeout_ms;
  for (;;) {
    if (OXA_MutexLock(&queue->queue_lock) != 0) return OXA_ERROR;
    if (queue->generation.load() != generation) {  // destroyed while this call waited
      OXA_MutexUnlock(&queue->queue_lock);
      return OXA_ERROR;
    }
    if (queue->count != 0 && queue->list.head() != nullptr) return TakeHead(queue, msg);
    if (queue->count != 0) {
      OXA_MutexUnlock(&queue->queue_lock);
    } else {
      if (OXA_MsgQWaitTimeOut_Inter(queue, remaining, 1) != 0) return OXA_ERROR;
      const unsigned int now = OXA_GetTimeTick();
      const unsigned int elapsed = now - start;  // modulo 2^32: the tick may wrap
      if (elapsed > remaining) return OXA_ERROR;
      remaining -= elapsed;
      start = now;
    }
    if (timeout_ms != kNoTimeLimit && remaining == 0) return OXA_ERROR;
  }
}

}  // namespace
}  // namespace oxa::internal

using oxa::internal::kNoTimeLimit;

OXA_API int OXA_MsgQWaitTimeOut_Inter(OXA_MQ_INTER* queue, unsigned int timeout_ms, int which) {
  if (queue == nullptr) return OXA_ERROR;
  pthread_mutex_t* lock = which != 0 ? &queue->receive_lock : &queue->space_lock;
  pthread_cond_t* cond = which != 0 ? &queue->arrival : &queue->space;
  std::atomic<uint32_t>& waiters = which != 0 ? queue->arrival_waiters : queue->space_waiters;
  // Taking the chosen lock before letting go of the queue's means a send that follows cannot
  // broadcast before this wait has begun.
  if (OXA_MutexLock(lock) != 0) {
    OXA_MutexUnlock(&queue->queue_lock);
    return OXA_ERROR;
  }
  waiters.fetch_add(1);
  OXA_MutexUnlock(&queue->queue_lock);
  // 0 waits without limit, and so does the all-ones time-out (49.7 days, which no caller can
  // tell from no limit): an untimed wait spares the system a timer for each wait.
  if (timeout_ms != 0 && timeout_ms != kNoTimeLimit) {
    OXA_CondTimedWait(cond, lock, timeout_ms);
  } else {
    OXA_CondWait(cond, lock);
  }
  waiters.fetch_sub(1);
  OXA_MutexUnlock(lock);
  return 0;
}

// ---- C entry points -----------------------------------------------------------------

extern "C" {

OXA_API int OXA_MsgQSendEx(OXA_MQ_HANDLE handle, const OXA_MQ_MSG* msg) {
  if (handle == nullptr || msg == nullptr) return OXA_ERROR;
  if (msg->length < 0 || msg->length > OXA_MQ_MAX_MSG_LEN) return OXA_ERROR;
  if (handle->in_use.load() == 0) return OXA_ERROR;
  if (OXA_MutexLock(&handle->queue_lock) != 0) return OXA_ERROR;
  if (handle->in_use.load() == 0) {  // destroyed after the check above
    OXA_MutexUnlock(&handle->queue_lock);
    return OXA_ERROR;
  }
  return oxa::internal::Append(handle, msg);
}

OXA_API int OXA_MsgQReceiveEx(OXA_MQ_HANDLE handle, OXA_MQ_MSG* msg, unsigned int timeout_ms) {
  if (handle == nullptr || msg == nullptr) return OXA_ERROR;
  oxa::internal::ReceiverGuard inside(handle);
  // The generation is read before the in-use flag: a destruction that this call misses here
  // changes the generation, which the receive loop checks under the queue's lock.
  const uint32_t generation = handle->generation.load();
  if (handle->in_use.load() == 0) return OXA_ERROR;
  return oxa::internal::Receive(handle, msg, timeout_ms, generation);
}

}  // extern "C"
