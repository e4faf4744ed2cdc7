// Performing the front request of a socket's queue for a worker thread.
#ifndef OXA_SRC_AIO_IO_OPERATION_H_
#define OXA_SRC_AIO_IO_OPERATION_H_

#include <pthread.h>

#include "oxa_aio.h"

namespace oxa::internal {

// What a receive-side operation did: the system call's result, and whether the request is
// finished (its callback has run) or must stay queued for the next readiness.
struct RecvOutcome {
  int result;
  bool completed;
};

// RecvOperation with the completion made explicit, so that the worker never has to guess
// from errno, which a callback is free to change.
RecvOutcome PerformRecv(int callback_mode, pthread_mutex_t* slot_lock, IO_DATA* req);

}  // namespace oxa::internal

#endif  // OXA_SRC_AIO_IO_OPERATION_H_
