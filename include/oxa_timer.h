/** \file
 * liboxa: periodic timers. Each timer runs its callback on a thread of its own, first at once
 * and then again one period after each call returns, until it is killed. At most 256 timers
 * exist at a time; a timer id is the index of its slot, 0 to 255, and the lowest free id is
 * handed out first.
 */
#ifndef OXA_TIMER_H_
#define OXA_TIMER_H_

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Number of timers that can exist at a time; ids run from 0 to OXA_MAX_TIMERS - 1. */
#define OXA_MAX_TIMERS 256

/**
 * A timer's callback: receives the timer's id and the user data given to OXA_SetTimer. Its
 * result is ignored. Calls of one timer never overlap; different timers' calls run
 * concurrently.
 */
typedef int (*OXA_TIMER_CALLBACK)(unsigned int timer_id, void* user_data);

/**
 * Starts a timer: a new thread calls callback(id, user_data) at once, then waits period_ms
 * after each call returns before the next one (the period does not compensate for the
 * callback's run time; 0 calls back to back). The period is read once. A null callback makes
 * a timer that only waits. The timer's condition prints its OXA_CondCreate line on standard
 * error. Returns 0 with the id stored in *timer_id; -1 when all 256 timers exist or timer_id
 * is null, or when the timer's condition variable could not be allocated (errno ENOMEM); no
 * id is taken and nothing is stored then. A thread that cannot be started is not detected:
 * the call returns 0 and the id stays taken until it is killed. Works without
 * OXA_InitTimer_Inter. Thread-safe.
 */
OXA_API int OXA_SetTimer(OXA_TIMER_CALLBACK callback, void* user_data, unsigned int period_ms,
                         unsigned int* timer_id);

/**
 * Stops a timer and frees its id: wakes the timer from its wait, lets a callback call that is
 * under way (or just starting) return, and waits for the timer's thread to end; no later call
 * starts. The timer's condition prints its OXA_CondDestroy line on standard error. Returns 0
 * (also when no timer has the id: nothing is done), or -1 for an id above 255. Called from the
 * timer's own callback, it returns 0 at once and the timer ends, freeing its id, when the
 * callback returns. Two calls for the same id must not race.
 */
OXA_API int OXA_KillTimer(unsigned int timer_id);

#ifdef __cplusplus
}  // extern "C"

/**
 * Empties the timer table once, the first time it is called (or the first time after
 * OXA_FiniTimer_Inter); always 0. Live timers must not exist then. The library frame never
 * calls it.
 */
OXA_API int OXA_InitTimer_Inter();
/**
 * Clears the mark that makes OXA_InitTimer_Inter empty the table; running timers go on and
 * the table is kept. Always 0.
 */
OXA_API int OXA_FiniTimer_Inter();
#endif  // __cplusplus

#endif /* OXA_TIMER_H_ */
