// Helpers shared by the event files: a holder for an event's own lock.
#ifndef OXA_SRC_SYNC_EVENT_INTERNAL_H_
#define OXA_SRC_SYNC_EVENT_INTERNAL_H_

#include <errno.h>
#include <pthread.h>

#include "frame/errno_util.h"

namespace oxa::internal {

// Holds an event's lock for a scope. A lock that cannot be taken (one destroyed by
// OXA_EnumNetworkEvents) is not released either; the work under it goes on, as the event's
// pipe, not the lock, decides the result.
class EventLockHold {
 public:
  explicit EventLockHold(pthread_mutex_t* lock)
      : lock_(lock), held_(pthread_mutex_lock(lock) == 0) {}
  ~EventLockHold() {
    if (held_) pthread_mutex_unlock(lock_);
  }
  EventLockHold(const EventLockHold&) = delete;
  EventLockHold& operator=(const EventLockHold&) = delete;

 private:
  pthread_mutex_t* lock_;
  bool held_;
};

}  // namespace oxa::internal

#endif  // OXA_SRC_SYNC_EVENT_INTERNAL_H_
