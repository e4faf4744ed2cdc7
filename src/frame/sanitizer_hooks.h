// Synchronisation that the thread sanitizer cannot see for itself. Its runtime wraps the
// common waits (sem_wait, sem_timedwait) but not sem_clockwait, so a wait that takes a
// semaphore through the latter says so here; the post side is wrapped already. In builds
// without the sanitizer these are empty.
#ifndef OXA_SRC_FRAME_SANITIZER_HOOKS_H_
#define OXA_SRC_FRAME_SANITIZER_HOOKS_H_

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* addr);
#endif

namespace oxa::internal {

#if defined(__SANITIZE_THREAD__)
// The caller has just taken the semaphore at `sem`: what its poster wrote before posting is
// visible now.
inline void SemaphoreTaken(void* sem) { __tsan_acquire(sem); }
#else
inline void SemaphoreTaken(void* /*sem*/) {}
#endif

}  // namespace oxa::internal

#endif  // OXA_SRC_FRAME_SANITIZER_HOOKS_H_
