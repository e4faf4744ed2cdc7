/** \file
 * liboxa: the alarm clock, one-shot alarms run on a thread of their own.
 */
#ifndef OXA_ALARM_H_
#define OXA_ALARM_H_

#include "oxa_base.h"

#ifdef __cplusplus

#include <list>
#include <map>

#include "oxa_sync.h"

namespace oxa {

/**
 * Runs one-shot alarms on one thread of its own. AddAlarm registers a callback under an id with
 * a delay in milliseconds; once the delay has passed, the clock's thread calls the callback
 * once, without any lock of the clock held, so a callback may add or remove alarms. Alarms due
 * at the same time fire in the order they were added.
 *
 * Lifecycle: created (no thread) -> running (Start) -> stopped (Stop). Stopping is terminal:
 * after Stop, Start starts a thread that returns at once, and alarms never fire again.
 * AddAlarm and RemoveAlarm work in every state; alarms added before Start wait for it.
 */
class OXA_API CAlarmClock {
 public:
  /** An alarm's callback: (the clock, the alarm id, the user data). */
  typedef void (*AlarmCallback)(void* clock, int id, void* user_data);

  /** No thread is started here. */
  CAlarmClock();
  /**
   * Stops the clock (waiting for a running callback to return) and drops pending alarms
   * without calling them. Must not run in one of the clock's callbacks.
   */
  virtual ~CAlarmClock();
  CAlarmClock(const CAlarmClock&) = delete;
  CAlarmClock& operator=(const CAlarmClock&) = delete;

  /**
   * Starts the clock's thread unless one is recorded. true when a thread is recorded after the
   * call (also when one was already); false when the thread cannot be started (errno set), and
   * the clock stays without a thread. Serialised with Stop.
   */
  bool Start();
  /**
   * Stops the thread and waits for it to end, then drops every pending alarm without calling
   * it. Does nothing when no thread is recorded or the clock was stopped before. Must not be
   * called from a callback.
   */
  void Stop();
  /**
   * Adds an alarm due delay_ms milliseconds from now on the monotonic tick (a negative delay
   * is due at once; a delay too long to add is due never). true when added; false, with nothing
   * changed, when the id is pending already (that alarm is kept unchanged) or the alarm cannot
   * be allocated. Should the list or the id map fail to grow, std::bad_alloc passes on, also
   * with nothing changed. callback may be null: the alarm then only frees its id when due.
   */
  bool AddAlarm(int id, AlarmCallback callback, void* user_data, long long delay_ms);
  /**
   * Removes a pending alarm; true when there was one. The thread is not woken: it finds out
   * when it next looks. An alarm already taken out for firing is not pending any more.
   */
  bool RemoveAlarm(int id);
  /**
   * The thread's loop: fires due alarms until the clock is stopped, then returns. Start runs it
   * on the clock's thread; do not call it otherwise.
   */
  void Run();
  /** The thread's entry point: runs the clock given as argument (unless null); returns null. */
  static void* OnThreadRunCallback(void* clock);

 private:
  // Hidden, so the list and map code instantiated for it stays out of the exported names.
  struct __attribute__((visibility("hidden"))) CAlarm {
    int id;
    AlarmCallback callback;
    void* user_data;
    long long due_ms;  // OXA_GetTimeTick64 milliseconds
  };
  typedef std::list<CAlarm*> AlarmList;

  OXA_Mutex start_stop_lock_;   // serialises Start and Stop
  OXA_UniqueMutex alarm_lock_;  // guards everything below except thread_
  OXA_HANDLE thread_;           // -1 while no thread is recorded; guarded by start_stop_lock_
  OXA_Cond wake_;               // waited on with alarm_lock_
  bool stop_;                   // set by Stop, never cleared
  bool waiting_;                // true only while the thread sits in a wait
  AlarmList alarms_;            // sorted by due time, earliest first; ties in insertion order
  std::map<int, AlarmList::iterator> ids_;  // one entry per list entry, same id
};

}  // namespace oxa

#endif  // __cplusplus

#endif /* OXA_ALARM_H_ */
