// Condition variables that measure their time-outs on the monotonic clock.
//
// A condition made with a clock attribute keeps that attribute for as long as the condition
// lives, so every condition created here has its own heap attribute, registered in a
// process-wide map under the condition's address and released when the condition is
// destroyed.
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <time.h>

#include <map>
#include <new>

#include "oxa_sync.h"

#include "frame/errno_util.h"
#include "frame/load_order.h"
#include "frame/scoped_lock.h"

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(pthread_cond_t) == 48, "condition storage is ABI");
static_assert(sizeof(OXA_Cond) == sizeof(pthread_cond_t), "OXA_Cond is its storage only");
#endif

namespace {

using oxa::internal::ScopedLock;

constexpr long kNsPerSecond = 1000000000L;
constexpr long kNsPerMs = 1000000L;
constexpr unsigned int kMsPerSecond = 1000;

// Condition address -> the attribute it was created with. Entries live from OXA_CondCreate to
// OXA_CondDestroy; a condition that is never destroyed keeps its entry until unload. Both
// objects are built early in the load order, before any load-time object that could create a
// condition, and destroyed after them. Guarded by g_lockCondAttr.
std::map<const pthread_cond_t*, pthread_condattr_t*> g_mapCondAttr
    OXA_LOAD_AT(OXA_LOAD_COND_ATTR_MAP);
// Recursive; held only around a map update and its message, never while waiting.
OXA_Mutex g_lockCondAttr OXA_LOAD_AT(OXA_LOAD_COND_ATTR_MAP);

// Destroys and frees an attribute; errno is kept, as this runs on failure paths.
void FreeAttr(pthread_condattr_t* attr) {
  oxa::internal::ErrnoSaver keep;
  pthread_condattr_destroy(attr);
  delete attr;
}

// A new heap attribute with the monotonic clock, or null (errno set).
pthread_condattr_t* NewMonotonicAttr() {
  auto* attr = new (std::nothrow) pthread_condattr_t;
  if (attr == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  int rc = pthread_condattr_init(attr);
  if (rc != 0) {
    delete attr;
    errno = rc;
    return nullptr;
  }
  rc = pthread_condattr_setclock(attr, CLOCK_MONOTONIC);
  if (rc != 0) {
    errno = rc;
    FreeAttr(attr);
    return nullptr;
  }
  return attr;
}

// Records cond's attribute. A condition created twice without being destroyed keeps one entry
// with the newer attribute; the older one is freed here, since the system copied what it
// needed from it when the condition was initialised. False when the map cannot grow.
// REQUIRES: g_lockCondAttr held.
bool Register(const pthread_cond_t* cond, pthread_condattr_t* attr) {
  try {
    auto [entry, inserted] = g_mapCondAttr.try_emplace(cond, attr);
    if (!inserted) {
      FreeAttr(entry->second);
      entry->second = attr;
    }
    return true;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  }
}

// now + ms on the monotonic clock: the milliseconds below a second go into the nanoseconds,
// whole seconds and the carry into the seconds. The nanoseconds stay below 2 * 10^9 before the
// reduction, so a 32-bit long holds them.
struct timespec MonotonicDeadline(unsigned int ms) {
  struct timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_nsec += static_cast<long>(ms % kMsPerSecond) * kNsPerMs;
  deadline.tv_sec += static_cast<time_t>(ms / kMsPerSecond) + deadline.tv_nsec / kNsPerSecond;
  deadline.tv_nsec %= kNsPerSecond;
  return deadline;
}

}  // namespace

// ---- OXA_Cond ------------------------------------------------------------------

OXA_Cond::OXA_Cond() { OXA_CondCreate(&cond_); }
OXA_Cond::~OXA_Cond() { OXA_CondDestroy(&cond_); }
int OXA_Cond::Wait(pthread_mutex_t* mutex) { return OXA_CondWait(&cond_, mutex); }
int OXA_Cond::TimedWait(pthread_mutex_t* mutex, unsigned int timeout_ms) {
  return OXA_CondTimedWait(&cond_, mutex, timeout_ms);
}
int OXA_Cond::Signal() { return OXA_CondSignal(&cond_); }
int OXA_Cond::BroadCast() { return OXA_CondBroadCast(&cond_); }

// ---- C entry points ----------------------------------------------------------------

extern "C" {

OXA_API int OXA_CondCreate(pthread_cond_t* cond) {
  if (cond == nullptr) return OXA_ERROR;
  pthread_condattr_t* attr = NewMonotonicAttr();
  if (attr == nullptr) return OXA_ERROR;
  const int rc = pthread_cond_init(cond, attr);
  if (rc != 0) {
    errno = rc;
    FreeAttr(attr);
    return OXA_ERROR;
  }
  ScopedLock<OXA_Mutex> hold(g_lockCondAttr);
  if (!Register(cond, attr)) {
    pthread_cond_destroy(cond);
    FreeAttr(attr);
    return OXA_ERROR;
  }
  fprintf(stderr, "OXA_CondCreate pCond:%p,pCondAttr:%p\r\n", static_cast<void*>(cond),
          static_cast<void*>(attr));
  return 0;
}

OXA_API int OXA_CondDestroy(pthread_cond_t* cond) {
  if (cond == nullptr) return OXA_ERROR;
  {
    ScopedLock<OXA_Mutex> hold(g_lockCondAttr);
    auto entry = g_mapCondAttr.find(cond);
    if (entry != g_mapCondAttr.end()) {
      fprintf(stderr, "OXA_CondDestroy pCond:%p,pCondAttr:%p\r\n", static_cast<void*>(cond),
              static_cast<void*>(entry->second));
      FreeAttr(entry->second);
      g_mapCondAttr.erase(entry);
    }
  }
  return pthread_cond_destroy(cond);
}

OXA_API int OXA_CondWait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
  if (cond == nullptr || mutex == nullptr) return OXA_ERROR;
  return pthread_cond_wait(cond, mutex);
}

OXA_API int OXA_CondTimedWait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                              unsigned int timeout_ms) {
  if (cond == nullptr || mutex == nullptr) return OXA_ERROR;
  const struct timespec deadline = MonotonicDeadline(timeout_ms);
  return pthread_cond_timedwait(cond, mutex, &deadline);  // one wait: the caller re-checks
}

OXA_API int OXA_CondSignal(pthread_cond_t* cond) {
  if (cond == nullptr) return OXA_ERROR;
  return pthread_cond_signal(cond);
}

OXA_API int OXA_CondBroadCast(pthread_cond_t* cond) {
  if (cond == nullptr) return OXA_ERROR;
  return pthread_cond_broadcast(cond);
}

}  // extern "C"
