// A scoped lock that a pool in no-lock mode skips. It locks the system mutex directly: the
// pools take it twice per lend and return, and the class's exported methods add two calls each.
#ifndef OXA_SRC_MEMORY_MAYBE_LOCK_H_
#define OXA_SRC_MEMORY_MAYBE_LOCK_H_

#include <pthread.h>

#include "oxa_sync.h"

#include "frame/mutex_storage.h"

namespace oxa::internal {

class MaybeLock {
 public:
  MaybeLock(OXA_Mutex& mutex, bool no_lock) : mutex_(no_lock ? nullptr : SystemMutex(mutex)) {
    if (mutex_ != nullptr) pthread_mutex_lock(mutex_);
  }
  ~MaybeLock() {
    if (mutex_ != nullptr) pthread_mutex_unlock(mutex_);
  }
  MaybeLock(const MaybeLock&) = delete;
  MaybeLock& operator=(const MaybeLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

}  // namespace oxa::internal

#endif  // OXA_SRC_MEMORY_MAYBE_LOCK_H_
