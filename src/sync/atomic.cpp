// The two atomic families: the lock-based OXA_Atomic* functions and oxa::oxa_atomic on the
// processor's atomic instructions.
#include <pthread.h>

#include "oxa_atomic.h"
#include "oxa_sync.h"

#include "frame/scoped_lock.h"

namespace {

// The one lock behind every OXA_Atomic* call. A zero-filled mutex is a valid normal mutex,
// and this aggregate initialiser is a constant one: the storage is ready before any load-time
// code runs, whether or not anybody calls OXA_InitAtomic_Inter. Keep it free of any dynamic
// initialiser. Guarded by nothing: only the start hooks reinitialise it, and they run while
// no atomic is in use.
pthread_mutex_t g_atomic_lock = PTHREAD_MUTEX_INITIALIZER;
// The state the lock returns to after its last stop.
const pthread_mutex_t kZeroFilledMutex = PTHREAD_MUTEX_INITIALIZER;
// Number of OXA_InitAtomic_Inter calls not yet matched by OXA_FiniAtomic_Inter; changed with
// atomic builtins so that concurrent start hooks count correctly.
unsigned int g_atomic_starts = 0;

// Plain loads and stores of the target, made relaxed atomics so that the unlocked read of
// Inc, Dec, Add and Set is not a data race. The value it sees may be stale by the time the
// swap runs: that is the documented contract of those functions.
int Load(volatile int* value) { return __atomic_load_n(value, __ATOMIC_RELAXED); }
void Store(volatile int* value, int new_value) {
  __atomic_store_n(value, new_value, __ATOMIC_RELAXED);
}

// Two's-complement wrap-around instead of signed overflow.
int WrapAdd(int a, int b) {
  return static_cast<int>(static_cast<unsigned int>(a) + static_cast<unsigned int>(b));
}

}  // namespace

// ---- Start and stop of the atomic lock -----------------------------------------------------

OXA_API int OXA_InitAtomic_Inter() {
  if (__atomic_fetch_add(&g_atomic_starts, 1u, __ATOMIC_ACQ_REL) != 0) return 0;
  return OXA_MutexCreate(&g_atomic_lock, 0);
}

OXA_API void OXA_FiniAtomic_Inter() {
  unsigned int starts = __atomic_load_n(&g_atomic_starts, __ATOMIC_ACQUIRE);
  do {
    if (starts == 0) return;  // unbalanced stop: nothing is started
  } while (!__atomic_compare_exchange_n(&g_atomic_starts, &starts, starts - 1, false,
                                        __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE));
  if (starts != 1) return;
  OXA_MutexDestroy(&g_atomic_lock);
  // A destroyed mutex refuses to lock; back to the zero-filled state, which is usable again.
  g_atomic_lock = kZeroFilledMutex;
}

// ---- oxa::oxa_atomic -------------------------------------------------------------------------
//
// Sequentially consistent builtins: on ARMv7 each becomes a load-exclusive/store-exclusive
// loop between two dmb barriers, so no lock and no libatomic call is involved.

static_assert(__atomic_always_lock_free(sizeof(long), nullptr),
              "oxa_atomic must compile to the processor's atomic instructions");

namespace oxa {

oxa_atomic::oxa_atomic() : value_(0) {}
oxa_atomic::oxa_atomic(long value) : value_(value) {}

long oxa_atomic::get() const {
  // A compare-and-swap of 0 for 0 never changes the value, so casting const away is sound;
  // it makes the read a full barrier, unlike a plain load.
  return __sync_val_compare_and_swap(const_cast<volatile long*>(&value_), 0L, 0L);
}

long oxa_atomic::set(long value) { return __atomic_exchange_n(&value_, value, __ATOMIC_SEQ_CST); }

long oxa_atomic::increment() { return __atomic_add_fetch(&value_, 1L, __ATOMIC_SEQ_CST); }

long oxa_atomic::decrement() { return __atomic_sub_fetch(&value_, 1L, __ATOMIC_SEQ_CST); }

}  // namespace oxa

// ---- C entry points --------------------------------------------------------------------------

extern "C" {

OXA_API int OXA_AtomicCas(volatile int* value, int new_value, int expected) {
  oxa::internal::PthreadLock hold(&g_atomic_lock);
  const int found = Load(value);
  if (found == expected) Store(value, new_value);
  return found;
}

OXA_API int OXA_AtomicInc(volatile int* value) {
  const int seen = Load(value);
  return OXA_AtomicCas(value, WrapAdd(seen, 1), seen);
}

OXA_API int OXA_AtomicDec(volatile int* value) {
  const int seen = Load(value);
  return OXA_AtomicCas(value, WrapAdd(seen, -1), seen);
}

OXA_API int OXA_AtomicAdd(volatile int* value, int addend) {
  const int seen = Load(value);
  return OXA_AtomicCas(value, WrapAdd(seen, addend), seen);
}

OXA_API int OXA_AtomicSet(volatile int* value, int new_value) {
  const int seen = Load(value);
  return OXA_AtomicCas(value, new_value, seen);
}

OXA_API void* OXA_AtomicCasPtr(void* volatile* /*value*/, void* /*new_value*/, void* /*expected*/) {
  return nullptr;
}

}  // extern "C"
