// The writer-preferring shared mutex: one state lock, a gate for readers and one for writers.
//
// Invariants, all under state_lock_: exclusive is 1 only while shared_holders is 0 (unless a
// caller released in the wrong mode); a reader enters only when no writer holds the lock or
// waits for it; a writer waits while anybody holds it. Gate waits loop on their condition,
// so spurious wake-ups only re-test it.
#include <errno.h>
#include <stdint.h>

#include <new>
#include <type_traits>

#include "oxa_atomic.h"
#include "oxa_sync.h"

#include "frame/mutex_storage.h"
#include "frame/scoped_lock.h"

using oxa::internal::ScopedLock;
using oxa::internal::SystemMutex;

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(OXA_SharedMutex::CStateData) == 12, "state record is three 32-bit words");
// State, state lock, 4 bytes of padding (a condition is 8-byte aligned), the two gates.
static_assert(sizeof(OXA_SharedMutex) == 12 + 24 + 4 + 48 + 48,
              "state, state lock, readers' gate, writers' gate");
#endif

OXA_SharedMutex::OXA_SharedMutex() : state_{0, 0, 0} {}

OXA_SharedMutex::~OXA_SharedMutex() = default;  // members go in reverse: writers' gate first

int OXA_SharedMutex::Lock() {
  ScopedLock<OXA_UniqueMutex> hold(state_lock_);
  bool counted = false;
  while (state_.shared_holders != 0 || state_.exclusive != 0) {
    if (!counted) {
      ++state_.waiting_writers;  // from here on, new readers stay out
      counted = true;
    }
    writers_gate_.Wait(SystemMutex(state_lock_));
  }
  if (counted) --state_.waiting_writers;
  state_.exclusive = 1;
  return 0;
}

int OXA_SharedMutex::Unlock() {
  ScopedLock<OXA_UniqueMutex> hold(state_lock_);
  state_.exclusive = 0;
  if (state_.waiting_writers != 0) {
    writers_gate_.Signal();  // the next writer goes before any reader
  } else {
    readers_gate_.BroadCast();
  }
  return 0;
}

int OXA_SharedMutex::TryLock() {
  ScopedLock<OXA_UniqueMutex> hold(state_lock_);
  if (state_.shared_holders != 0 || state_.exclusive != 0) return -1;
  state_.exclusive = 1;
  return 0;
}

int OXA_SharedMutex::LockShared() {
  ScopedLock<OXA_UniqueMutex> hold(state_lock_);
  while (state_.exclusive != 0 || state_.waiting_writers != 0) {
    readers_gate_.Wait(SystemMutex(state_lock_));
  }
  ++state_.shared_holders;
  return 0;
}

int OXA_SharedMutex::UnlockShared() {
  ScopedLock<OXA_UniqueMutex> hold(state_lock_);
  --state_.shared_holders;  // wraps when nobody held it: not checked, by contract
  if (state_.shared_holders == 0 && state_.waiting_writers != 0) writers_gate_.Signal();
  return 0;
}

int OXA_SharedMutex::TryLockShread() {
  ScopedLock<OXA_UniqueMutex> hold(state_lock_);
  if (state_.exclusive != 0 || state_.waiting_writers != 0) return -1;
  ++state_.shared_holders;
  return 0;
}

// ---- C entry points --------------------------------------------------------------------------

extern "C" {

OXA_API int OXA_SharedMutexCreate(OXA_SharedMutex** slot) {
  if (slot == nullptr || *slot != nullptr) return OXA_ERROR;
  OXA_SharedMutex* mutex = nullptr;
  try {
    mutex = new (std::nothrow) OXA_SharedMutex;  // the gates' registration may still throw
  } catch (const std::bad_alloc&) {
    mutex = nullptr;
  }
  if (mutex == nullptr) {
    errno = ENOMEM;
    return OXA_ERROR;
  }
  *slot = mutex;
  return 0;
}

OXA_API int OXA_SharedMutexDestroy(OXA_SharedMutex** slot) {
  if (slot == nullptr || *slot == nullptr) return OXA_ERROR;
  delete *slot;
  *slot = nullptr;
  return 0;
}

OXA_API int OXA_SharedMutexLock(OXA_SharedMutex** slot) {
  if (slot == nullptr || *slot == nullptr) return OXA_ERROR;
  return (*slot)->Lock();
}

OXA_API int OXA_SharedMutexUnlock(OXA_SharedMutex** slot) {
  if (slot == nullptr || *slot == nullptr) return OXA_ERROR;
  return (*slot)->Unlock();
}

OXA_API int OXA_SharedMutexTryLock(OXA_SharedMutex** slot) {
  if (slot == nullptr || *slot == nullptr) return OXA_ERROR;
  return (*slot)->TryLock();
}

OXA_API int OXA_SharedMutexLockShared(OXA_SharedMutex** slot) {
  if (slot == nullptr || *slot == nullptr) return OXA_ERROR;
  return (*slot)->LockShared();
}

OXA_API int OXA_SharedMutexUnlockShared(OXA_SharedMutex** slot) {
  if (slot == nullptr || *slot == nullptr) return OXA_ERROR;
  return (*slot)->UnlockShared();
}

OXA_API int OXA_SharedMutexTryLockShared(OXA_SharedMutex** slot) {
  if (slot == nullptr || *slot == nullptr) return OXA_ERROR;
  return (*slot)->TryLockShread();
}

}  // extern "C"
