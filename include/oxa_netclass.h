/** \file
 * liboxa: object forms of the IPv4 networking functions: an address class with host:port text,
 * a stateless set of socket operations whose waits take a time-out in milliseconds, and
 * byte-order and host-name helpers. C++ only. They call the system directly and report
 * failures by their results with errno as the system left it; nothing is printed.
 */
#ifndef OXA_NETCLASS_H_
#define OXA_NETCLASS_H_

#include "oxa_base.h"

#ifdef __cplusplus

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace oxa {

/** An IPv4 socket address (family, port and address in network order). */
class OXA_API oxa_net_addr {
 public:
  /** Family 2 (AF_INET), port 0, address 0. */
  oxa_net_addr();
  /**
   * Family 2, the port (cut to 16 bits, no range check), and inet_addr(host) when host is
   * not null (address 0 otherwise; text that is no address gives 255.255.255.255).
   */
  oxa_net_addr(int port, const char* host);
  /** A copy of the socket address, whatever its family. */
  explicit oxa_net_addr(const sockaddr_in& addr);
  /** All zero, then parse_url(url): a null url leaves even the family 0. */
  explicit oxa_net_addr(const char* url);
  /** A copy of other's socket address. */
  oxa_net_addr(const oxa_net_addr& other);
  /** Copies other's socket address (self-assignment changes nothing); returns *this. */
  oxa_net_addr& operator=(const oxa_net_addr& other);
  /** Nothing to release. */
  virtual ~oxa_net_addr();

  /** parse_url(url): always 0. */
  int set_addr(const char* url);
  /**
   * Reads "host:port". Sets the family to 2; then, if the text has a ':', the text before the
   * last one becomes the address (inet_addr) when it is longer than 6 characters, and a
   * non-empty text after it becomes the port, read as an unsigned 16-bit number by stream
   * extraction (0 when it does not start with a number, 65535 when it is too large). A host
   * of 6 characters or fewer leaves the address as it was, and text that is no address gives
   * 255.255.255.255. Without ':' only the family changes. Always 0; a null text changes
   * nothing.
   */
  int parse_url(const char* text);
  /**
   * -1 for a port of 65,536 or more (nothing changes); otherwise stores it (a negative port
   * is cut to 16 bits) and returns 0.
   */
  int set_port(int port);
  /**
   * -1 for null (nothing changes); otherwise address = inet_addr(host) and 0. Text that is
   * no address is not refused: it gives 255.255.255.255.
   */
  int set_host(const char* host);
  /**
   * set_port, then set_host unless host is null (a null host keeps the address). Returns 0,
   * or -1 when the port is too large (nothing changes then).
   */
  int set_addr(int port, const char* host);
  /** Copies the whole socket address; 0. */
  int set_addr(sockaddr_in addr);

  /** True for any non-null text: no further check. */
  bool is_valid_ipv4(const char* text) const;
  /** The port in host order. */
  int get_port() const;
  /**
   * The address as a dotted quad, in the system's static buffer (inet_ntoa), which the next
   * call from any thread overwrites.
   */
  const char* get_host() const;
  /** Copies the whole socket address into addr; always 0. */
  int get_addr(sockaddr_in& addr) const;
  /** Copies the IPv4 address (network order) into addr; always 0. */
  int get_addr(in_addr& addr) const;
  /**
   * Writes "host:port" into buffer when length is greater than the text's length, sets length
   * to the text's length (terminator not counted) and returns buffer; null, with buffer
   * and length unchanged, when it does not fit (length must exceed the text's length) or
   * buffer is null or length is 0.
   */
  char* get_addr(char* buffer, int& length) const;

 private:
  sockaddr_in addr_;
};

/** Equal when family, port and address are; the filler bytes are not compared. */
OXA_API bool operator==(const oxa_net_addr& a, const oxa_net_addr& b);
/** The negation of operator==. */
OXA_API bool operator!=(const oxa_net_addr& a, const oxa_net_addr& b);

/**
 * Socket operations on descriptors. Time-outs are milliseconds, -1 meaning no limit (any
 * other negative value counts as 0). Readiness waits use select, so descriptors must lie
 * below FD_SETSIZE; others give -1 with errno EBADF. Failures are -1 with errno as the
 * system (or the member, where stated) set it. No state: usable from any thread.
 */
class OXA_API oxa_sock_utils {
 public:
  static constexpr int kReadable = 64;  /**< readiness bit and is_rdwr mode: readable */
  static constexpr int kWritable = 256; /**< readiness bit and is_rdwr mode: writable */

  /** Nothing to release. */
  virtual ~oxa_sock_utils();

  /** socket(): the new descriptor, or -1 with errno. */
  static int socket(int domain, int type, int protocol);
  /** close(): 0, or -1 with errno. */
  static int closesocket(int fd);
  /** shutdown() (how: SHUT_RD, SHUT_WR or SHUT_RDWR): 0, or -1 with errno. */
  static int shutdown(int fd, int how);
  /** listen(): 0, or -1 with errno. */
  static int listen(int fd, int backlog);
  /** bind() to the IPv4 address: 0, or -1 with errno. */
  static int bind(int fd, const oxa_net_addr& addr);
  /**
   * connect; 0 at once gives 0, any failure other than EINPROGRESS -1 with connect's errno.
   * After EINPROGRESS waits up to ms for writability, then reads SO_ERROR: 0 when the
   * connection stands, -1 otherwise (errno ETIMEDOUT after a time-out, else the wait's or
   * the connection's error). The socket's blocking mode is not changed.
   */
  static int connect(int fd, const oxa_net_addr& addr, int ms);
  /**
   * Waits up to ms for a connection, accepts it (retried after EINTR) and fills peer.
   * Returns the new descriptor, or -1 (errno ETIMEDOUT when none came in time, else the
   * system's) with peer unchanged.
   */
  static int accept(int fd, oxa_net_addr& peer, int ms);
  /**
   * One send after waiting up to ms for writability: the count sent; 0 after a time-out; -1
   * when the wait or the send fails or the send moves nothing (so len 0 gives -1).
   */
  static int send(int fd, const char* data, int len, int ms, int flags = 0);
  /**
   * One recv after waiting up to ms for readability: the count received; 0 after a time-out;
   * -1 on a failure, and also when the peer has closed (recv gave 0).
   */
  static int recv(int fd, char* buffer, int len, int ms, int flags = 0);
  /**
   * Sends until len bytes are out; the waits share one budget of ms. The bytes sent when the
   * budget runs out (possibly 0); len when all went out; -1 on a failed wait or send, or a
   * send that moves nothing (how many bytes went out before is then lost), and -1 with errno
   * EINVAL for a negative len. len 0 gives 0. With a budget each send takes only what fits
   * at once (MSG_DONTWAIT), so blocking sockets keep to it too.
   */
  static int sendn(int fd, const char* data, int len, int ms, int flags = 0);
  /**
   * Receives until len bytes are in, with the results of sendn: the bytes received when the
   * budget runs out, len when all came, -1 on a failure and also when the peer closes first
   * (the bytes already received stay in buffer, uncounted).
   */
  static int recvn(int fd, char* buffer, int len, int ms, int flags = 0);
  /**
   * Waits up to ms for writability (0 after a time-out, -1 when the wait fails), then one
   * sendto to the IPv4 address: the count sent, or -1 with errno.
   */
  static int sendto(int fd, const char* data, int len, const oxa_net_addr& to, int ms,
                    int flags = 0);
  /**
   * Waits up to ms for readability (0 after a time-out, -1 when the wait fails), then one
   * recvfrom: the count, with the sender in from; -1 when it fails or receives nothing (from
   * unchanged).
   */
  static int recvfrom(int fd, char* buffer, int len, oxa_net_addr& from, int ms, int flags = 0);
  /**
   * The local address into local, then the peer's into peer: 0, or -1 with errno when either
   * fails (local is already set when only the peer's address fails, e.g. not connected).
   */
  static int getaddrbyfd(int fd, oxa_net_addr& peer, oxa_net_addr& local);
  /**
   * IP_ADD_MEMBERSHIP of group's address on the interface with interface's address: 0, or -1
   * with errno.
   */
  static int join_multicast_group(int fd, const oxa_net_addr& interface, const oxa_net_addr& group);
  /** IP_DROP_MEMBERSHIP, the reverse of join_multicast_group: 0, or -1 with errno. */
  static int leave_multicast_group(int fd, const oxa_net_addr& interface,
                                   const oxa_net_addr& group);
  /** Sets (on non-zero) or clears O_NONBLOCK, keeping the other flags: 0, or -1 with errno. */
  static int set_nonblock(int fd, int on);
  /** SO_REUSEADDR on (non-zero) or off: 0, or -1 with errno. */
  static int set_reuseaddr(int fd, int on);
  /** SO_LINGER on with 0 seconds, so close resets the connection: 0, or -1 with errno. */
  static int set_tcp_dontlinger(int fd);
  /** TCP_NODELAY on: 0, or -1 with errno. */
  static int set_tcp_nodelay(int fd);
  /** IP_TTL for unicast packets: 0, or -1 with errno. */
  static int set_ttl(int fd, int ttl);
  /**
   * SO_RCVBUF when recv_size >= 0, then SO_SNDBUF when send_size >= 0: 0, or -1 with errno
   * at the first failure (the receive size may already be set when the send size fails).
   */
  static int set_buffsize(int fd, int recv_size, int send_size);
  /** setsockopt() passed through: 0, or -1 with errno. */
  static int set_sock_opt(int fd, int level, int name, const void* value, socklen_t length);
  /** getsockopt() passed through: 0 with *length updated, or -1 with errno. */
  static int get_sock_opt(int fd, int level, int name, void* value, socklen_t* length);
  /** The calling thread's errno. */
  static int get_lasterror();

  /**
   * Waits (tv null: without limit; tv is updated to the time left) until fd is readable (mode
   * 64) and/or writable (256): the ready bits, 0 on a time-out, -1 on an error (errno EBADF
   * for a descriptor outside 0 to FD_SETSIZE - 1). EINTR is retried with the time left.
   */
  static int is_rdwr(int fd, timeval* tv, int mode);
  /** is_rdwr(fd, tv, kReadable): 64 when readable, 0 on a time-out, -1 on an error. */
  static int is_rd(int fd, timeval* tv);
  /** is_rdwr(fd, tv, kWritable): 256 when writable, 0 on a time-out, -1 on an error. */
  static int is_wr(int fd, timeval* tv);
  /**
   * One select on a copy of tv (null: no limit), not retried after EINTR: the caller's
   * time-out is not changed. select's result: the ready count, 0 on a time-out, or -1 with
   * errno.
   */
  static int select_ctime(int n, fd_set* read, fd_set* write, fd_set* except, timeval* tv);
  /**
   * select, repeated after EINTR, on the caller's tv, which is left with the time remaining.
   * The ready count, 0 on a time-out, or -1 with errno.
   */
  static int select_vtime(int n, fd_set* read, fd_set* write, fd_set* except, timeval* tv);
  /**
   * poll, repeated after EINTR with the time left; tv (null: no limit) gets the time left
   * (zero after a time-out). The ready count, 0 on a time-out, or -1 with errno.
   */
  static int poll_vtime(pollfd* fds, nfds_t count, timeval* tv);
};

/** Byte order and host names. */
class OXA_API oxa_net_utils {
 public:
  /** Nothing to release. */
  virtual ~oxa_net_utils();
  /** A 16-bit value from host to network byte order. */
  static unsigned short oxa_htons(unsigned short value);
  /** A 16-bit value from network to host byte order. */
  static unsigned short oxa_ntohs(unsigned short value);
  /** A 32-bit value from host to network byte order. */
  static unsigned int oxa_htonl(unsigned int value);
  /** A 32-bit value from network to host byte order. */
  static unsigned int oxa_ntohl(unsigned int value);
  /**
   * The host name into name (gethostname): 0, or -1 with errno (EINVAL for a null name or a
   * length below 1; ENAMETOOLONG when it does not fit).
   */
  static int get_host_name(char* name, int length);
  /**
   * gethostbyname's record (static, overwritten by the next look-up from any thread), or
   * null for a null name or a failed look-up (h_errno tells why).
   */
  static hostent* get_host_by_name(const char* name);
};

}  // namespace oxa

#endif  // __cplusplus

#endif /* OXA_NETCLASS_H_ */
