// Sends, receives, connects and accepts of queued requests, and the callbacks that report
// them. Nothing here touches a request after its callback has run: with callback mode 1 the
// callback may unbind the socket, which frees the request, and with any other mode another
// thread may do so while the slot lock is released around the callback.
#include "aio/io_operation.h"

#include <errno.h>
#include <sys/socket.h>

#include "oxa_socket.h"
#include "oxa_sync.h"

#include "frame/socket_address.h"

namespace oxa::internal {
namespace {

// Runs the request's callback with its error and done fields. With callback mode 1 it runs
// under the slot lock; otherwise the lock is released for the call and taken again after.
void RunCallback(int callback_mode, pthread_mutex_t* slot_lock, const IO_DATA* req) {
  const OXA_AIO_CALLBACK callback = req->callback;
  if (callback == nullptr) return;
  const auto error = static_cast<unsigned long>(req->error);
  const auto done = static_cast<unsigned long>(req->done);
  void* const context = req->context;
  if (callback_mode == 1 || slot_lock == nullptr) {
    callback(error, done, context);
    return;
  }
  OXA_MutexUnlock(slot_lock);
  callback(error, done, context);
  OXA_MutexLock(slot_lock);
}

// The outcome of a non-blocking connect, read once the socket turned writable.
int CompleteConnect(int callback_mode, pthread_mutex_t* slot_lock, IO_DATA* req) {
  int pending = 0;
  socklen_t len = sizeof pending;
  if (getsockopt(req->fd, SOL_SOCKET, SO_ERROR, &pending, &len) != 0) pending = errno;
  req->error = pending;
  req->done = 0;
  RunCallback(callback_mode, slot_lock, req);
  return pending == 0 ? 0 : OXA_ERROR;
}

// The new descriptor is handed to the caller exactly as accept makes it.
int AcceptInto(int fd, OXA_ADDR_T* peer) {
  if (peer == nullptr) return accept(fd, nullptr, nullptr);  // NOLINT(android-cloexec-accept)
  socklen_t len = kMaxAddrLen;
  return accept(fd, &peer->sa, &len);  // NOLINT(android-cloexec-accept)
}

}  // namespace

RecvOutcome PerformRecv(int callback_mode, pthread_mutex_t* slot_lock, IO_DATA* req) {
  int result;
  switch (req->type) {
    case OXA_IO_RECV:
      result = OXA_Recv(req->fd, req->buffer, req->length);
      req->done = result < 0 ? 0 : result;
      break;
    case OXA_IO_RECVFROM:
      result = OXA_RecvFrom(req->fd, req->buffer, req->length, req->addr);
      req->done = result < 0 ? 0 : result;
      break;
    case OXA_IO_ACCEPT:
      result = AcceptInto(req->fd, req->addr);
      req->done = result;
      break;
    default:
      return {OXA_ERROR, false};
  }
  if (result > 0) {
    req->error = 0;
  } else {
    // A closed peer (0) reports whatever errno holds; so does an accept that got descriptor 0.
    req->error = errno;
    if (result < 0 && errno == EAGAIN) return {OXA_ERROR, false};  // stays queued
  }
  RunCallback(callback_mode, slot_lock, req);
  return {result, true};
}

}  // namespace oxa::internal

// ---- Exported entry points ------------------------------------------------------------

OXA_API int SendOperation(int callback_mode, pthread_mutex_t* slot_lock, IO_DATA* req) {
  if (req == nullptr) return OXA_ERROR;
  const char* rest = static_cast<const char*>(req->buffer) + req->done;
  const int left = req->length - req->done;
  int sent;
  switch (req->type) {
    case OXA_IO_SENDTO:
      sent = OXA_SendTo(req->fd, rest, left, req->addr);
      break;
    case OXA_IO_SEND:
      sent = OXA_Send(req->fd, rest, left);
      break;
    case OXA_IO_CONNECT:
      return oxa::internal::CompleteConnect(callback_mode, slot_lock, req);
    default:
      return OXA_ERROR;
  }
  if (sent > 0 && sent != left) {
    req->done += sent;  // partial: no callback, the request stays at the front
    return req->done;
  }
  if (sent > 0) {
    req->error = 0;
    req->done = req->length;
  } else {
    req->error = errno;
  }
  oxa::internal::RunCallback(callback_mode, slot_lock, req);
  return sent;
}

OXA_API int RecvOperation(int callback_mode, pthread_mutex_t* slot_lock, IO_DATA* req) {
  if (req == nullptr) return OXA_ERROR;
  return oxa::internal::PerformRecv(callback_mode, slot_lock, req).result;
}
