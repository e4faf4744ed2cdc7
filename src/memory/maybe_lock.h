// A scoped lock that a pool in no-lock mode skips.
#ifndef OXA_SRC_MEMORY_MAYBE_LOCK_H_
#define OXA_SRC_MEMORY_MAYBE_LOCK_H_

#include "oxa_sync.h"

namespace oxa::internal {

class MaybeLock {
 public:
  MaybeLock(OXA_Mutex& mutex, bool no_lock) : mutex_(no_lock ? nullptr : &mutex) {
    if (mutex_ != nullptr) mutex_->Lock();
  }
  ~MaybeLock() {
    if (mutex_ != nullptr) mutex_->Unlock();
  }
  MaybeLock(const MaybeLock&) = delete;
  MaybeLock& operator=(const MaybeLock&) = delete;

 private:
  OXA_Mutex* mutex_;
};

}  // namespace oxa::internal

#endif  // OXA_SRC_MEMORY_MAYBE_LOCK_H_
