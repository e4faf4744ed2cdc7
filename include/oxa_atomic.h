/** \file
 * liboxa: atomic operations on 32-bit integers and the shared (reader-writer) mutex.
 *
 * Two atomic families live here. The OXA_Atomic* functions serialise on one process-wide lock
 * and are atomic only with respect to each other. oxa::oxa_atomic uses the processor's own
 * atomic instructions, each operation a full memory barrier; it is the one to use when an
 * update must not be lost.
 */
#ifndef OXA_ATOMIC_H_
#define OXA_ATOMIC_H_

#include "oxa_base.h"

#ifdef __cplusplus
class OXA_SharedMutex;
extern "C" {
#else
/** The shared mutex as C code sees it: only through a handle slot. */
typedef struct OXA_SharedMutex OXA_SharedMutex;
#endif

/* ---- Lock-based atomics: the pointer is not checked. ---- */

/**
 * Under the atomic lock: reads *value and, when it equals expected, stores new_value. Returns
 * the value read, so the swap happened exactly when the result equals expected. Cannot fail;
 * value must not be null (it is not checked).
 */
OXA_API int OXA_AtomicCas(volatile int* value, int new_value, int expected);
/*
 * Inc, Dec, Add and Set read *value without the lock and then make ONE OXA_AtomicCas attempt
 * with the value read as the expected one. When another thread changes the value in between,
 * the update is lost; the result is still the value found under the lock. There is no retry:
 * that is their contract. Sums wrap around in 32 bits.
 */
/**
 * Attempts *value + 1 with one OXA_AtomicCas. Returns the value found under the lock; the
 * increment happened only if no other thread changed *value meanwhile (it is lost otherwise,
 * without a retry). value is not checked.
 */
OXA_API int OXA_AtomicInc(volatile int* value);
/**
 * Attempts *value - 1 with one OXA_AtomicCas. Returns the value found under the lock; the
 * decrement is lost, without a retry, if another thread changed *value meanwhile. value is
 * not checked.
 */
OXA_API int OXA_AtomicDec(volatile int* value);
/**
 * Attempts *value + addend with one OXA_AtomicCas. Returns the value found under the lock;
 * the addition is lost, without a retry, if another thread changed *value meanwhile. value is
 * not checked.
 */
OXA_API int OXA_AtomicAdd(volatile int* value, int addend);
/**
 * Attempts to store new_value with one OXA_AtomicCas. Returns the value found under the lock;
 * the store is lost, without a retry, if another thread changed *value meanwhile. value is
 * not checked.
 */
OXA_API int OXA_AtomicSet(volatile int* value, int new_value);
/** Not supported: does nothing (*value is untouched) and always returns null. */
OXA_API void* OXA_AtomicCasPtr(void* volatile* value, void* new_value, void* expected);

/*
 * ---- Shared mutex, function interface ----
 * Each function takes the address of a handle slot owned by the caller. A null address or an
 * empty slot gives -1; otherwise the result of the corresponding OXA_SharedMutex method.
 */

/**
 * Creates a shared mutex into *slot, which must hold null; its two gates print their
 * OXA_CondCreate lines on standard error. 0; -1 when slot is null, already holds a mutex (that
 * one is kept), or memory runs out (errno ENOMEM; the slot stays null).
 */
OXA_API int OXA_SharedMutexCreate(OXA_SharedMutex** slot);
/**
 * Destroys the mutex in *slot and sets the slot to null; nobody may hold or wait for it. 0; -1
 * when slot is null or empty (so a second destroy returns -1).
 */
OXA_API int OXA_SharedMutexDestroy(OXA_SharedMutex** slot);
/** Takes the mutex exclusively, waiting as long as needed. 0; -1 for a null or empty slot. */
OXA_API int OXA_SharedMutexLock(OXA_SharedMutex** slot);
/**
 * Releases an exclusive hold. 0; -1 for a null or empty slot. Not checked: releasing a lock
 * not held exclusively clears the exclusive mark all the same.
 */
OXA_API int OXA_SharedMutexUnlock(OXA_SharedMutex** slot);
/**
 * Takes the mutex exclusively when nobody holds it; never blocks. 0; -1 when it is held
 * (shared or exclusively) or for a null or empty slot.
 */
OXA_API int OXA_SharedMutexTryLock(OXA_SharedMutex** slot);
/**
 * Takes the mutex shared, waiting while a writer holds it or waits for it. 0; -1 for a null
 * or empty slot.
 */
OXA_API int OXA_SharedMutexLockShared(OXA_SharedMutex** slot);
/**
 * Releases a shared hold. 0; -1 for a null or empty slot. Not checked: a release without a
 * shared holder wraps the holder count, which keeps writers out from then on.
 */
OXA_API int OXA_SharedMutexUnlockShared(OXA_SharedMutex** slot);
/**
 * Takes the mutex shared when no writer holds it or waits for it; never blocks. 0; -1 when a
 * writer holds it or waits for it, or for a null or empty slot.
 */
OXA_API int OXA_SharedMutexTryLockShared(OXA_SharedMutex** slot);

#ifdef __cplusplus
}  // extern "C"

#include "oxa_sync.h"

/**
 * Starts the atomic lock: the first call creates it as a normal mutex and returns the
 * creation's result (0); later calls only count and return 0. The lock works without this
 * call too, and the library frame never calls it.
 */
OXA_API int OXA_InitAtomic_Inter();
/**
 * Counts a stop; the one matching the first start destroys the lock, which is then usable
 * again as before. An unmatched call does nothing.
 */
OXA_API void OXA_FiniAtomic_Inter();

/**
 * A reader-writer lock that prefers writers: a waiting writer keeps new readers out, and a
 * leaving writer hands over to the next writer before any reader. All methods return 0,
 * except the try-methods, which return -1 when the lock is not available.
 * Releasing in the wrong mode is not checked.
 */
class OXA_API OXA_SharedMutex {
 public:
  /** The lock's state, guarded by the state lock. */
  struct CStateData {
    unsigned int shared_holders;  /**< number of shared holders */
    int exclusive;                /**< 1 while a writer holds the lock */
    unsigned int waiting_writers; /**< writers waiting in Lock() */
  };

  /** A free lock; its two gates print their OXA_CondCreate lines on standard error. */
  OXA_SharedMutex();
  /** Destroys the writers' gate, the readers' gate and the state lock; nobody may hold it. */
  ~OXA_SharedMutex();
  OXA_SharedMutex(const OXA_SharedMutex&) = delete;
  OXA_SharedMutex& operator=(const OXA_SharedMutex&) = delete;

  /**
   * Takes the lock exclusively, waiting while anybody holds it; while it waits, new readers
   * stay out. Returns 0.
   */
  int Lock();
  /**
   * Releases an exclusive hold: wakes one waiting writer, or else every waiting reader.
   * Returns 0. Not checked: it clears the exclusive mark whoever holds the lock.
   */
  int Unlock();
  /** Takes the lock exclusively when nobody holds it; never blocks. 0, or -1 when held. */
  int TryLock();
  /** Takes the lock shared, waiting while a writer holds it or waits for it. Returns 0. */
  int LockShared();
  /**
   * Releases a shared hold; the last reader out wakes one waiting writer. Returns 0. Not
   * checked: a release without a shared holder wraps the holder count.
   */
  int UnlockShared();
  /**
   * The shared try-lock; the name is spelled this way in the interface. Never blocks. 0; -1
   * when a writer holds the lock or waits for it.
   */
  int TryLockShread();

 private:
  CStateData state_;
  OXA_UniqueMutex state_lock_;
  OXA_Cond readers_gate_;  // would-be shared holders wait here
  OXA_Cond writers_gate_;  // would-be exclusive holders wait here
};

namespace oxa {

/**
 * A signed 32-bit counter on the processor's atomic instructions. Every operation is a full
 * memory barrier before and after, and none takes a lock.
 */
class OXA_API oxa_atomic {
 public:
  /** A counter holding 0. */
  oxa_atomic();
  /** A counter holding value. */
  explicit oxa_atomic(long value);
  oxa_atomic(const oxa_atomic&) = delete;
  oxa_atomic& operator=(const oxa_atomic&) = delete;

  /** The current value (read by a compare-and-swap of 0 for 0, itself a barrier). */
  long get() const;
  /** Stores value; the previous value. */
  long set(long value);
  /** Adds 1; the new value. */
  long increment();
  /** Subtracts 1; the new value. */
  long decrement();

 private:
  volatile long value_;
};

}  // namespace oxa
#endif  // __cplusplus

#endif /* OXA_ATOMIC_H_ */
