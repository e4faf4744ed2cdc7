// A scoped holder for the library's own capitalised mutex classes (OXA_Mutex,
// OXA_UniqueMutex), which std::lock_guard cannot take because their methods are Lock/Unlock.
#ifndef OXA_SRC_FRAME_SCOPED_LOCK_H_
#define OXA_SRC_FRAME_SCOPED_LOCK_H_

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

}  // namespace oxa::internal

#endif  // OXA_SRC_FRAME_SCOPED_LOCK_H_
