// Unnamed, process-private semaphores over caller-owned storage, and the two classes that own
// one in place: OXA_Sema (with a maximum) and oxa::oxa_sem (timed waits on the wall clock).
#include <errno.h>
#include <semaphore.h>
#include <sys/time.h>
#include <time.h>

#include "oxa_sync.h"
#include "oxa_sysinfo.h"
#include "oxa_time.h"

#include "frame/errno_util.h"
#include "frame/scoped_lock.h"

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(sem_t) == 16, "semaphore storage is ABI");
static_assert(sizeof(OXA_Sema) == 16 + 4 + 24, "semaphore, maximum, post lock");
static_assert(sizeof(oxa::oxa_sem) == 4 + 16, "vtable pointer, semaphore");
#endif

using oxa::internal::RetryOnEintr;

namespace {

// OXA_SemTimedWait polls instead of blocking in sem_timedwait; this is its fixed step.
constexpr unsigned int kPollStepMs = 10;

constexpr long kNsPerSecond = 1000000000L;
constexpr long kNsPerMs = 1000000L;
constexpr long kNsPerUs = 1000L;
constexpr int kMsPerSecond = 1000;

// The absolute wall-clock time ms milliseconds from now, for sem_timedwait (which measures
// on CLOCK_REALTIME). The nanoseconds stay below 2 * 10^9, so a 32-bit long holds them.
// False when the clock cannot be read.
bool WallDeadline(int ms, struct timespec* deadline) {
  struct timeval now;
  if (gettimeofday(&now, nullptr) != 0) return false;
  long ns =
      static_cast<long>(ms % kMsPerSecond) * kNsPerMs + static_cast<long>(now.tv_usec) * kNsPerUs;
  deadline->tv_sec = now.tv_sec + ms / kMsPerSecond;
  if (ns > kNsPerSecond - 1) deadline->tv_sec += 1;
  deadline->tv_nsec = ns % kNsPerSecond;
  return true;
}

}  // namespace

// ---- OXA_Sema -------------------------------------------------------------------

OXA_Sema::OXA_Sema(unsigned int initial, unsigned int maximum) : maximum_(maximum) {
  OXA_SemCreate(&sem_, initial);
}

// The semaphore goes first; the post lock, a member, after the body.
OXA_Sema::~OXA_Sema() { OXA_SemDestroy(&sem_); }

int OXA_Sema::Wait() { return OXA_SemWait(&sem_); }

int OXA_Sema::TimedWait(unsigned int timeout_ms) { return OXA_SemTimedWait(&sem_, timeout_ms); }

int OXA_Sema::Post() {
  // Posters are serialised so that the check and the post are one step for them; a waiter may
  // still take the semaphore in between, which only lowers the value.
  oxa::internal::ScopedLock<OXA_Mutex> hold(post_lock_);
  int value = 0;
  if (sem_getvalue(&sem_, &value) != 0) return OXA_ERROR;
  if (maximum_ <= static_cast<unsigned int>(value)) return OXA_ERROR;
  return OXA_SemPost(&sem_);
}

// ---- oxa::oxa_sem ----------------------------------------------------------------

namespace oxa {

oxa_sem::oxa_sem() { init(0); }

oxa_sem::oxa_sem(int initial) { init(initial); }

oxa_sem::~oxa_sem() { destroy(); }

int oxa_sem::init(int initial) {
  // A negative value becomes a huge unsigned one, which sem_init refuses with EINVAL.
  return sem_init(&sem_, 0, static_cast<unsigned int>(initial)) == -1 ? OXA_ERROR : 0;
}

int oxa_sem::destroy() { return sem_destroy(&sem_) == -1 ? OXA_ERROR : 0; }

int oxa_sem::post(int n) {
  for (int i = 0; i < n; ++i) {
    if (sem_post(&sem_) == -1) return OXA_ERROR;
  }
  return 0;
}

int oxa_sem::post_1() { return post(1); }

int oxa_sem::wait(int ms) {
  if (ms < 0) return sem_wait(&sem_);  // an interruption is the caller's to handle
  struct timespec deadline;
  if (!WallDeadline(ms, &deadline)) return OXA_ERROR;
  return RetryOnEintr([&] { return sem_timedwait(&sem_, &deadline); }) == 0 ? 0 : OXA_ERROR;
}

}  // namespace oxa

// ---- C entry points ----------------------------------------------------------------

extern "C" {

OXA_API int OXA_SemCreate(sem_t* sem, unsigned int initial) {
  if (sem == nullptr) return OXA_ERROR;
  return sem_init(sem, 0, initial);
}

OXA_API int OXA_SemDestroy(sem_t* sem) {
  if (sem == nullptr) return OXA_ERROR;
  return sem_destroy(sem);
}

OXA_API int OXA_SemWait(sem_t* sem) {
  if (sem == nullptr) return OXA_ERROR;
  return RetryOnEintr([sem] { return sem_wait(sem); });
}

OXA_API int OXA_SemTimedWait(sem_t* sem, unsigned int timeout_ms) {
  if (sem == nullptr) return OXA_ERROR;
  if (timeout_ms == 0) return RetryOnEintr([sem] { return sem_trywait(sem); });
  // Polls on the 32-bit millisecond tick; unsigned subtraction survives its wrap. The last
  // try may come up to one step past the time-out.
  const unsigned int start = OXA_GetTimeTick();
  for (;;) {
    if (sem_trywait(sem) == 0) return 0;
    if (OXA_GetTimeTick() - start > timeout_ms) return OXA_ERROR;
    OXA_Sleep(kPollStepMs);
  }
}

OXA_API int OXA_SemPost(sem_t* sem) {
  if (sem == nullptr) return OXA_ERROR;
  return sem_post(sem);
}

}  // extern "C"
