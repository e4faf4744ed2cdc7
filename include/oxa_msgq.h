/** \file
 * liboxa: in-process message queues.
 *
 * Two independent queues live here:
 *
 * - The function interface (OXA_MsgQCreateEx and companions) over a process-wide table of
 *   OXA_MQ_MAX_QUEUES queues. Messages are copied in and out by value (at most
 *   OXA_MQ_MAX_MSG_LEN payload bytes), delivered by priority (larger first) and first-in
 *   first-out among equal priorities. A send never blocks and the queue has no length limit.
 *   The table exists while the library is started (OXA_Init); queues still alive at the last
 *   OXA_Fini are released with their messages.
 *
 * - The class oxa::oxa_msgq: a first-in first-out queue of pointers to caller-owned blocks,
 *   counted by a semaphore.
 *
 * Neither interface prints anything or sets the last-error slot; failures are -1.
 */
#ifndef OXA_MSGQ_H_
#define OXA_MSGQ_H_

#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Queues in the process-wide table; the next concurrent creation fails. */
#define OXA_MQ_MAX_QUEUES 100
/** Most payload bytes one message may carry. */
#define OXA_MQ_MAX_MSG_LEN 8096

/**
 * A message as the caller passes it in and gets it back. On send, length is the number of
 * payload bytes (0 .. OXA_MQ_MAX_MSG_LEN). On receive, the caller sets length to the capacity
 * of its payload buffer and gets back the message's length. A caller may pass a shorter
 * object than this one, as long as the payload area holds length bytes.
 */
typedef struct OXA_MQ_MSG {
  unsigned int type;             /**< opaque to the queue; carried unchanged */
  int priority;                  /**< larger is delivered first */
  int length;                    /**< payload bytes (receive: capacity in, length out) */
  char data[OXA_MQ_MAX_MSG_LEN]; /**< the payload, copied by value */
} OXA_MQ_MSG;

/** A queue record of the table; handles point to one. */
typedef struct OXA_MQ_INTER OXA_MQ_INTER;
/** A queue handle; null for no queue. Valid from create to destroy. */
typedef OXA_MQ_INTER* OXA_MQ_HANDLE;

/**
 * Creates a queue into *handle. 0, or -1 when the library is not started, all
 * OXA_MQ_MAX_QUEUES queues exist, handle is null, or one of the queue's conditions could not be
 * created (errno from the system). A destroyed queue's record is taken again only once no receiver
 * waits in it any more, so such waiters can make creation fail before OXA_MQ_MAX_QUEUES queues
 * exist. A creation that fails after a free record was found still stores that record in *handle;
 * the record stays free and the handle must not be used.
 */
OXA_API int OXA_MsgQCreateEx(OXA_MQ_HANDLE* handle);
/**
 * Destroys a queue and the messages in it. 0 (also for a queue already destroyed); -1 for a
 * null handle or when the library is not started. Threads blocked in OXA_MsgQReceiveEx on the
 * queue are not woken: each returns -1 when its own time-out has run out, and one waiting
 * without limit stays blocked.
 */
OXA_API int OXA_MsgQDestroyEx(OXA_MQ_HANDLE handle);
/**
 * Copies msg (its header and length payload bytes) into the queue and wakes the waiting
 * receivers. 0; -1 for a null handle or message, a destroyed queue, a negative length or one
 * above OXA_MQ_MAX_MSG_LEN, or no memory, with the queue unchanged. Never blocks.
 */
OXA_API int OXA_MsgQSendEx(OXA_MQ_HANDLE handle, const OXA_MQ_MSG* msg);
/**
 * Takes the next message (highest priority, oldest first) into msg, waiting at most
 * timeout_ms milliseconds of the tick counter for one to arrive (0xFFFFFFFF: in practice no
 * limit). 0 with type, priority, length and payload copied out; -1 on time-out, for a null
 * handle or msg, for a queue that is destroyed before or during the wait, or when a lock
 * fails; in these cases msg is left as it was.
 *
 * Two behaviours are part of the contract:
 * - A message longer than msg->length (the buffer's capacity) is taken off the queue and lost:
 *   -1 is returned with type and priority copied out and length unchanged.
 * - With timeout_ms 0 on an empty queue the call does not return at once: it waits for the
 *   next send and then returns -1, leaving that message for the next receive.
 */
OXA_API int OXA_MsgQReceiveEx(OXA_MQ_HANDLE handle, OXA_MQ_MSG* msg, unsigned int timeout_ms);

/**
 * The caller-owned message block that oxa::oxa_msgq queues by pointer. The library never looks
 * inside it and never defines it: an application may define struct OXA_MSG_BLOCK_T as it likes.
 */
typedef struct OXA_MSG_BLOCK_T OXA_MSG_BLOCK_T;

#ifdef __cplusplus
}  // extern "C"

#include <deque>

#include "oxa_sync.h"

/**
 * The message-queue module's start, run by OXA_Init: creates the table's lock and empties the
 * table. Always 0.
 */
OXA_API int OXA_MsgQInitEx_Inter();
/**
 * The module's stop, run by the last OXA_Fini: releases every queue still in use with its
 * messages, then destroys the table's lock. 0, or -1 when the lock cannot be destroyed.
 */
OXA_API int OXA_MsgQFiniEx_Inter();
/**
 * The receive's wait step. REQUIRES: the queue's lock held; it is released here. Waits for an
 * arrival (which != 0) or for space (which == 0), at most timeout_ms, without limit for 0 and
 * 0xFFFFFFFF. 0 after the wait, whether woken or timed out; -1 when the wait could not begin
 * (the queue's lock is released all the same), and -1 for a null queue (nothing released).
 */
OXA_API int OXA_MsgQWaitTimeOut_Inter(OXA_MQ_INTER* queue, unsigned int timeout_ms, int which);

namespace oxa {

/**
 * A first-in first-out queue of OXA_MSG_BLOCK_T pointers, counted by a semaphore. The blocks
 * stay the caller's throughout. Thread-safe: any number of threads may put and get.
 */
class OXA_API oxa_msgq {
 public:
  /**
   * Builds the lock and the semaphore, then init(); without memory for the queue the object
   * stays unusable (putq and getq give -1) until init() succeeds.
   */
  oxa_msgq();
  /** destroy(). No thread may be in getq. */
  virtual ~oxa_msgq();
  oxa_msgq(const oxa_msgq&) = delete;
  oxa_msgq& operator=(const oxa_msgq&) = delete;

  /**
   * Allocates a new empty queue; 0, or -1 without memory. A queue already present is replaced
   * and its pointers forgotten (not freed).
   */
  int init();
  /**
   * Appends block and posts the semaphore once: 0; -1 for a null block, no queue, or no memory
   * (nothing queued).
   */
  int putq(OXA_MSG_BLOCK_T* block);
  /**
   * Waits for and removes the oldest pointer into *block: 0, or -1 (*block unchanged) for a null
   * block, no queue (also when destroy() ran during the wait), or when timeout_ms ran out. A
   * negative timeout_ms waits without limit, and a signal then ends the wait with -1 (errno
   * EINTR); 0 does not wait. Timed waits run on the wall clock.
   */
  int getq(OXA_MSG_BLOCK_T** block, int timeout_ms);
  /**
   * Forgets every queued pointer. The semaphore keeps their posts: a later getq that takes
   * one finds the queue empty and waits again, within its own time-out.
   */
  void reset();
  /** reset(), then frees the queue; the object is unusable until init() succeeds again. */
  void destroy();

 private:
  oxa_recursive_mutex mutex_;
  oxa_sem sem_;
  std::deque<OXA_MSG_BLOCK_T*>* queue_;  // guarded by mutex_
};

}  // namespace oxa
#endif  // __cplusplus

#endif /* OXA_MSGQ_H_ */
