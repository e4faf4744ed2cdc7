// Periodic timers: a fixed table of 256 slots, one thread per live timer.
//
// Each timer thread calls its callback without any lock and then waits on its own condition
// under its own mutex. OXA_KillTimer sets the quit flag and signals under that mutex, so the
// order is fixed: either the thread sees the flag before it waits, or it is waiting and gets
// the signal. A kill therefore ends the wait at once and completes as soon as a running
// callback returns.
//
// Lock order: the table lock and a slot's mutex are never held together.
#include <errno.h>
#include <pthread.h>
#include <stdint.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <new>

#include "oxa_sync.h"
#include "oxa_thread.h"
#include "oxa_timer.h"

#include "frame/load_order.h"
#include "frame/scoped_lock.h"

namespace {

using Clock = std::chrono::steady_clock;  // the monotonic clock, as OXA_Cond waits on
using TableLock = oxa::internal::ScopedLock<OXA_Mutex>;

// Values of a slot's quit flag.
constexpr uint32_t kRunning = 0;
constexpr uint32_t kQuit = 1;  // OXA_KillTimer from another thread joins and frees the slot
// OXA_KillTimer from the timer's own callback: the thread cannot join itself, so it is
// detached and frees its own slot once the callback returns.
constexpr uint32_t kQuitFromOwnCallback = 2;

constexpr unsigned int kPlainMutex = 0;

struct TimerSlot {
  uint32_t in_use;              // 1 while the slot belongs to a timer. Guarded by g_timer_lock.
  uint32_t id;                  // the slot's index
  OXA_TIMER_CALLBACK callback;  // may be null
  void* user_data;
  uint32_t period_ms;          // read once by the thread at its start
  std::atomic<uint32_t> quit;  // written under `mutex`, read by the thread's loop
  OXA_HANDLE thread;           // as OXA_Thread_Create returned it, unchecked
  OXA_Cond* cond;              // owned; the thread waits on it for at most a period
  pthread_mutex_t mutex;       // pairs with `cond`
};

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(TimerSlot) == 56, "timer slot: 8 words and a mutex, in order");
#endif

// Built at load time before the library's other static objects.
OXA_Mutex g_timer_lock OXA_LOAD_AT(OXA_LOAD_TIMER_LOCK);

// Zero at load: every slot free. Slots are filled and emptied under g_timer_lock.
TimerSlot g_timers[OXA_MAX_TIMERS];
uint32_t g_timer_initialised = 0;  // Guarded by g_timer_lock.

// REQUIRES: g_timer_lock held.
void ClearSlot(TimerSlot* slot) {
  slot->in_use = 0;
  slot->id = 0;
  slot->callback = nullptr;
  slot->user_data = nullptr;
  slot->period_ms = 0;
  slot->quit.store(kRunning, std::memory_order_relaxed);
  slot->thread = 0;
  slot->cond = nullptr;
  slot->mutex = pthread_mutex_t{};
}

// Frees the slot of a timer whose thread has ended (or is ending without touching it again).
// REQUIRES: g_timer_lock held.
void ReleaseSlot(TimerSlot* slot) {
  if (slot->cond != nullptr) {
    delete slot->cond;
    slot->cond = nullptr;
  }
  OXA_MutexDestroy(&slot->mutex);
  ClearSlot(slot);
}

// REQUIRES: g_timer_lock held.
TimerSlot* LowestFreeSlot() {
  for (TimerSlot& slot : g_timers) {
    if (slot.in_use == 0) return &slot;
  }
  return nullptr;
}

void RequestQuit(TimerSlot* slot, uint32_t how) {
  oxa::internal::PthreadLock hold(&slot->mutex);
  slot->quit.store(how, std::memory_order_relaxed);
  slot->cond->Signal();
}

// Waits until a period has passed since the call, or until the timer is killed. Spurious
// wake-ups wait again for the rest of the period.
void WaitOnePeriod(TimerSlot* slot, uint32_t period_ms) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(period_ms);
  oxa::internal::PthreadLock hold(&slot->mutex);
  while (slot->quit.load(std::memory_order_relaxed) == kRunning) {
    const Clock::duration left = deadline - Clock::now();
    if (left <= Clock::duration::zero()) break;
    const auto left_ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    slot->cond->TimedWait(
        &slot->mutex, static_cast<unsigned int>(std::min<decltype(left_ms)>(left_ms, UINT32_MAX)));
  }
}

void* TimerMain(void* param) {
  auto* slot = static_cast<TimerSlot*>(param);
  const uint32_t period_ms = slot->period_ms;
  // Relaxed loads: the flag is stored under slot->mutex, which WaitOnePeriod takes; a flag
  // missed here is seen there before any wait.
  while (slot->quit.load(std::memory_order_relaxed) == kRunning) {
    if (slot->callback != nullptr) slot->callback(slot->id, slot->user_data);
    if (slot->cond != nullptr) WaitOnePeriod(slot, period_ms);
  }
  if (slot->quit.load(std::memory_order_relaxed) == kQuitFromOwnCallback) {
    TableLock hold(g_timer_lock);
    ReleaseSlot(slot);
  }
  return nullptr;
}

}  // namespace

// ---- Module start and stop --------------------------------------------------

OXA_API int OXA_InitTimer_Inter() {
  TableLock hold(g_timer_lock);
  if (g_timer_initialised == 0) {
    for (TimerSlot& slot : g_timers)
      ClearSlot(&slot);
    g_timer_initialised = 1;
  }
  return 0;
}

OXA_API int OXA_FiniTimer_Inter() {
  TableLock hold(g_timer_lock);
  g_timer_initialised = 0;
  return 0;
}

// ---- C entry points ---------------------------------------------------------

extern "C" {

OXA_API int OXA_SetTimer(OXA_TIMER_CALLBACK callback, void* user_data, unsigned int period_ms,
                         unsigned int* timer_id) {
  if (timer_id == nullptr) return OXA_ERROR;
  TableLock hold(g_timer_lock);
  TimerSlot* slot = LowestFreeSlot();
  if (slot == nullptr) return OXA_ERROR;
  auto* cond = new (std::nothrow) OXA_Cond;
  if (cond == nullptr) {
    errno = ENOMEM;
    return OXA_ERROR;
  }
  slot->in_use = 1;
  slot->id = static_cast<uint32_t>(slot - g_timers);
  slot->callback = callback;
  slot->user_data = user_data;
  slot->period_ms = period_ms;
  slot->quit.store(kRunning, std::memory_order_relaxed);
  slot->cond = cond;
  OXA_MutexCreate(&slot->mutex, kPlainMutex);
  // A failed start is not reported: the id stays taken until OXA_KillTimer frees it.
  slot->thread = OXA_Thread_Create(TimerMain, slot, 0, 0, 0, 0);
  *timer_id = slot->id;
  return 0;
}

OXA_API int OXA_KillTimer(unsigned int timer_id) {
  if (timer_id >= OXA_MAX_TIMERS) return OXA_ERROR;
  TimerSlot* slot = &g_timers[timer_id];
  OXA_HANDLE thread;
  {
    TableLock hold(g_timer_lock);
    if (slot->in_use == 0) return 0;
    // Killed from its own callback already: the thread frees the slot itself.
    if (slot->quit.load(std::memory_order_relaxed) == kQuitFromOwnCallback) return 0;
    thread = slot->thread;
  }
  if (thread == OXA_Thread_GetSelfId()) {
    RequestQuit(slot, kQuitFromOwnCallback);
    pthread_detach(pthread_self());
    return 0;
  }
  RequestQuit(slot, kQuit);
  OXA_Thread_Wait(thread);  // outside the table lock: other timers come and go meanwhile
  TableLock hold(g_timer_lock);
  ReleaseSlot(slot);
  return 0;
}

}  // extern "C"
