// Scoped holders for the library's own mutexes, which std::lock_guard cannot take: the
// capitalised mutex classes (OXA_Mutex, OXA_UniqueMutex, whose methods are Lock/Unlock) and
// raw pthread mutexes that need attributes std::mutex cannot give (recursive, error-checking).
#ifndef OXA_SRC_FRAME_SCOPED_LOCK_H_
#define OXA_SRC_FRAME_SCOPED_LOCK_H_

#include <pthread.h>

namespace oxa::internal {

template <class Mutex>
class ScopedLock {
 public:
  explicit ScopedLock(Mutex& mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~ScopedLock() { mutex_.Unlock(); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  Mutex& mutex_;
};

// Holds a pthread mutex for a scope.
class PthreadLock {
 public:
  explicit PthreadLock(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~PthreadLock() { pthread_mutex_unlock(mutex_); }
  PthreadLock(const PthreadLock&) = delete;
  PthreadLock& operator=(const PthreadLock&) = delete;

  pthread_mutex_t* mutex() const { return mutex_; }

 private:
  pthread_mutex_t* mutex_;
};

}  // namespace oxa::internal

#endif  // OXA_SRC_FRAME_SCOPED_LOCK_H_
