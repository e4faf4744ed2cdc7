/** \file
 * liboxa: manual-reset events built on pipes, waited on singly or in groups with poll, and
 * socket events whose readiness is reported as network-event bits.
 *
 * A plain event is a pipe: signalled while one byte sits in it, not signalled while it is
 * empty. Waiting never consumes the signal; only OXA_ResetEvent clears it. OXA_EventSelect
 * turns an event into a socket event for good: its pipe is closed, OXA_SetEvent and
 * OXA_ResetEvent fail on it from then on, and only OXA_WaitForMultipleObjects waits on it.
 *
 * Most failures print one line starting with "trovik" on standard error (OXA_OutputDebug) and
 * leave errno as the failing system call set it; the multiple wait reports its time-outs and
 * poll failures by its result only. Nothing is stored in the last-error slot.
 */
#ifndef OXA_EVENT_H_
#define OXA_EVENT_H_

#include <pthread.h>

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Network-event bits: the values are part of the interface. ---- */

#define OXA_FD_READ 1     /**< data can be read */
#define OXA_FD_WRITE 2    /**< data can be written */
#define OXA_FD_ACCEPT 8   /**< a listening socket has a connection waiting */
#define OXA_FD_CONNECT 16 /**< a non-blocking connect has finished */
#define OXA_FD_CLOSE 32   /**< the peer closed: readable with nothing to read */

/** \name Bit numbers of the network events */
/**@{*/
/** An index into OXA_NETWORKEVENTS.iErrorCode: the bit number of the OXA_FD_* event. */
#define OXA_FD_READ_BIT 0
#define OXA_FD_WRITE_BIT 1
#define OXA_FD_ACCEPT_BIT 3
#define OXA_FD_CONNECT_BIT 4
#define OXA_FD_CLOSE_BIT 5
/**@}*/
/** Number of slots in OXA_NETWORKEVENTS.iErrorCode. */
#define OXA_FD_MAX_EVENTS 6

/* ---- Wait results (unsigned 32-bit). 0 ... n-1 is the index of the signalled event. ---- */

/** Time-out; in the multiple wait also "nothing signalled" and a failed poll. */
#define OXA_WAIT_TIMEOUT 0x7FFFFFFFu
/** A null event, a null event array, or (multiple wait) more than OXA_MAXIMUM_WAIT_ENTRIES. */
#define OXA_WAIT_INVALID 0x7FFFFFFEu
/** The single wait was given an event without a pipe (a socket event). */
#define OXA_WAIT_NO_PIPE 0x7FFFFFFDu
/** poll failed in the single wait; errno tells why. */
#define OXA_WAIT_FAILED 0x7FFFFFFCu

/**
 * The most poll entries one OXA_WaitForMultipleObjects call can watch. A plain event takes one
 * entry, a socket event one per direction it watches (two for reading and writing), a null
 * handle or a socket event that watches nothing takes none.
 */
#define OXA_MAXIMUM_WAIT_ENTRIES 128

#define OXA_EVENT_POLL_READ 1u  /**< OXA_EVENT_T.uPollFlags: poll the socket for reading */
#define OXA_EVENT_POLL_WRITE 2u /**< OXA_EVENT_T.uPollFlags: poll the socket for writing */

/**
 * An event. Made by OXA_CreateEvent, freed by OXA_CloseEvent; a handle points to one. The
 * fields are visible for the library's internal entry points; applications treat the handle
 * as opaque.
 */
typedef struct OXA_EVENT_T {
  int iPipeFd[2];         /**< read end [0], write end [1]; both -1 for a socket event */
  int iSocket;            /**< the socket of a socket event; -1 for a plain event */
  uint32_t uPollFlags;    /**< OXA_EVENT_POLL_READ / OXA_EVENT_POLL_WRITE interest */
  int32_t lNetworkEvents; /**< the OXA_FD_* bits selected by OXA_EventSelect */
  int32_t lTriggered;     /**< the OXA_FD_* bit found by the last multiple wait */
  int32_t lReserved;      /**< 0 */
  int32_t iErrorCode;     /**< error found with the last triggered network event */
  pthread_mutex_t hLock;  /**< serialises sets (a reset only drains, and needs none) */
} OXA_EVENT_T;

/** An event handle: a pointer to the event's record, null for none. */
typedef OXA_EVENT_T* OXA_EVENT_HANDLE;

/** What OXA_EnumNetworkEvents reports. */
typedef struct OXA_NETWORKEVENTS {
  int32_t lNetworkEvents;                /**< the OXA_FD_* bit the last multiple wait found */
  int32_t iErrorCode[OXA_FD_MAX_EVENTS]; /**< by bit number; only the connect slot is written */
} OXA_NETWORKEVENTS;

/**
 * Creates an event, signalled when initial_state is non-zero. The event's pipe descriptors are
 * close-on-exec. Returns the handle, or null when memory, the pipe or the initial signal
 * failed ("trovik !!! OXA_CreateEvent return error <errno> 0"); nothing is left behind then.
 */
OXA_API OXA_EVENT_HANDLE OXA_CreateEvent(int initial_state);

/**
 * Closes the event's pipe (if it still has one), destroys its lock and frees it; the socket of
 * a socket event stays open. 1 (OXA_TRUE); 0 for a null handle (prints "trovik !!!
 * OXA_CloseEvent !hEvnet return error 0"). No other thread may use the event during or after
 * the call.
 */
OXA_API int OXA_CloseEvent(OXA_EVENT_HANDLE event);

/**
 * Signals the event. Setting a signalled event keeps it signalled once: a single reset clears
 * it however often it was set. 1 (OXA_TRUE); 0 for a null handle or when the pipe cannot be
 * drained or written (always so for a socket event), each with its "trovik" line and errno.
 * Thread-safe against OXA_SetEvent and OXA_ResetEvent.
 */
OXA_API int OXA_SetEvent(OXA_EVENT_HANDLE event);

/**
 * Clears the event; clearing one that is not signalled changes nothing. 1 (OXA_TRUE); 0 for a
 * null handle or a socket event (no pipe), each with its "trovik" line, or when the pipe
 * cannot be drained (errno set). Takes no lock; a reset racing with a set ends as if one of
 * them came first. Thread-safe against OXA_SetEvent and OXA_ResetEvent.
 */
OXA_API int OXA_ResetEvent(OXA_EVENT_HANDLE event);

/**
 * Waits until the event is signalled, at most timeout_ms milliseconds (-1: no limit, 0: test
 * without blocking). The signal stays. Returns 0 when signalled, OXA_WAIT_TIMEOUT on time-out,
 * OXA_WAIT_INVALID for a null handle, OXA_WAIT_NO_PIPE for a socket event, OXA_WAIT_FAILED when
 * poll failed, an interrupting signal included (the wait is not resumed). Takes no lock.
 */
OXA_API unsigned int OXA_WaitForSingleObject(OXA_EVENT_HANDLE event, int timeout_ms);

/**
 * Waits until one of count events is signalled, at most timeout_ms milliseconds (-1: no
 * limit, 0: test without blocking); an interrupting signal restarts the wait with the full
 * time-out. wait_all is accepted and ignored: the call always waits for any one event.
 *
 * Returns the index of the lowest signalled event (for a socket event reading is checked
 * before writing, and the found OXA_FD_* bit and error are stored in the event for
 * OXA_EnumNetworkEvents). OXA_WAIT_TIMEOUT on time-out, when nothing usable was signalled or
 * when poll failed. OXA_WAIT_INVALID for a null array, and when the events need more than
 * OXA_MAXIMUM_WAIT_ENTRIES poll entries (nothing is polled then). Null handles in the array
 * are skipped. A negative count, or an array of nothing but null handles, waits out the
 * time-out (and with -1, for ever). Takes no lock.
 */
OXA_API unsigned int OXA_WaitForMultipleObjects(int count, const OXA_EVENT_HANDLE* events,
                                                unsigned int wait_all, int timeout_ms);

/**
 * Turns the event into a socket event that watches socket for the OXA_FD_* bits in
 * network_events: closes the event's pipe (for good), stores the bits and the socket and makes
 * the socket non-blocking. Reading is watched for OXA_FD_READ, OXA_FD_ACCEPT and OXA_FD_CLOSE,
 * writing for OXA_FD_WRITE, both for OXA_FD_CONNECT. A failure to make the socket
 * non-blocking is not reported. 0; -1 for socket -1, a null handle or no bits, with the line
 * "trovik !!! OXA_EventSelect input param error return error 0" and the event unchanged. Must
 * not race with other calls on the same event.
 */
OXA_API int OXA_EventSelect(int socket, OXA_EVENT_HANDLE event, int network_events);

/**
 * Reports what the last OXA_WaitForMultipleObjects found on the socket event: the OXA_FD_* bit
 * into result->lNetworkEvents, and, when OXA_FD_CONNECT is selected and an error was recorded,
 * that error into result->iErrorCode[OXA_FD_CONNECT_BIT]; other slots are not touched. The
 * stored bit and error are not cleared. The socket argument is only checked. For a socket
 * event each call also prints the single wait's no-pipe "trovik" line. 0; -1 for socket -1 or
 * a null handle or result (prints "trovik !!! OXA_EnumNetworkEvents input param error return
 * error 0"; result untouched). The call re-creates and then destroys the event's lock, so it
 * must not race with OXA_SetEvent or OXA_ResetEvent on the same event.
 */
OXA_API int OXA_EnumNetworkEvents(int socket, OXA_EVENT_HANDLE event, OXA_NETWORKEVENTS* result);

#ifdef __cplusplus
}  // extern "C"

struct pollfd;

/**
 * Writes the signal byte "e" when the pipe has room right now, without blocking. 1 written; 0
 * for a null event, an event without pipe or a full pipe, with the line "trovik !!!!
 * OXA_WritePipe_Inter return OXA_FALSE errno = N" (no newline) on standard error.
 */
OXA_API int OXA_WritePipe_Inter(OXA_EVENT_T* event);
/**
 * Reads the pipe until it is empty, without blocking. 1 drained (also for an event without
 * pipe); 0 for a null event or when a read fails (errno set). Prints nothing.
 */
OXA_API int OXA_ReadPipe_Inter(OXA_EVENT_T* event);
/**
 * Judges one poll entry of the event after a multiple wait, recording the OXA_FD_* bit and
 * error of a socket event in lTriggered and iErrorCode. 0 when the event counts as triggered;
 * -1 when not, or when event or entry is null (nothing recorded then).
 */
OXA_API int OXA_GetEventTriggeredFlag_Inter(OXA_EVENT_T* event, pollfd* entry);
/**
 * Destroys the event's lock. 0; -1 for a null event or when the system refuses (errno EBUSY
 * while it is held).
 */
OXA_API int OXA_ClearEventMutex_Inter(OXA_EVENT_T* event);

#endif  // __cplusplus

#endif /* OXA_EVENT_H_ */
