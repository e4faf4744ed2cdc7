// Binding sockets to queues, queuing requests and posting completions.
//
// Lock order: slot lock, then CSocketOperation::m_sendMutex[fd], then m_recvMutex[fd] (then
// the object's own mutex, inside the engine). Binding and unbinding take all three, so they
// wait for the worker's current batch; a request takes only the mutex of its side, which is
// enough to read the socket table (see aio/socket_table.h).
#include <errno.h>
#include <stdio.h>

#include <memory>
#include <new>

#include "oxa_aio.h"
#include "oxa_socket.h"
#include "oxa_thread.h"

#include "aio/completion_queue.h"
#include "aio/socket_table.h"
#include "frame/scoped_lock.h"

namespace oxa::internal {
namespace {

using Hold = ScopedLock<OXA_Mutex>;

constexpr unsigned int kPostStackBytes = 2u * 1024u * 1024u;

constexpr char kAlreadyBoundFormat[] = "OXA_AsyncIO_BindIOHandleToQueueEx, ERROR, socketFd = %d\n";
constexpr char kNotBoundFormat[] =
    "OXA_AsyncIO_UnBindIOHandleEx gSocketOpr[socketFd] = NULL, socketFd = %d\n";
constexpr char kAcceptFormat[] = "OXA_AsyncIO_AcceptEx %d\n";

int BindSocket(int fd, AioWorkerSlot* slot) {
  {
    PthreadLock hold_slot(&slot->lock);
    Hold send(CSocketOperation::m_sendMutex[fd]);
    Hold recv(CSocketOperation::m_recvMutex[fd]);
    if (LookupSocket(fd) == nullptr) {
      OXA_SetNonBlock(fd, 1);
      auto* op = new (std::nothrow) CSocketOperation(fd, slot->epoll_fd);
      if (op == nullptr || !op->IsValid()) {
        delete op;
        errno = ENOMEM;
        return OXA_ERROR;
      }
      StoreSocket(fd, op);
      return 0;
    }
  }
  fprintf(stderr, kAlreadyBoundFormat, fd);
  return OXA_ERROR;
}

int UnbindSocket(int fd, AioWorkerSlot* slot) {
  {
    PthreadLock hold_slot(&slot->lock);
    Hold send(CSocketOperation::m_sendMutex[fd]);
    Hold recv(CSocketOperation::m_recvMutex[fd]);
    CSocketOperation* op = LookupSocket(fd);
    if (op != nullptr && op->GetEpollFd() == slot->epoll_fd) {
      StoreSocket(fd, nullptr);
      delete op;  // leaves epoll, drops the queued requests without callbacks
      return 0;
    }
  }
  fprintf(stderr, kNotBoundFormat, fd);
  return OXA_ERROR;
}

// A completion posted by OXA_AsyncIO_PostQueuedCompleteStatusEx, owned by its thread.
struct PostedCompletion {
  void* queue;  // kept, not used
  unsigned long key;
  unsigned long error;
  unsigned long bytes;
  void* context;
  OXA_AIO_CALLBACK callback;
};

void* RunPostedCompletion(void* arg) {
  std::unique_ptr<PostedCompletion> posted(static_cast<PostedCompletion*>(arg));
  posted->callback(posted->error, posted->bytes, posted->context);
  return nullptr;
}

}  // namespace
}  // namespace oxa::internal

// ---- C entry points -------------------------------------------------------------------

using oxa::internal::IsTableIndex;
using oxa::internal::LookupSocket;
using SideHold = oxa::internal::ScopedLock<OXA_Mutex>;

extern "C" {

OXA_API int OXA_AsyncIO_BindIOHandleToQueueEx(int fd, void* queue) {
  oxa::internal::AioWorkerSlot* slot = oxa::internal::QueueSlotFor(queue, fd);
  if (slot == nullptr) return OXA_ERROR;
  return oxa::internal::BindSocket(fd, slot);
}

OXA_API int OXA_AsyncIO_UnBindIOHandleEx(int fd, void* queue) {
  oxa::internal::AioWorkerSlot* slot = oxa::internal::QueueSlotFor(queue, fd);
  if (slot == nullptr) return OXA_ERROR;
  return oxa::internal::UnbindSocket(fd, slot);
}

OXA_API int OXA_AsyncIO_BindCallBackToIOHandleEx(int /*fd*/, OXA_AIO_CALLBACK /*callback*/) {
  return 0;
}

OXA_API int OXA_AsyncIO_SendEx(int fd, const void* data, int len, void* context,
                               OXA_AIO_CALLBACK callback) {
  if (!IsTableIndex(fd)) return OXA_ERROR;
  SideHold hold(CSocketOperation::m_sendMutex[fd]);
  CSocketOperation* op = LookupSocket(fd);
  if (op == nullptr) return OXA_ERROR;
  return op->PushTCPSendRequest(const_cast<void*>(data), len, context, callback);
}

OXA_API int OXA_AsyncIO_SendToEx(int fd, const void* data, int len, void* context,
                                 const OXA_ADDR_T* to, OXA_AIO_CALLBACK callback) {
  if (!IsTableIndex(fd)) return OXA_ERROR;
  SideHold hold(CSocketOperation::m_sendMutex[fd]);
  CSocketOperation* op = LookupSocket(fd);
  if (op == nullptr) return OXA_ERROR;
  return op->PushUDPSendRequest(const_cast<void*>(data), len, context, const_cast<OXA_ADDR_T*>(to),
                                callback);
}

OXA_API int OXA_AsyncIO_RecvEx(int fd, void* buf, int len, void* context,
                               OXA_AIO_CALLBACK callback) {
  if (!IsTableIndex(fd)) return OXA_ERROR;
  SideHold hold(CSocketOperation::m_recvMutex[fd]);
  CSocketOperation* op = LookupSocket(fd);
  if (op == nullptr) return OXA_ERROR;
  return op->PushTCPRecvRequest(buf, len, context, callback);
}

OXA_API int OXA_AsyncIO_RecvFromEx(int fd, void* buf, int len, void* context, OXA_ADDR_T* from,
                                   OXA_AIO_CALLBACK callback) {
  if (!IsTableIndex(fd)) return OXA_ERROR;
  SideHold hold(CSocketOperation::m_recvMutex[fd]);
  CSocketOperation* op = LookupSocket(fd);
  if (op == nullptr) return OXA_ERROR;
  return op->PushUDPRecvRequest(buf, len, context, from, callback);
}

OXA_API int OXA_AsyncIO_ConnectEx(int fd, const OXA_ADDR_T* to, void* /*ignored1*/,
                                  int /*ignored2*/, void* context, OXA_AIO_CALLBACK callback) {
  if (to == nullptr || context == nullptr || callback == nullptr || !IsTableIndex(fd)) {
    return OXA_ERROR;
  }
  SideHold hold(CSocketOperation::m_sendMutex[fd]);
  CSocketOperation* op = LookupSocket(fd);
  if (op == nullptr) return OXA_ERROR;
  return op->PushConnectRequest(context, const_cast<OXA_ADDR_T*>(to), callback);
}

OXA_API int OXA_AsyncIO_AcceptEx(int fd, OXA_ADDR_T* peer, void* /*ignored1*/, int /*ignored2*/,
                                 void* context, OXA_AIO_CALLBACK callback) {
  if (context == nullptr || callback == nullptr || !IsTableIndex(fd)) return OXA_ERROR;
  fprintf(stderr, oxa::internal::kAcceptFormat, fd);
  SideHold hold(CSocketOperation::m_recvMutex[fd]);
  CSocketOperation* op = LookupSocket(fd);
  if (op == nullptr) return OXA_ERROR;
  return op->PushAcceptRequest(context, peer, callback);
}

OXA_API int OXA_AsyncIO_PostQueuedCompleteStatusEx(void* queue, unsigned long key,
                                                   unsigned long error, unsigned long bytes,
                                                   void* context, OXA_AIO_CALLBACK callback) {
  if (callback == nullptr) return OXA_ERROR;
  auto* posted = new (std::nothrow)
      oxa::internal::PostedCompletion{queue, key, error, bytes, context, callback};
  if (posted == nullptr) return OXA_ERROR;
  if (OXA_ThreadDetached_Create(oxa::internal::RunPostedCompletion, posted,
                                oxa::internal::kPostStackBytes) != OXA_TRUE) {
    delete posted;  // the thread never started
    return OXA_ERROR;
  }
  return 0;
}

}  // extern "C"
