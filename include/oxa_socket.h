/** \file
 * liboxa: sockets. A thin layer over the system's socket calls: creation with the dual-stack
 * family, binding, accepting and connecting with time-outs, whole-buffer send and receive
 * loops driven by poll, select and poll wrappers, and one function per socket option.
 *
 * Descriptors are the system's integers; -1 is the invalid one. Time-outs are unsigned
 * milliseconds where OXA_INFINITE (all ones) means no limit. Addresses are OXA_ADDR_T records;
 * one goes to the system with length 16 when its family is 2 and 28 otherwise. Results are
 * the system's (0 or -1 as a rule) with errno as the failing call left it. No function takes a
 * lock or touches the last-error slot.
 */
#ifndef OXA_SOCKET_H_
#define OXA_SOCKET_H_

#include <poll.h>
#include <sys/select.h>
#include <sys/time.h>

#include "oxa_addr.h"
#include "oxa_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Creation, binding and connection ----------------------------------------------------- */

/**
 * Creates a socket. af is a family selector: OXA_AF_DEFAULT is replaced by g_Af; 2 and 10 are
 * used as they are; OXA_AF_DUAL creates an IPv6 socket and, when IPV6_V6ONLY reads as set,
 * clears it and prints "set IPV6_V6ONLY ret[%d]\n" (the setsockopt result) on standard output;
 * any other value asks the system for family 0, which fails. The descriptor, or -1 with errno.
 */
OXA_API int OXA_CreateSocket(int af, int type, int protocol);
/** The system's shutdown (how: SHUT_RD, SHUT_WR or SHUT_RDWR): 0, or -1 with errno. */
OXA_API int OXA_ShutDown(int fd, int how);
/**
 * Closes the socket, shutting both directions down first when shutdown_first is non-zero (a
 * failed shutdown is ignored). The result of close: 0, or -1 with errno.
 */
OXA_API int OXA_CloseSocket(int fd, int shutdown_first);
/**
 * bind with the length for the record's family: 0, or -1 with errno; -1 for a null addr
 * (errno untouched).
 */
OXA_API int OXA_Bind(int fd, const OXA_ADDR_T* addr);
/** The system's listen: 0, or -1 with errno. */
OXA_API int OXA_Listen(int fd, int backlog);
/**
 * Accepts a connection. With a finite time-out it first waits for POLLRDNORM (OXA_PollEx); a
 * time-out, a poll error or readiness without POLLRDNORM gives -1 (errno is not set for the
 * time-out). A negative fd gives -1 with EBADF at once. peer (may be null) receives the
 * peer's address, and is written only on success. The new descriptor (blocking, inherited
 * across exec), or -1 with errno from the system.
 */
OXA_API int OXA_Accept(int fd, OXA_ADDR_T* peer, unsigned int timeout_ms);
/**
 * Connects. -1 for a null addr. With OXA_INFINITE: a plain blocking connect whose address length
 * is 16 whatever the family, so IPv6 needs a finite time-out. Otherwise the socket is made
 * non-blocking and connect is called: an immediate success returns 0 and an immediate failure
 * (other than EINPROGRESS) -1, both leaving the socket non-blocking. Else the call waits for
 * POLLWRNORM up to timeout_ms and reads SO_ERROR; the socket is switched back to blocking (even
 * when it was non-blocking before) and the result is 0, or -1 with errno the pending socket
 * error, the poll's error, or ETIMEDOUT (time-out, or readiness without POLLWRNORM, as for a
 * refused connection).
 */
OXA_API int OXA_ConnectWithTimeOut(int fd, const OXA_ADDR_T* addr, unsigned int timeout_ms);
/**
 * Sets (on non-zero) or clears O_NONBLOCK by reading and then writing the flags; the other
 * flags are kept. 0, or -1 with errno.
 */
OXA_API int OXA_SetNonBlock(int fd, int on);

/* ---- Data transfer ------------------------------------------------------------------------ */

/**
 * One send with MSG_NOSIGNAL: writing to a closed connection gives EPIPE, not a signal. The
 * bytes sent, or -1 with errno (EINVAL for a negative len, with nothing sent).
 */
OXA_API int OXA_Send(int fd, const void* buf, int len);
/**
 * Sends the whole buffer: waits for POLLWRNORM and sends the rest, again and again, until all is
 * out, a send fails (or sends nothing), the poll fails, or the time-out (shared by the waits) is
 * used up. Each send takes only what fits at once (MSG_DONTWAIT, MSG_NOSIGNAL), so a blocking
 * socket keeps to the time-out too. The bytes sent when any were; otherwise -1 when the last
 * poll failed and 0 otherwise (so a send error before any byte went out gives 0). A time-out of
 * 0 polls and sends once. len 0 gives 0; -1 at once with EBADF for a negative fd or EINVAL for
 * a negative len.
 */
OXA_API int OXA_Sendn(int fd, const void* buf, int len, unsigned int timeout_ms);
/**
 * One recv with no flags: the bytes received, 0 when the peer has closed, or -1 with errno
 * (EINVAL for a negative len, with nothing received).
 */
OXA_API int OXA_Recv(int fd, void* buf, int len);
/**
 * One wait for POLLRDNORM, then one receive. The bytes received; 0 when the time-out passed;
 * -1 on a poll error, readiness without POLLRDNORM, a closed peer (receive of 0, so len 0
 * gives -1 too) or an error, with errno from the system; -1 at once with EBADF for a negative
 * fd or EINVAL for a negative len.
 */
OXA_API int OXA_RecvWithTimeOut(int fd, void* buf, int len, unsigned int timeout_ms);
/**
 * Receives exactly len bytes: waits for POLLRDNORM and receives the rest until len bytes are in
 * (returns len) or the time-out, shared by the waits, is used up (returns the bytes received,
 * fewer than len). -1 on a poll error, readiness without POLLRDNORM, a closed peer or a receive
 * error; bytes already received are then not reported (they stay in buf). len 0 gives 0; -1 at
 * once with EBADF for a negative fd or EINVAL for a negative len.
 */
OXA_API int OXA_Recvn(int fd, void* buf, int len, unsigned int timeout_ms);
/** sendto with no flags (no MSG_NOSIGNAL) and the length for the record's family; a null
 *  record sends to the connected peer. The bytes sent, or -1 with errno (EINVAL for a
 *  negative len). */
OXA_API int OXA_SendTo(int fd, const void* buf, int len, const OXA_ADDR_T* to);
/**
 * recvfrom with no flags; from (may be null) receives the sender's address, cleared first and
 * written only on success. The bytes received, or -1 with errno (EINVAL for a negative len).
 */
OXA_API int OXA_RecvFrom(int fd, void* buf, int len, OXA_ADDR_T* from);
/** The system's ioctl: its result, -1 with errno on failure. */
OXA_API int OXA_Ioctl(int fd, int request, unsigned long arg);

/* ---- Waiting on several descriptors ------------------------------------------------------- */

/** 1 if the bit of fd is set in set (32-bit word fd/32, bit fd mod 32), else 0 (also for a null
 *  set or fd outside 0 to FD_SETSIZE - 1). */
OXA_API int OXA_FdIsSet(int fd, fd_set* set);
/** select on a private copy of the time-out: the caller's value never changes. A null time-out
 *  waits for ever. The ready count, 0 on a time-out, or -1 with errno (EINTR not retried). */
OXA_API int OXA_Select(int nfds, fd_set* r, fd_set* w, fd_set* e, struct timeval* timeout);
/**
 * select with the caller's own time-out, which the system may change (Linux leaves the time
 * remaining in it). The ready count, 0 on a time-out, or -1 with errno (EINTR not retried).
 */
OXA_API int OXA_SelectEx(int nfds, fd_set* r, fd_set* w, fd_set* e, struct timeval* timeout);
/**
 * The system's poll: the ready count, 0 on a time-out, or -1 with errno (EINTR not retried);
 * -1 with EINVAL for a negative n.
 */
OXA_API int OXA_Poll(struct pollfd* fds, int n, int timeout_ms);
/**
 * poll that survives signals. With a null pointer or *timeout_ms of OXA_INFINITE it polls without
 * limit, retrying after EINTR, and writes nothing. Otherwise an interrupted poll runs again with
 * what is left of the time (while at least 1 ms is left), and *timeout_ms receives the time left
 * after the last poll (0 when used up). The result of the last poll: the ready count, 0 on a
 * time-out, -1 with errno; after interruptions that used up the time, -1 with errno EINTR. -1 with
 * EINVAL for a negative n, with nothing written.
 */
OXA_API int OXA_PollEx(struct pollfd* fds, int n, unsigned int* timeout_ms);

/** \name Socket options
 * Each returns the system's result, 0 or -1 with errno, unless stated.
 */
/**@{*/

/** Sets IP_TTL: 0, or -1 with errno. */
OXA_API int OXA_SetTTL(int fd, int ttl);
/**
 * Reads IP_TTL into *ttl: 0, or -1 with errno. -1 for a null pointer without calling the system
 * (errno untouched). The same holds for every getter below.
 */
OXA_API int OXA_GetTTL(int fd, int* ttl);
/** Sets IPV6_UNICAST_HOPS: 0, or -1 with errno. */
OXA_API int OXA_SetTTL_V6(int fd, int hops);
/** Reads IPV6_UNICAST_HOPS into *hops: 0, or -1 with errno; -1 for a null pointer. */
OXA_API int OXA_GetTTL_V6(int fd, int* hops);
/** Sets IP_MULTICAST_TTL: 0, or -1 with errno. */
OXA_API int OXA_SetMultiCastTTL(int fd, int ttl);
/** Sets IPV6_MULTICAST_HOPS: 0, or -1 with errno. */
OXA_API int OXA_SetMultiCastHopsV6(int fd, int hops);
/** Another name of OXA_SetMultiCastHopsV6: sets IPV6_MULTICAST_HOPS; 0, or -1 with errno. */
OXA_API int OXA_SetMultiCastTTL_V6(int fd, int hops);
/** Sets IPV6_MULTICAST_LOOP (on: 1 or 0): 0, or -1 with errno. */
OXA_API int OXA_SetMultiCastLoopV6(int fd, int on);
/** Sets IP_TOS: 0, or -1 with errno. */
OXA_API int OXA_SetTOS(int fd, int tos);
/** Reads IP_TOS into *tos: 0, or -1 with errno; -1 for a null pointer. */
OXA_API int OXA_GetTOS(int fd, int* tos);
/** Sets SO_REUSEADDR (on non-zero) or clears it: 0, or -1 with errno. */
OXA_API int OXA_SetReuseAddr(int fd, int on);
/** Sets TCP_NODELAY (on non-zero) or clears it: 0, or -1 with errno. */
OXA_API int OXA_SetNoDelay(int fd, int on);
/** SO_BROADCAST, always switched on: 0, or -1 with errno. */
OXA_API int OXA_BroadCast(int fd);
/** SO_LINGER on with the given seconds: 0, or -1 with errno. */
OXA_API int OXA_LingerOn(int fd, int seconds);
/** SO_LINGER off: 0, or -1 with errno. */
OXA_API int OXA_LingerOff(int fd);
/**
 * SO_RCVTIMEO (first) and SO_SNDTIMEO; 0 leaves a direction unchanged. Each value becomes
 * seconds ms/1000 and microseconds ms%1000, unscaled: 1500 ms is 1 s and 500 us. 0 when every
 * option set succeeded (and when both values are 0), else -1.
 */
OXA_API int OXA_SetTimeOut(int fd, int send_ms, int recv_ms);
/**
 * SO_RCVBUF (first) and SO_SNDBUF; 0 leaves a size unchanged, and both are tried even when the
 * first fails. 0, or -1 if any set failed.
 */
OXA_API int OXA_SetBuffSize(int fd, int send_size, int recv_size);
/** Reads SO_RCVBUF and SO_SNDBUF into the non-null pointers; 0 (also when both are null), or -1
 *  if any read failed. */
OXA_API int OXA_GetBuffSize(int fd, int* send_size, int* recv_size);
/**
 * SO_KEEPALIVE on when enable is non-null and off otherwise; then, either way, TCP_KEEPIDLE
 * idle_seconds, TCP_KEEPINTVL 10 seconds and TCP_KEEPCNT 2 probes. 0, or -1 at the first failure.
 */
OXA_API int OXA_SetTCP_KeepAlive(int fd, void* enable, int idle_seconds);
/**
 * SO_BINDTODEVICE with at most the first 15 characters of ifname (an empty name removes the
 * binding). -1 for a null name (errno untouched).
 */
OXA_API int OXA_Bind_ToDevice(int fd, const char* ifname);
/**
 * Joins a multicast group. -1 (errno untouched) for a null record, local included, or a group
 * family other than 2 and 10; otherwise setsockopt's 0, or -1 with errno.
 * Family 2: IP_ADD_MEMBERSHIP with the group address and, as interface, local's IPv4 address.
 * Family 10: IPV6_ADD_MEMBERSHIP with the group address and, as interface index, the group
 * record's flow-information field (0 in records the library builds: the system picks); local is
 * not read.
 */
OXA_API int OXA_JoinMultiCastGroup(int fd, const OXA_ADDR_T* local, const OXA_ADDR_T* group);
/** Leaves a multicast group: as OXA_JoinMultiCastGroup with IP(V6)_DROP_MEMBERSHIP. */
OXA_API int OXA_LeaveMultiCastGroup(int fd, const OXA_ADDR_T* local, const OXA_ADDR_T* group);
/**@}*/

#ifdef __cplusplus
}  // extern "C"

/** The network module's start: ignores SIGPIPE (sigaction, SIG_IGN). Always 0. */
OXA_API int OXA_InitNetwork_Inter();
/** The network module's stop: nothing to do. Always 0. */
OXA_API int OXA_FiniNetwork_Inter();
#endif  // __cplusplus

#endif /* OXA_SOCKET_H_ */
