// The records behind OXA_MQ_HANDLE: the process-wide table of message queues.
//
// Lock order: the table lock is taken only around create, destroy and the module's stop, and
// before a queue's lock; a queue's lock before its receive or space lock, never both.
//
// A receiver blocked in a wait must survive the destruction of its queue, which is documented
// not to wake it. Destroying a condition variable that a thread waits on would block the
// destroyer (or worse), so a record counts the receivers inside it: destruction empties and
// frees the record at once, but leaves its locks and conditions in place while receivers
// remain, and creation does not reuse such a record until they have all left. Each receiver
// checks the record's generation after every wait and leaves with -1 when it changed.
#ifndef OXA_SRC_DISPATCH_MSGQ_TABLE_H_
#define OXA_SRC_DISPATCH_MSGQ_TABLE_H_

#include <pthread.h>
#include <stdint.h>

#include <atomic>

#include "oxa_msgq.h"

#include "dispatch/msgq_list.h"

// A queue record. The type keeps the public handle's tag name, so a handle converts to a
// record without a cast.
struct OXA_MQ_INTER {
  std::atomic<uint32_t> in_use{0};  // 1 while the record is a created queue. Written under the
                                    // table lock and the queue lock; read by senders and
                                    // receivers under the queue lock, or without it as a hint.
  pthread_mutex_t queue_lock;       // plain; guards count and list
  uint32_t count = 0;               // messages in the list. Guarded by queue_lock.
  pthread_mutex_t space_lock;       // paired with space
  pthread_mutex_t receive_lock;     // paired with arrival
  pthread_cond_t space;             // broadcast after every successful receive
  pthread_cond_t arrival;           // broadcast after every send; receivers wait on it
  oxa::internal::MsgList list;      // delivery order. Guarded by queue_lock.

  // Threads in the wait step on each condition. Raised under queue_lock before the wait, so a
  // send or receive that reads 0 under queue_lock knows that nobody needs its broadcast.
  std::atomic<uint32_t> arrival_waiters{0};
  std::atomic<uint32_t> space_waiters{0};

  std::atomic<uint32_t> generation{0};  // advanced by every destruction
  std::atomic<uint32_t> receivers{0};   // threads inside OXA_MsgQReceiveEx on this record
  bool locks_alive = false;             // the five objects above exist. Guarded by the table
                                        // lock.
};

#endif  // OXA_SRC_DISPATCH_MSGQ_TABLE_H_
