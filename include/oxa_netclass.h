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
  /** Family 2, the port (cut to 16 bits), and inet_addr(host) when host is not null. */
  oxa_net_addr(int port, const char* host);
  explicit oxa_net_addr(const sockaddr_in& addr);
  /** All zero, then parse_url(url): a null url leaves even the family 0. */
  explicit oxa_net_addr(const char* url);
  oxa_net_addr(const oxa_net_addr& other);
  oxa_net_addr& operator=(const oxa_net_addr& other);
  virtual ~oxa_net_addr();

  /** parse_url(url). */
  int set_addr(const char* url);
  /**
   * Reads "host:port". Sets the family to 2; then, if the text has a ':', the text before the
   * last one becomes the address (inet_addr) when it is longer than 6 characters, and a
   * non-empty text after it becomes the port, read as an unsigned 16-bit number by stream
   * extraction (0 when it does not start with a number). Without ':' only the family changes.
   * Always 0; a null text changes nothing.
   */
  int parse_url(const char* text);
  /** -1 for a port of 65,536 or more (nothing changes); otherwise stores it, 0. */
  int set_port(int port);
  /** -1 for null; otherwise address = inet_addr(host), 0. */
  int set_host(const char* host);
  /** set_port (-1 when too large), then set_host unless host is null; 0. */
  int set_addr(int port, const char* host);
  /** Copies the whole socket address; 0. */
  int set_addr(sockaddr_in addr);

  /** True for any non-null text: no further check. */
  bool is_valid_ipv4(const char* text) const;
  /** The port in host order. */
  int get_port() const;
  /** The address as a dotted quad, in the system's static buffer (inet_ntoa). */
  const char* get_host() const;
  int get_addr(sockaddr_in& addr) const;
  int get_addr(in_addr& addr) const;
  /**
   * Writes "host:port" into buffer when length is greater than the text's length, sets length
   * to the text's length and returns buffer; null (length unchanged) when it does not fit or
   * buffer is null or length is 0.
   */
  char* get_addr(char* buffer, int& length) const;

 private:
  sockaddr_in addr_;
};

/** Equal when family, port and address are. */
OXA_API bool operator==(const oxa_net_addr& a, const oxa_net_addr& b);
OXA_API bool operator!=(const oxa_net_addr& a, const oxa_net_addr& b);

/**
 * Socket operations on descriptors. Time-outs are milliseconds, -1 meaning no limit.
 * Readiness waits use select, so descriptors must lie below FD_SETSIZE; others give -1 with
 * errno EBADF.
 */
class OXA_API oxa_sock_utils {
 public:
  /** Readiness bits, also the mode of is_rdwr. */
  static constexpr int kReadable = 64;
  static constexpr int kWritable = 256;

  virtual ~oxa_sock_utils();

  static int socket(int domain, int type, int protocol);
  static int closesocket(int fd);
  static int shutdown(int fd, int how);
  static int listen(int fd, int backlog);
  static int bind(int fd, const oxa_net_addr& addr);
  /**
   * connect; 0 at once gives 0. After EINPROGRESS waits up to ms for writability, then
   * reads SO_ERROR: 0 when the connection stands, -1 otherwise (errno ETIMEDOUT after a
   * time-out). The socket's blocking mode is not changed.
   */
  static int connect(int fd, const oxa_net_addr& addr, int ms);
  /**
   * Waits up to ms for a connection (errno ETIMEDOUT when none came), accepts it and fills
   * peer: the new descriptor or -1.
   */
  static int accept(int fd, oxa_net_addr& peer, int ms);
  /** One send after waiting up to ms: the count; 0 after a time-out; -1 on failure. */
  static int send(int fd, const char* data, int len, int ms, int flags = 0);
  /** One recv after waiting up to ms: the count; 0 after a time-out; -1 on failure or EOF. */
  static int recv(int fd, char* buffer, int len, int ms, int flags = 0);
  /**
   * Sends until len bytes are out; the waits share one budget of ms. The bytes sent when the
   * budget runs out (possibly 0); -1 on a failure. len 0 gives 0. With a budget each send
   * takes only what fits at once (MSG_DONTWAIT), so blocking sockets keep to it too.
   */
  static int sendn(int fd, const char* data, int len, int ms, int flags = 0);
  /** Receives until len bytes are in, as sendn; -1 when the peer closes first. */
  static int recvn(int fd, char* buffer, int len, int ms, int flags = 0);
  /** Waits up to ms (else the wait's result, 0 or -1), then sendto's result. */
  static int sendto(int fd, const char* data, int len, const oxa_net_addr& to, int ms,
                    int flags = 0);
  /** Waits up to ms (else the wait's result), then recvfrom: the count and from, or -1. */
  static int recvfrom(int fd, char* buffer, int len, oxa_net_addr& from, int ms, int flags = 0);
  /** The local address into local, the peer's into peer: 0, or -1 when either fails. */
  static int getaddrbyfd(int fd, oxa_net_addr& peer, oxa_net_addr& local);
  /** IP_ADD_MEMBERSHIP of group's address on the interface with interface's address. */
  static int join_multicast_group(int fd, const oxa_net_addr& interface, const oxa_net_addr& group);
  static int leave_multicast_group(int fd, const oxa_net_addr& interface,
                                   const oxa_net_addr& group);
  static int set_nonblock(int fd, int on);
  static int set_reuseaddr(int fd, int on);
  /** SO_LINGER on with 0 seconds: close resets the connection. */
  static int set_tcp_dontlinger(int fd);
  static int set_tcp_nodelay(int fd);
  static int set_ttl(int fd, int ttl);
  /** SO_RCVBUF when recv_size >= 0, then SO_SNDBUF when send_size >= 0: 0, or -1. */
  static int set_buffsize(int fd, int recv_size, int send_size);
  static int set_sock_opt(int fd, int level, int name, const void* value, socklen_t length);
  static int get_sock_opt(int fd, int level, int name, void* value, socklen_t* length);
  /** errno. */
  static int get_lasterror();

  /**
   * Waits (tv null: without limit; tv is updated to the time left) until fd is readable (mode
   * 64) and/or writable (256): the ready bits, 0 on a time-out, -1 on an error.
   */
  static int is_rdwr(int fd, timeval* tv, int mode);
  static int is_rd(int fd, timeval* tv);
  static int is_wr(int fd, timeval* tv);
  /** One select on a copy of tv: the caller's time-out is not changed. */
  static int select_ctime(int n, fd_set* read, fd_set* write, fd_set* except, timeval* tv);
  /** select, repeated after EINTR, on the caller's tv, which is left with the time remaining. */
  static int select_vtime(int n, fd_set* read, fd_set* write, fd_set* except, timeval* tv);
  /** poll, repeated after EINTR with the time left; tv (null: no limit) gets the time left. */
  static int poll_vtime(pollfd* fds, nfds_t count, timeval* tv);
};

/** Byte order and host names. */
class OXA_API oxa_net_utils {
 public:
  virtual ~oxa_net_utils();
  static unsigned short oxa_htons(unsigned short value);
  static unsigned short oxa_ntohs(unsigned short value);
  static unsigned int oxa_htonl(unsigned int value);
  static unsigned int oxa_ntohl(unsigned int value);
  /** gethostname's result. */
  static int get_host_name(char* name, int length);
  /** gethostbyname's record (static, not reentrant), or null. */
  static hostent* get_host_by_name(const char* name);
};

}  // namespace oxa

#endif  // __cplusplus

#endif /* OXA_NETCLASS_H_ */
