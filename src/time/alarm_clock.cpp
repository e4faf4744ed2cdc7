// The alarm clock: one thread per started clock fires one-shot alarms in due-time order.
//
// Lock order: start_stop_lock_ before alarm_lock_. Callbacks run with neither held, so they
// may add and remove alarms; only Stop, which joins the thread, must stay out of them.
#include <stdint.h>

#include <climits>
#include <new>
#include <type_traits>

#include "oxa_alarm.h"
#include "oxa_thread.h"
#include "oxa_time.h"

#include "frame/mutex_storage.h"
#include "frame/scoped_lock.h"

using oxa::internal::ScopedLock;
using oxa::internal::SystemMutex;

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(OXA_HANDLE) == 4, "thread handle is 32-bit");
// vtable pointer, two mutexes, handle, condition, two flags (padded), list, map.
static_assert(sizeof(oxa::CAlarmClock) == 4 + 24 + 24 + 4 + 48 + 4 + 12 + 24, "alarm clock layout");
#endif

namespace {

// A single wait is at most this long; a later due time is reached by waiting again. All ones
// is kept clear of, since the library reads it as "no limit".
constexpr long long kLongestWaitMs = 0xFFFFFFFELL;

unsigned int WaitSpanMs(long long remaining_ms) {
  return static_cast<unsigned int>(remaining_ms < kLongestWaitMs ? remaining_ms : kLongestWaitMs);
}

long long NowMs() { return static_cast<long long>(OXA_GetTimeTick64()); }

// Now plus the delay; a negative delay is due at once, and a delay too long to add (such as
// LLONG_MAX for "never") stays at the far end instead of wrapping into the past.
long long DueMs(long long delay_ms) {
  const long long now = NowMs();
  if (delay_ms < 0) return now;
  return delay_ms > LLONG_MAX - now ? LLONG_MAX : now + delay_ms;
}

}  // namespace

namespace oxa {

CAlarmClock::CAlarmClock() : thread_(OXA_INVALID_HANDLE), stop_(false), waiting_(false) {}

CAlarmClock::~CAlarmClock() {
  try {
    Stop();
  } catch (...) {
    // A destructor lets nothing out; Stop has nothing that throws today anyway.
  }
  // Only a Start after Stop leaves a thread recorded here, one that returned at once: reap it
  // so its stack is released too.
  if (thread_ != OXA_INVALID_HANDLE) OXA_Thread_Wait(thread_);
  for (CAlarm* alarm : alarms_)
    delete alarm;
  // The members go in reverse order: map and list nodes, condition, alarm lock, start lock.
}

bool CAlarmClock::Start() {
  ScopedLock<OXA_Mutex> serial(start_stop_lock_);
  if (thread_ == OXA_INVALID_HANDLE) {
    thread_ = OXA_Thread_Create(&CAlarmClock::OnThreadRunCallback, this, 0, 0, 0, 0);
  }
  return thread_ != OXA_INVALID_HANDLE;
}

void CAlarmClock::Stop() {
  ScopedLock<OXA_Mutex> serial(start_stop_lock_);
  {
    ScopedLock<OXA_UniqueMutex> hold(alarm_lock_);
    // Stopping is terminal: a second Stop finds the flag set and leaves everything as it is.
    if (thread_ == OXA_INVALID_HANDLE || stop_) return;
    stop_ = true;
    wake_.BroadCast();
  }
  OXA_Thread_Wait(thread_);  // a running callback finishes first
  {
    ScopedLock<OXA_UniqueMutex> hold(alarm_lock_);
    for (CAlarm* alarm : alarms_)
      delete alarm;  // pending callbacks are dropped, not called
    alarms_.clear();
    ids_.clear();
  }
  thread_ = OXA_INVALID_HANDLE;
}

bool CAlarmClock::AddAlarm(int id, AlarmCallback callback, void* user_data, long long delay_ms) {
  CAlarm* alarm = new (std::nothrow) CAlarm;
  if (alarm == nullptr) return false;
  alarm->id = id;
  alarm->callback = callback;
  alarm->user_data = user_data;
  alarm->due_ms = DueMs(delay_ms);

  ScopedLock<OXA_UniqueMutex> hold(alarm_lock_);
  if (ids_.find(id) != ids_.end()) {
    delete alarm;  // the pending alarm under this id stays as it is
    return false;
  }
  // After every alarm due at the same time or earlier: equal due times keep insertion order.
  auto pos = alarms_.begin();
  while (pos != alarms_.end() && (*pos)->due_ms <= alarm->due_ms)
    ++pos;
  AlarmList::iterator entry;
  try {
    entry = alarms_.insert(pos, alarm);
  } catch (...) {
    delete alarm;
    throw;  // the lock is released on the way out
  }
  try {
    ids_.emplace(id, entry);
  } catch (...) {
    alarms_.erase(entry);
    delete alarm;
    throw;
  }
  // A new earliest alarm cuts the thread's current wait short; otherwise that wait (until the
  // former front alarm) is still the right one.
  if (entry == alarms_.begin() && waiting_) wake_.BroadCast();
  return true;
}

bool CAlarmClock::RemoveAlarm(int id) {
  ScopedLock<OXA_UniqueMutex> hold(alarm_lock_);
  auto found = ids_.find(id);
  if (found == ids_.end()) return false;
  delete *found->second;
  alarms_.erase(found->second);
  ids_.erase(found);
  // The thread is not woken: if this was the front alarm, it wakes at that due time, finds the
  // new front and waits again.
  return true;
}

void CAlarmClock::Run() {
  for (;;) {
    CAlarm* fired = nullptr;
    {
      ScopedLock<OXA_UniqueMutex> hold(alarm_lock_);
      if (stop_) return;
      if (alarms_.empty()) {
        waiting_ = true;
        wake_.Wait(SystemMutex(alarm_lock_));
        waiting_ = false;
        continue;
      }
      CAlarm* front = alarms_.front();
      const long long now = NowMs();
      if (now < front->due_ms) {
        waiting_ = true;
        wake_.TimedWait(SystemMutex(alarm_lock_), WaitSpanMs(front->due_ms - now));
        waiting_ = false;
        continue;  // re-examine the front: it may have been removed or overtaken
      }
      alarms_.pop_front();
      ids_.erase(front->id);  // the id is free again before the callback runs
      fired = front;
    }
    if (fired->callback != nullptr) fired->callback(this, fired->id, fired->user_data);
    delete fired;
  }
}

void* CAlarmClock::OnThreadRunCallback(void* clock) {
  if (clock != nullptr) static_cast<CAlarmClock*>(clock)->Run();
  return nullptr;
}

}  // namespace oxa
