// Mutexes over caller-owned storage and the classes that own one in place.
#include <pthread.h>

#include "oxa_sync.h"

#include "frame/pthread_result.h"

using oxa::internal::ZeroOrError;

namespace {

// The interface's type -1 selects a recursive mutex; every other value is the system's type.
constexpr unsigned int kRecursiveType = 0xFFFFFFFFu;
constexpr unsigned int kNormalType = 0;

void InitMutex(pthread_mutex_t* mutex, unsigned int type) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  const int system_type = type == kRecursiveType ? PTHREAD_MUTEX_RECURSIVE : static_cast<int>(type);
  pthread_mutexattr_settype(&attr, system_type);
  pthread_mutex_init(mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

}  // namespace

// ---- Classes ----------------------------------------------------------------

OXA_Mutex::OXA_Mutex() { InitMutex(&mutex_, kRecursiveType); }
OXA_Mutex::OXA_Mutex(unsigned int type) { InitMutex(&mutex_, type); }
OXA_Mutex::~OXA_Mutex() { OXA_MutexDestroy(&mutex_); }
int OXA_Mutex::Lock() { return OXA_MutexLock(&mutex_); }
int OXA_Mutex::Unlock() { return OXA_MutexUnlock(&mutex_); }
int OXA_Mutex::TryLock() { return OXA_MutexTryLock(&mutex_); }

OXA_UniqueMutex::OXA_UniqueMutex() { InitMutex(&mutex_, kNormalType); }
OXA_UniqueMutex::OXA_UniqueMutex(unsigned int type) { InitMutex(&mutex_, type); }
OXA_UniqueMutex::~OXA_UniqueMutex() { OXA_MutexDestroy(&mutex_); }
int OXA_UniqueMutex::Lock() { return OXA_MutexLock(&mutex_); }
int OXA_UniqueMutex::Unlock() { return OXA_MutexUnlock(&mutex_); }
int OXA_UniqueMutex::TryLock() { return OXA_MutexTryLock(&mutex_); }

namespace oxa {

oxa_mutex::oxa_mutex() { InitMutex(&mutex_, kRecursiveType); }
oxa_mutex::oxa_mutex(int type) { InitMutex(&mutex_, static_cast<unsigned int>(type)); }
oxa_mutex::~oxa_mutex() { OXA_MutexDestroy(&mutex_); }
int oxa_mutex::lock() { return OXA_MutexLock(&mutex_); }
int oxa_mutex::unlock() { return OXA_MutexUnlock(&mutex_); }
int oxa_mutex::trylock() { return OXA_MutexTryLock(&mutex_); }

oxa_recursive_mutex::oxa_recursive_mutex() { InitMutex(&mutex_, kRecursiveType); }
oxa_recursive_mutex::~oxa_recursive_mutex() { OXA_MutexDestroy(&mutex_); }
int oxa_recursive_mutex::lock() { return OXA_MutexLock(&mutex_); }
int oxa_recursive_mutex::unlock() { return OXA_MutexUnlock(&mutex_); }
int oxa_recursive_mutex::trylock() { return OXA_MutexTryLock(&mutex_); }

}  // namespace oxa

// ---- C entry points ---------------------------------------------------------

extern "C" {

OXA_API int OXA_MutexCreate(pthread_mutex_t* mutex, unsigned int type) {
  if (mutex == nullptr) return OXA_ERROR;
  InitMutex(mutex, type);  // system failures are not reported, by contract
  return 0;
}

OXA_API int OXA_MutexDestroy(pthread_mutex_t* mutex) {
  if (mutex == nullptr) return OXA_ERROR;
  return ZeroOrError(pthread_mutex_destroy(mutex));
}

OXA_API int OXA_MutexLock(pthread_mutex_t* mutex) {
  if (mutex == nullptr) return OXA_ERROR;
  return ZeroOrError(pthread_mutex_lock(mutex));
}

OXA_API int OXA_MutexTryLock(pthread_mutex_t* mutex) {
  if (mutex == nullptr) return OXA_ERROR;
  return ZeroOrError(pthread_mutex_trylock(mutex));
}

OXA_API int OXA_MutexUnlock(pthread_mutex_t* mutex) {
  if (mutex == nullptr) return OXA_ERROR;
  return ZeroOrError(pthread_mutex_unlock(mutex));
}

}  // extern "C"
