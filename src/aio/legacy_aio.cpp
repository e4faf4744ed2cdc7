// The earlier asynchronous interface. It is kept so that old callers still link; none of it
// does anything, and every operation reports failure.
#include <stdint.h>
#include <unistd.h>

#include "oxa_aio.h"

namespace {

// NOLINTNEXTLINE(performance-no-int-to-ptr): the interface fixes these handle values
void* const kNoQueue = reinterpret_cast<void*>(static_cast<intptr_t>(-1));
// Old callers also used -2 for "no queue"; neither value is a descriptor to close.
// NOLINTNEXTLINE(performance-no-int-to-ptr): the interface fixes these handle values
void* const kAlsoNoQueue = reinterpret_cast<void*>(static_cast<intptr_t>(-2));

}  // namespace

// ---- C entry points -------------------------------------------------------------------

extern "C" {

OXA_API void* OXA_AsyncIO_CreateQueue(void) { return kNoQueue; }
OXA_API void* OXA_AsyncIO_CreateQueueEx(int /*workers*/) { return kNoQueue; }
OXA_API int OXA_AsyncIO_DestroyQueue(void* /*queue*/) { return OXA_ERROR; }
OXA_API int OXA_AsyncIO_BindIOHandleToQueue(void* /*io*/, void* /*queue*/) { return OXA_ERROR; }
OXA_API int OXA_AsyncIO_BindCallBackToIOHandle(void* /*io*/, OXA_AIO_CALLBACK /*callback*/) {
  return OXA_ERROR;
}
OXA_API int OXA_AsyncIO_PostQueuedCompleteStatus(void* /*queue*/, unsigned long /*key*/,
                                                 unsigned long /*error*/, unsigned long /*bytes*/,
                                                 void* /*context*/) {
  return OXA_ERROR;
}
OXA_API int OXA_AsyncIO_Send(void* /*io*/, void* /*buf*/, unsigned long /*len*/,
                             void* /*context*/) {
  return OXA_ERROR;
}
OXA_API int OXA_AsyncIO_Recv(void* /*io*/, void* /*buf*/, unsigned long /*len*/,
                             void* /*context*/) {
  return OXA_ERROR;
}
OXA_API int OXA_AsyncIO_SendTo(void* /*io*/, void* /*buf*/, unsigned long /*len*/,
                               void* /*context*/, OXA_ADDR_T* /*to*/) {
  return OXA_ERROR;
}
OXA_API int OXA_AsyncIO_RecvFrom(void* /*io*/, void* /*buf*/, unsigned long /*len*/,
                                 void* /*context*/, OXA_ADDR_T* /*from*/) {
  return OXA_ERROR;
}
OXA_API int OXA_AsyncIO_WriteFile(void* /*io*/, void* /*buf*/, unsigned long /*len*/,
                                  void* /*context*/) {
  return OXA_ERROR;
}
OXA_API int OXA_AsyncIO_ReadFile(void* /*io*/, void* /*buf*/, unsigned long /*len*/,
                                 void* /*context*/) {
  return OXA_ERROR;
}

}  // extern "C"

// ---- OXA_AsyncIO ----------------------------------------------------------------------

OXA_AsyncIO::OXA_AsyncIO(void* handle) : handle_(handle) {}
OXA_AsyncIO::~OXA_AsyncIO() = default;

int OXA_AsyncIO::BindCallBackToIOHandle(void (*callback)(unsigned long, unsigned long, void*)) {
  if (callback == nullptr) return OXA_ERROR;
  return OXA_AsyncIO_BindCallBackToIOHandle(handle_, callback);
}

int OXA_AsyncIO::IOSend(void* buf, unsigned long len, void* context) {
  return OXA_AsyncIO_Send(handle_, buf, len, context);
}
int OXA_AsyncIO::IORecv(void* buf, unsigned long len, void* context) {
  return OXA_AsyncIO_Recv(handle_, buf, len, context);
}
int OXA_AsyncIO::IOSendTo(void* buf, unsigned long len, void* context, OXA_ADDR_T* to) {
  return OXA_AsyncIO_SendTo(handle_, buf, len, context, to);
}
int OXA_AsyncIO::IORecvFrom(void* buf, unsigned long len, void* context, OXA_ADDR_T* from) {
  return OXA_AsyncIO_RecvFrom(handle_, buf, len, context, from);
}
int OXA_AsyncIO::IOWriteFile(void* buf, unsigned long len, void* context) {
  return OXA_AsyncIO_WriteFile(handle_, buf, len, context);
}
int OXA_AsyncIO::IOReadFile(void* buf, unsigned long len, void* context) {
  return OXA_AsyncIO_ReadFile(handle_, buf, len, context);
}
int OXA_AsyncIO::BindIOHandleToQueue(OXA_AsyncIOQueue* /*queue*/) { return OXA_ERROR; }

// ---- OXA_AsyncIOQueue -----------------------------------------------------------------

OXA_AsyncIOQueue::OXA_AsyncIOQueue() : handle_(nullptr) {}
OXA_AsyncIOQueue::~OXA_AsyncIOQueue() = default;

int OXA_AsyncIOQueue::Initialize() {
  handle_ = OXA_AsyncIO_CreateQueue();
  return handle_ == kNoQueue ? OXA_ERROR : 0;
}

int OXA_AsyncIOQueue::Release() {
  if (handle_ != kNoQueue && handle_ != kAlsoNoQueue) {
    close(static_cast<int>(reinterpret_cast<intptr_t>(handle_)));
  }
  return 0;
}

void* OXA_AsyncIOQueue::GetHandle() { return handle_; }
