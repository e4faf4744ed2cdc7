// The loop of a completion-queue worker.
//
// Each round waits on the worker's epoll instance without a time-out: the queue's wake-up
// descriptor, written once when the queue is destroyed, ends an idle wait, so a stop order is
// noticed at once and an idle worker costs nothing. When something is ready the worker takes its
// slot lock, fetches the ready events again without waiting (binding and unbinding may have changed
// the registrations meanwhile) and handles them in order. Registrations are level-triggered,
// so at most one request per direction is performed per event and a socket with more
// queued requests is reported again at the next wait.
//
// Lock order: slot lock, then m_sendMutex[fd], then m_recvMutex[fd], then the socket
// object's mutex. With callback mode 1 callbacks run with the slot lock held (documented in
// oxa_aio.h: a callback may then unbind its own socket, since the lock is recursive); with
// any other mode the lock is released around each callback. Either way a callback may have
// unbound, or unbound and rebound, the socket, so after every performed request the worker
// looks the socket up again and compares its identity before it touches the object.
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/epoll.h>

#include "oxa_aio.h"

#include "aio/completion_queue.h"
#include "aio/io_operation.h"
#include "aio/socket_table.h"
#include "frame/scoped_lock.h"

namespace oxa::internal {
namespace {

struct Identity {
  unsigned int serial;
  unsigned int create_tick;
};

Identity IdentityOf(const CSocketOperation* op) { return {op->GetSerial(), op->GetCreateTick()}; }

// The object bound to fd if it is still the one noted as `id`; null if it was unbound or
// replaced meanwhile.
CSocketOperation* SameObject(int fd, const Identity& id) {
  CSocketOperation* op = LookupSocket(fd);
  if (op == nullptr || op->GetSerial() != id.serial || op->GetCreateTick() != id.create_tick) {
    return nullptr;
  }
  return op;
}

// Performs the front send-side request if there is one and pops it unless it was a partial
// send. False when the object was replaced during the callback (skip the rest of the event).
bool HandleFrontSend(AioWorkerSlot* slot, CSocketOperation* op, const Identity& id) {
  const int fd = op->GetSocketFd();
  IO_DATA* req = op->FrontSendRequest();
  if (req == nullptr) return true;
  const int result = SendOperation(slot->callback_mode, &slot->lock, req);
  op = SameObject(fd, id);
  if (op == nullptr) return false;
  // Unchanged identity: the request is still the front one (only this thread pops).
  if (result > 0 && result < req->length) return true;  // stays at the front
  op->PopSendRequest();
  return true;
}

// Performs the front receive-side request, which must exist, and pops it once its callback
// has run. *completed tells whether it did; false return: the object was replaced.
bool HandleFrontRecv(AioWorkerSlot* slot, CSocketOperation* op, IO_DATA* req, const Identity& id,
                     bool* completed) {
  const int fd = op->GetSocketFd();
  *completed = PerformRecv(slot->callback_mode, &slot->lock, req).completed;
  if (!*completed) return true;  // EAGAIN: stays queued, no callback ran
  op = SameObject(fd, id);
  if (op == nullptr) return false;
  op->PopRecvRequest();
  return true;
}

// An error or hang-up without readiness: the front requests of both queues run so that their
// callbacks report it, then the socket leaves epoll if nothing is queued any more. A receive
// that still meets EAGAIN stays queued: it has not been reported.
void HandleErrorOnly(AioWorkerSlot* slot, CSocketOperation* op, const Identity& id) {
  const int fd = op->GetSocketFd();
  if (IO_DATA* req = op->FrontRecvRequest()) {
    bool completed = false;
    if (!HandleFrontRecv(slot, op, req, id, &completed)) return;
  }
  if (!HandleFrontSend(slot, op, id)) return;
  op = LookupSocket(fd);  // same identity, so the same object
  op->ChangeSocketOpr(SOCKET_OPR_DEL);
}

// REQUIRES: slot->lock held.
void HandleEvent(AioWorkerSlot* slot, const epoll_event& event) {
  const int fd = event.data.fd;
  if (!IsTableIndex(fd)) return;
  CSocketOperation* op = LookupSocket(fd);
  if (op == nullptr || op->GetEpollFd() != slot->epoll_fd) return;
  const Identity id = IdentityOf(op);
  const unsigned int ready = event.events;
  if ((ready & (EPOLLIN | EPOLLOUT)) == 0) {
    if ((ready & (EPOLLERR | EPOLLHUP)) != 0) HandleErrorOnly(slot, op, id);
    return;
  }
  if ((ready & EPOLLIN) != 0) {
    IO_DATA* req = op->FrontRecvRequest();
    if (req == nullptr) return;
    bool completed = false;
    if (!HandleFrontRecv(slot, op, req, id, &completed)) return;
  }
  if ((ready & EPOLLOUT) != 0) HandleFrontSend(slot, op, id);
}

// Handles one batch: at most `at_most` events fetched again under the slot lock.
void HandleBatch(AioWorkerSlot* slot, int at_most) {
  PthreadLock hold(&slot->lock);
  const int count = epoll_wait(slot->epoll_fd, slot->events, at_most, 0);
  for (int i = 0; i < count; ++i)
    HandleEvent(slot, slot->events[i]);
}

// Workers run at one real-time priority, which has no time slices: a worker that always finds
// something ready would keep its CPU from the queue's other workers (and from application
// threads at that priority), and their sockets would starve. After a few batches a worker
// goes to the back of the line, so busy workers take turns of equal length. A yield with
// nobody waiting returns at once; one per few batches costs nothing measurable. Turns are
// counted in batches, not in time: a worker that waited long for its turn would otherwise
// find its time used up and give the CPU back after a single batch.
class FairTurn {
 public:
  void Batch() {
    if (++batches_ < kBatchesPerTurn) return;
    batches_ = 0;
    sched_yield();
  }

 private:
  static constexpr int kBatchesPerTurn = 8;
  int batches_ = 0;
};

}  // namespace

void* AioWorkerMain(void* arg) {
  auto* slot = static_cast<AioWorkerSlot*>(arg);
  // Completions are latency-sensitive; without the privilege the request is refused, and the
  // worker runs at its ordinary priority.
  sched_param param{};
  param.sched_priority = 1;
  pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);
  sem_post(slot->started);  // the starter's semaphore, gone once it returns
  FairTurn turn;
  for (;;) {
    const int ready = epoll_wait(slot->epoll_fd, slot->events, slot->event_capacity, -1);
    // Pairs with the release store in StopWorkers, made before the wake-up was written.
    if (slot->stop.load(std::memory_order_acquire) != 0) break;
    if (ready > 0) HandleBatch(slot, ready);  // the events of this first wait are not used
    turn.Batch();
  }
  return nullptr;
}

}  // namespace oxa::internal
