/** \file
 * liboxa: asynchronous socket I/O through completion queues.
 *
 * A completion queue is a fixed group of worker threads, each with its own epoll instance.
 * A socket is bound to one queue; the worker that owns it is chosen by descriptor number
 * modulo the worker count. The application then hands it sends, receives, send-tos,
 * receive-froms, connects and accepts; each request is queued on the socket and performed by
 * its worker when the socket is ready, and its outcome is reported once through the
 * request's callback as (error, bytes, context): error 0 or the system's errno value.
 *
 * Only descriptors 0..65535 can be bound. One process-wide table holds the bound sockets of
 * all queues, so a descriptor is bound to at most one queue at a time.
 *
 * Sends copy the caller's data into pooled blocks and split it into chunks of at most
 * 16384 bytes; every chunk is a request of its own and completes with its own callback, in
 * order. Receives write straight into the caller's buffer, which must stay valid until the
 * callback. A request that is refused (negative result) never calls its callback. Requests
 * still queued when a socket is unbound are dropped without a callback.
 *
 * A send or receive may be given a null callback; its completion then goes unreported.
 *
 * Callbacks of one socket run on one worker thread, one at a time; callbacks of sockets on
 * different workers run in parallel. Queues made by OXA_AsyncIO_CreateQueueEx_New and
 * OXA_AsyncIO_CreateQueueEx2 (callback mode 1) run callbacks while the worker holds its slot
 * lock; that lock is recursive, so a callback may queue new requests or unbind its own
 * socket, but another thread that binds or unbinds on the same worker waits until the worker
 * has handled its whole batch of events. Callbacks never run with a socket's send or receive
 * mutex held.
 *
 * Lock order: worker slot lock, then CSocketOperation::m_sendMutex[fd], then
 * CSocketOperation::m_recvMutex[fd], then the socket object's own mutex.
 *
 * Messages go to standard error as quoted below.
 */
#ifndef OXA_AIO_H_
#define OXA_AIO_H_

#include <pthread.h>

#include "oxa_addr.h"
#include "oxa_base.h"
#include "oxa_sync.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * A completion callback: error is 0 on success or the errno value of the failure; bytes is
 * the count this request transferred (for an accept the new descriptor, for a connect 0);
 * context is the pointer given with the request.
 */
typedef void (*OXA_AIO_CALLBACK)(unsigned long error, unsigned long bytes, void* context);

/** The kind of a queued request. */
typedef enum OXA_IO_TYPE {
  OXA_IO_SEND = 0,     /**< send queue: OXA_Send of the rest of the data */
  OXA_IO_RECV = 1,     /**< receive queue: OXA_Recv into the caller's buffer */
  OXA_IO_SENDTO = 2,   /**< send queue: OXA_SendTo to the copied address */
  OXA_IO_RECVFROM = 3, /**< receive queue: OXA_RecvFrom, address into the caller's record */
  OXA_IO_CONNECT = 4,  /**< send queue: completion of a non-blocking connect */
  OXA_IO_ACCEPT = 5    /**< receive queue: accept, peer address into the caller's record */
} OXA_IO_TYPE;

/**
 * One queued request; sixteen 32-bit words on 32-bit targets. Records are cleared to zero
 * before they are filled.
 */
typedef struct IO_DATA {
  int fd;           /**< the socket */
  OXA_IO_TYPE type; /**< the kind of request */
  /** Sends: the pooled copy of the data; receives: the caller's buffer; else null. */
  void* buffer;
  int length; /**< bytes to transfer; 0 for connect and accept */
  /** 0 when queued; sends: bytes already sent; receives: bytes received; accept: new fd. */
  int done;
  int error; /**< 0 or an errno value */
  /** Null, &addr_copy, or (receive-from and accept) the caller's own record. */
  OXA_ADDR_T* addr;
  OXA_ADDR_T addr_copy;      /**< the copied destination of a send-to */
  OXA_AIO_CALLBACK callback; /**< completion callback */
  void* context;             /**< the caller's context pointer */
} IO_DATA;

/**
 * Per-socket limit of pooled send data in bytes, taken over by every socket at its next send
 * request when above 0. -1 (unset) until OXA_AsyncIO_SetIOQueueMemorySize sets it; the
 * built-in limit is 33554432 (32 MiB).
 */
OXA_API extern int g_max_socket_send_dataMemory;

/* ---- Queues ------------------------------------------------------------------------------ */

/**
 * Creates a completion queue with `workers` worker threads, each with its own epoll instance,
 * an event buffer of 65536 / workers + 1 entries, a recursive slot lock and a 2 MiB stack.
 * Each worker asks for SCHED_FIFO priority 1 for itself; a refusal is ignored. With
 * callback_mode 1 callbacks run while the worker holds its slot lock; with any other value
 * the lock is released around each callback.
 *
 * A count below 1 gives a queue without workers, to which no socket can be bound. Returns
 * the queue handle, or (void*)-1 when memory, an epoll instance, a lock or a thread could not
 * be made; nothing is left behind then.
 */
OXA_API void* OXA_AIO_CreateQueueEx(int workers, int callback_mode);
/** OXA_AIO_CreateQueueEx(workers, 1): the queue handle, or (void*)-1. */
OXA_API void* OXA_AsyncIO_CreateQueueEx_New(int workers);
/**
 * OXA_AsyncIO_CreateQueueEx_New((OXA_GetCPUNumber() + 1) * 2): the queue handle, or
 * (void*)-1.
 */
OXA_API void* OXA_AsyncIO_CreateQueueEx2(void);
/**
 * Stops every worker (an idle worker notices at once: it is woken, not polled), waits for
 * them, closes their epoll instances and frees the queue. Sockets still bound stay bound: unbind
 * them first. Returns 0, or -1 for a null or (void*)-1 handle. Must not be called from one of the
 * queue's callbacks.
 */
OXA_API int OXA_AsyncIO_DestroyQueueEx(void* queue);
/**
 * Sets g_max_socket_send_dataMemory, the per-socket limit of queued send data, for every
 * socket from its next send request on. 0, or -1 when bytes is below 1 (nothing changes).
 */
OXA_API int OXA_AsyncIO_SetIOQueueMemorySize(int bytes);

/* ---- Binding ----------------------------------------------------------------------------- */

/**
 * Binds socket fd to the queue's worker number fd % workers: switches fd to non-blocking
 * (the descriptor is not checked otherwise), creates its CSocketOperation and registers fd
 * with the worker's epoll instance for errors and hang-ups. Returns 0, or -1 for a null or
 * (void*)-1 queue, a queue without workers, fd outside 0..65535, or a failed allocation
 * (errno ENOMEM; fd is left non-blocking then). A descriptor that is already bound (to any
 * queue) gives -1, with nothing changed, and the line
 * "OXA_AsyncIO_BindIOHandleToQueueEx, ERROR, socketFd = %d\n" on standard error.
 * Waits for the worker's current batch of events.
 */
OXA_API int OXA_AsyncIO_BindIOHandleToQueueEx(int fd, void* queue);
/**
 * Unbinds socket fd from the queue: removes it from the worker's epoll instance and drops
 * its queued requests without calling their callbacks (their memory is freed). The socket
 * itself stays open. Returns 0, or -1 for a null or (void*)-1 queue, a queue without workers
 * or fd outside 0..65535; -1 and the line
 * "OXA_AsyncIO_UnBindIOHandleEx gSocketOpr[socketFd] = NULL, socketFd = %d\n" on standard
 * error when fd is not bound to this queue. May be called from a callback of the socket.
 * In callback mode 1 a callback runs holding its worker's lock and unbinding takes the lock
 * of the socket's worker: a callback may unbind its own socket or one served by the same
 * worker, but two callbacks on different workers that unbind each other's sockets at the same
 * moment wait for each other for ever.
 */
OXA_API int OXA_AsyncIO_UnBindIOHandleEx(int fd, void* queue);
/** Does nothing and returns 0: callbacks are given with each request. */
OXA_API int OXA_AsyncIO_BindCallBackToIOHandleEx(int fd, OXA_AIO_CALLBACK callback);

/* ---- Requests: 0 when queued; the outcome arrives through the callback ---------------- */

/**
 * Queues a send of len bytes: the data is copied (the caller may reuse its buffer at once)
 * and split into requests of at most 16384 bytes, each completing with its own callback
 * (error 0 and the chunk's length, or errno and the bytes of the chunk sent so far).
 * Returns 0; -1 when fd is outside 0..65535 or not bound; -4 when len is below 1 or data is
 * null; -5 when the socket's pooled send data already exceeds its limit (with the line
 * "over max data memory limit! m_socketFd{%d}\r\n" on standard error); -6 when pooled memory
 * runs out (chunks queued before that stay queued). A chunk that needs several send calls
 * reports once when its last piece goes out and once more, with the then current errno and
 * the chunk's length, at the next writable event, when it is removed.
 */
OXA_API int OXA_AsyncIO_SendEx(int fd, const void* data, int len, void* context,
                               OXA_AIO_CALLBACK callback);
/**
 * As OXA_AsyncIO_SendEx, with the same results, but each chunk is sent with OXA_SendTo to
 * `to`, which is copied (null: no address, for a connected socket).
 */
OXA_API int OXA_AsyncIO_SendToEx(int fd, const void* data, int len, void* context,
                                 const OXA_ADDR_T* to, OXA_AIO_CALLBACK callback);
/**
 * Queues a receive of up to len bytes into buf, which must stay valid until the callback
 * (error 0 and the count received; a closed peer gives 0 bytes with the errno value current
 * at that moment). Returns 0, or -1 when fd is outside 0..65535 or not bound, 3840 receive
 * requests are already queued, or memory runs out; -4, with nothing queued, when len is
 * negative (the bad-length value of the send side). A length of 0 is queued and completes
 * with 0 bytes.
 */
OXA_API int OXA_AsyncIO_RecvEx(int fd, void* buf, int len, void* context,
                               OXA_AIO_CALLBACK callback);
/**
 * As OXA_AsyncIO_RecvEx with OXA_RecvFrom; the sender's address is written into `from`
 * (may be null), which must stay valid until the callback.
 */
OXA_API int OXA_AsyncIO_RecvFromEx(int fd, void* buf, int len, void* context, OXA_ADDR_T* from,
                                   OXA_AIO_CALLBACK callback);
/**
 * Starts a non-blocking connect to `to` at once; its outcome (error 0 or e.g. ECONNREFUSED,
 * 0 bytes) is reported when the socket becomes writable. ignored1 and ignored2 are not used.
 * Returns 0, or -1 when to, context or callback is null, fd is outside 0..65535 or not bound,
 * 3840 send-side requests are queued, memory runs out, or connect fails at once (no callback).
 */
OXA_API int OXA_AsyncIO_ConnectEx(int fd, const OXA_ADDR_T* to, void* ignored1, int ignored2,
                                  void* context, OXA_AIO_CALLBACK callback);
/**
 * Queues an accept on listening socket fd; the callback receives the new descriptor as
 * bytes (a blocking socket, not bound to any queue), and peer (may be null; must stay valid
 * until the callback) its address. Returns -1 when context or callback is null or fd is
 * outside 0..65535; otherwise writes "OXA_AsyncIO_AcceptEx %d\n" (fd) on standard error and
 * returns -1 when fd is not bound, 3840 receive requests are queued or memory runs out, else
 * 0. ignored1 and ignored2 are not used.
 */
OXA_API int OXA_AsyncIO_AcceptEx(int fd, OXA_ADDR_T* peer, void* ignored1, int ignored2,
                                 void* context, OXA_AIO_CALLBACK callback);
/**
 * Calls callback(error, bytes, context) on a new detached thread (2 MiB stack), whatever the
 * queue: queue and key are kept but not used. Returns 0, or -1 for a null callback or when
 * the record or the thread cannot be made (no call then).
 */
OXA_API int OXA_AsyncIO_PostQueuedCompleteStatusEx(void* queue, unsigned long key,
                                                   unsigned long error, unsigned long bytes,
                                                   void* context, OXA_AIO_CALLBACK callback);

/* ---- An earlier interface, kept so that old callers link: each returns -1, does nothing -- */

/** Returns (void*)-1. */
OXA_API void* OXA_AsyncIO_CreateQueue(void);
/** Returns (void*)-1. */
OXA_API void* OXA_AsyncIO_CreateQueueEx(int workers);
/** Returns -1. */
OXA_API int OXA_AsyncIO_DestroyQueue(void* queue);
/** Returns -1. */
OXA_API int OXA_AsyncIO_BindIOHandleToQueue(void* io, void* queue);
/** Returns -1. */
OXA_API int OXA_AsyncIO_BindCallBackToIOHandle(void* io, OXA_AIO_CALLBACK callback);
/** Returns -1. */
OXA_API int OXA_AsyncIO_PostQueuedCompleteStatus(void* queue, unsigned long key,
                                                 unsigned long error, unsigned long bytes,
                                                 void* context);
/** Returns -1. */
OXA_API int OXA_AsyncIO_Send(void* io, void* buf, unsigned long len, void* context);
/** Returns -1. */
OXA_API int OXA_AsyncIO_Recv(void* io, void* buf, unsigned long len, void* context);
/** Returns -1. */
OXA_API int OXA_AsyncIO_SendTo(void* io, void* buf, unsigned long len, void* context,
                               OXA_ADDR_T* to);
/** Returns -1. */
OXA_API int OXA_AsyncIO_RecvFrom(void* io, void* buf, unsigned long len, void* context,
                                 OXA_ADDR_T* from);
/** Returns -1. */
OXA_API int OXA_AsyncIO_WriteFile(void* io, void* buf, unsigned long len, void* context);
/** Returns -1. */
OXA_API int OXA_AsyncIO_ReadFile(void* io, void* buf, unsigned long len, void* context);

#ifdef __cplusplus
}  // extern "C"

/** Changes of a socket's epoll registration (CSocketOperation::ChangeSocketOpr). */
// NOLINTNEXTLINE(bugprone-reserved-identifier): the interface names it so
enum __SOCKET_OPR {
  SOCKET_OPR_ADD = 0,       /**< register for errors and hang-ups only */
  SOCKET_OPR_DEL = 1,       /**< unregister, only if both request queues are empty */
  SOCKET_OPR_ADD_READ = 2,  /**< add EPOLLIN, registering first if needed */
  SOCKET_OPR_DEL_READ = 3,  /**< remove EPOLLIN */
  SOCKET_OPR_ADD_WRITE = 4, /**< add EPOLLOUT, registering first if needed */
  SOCKET_OPR_DEL_WRITE = 5  /**< remove EPOLLOUT */
};

namespace oxa {
namespace internal {
class SocketQueues;
}  // namespace internal
}  // namespace oxa

/**
 * The per-socket engine behind the completion queues: one object per bound descriptor, made
 * and destroyed by binding and unbinding, holding the socket's send-side queue (sends,
 * send-tos, connects) and receive-side queue (receives, receive-froms, accepts), the pooled
 * copies of outgoing data and the socket's epoll registration, which follows the queues:
 * errors and hang-ups from construction, EPOLLIN exactly while receive requests are queued,
 * EPOLLOUT exactly while send-side requests are queued.
 *
 * m_sendMutex[fd] guards the send queue, its record pool, the data pools and the count of
 * pooled bytes; m_recvMutex[fd] guards the receive queue and its record pool; the object's
 * own mutex guards the registration and is always taken last. The Push functions lock their
 * side's mutex themselves; callers (the queue functions) already hold it, which is why those
 * mutexes are recursive.
 */
class OXA_API CSocketOperation {
 public:
  /** Serialises the creation of serial numbers. */
  static OXA_Mutex m_gUuidMutex;
  /** The next serial number; starts at 0. */
  static unsigned int m_gUuid;
  /** One recursive mutex per descriptor for its send side, across all queues and threads. */
  static OXA_Mutex m_sendMutex[65536];
  /** One recursive mutex per descriptor for its receive side. */
  static OXA_Mutex m_recvMutex[65536];

  /**
   * Builds the pools and queues (limit 32 MiB), takes the next serial number, records the
   * creation tick and registers fd with epfd for errors and hang-ups. IsValid() tells
   * whether the pools could be allocated and fd is within 0..65535.
   */
  CSocketOperation(int fd, int epfd);
  /** Drops both queues without calling any callback, unregisters fd and frees the pools. */
  ~CSocketOperation();
  CSocketOperation(const CSocketOperation&) = delete;
  CSocketOperation& operator=(const CSocketOperation&) = delete;

  /**
   * True when construction got its memory and fd is within 0..65535. An invalid object
   * queues nothing: its Push functions fail, its Front functions give null.
   */
  bool IsValid() const;
  /** The socket descriptor given at construction. */
  int GetSocketFd() const;
  /** The owning worker's epoll descriptor given at construction. */
  int GetEpollFd() const;
  /**
   * The serial number; with GetCreateTick the object's identity, which a worker compares
   * before and after a callback to notice that the socket was unbound (and bound again).
   */
  unsigned int GetSerial() const;
  /** The tick (OXA_GetTimeTick, milliseconds) at construction; see GetSerial. */
  unsigned int GetCreateTick() const;

  /**
   * Applies one registration change under the object's mutex: the epoll_ctl result (0, or
   * -1 with errno), 0 for a change that has nothing to do (a SOCKET_OPR_DEL while requests
   * are queued or nothing is registered, or a mask that is already so), -1 for a value
   * outside 0..5 or an invalid object. The stored mask changes only when epoll_ctl
   * succeeded.
   */
  int ChangeSocketOpr(__SOCKET_OPR opr);

  /** The head of the send queue, or null when it is empty; read under m_sendMutex[fd]. */
  IO_DATA* FrontSendRequest();
  /** The head of the receive queue, or null when it is empty; read under m_recvMutex[fd]. */
  IO_DATA* FrontRecvRequest();
  /**
   * Removes the head of the send queue, gives its data block and record back and removes
   * EPOLLOUT when the queue becomes empty. Does nothing when the queue is empty.
   */
  void PopSendRequest();
  /**
   * Removes the head of the receive queue and gives its record back; EPOLLIN goes with the
   * last. Does nothing when the queue is empty.
   */
  void PopRecvRequest();

  /**
   * Copies data into pooled chunks of at most 16384 bytes and queues one request per chunk.
   * 0; -4 for len below 1, null data or a connect without an address; -5 over the
   * send-memory limit (with the line "over max data memory limit! m_socketFd{%d}\r\n" on
   * standard error); -6 for an invalid object or when pooled memory runs out (chunks queued
   * before stay queued). Nothing is queued on -4 and -5.
   */
  int PushSendRequest(OXA_IO_TYPE type, void* data, int len, void* context, OXA_ADDR_T* addr,
                      OXA_AIO_CALLBACK cb);
  /** PushSendRequest(OXA_IO_SEND, data, len, context, null, cb), with its results. */
  int PushTCPSendRequest(void* data, int len, void* context, OXA_AIO_CALLBACK cb);
  /** PushSendRequest(OXA_IO_SENDTO, data, len, context, to, cb), with its results. */
  int PushUDPSendRequest(void* data, int len, void* context, OXA_ADDR_T* to, OXA_AIO_CALLBACK cb);
  /**
   * Starts a non-blocking connect to `to` and queues its completion. 0, or -1 with nothing
   * queued and no callback for a null address, an invalid object, 3840 queued send-side
   * requests, exhausted memory or a connect that fails at once (errno from connect).
   */
  int PushConnectRequest(void* context, OXA_ADDR_T* to, OXA_AIO_CALLBACK cb);
  /**
   * Queues a receive-side request; the buffer is not copied, and for a receive-from or an
   * accept addr is where the address will be written. 0; -4 for len below 0; -1 for an
   * invalid object, 3840 queued receive-side requests or exhausted memory. Nothing is queued
   * on failure.
   */
  int PushRecvRequest(OXA_IO_TYPE type, void* buf, int len, void* context, OXA_ADDR_T* addr,
                      OXA_AIO_CALLBACK cb);
  /** PushRecvRequest(OXA_IO_RECV, buf, len, context, null, cb), with its results. */
  int PushTCPRecvRequest(void* buf, int len, void* context, OXA_AIO_CALLBACK cb);
  /** PushRecvRequest(OXA_IO_RECVFROM, buf, len, context, from, cb), with its results. */
  int PushUDPRecvRequest(void* buf, int len, void* context, OXA_ADDR_T* from, OXA_AIO_CALLBACK cb);
  /** PushRecvRequest(OXA_IO_ACCEPT, null, 0, context, peer, cb): 0 or -1. */
  int PushAcceptRequest(void* context, OXA_ADDR_T* peer, OXA_AIO_CALLBACK cb);

 private:
  OXA_Mutex mutex_;                      // guards events_
  unsigned int events_;                  // current epoll mask; 0 = not registered
  int socket_fd_;                        // the bound socket
  int epoll_fd_;                         // the owning worker's epoll instance
  unsigned int serial_;                  // identity, with create_tick_
  unsigned int create_tick_;             // OXA_GetTimeTick() at construction
  oxa::internal::SocketQueues* queues_;  // pools, queues and counters
};

/**
 * Performs a send-side request for a worker: sends the rest of the data (OXA_Send or
 * OXA_SendTo) or, for a connect, reads the socket's pending error. A partial send advances
 * req->done and returns the new total without a callback. Otherwise the callback runs and the
 * result is the send's result (the size of this last piece), or for a connect 0 on success
 * and -1 on failure. -1 without a callback for a null req or another type. A null callback
 * is skipped. With callback_mode 1 the callback is called directly; otherwise slot_lock (may
 * be null) is released around it.
 */
OXA_API int SendOperation(int callback_mode, pthread_mutex_t* slot_lock, IO_DATA* req);
/**
 * Performs a receive-side request for a worker: OXA_Recv, OXA_RecvFrom or accept. A failure
 * with EAGAIN returns -1 without a callback (the request stays queued); otherwise the
 * callback (unless null) runs with (error, done, context) and the system call's result is
 * returned: the count or the new descriptor when above 0; 0 (a closed peer, or an accept
 * that got descriptor 0) and negative results report the errno value current then. -1
 * without a callback for a null req or another type. The callback runs as in SendOperation.
 */
OXA_API int RecvOperation(int callback_mode, pthread_mutex_t* slot_lock, IO_DATA* req);

class OXA_AsyncIOQueue;

/** A wrapper of the earlier interface; every operation fails with -1. */
class OXA_API OXA_AsyncIO {
 public:
  /** Keeps the handle. */
  explicit OXA_AsyncIO(void* handle);
  /** Does nothing: the handle is not released. */
  // NOLINTNEXTLINE(performance-trivially-destructible): exported, part of the ABI
  ~OXA_AsyncIO();
  OXA_AsyncIO(const OXA_AsyncIO&) = delete;
  OXA_AsyncIO& operator=(const OXA_AsyncIO&) = delete;

  /** -1 for a null callback, else OXA_AsyncIO_BindCallBackToIOHandle's -1. */
  int BindCallBackToIOHandle(void (*callback)(unsigned long, unsigned long, void*));
  /** Does nothing; returns -1 (OXA_AsyncIO_Send's result). */
  int IOSend(void* buf, unsigned long len, void* context);
  /** Does nothing; returns -1 (OXA_AsyncIO_Recv's result). */
  int IORecv(void* buf, unsigned long len, void* context);
  /** Does nothing; returns -1 (OXA_AsyncIO_SendTo's result). */
  int IOSendTo(void* buf, unsigned long len, void* context, OXA_ADDR_T* to);
  /** Does nothing; returns -1 (OXA_AsyncIO_RecvFrom's result). */
  int IORecvFrom(void* buf, unsigned long len, void* context, OXA_ADDR_T* from);
  /** Does nothing; returns -1 (OXA_AsyncIO_WriteFile's result). */
  int IOWriteFile(void* buf, unsigned long len, void* context);
  /** Does nothing; returns -1 (OXA_AsyncIO_ReadFile's result). */
  int IOReadFile(void* buf, unsigned long len, void* context);
  /** Does nothing; returns -1. */
  int BindIOHandleToQueue(OXA_AsyncIOQueue* queue);

 private:
  void* handle_;
};

/** A queue of the earlier interface, which can never be created. */
class OXA_API OXA_AsyncIOQueue {
 public:
  /** The handle starts as 0. */
  OXA_AsyncIOQueue();
  /** Does nothing: call Release first if needed. */
  // NOLINTNEXTLINE(performance-trivially-destructible): exported, part of the ABI
  ~OXA_AsyncIOQueue();
  OXA_AsyncIOQueue(const OXA_AsyncIOQueue&) = delete;
  OXA_AsyncIOQueue& operator=(const OXA_AsyncIOQueue&) = delete;

  /** Stores OXA_AsyncIO_CreateQueue()'s (void*)-1 and returns -1. */
  int Initialize();
  /**
   * Closes the handle as a descriptor unless it is -1 or -2, and returns 0. Note that a
   * queue that was never initialised holds 0, so this closes descriptor 0.
   */
  int Release();
  /** The stored handle: 0, or (void*)-1 after Initialize. */
  void* GetHandle();

 private:
  void* handle_;
};
#endif  // __cplusplus

#endif /* OXA_AIO_H_ */
