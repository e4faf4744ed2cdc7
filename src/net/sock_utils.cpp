// oxa::oxa_sock_utils and oxa::oxa_net_utils: IPv4 socket operations whose waits take a
// time-out in milliseconds (-1: no limit), built directly on the system calls.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "oxa_netclass.h"
#include "oxa_time.h"

#include "frame/errno_util.h"

namespace oxa {

namespace {

using internal::RetryOnEintr;

constexpr int kNoLimit = -1;
constexpr socklen_t kIpv4Length = sizeof(sockaddr_in);

// A wait's time-out: null for no limit, else a timeval that the waits shrink as they go.
class Budget {
 public:
  explicit Budget(int ms) : limited_(ms != kNoLimit) {
    if (limited_) oxa_time_tick::ms2timeval(ms < 0 ? 0 : ms, &tv_);
  }
  timeval* get() { return limited_ ? &tv_ : nullptr; }
  bool used_up() const { return limited_ && tv_.tv_sec == 0 && tv_.tv_usec == 0; }

 private:
  bool limited_;
  timeval tv_{};
};

sockaddr* AsSockaddr(sockaddr_in* addr) { return reinterpret_cast<sockaddr*>(addr); }
const sockaddr* AsSockaddr(const sockaddr_in* addr) {
  return reinterpret_cast<const sockaddr*>(addr);
}

sockaddr_in AddressOf(const oxa_net_addr& addr) {
  sockaddr_in raw;
  addr.get_addr(raw);
  return raw;
}

int SetIntOption(int fd, int level, int name, int value) {
  return ::setsockopt(fd, level, name, &value, sizeof value);
}

int Membership(int fd, int option, const oxa_net_addr& interface, const oxa_net_addr& group) {
  ip_mreq request{};
  group.get_addr(request.imr_multiaddr);
  interface.get_addr(request.imr_interface);
  return ::setsockopt(fd, IPPROTO_IP, option, &request, sizeof request);
}

int64_t NowUs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// The shared loop of sendn and recvn: wait, transfer once, until len bytes have moved or the
// budget is gone. Wait is is_wr or is_rd; Transfer moves up to n bytes at an offset.
template <typename Wait, typename Transfer>
int TransferAll(int len, int ms, Wait wait, Transfer transfer) {
  if (len < 0) {
    errno = EINVAL;
    return -1;
  }
  Budget budget(ms);
  int done = 0;
  while (done < len) {
    const int ready = wait(budget.get());
    if (ready == 0) return done;
    if (ready < 0) return -1;
    const ssize_t moved = transfer(done, len - done);
    if (moved < 1) return -1;
    done += static_cast<int>(moved);
    if (done < len && budget.used_up()) return done;
  }
  return done;
}

}  // namespace

oxa_sock_utils::~oxa_sock_utils() = default;

int oxa_sock_utils::socket(int domain, int type, int protocol) {
  return ::socket(domain, type, protocol);
}
int oxa_sock_utils::closesocket(int fd) { return ::close(fd); }
int oxa_sock_utils::shutdown(int fd, int how) { return ::shutdown(fd, how); }
int oxa_sock_utils::listen(int fd, int backlog) { return ::listen(fd, backlog); }

int oxa_sock_utils::bind(int fd, const oxa_net_addr& addr) {
  const sockaddr_in raw = AddressOf(addr);
  return ::bind(fd, AsSockaddr(&raw), kIpv4Length);
}

int oxa_sock_utils::connect(int fd, const oxa_net_addr& addr, int ms) {
  const sockaddr_in raw = AddressOf(addr);
  if (::connect(fd, AsSockaddr(&raw), kIpv4Length) == 0) return 0;
  if (errno != EINPROGRESS) return -1;
  Budget budget(ms);
  const int ready = is_wr(fd, budget.get());
  if (ready == 0) errno = ETIMEDOUT;
  if (ready <= 0) return -1;
  int error = 0;
  socklen_t length = sizeof error;
  if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return -1;
  if (error == 0) return 0;
  errno = error;
  return -1;
}

int oxa_sock_utils::accept(int fd, oxa_net_addr& peer, int ms) {
  Budget budget(ms);
  const int ready = is_rd(fd, budget.get());
  if (ready == 0) errno = ETIMEDOUT;
  if (ready <= 0) return -1;
  sockaddr_in raw{};
  socklen_t length = kIpv4Length;
  const int client = RetryOnEintr([&] { return ::accept(fd, AsSockaddr(&raw), &length); });
  if (client >= 0) peer.set_addr(raw);
  return client;
}

int oxa_sock_utils::send(int fd, const char* data, int len, int ms, int flags) {
  Budget budget(ms);
  const int ready = is_wr(fd, budget.get());
  if (ready <= 0) return ready;
  const ssize_t sent = ::send(fd, data, static_cast<size_t>(len), flags);
  return sent < 1 ? -1 : static_cast<int>(sent);
}

int oxa_sock_utils::recv(int fd, char* buffer, int len, int ms, int flags) {
  Budget budget(ms);
  const int ready = is_rd(fd, budget.get());
  if (ready <= 0) return ready;
  const ssize_t received = ::recv(fd, buffer, static_cast<size_t>(len), flags);
  return received < 1 ? -1 : static_cast<int>(received);
}

int oxa_sock_utils::sendn(int fd, const char* data, int len, int ms, int flags) {
  // With a budget each send takes only what fits at once, so a blocking socket cannot hold
  // the call beyond the budget; writability was just reported, so some bytes always fit.
  const int send_flags = ms == kNoLimit ? flags : flags | MSG_DONTWAIT;
  return TransferAll(
      len, ms, [fd](timeval* tv) { return is_wr(fd, tv); },
      [&](int offset, int n) {
        return ::send(fd, data + offset, static_cast<size_t>(n), send_flags);
      });
}

int oxa_sock_utils::recvn(int fd, char* buffer, int len, int ms, int flags) {
  return TransferAll(
      len, ms, [fd](timeval* tv) { return is_rd(fd, tv); },
      [&](int offset, int n) {
        return ::recv(fd, buffer + offset, static_cast<size_t>(n), flags);
      });
}

int oxa_sock_utils::sendto(int fd, const char* data, int len, const oxa_net_addr& to, int ms,
                           int flags) {
  Budget budget(ms);
  const int ready = is_wr(fd, budget.get());
  if (ready <= 0) return ready;
  const sockaddr_in raw = AddressOf(to);
  return static_cast<int>(
      ::sendto(fd, data, static_cast<size_t>(len), flags, AsSockaddr(&raw), kIpv4Length));
}

int oxa_sock_utils::recvfrom(int fd, char* buffer, int len, oxa_net_addr& from, int ms, int flags) {
  Budget budget(ms);
  const int ready = is_rd(fd, budget.get());
  if (ready <= 0) return ready;
  sockaddr_in raw{};
  socklen_t length = kIpv4Length;
  const ssize_t received =
      ::recvfrom(fd, buffer, static_cast<size_t>(len), flags, AsSockaddr(&raw), &length);
  if (received < 1) return -1;
  from.set_addr(raw);
  return static_cast<int>(received);
}

int oxa_sock_utils::getaddrbyfd(int fd, oxa_net_addr& peer, oxa_net_addr& local) {
  sockaddr_in raw{};
  socklen_t length = kIpv4Length;
  if (::getsockname(fd, AsSockaddr(&raw), &length) != 0) return -1;
  local.set_addr(raw);
  raw = sockaddr_in{};
  length = kIpv4Length;
  if (::getpeername(fd, AsSockaddr(&raw), &length) != 0) return -1;
  peer.set_addr(raw);
  return 0;
}

int oxa_sock_utils::join_multicast_group(int fd, const oxa_net_addr& interface,
                                         const oxa_net_addr& group) {
  return Membership(fd, IP_ADD_MEMBERSHIP, interface, group);
}

int oxa_sock_utils::leave_multicast_group(int fd, const oxa_net_addr& interface,
                                          const oxa_net_addr& group) {
  return Membership(fd, IP_DROP_MEMBERSHIP, interface, group);
}

int oxa_sock_utils::set_nonblock(int fd, int on) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags == -1) return -1;
  return ::fcntl(fd, F_SETFL, on != 0 ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
}

int oxa_sock_utils::set_reuseaddr(int fd, int on) {
  return SetIntOption(fd, SOL_SOCKET, SO_REUSEADDR, on);
}

int oxa_sock_utils::set_tcp_dontlinger(int fd) {
  const linger reset_on_close{1, 0};
  return ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset_on_close, sizeof reset_on_close);
}

int oxa_sock_utils::set_tcp_nodelay(int fd) {
  return SetIntOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
}

int oxa_sock_utils::set_ttl(int fd, int ttl) { return SetIntOption(fd, IPPROTO_IP, IP_TTL, ttl); }

int oxa_sock_utils::set_buffsize(int fd, int recv_size, int send_size) {
  if (recv_size >= 0 && SetIntOption(fd, SOL_SOCKET, SO_RCVBUF, recv_size) != 0) return -1;
  if (send_size >= 0 && SetIntOption(fd, SOL_SOCKET, SO_SNDBUF, send_size) != 0) return -1;
  return 0;
}

int oxa_sock_utils::set_sock_opt(int fd, int level, int name, const void* value, socklen_t length) {
  return ::setsockopt(fd, level, name, value, length);
}

int oxa_sock_utils::get_sock_opt(int fd, int level, int name, void* value, socklen_t* length) {
  return ::getsockopt(fd, level, name, value, length);
}

int oxa_sock_utils::get_lasterror() { return errno; }

int oxa_sock_utils::is_rdwr(int fd, timeval* tv, int mode) {
  if (fd < 0 || fd >= FD_SETSIZE) {  // an fd_set cannot hold it
    errno = EBADF;
    return -1;
  }
  fd_set read_set, write_set;
  FD_ZERO(&read_set);
  FD_ZERO(&write_set);
  if ((mode & kReadable) != 0) FD_SET(fd, &read_set);
  if ((mode & kWritable) != 0) FD_SET(fd, &write_set);
  const int ready = select_vtime(fd + 1, &read_set, &write_set, nullptr, tv);
  if (ready <= 0) return ready < 0 ? -1 : 0;
  return (FD_ISSET(fd, &read_set) ? kReadable : 0) | (FD_ISSET(fd, &write_set) ? kWritable : 0);
}

int oxa_sock_utils::is_rd(int fd, timeval* tv) { return is_rdwr(fd, tv, kReadable); }
int oxa_sock_utils::is_wr(int fd, timeval* tv) { return is_rdwr(fd, tv, kWritable); }

int oxa_sock_utils::select_ctime(int n, fd_set* read, fd_set* write, fd_set* except, timeval* tv) {
  if (tv == nullptr) return ::select(n, read, write, except, nullptr);
  timeval copy = *tv;
  return ::select(n, read, write, except, &copy);
}

int oxa_sock_utils::select_vtime(int n, fd_set* read, fd_set* write, fd_set* except, timeval* tv) {
  // Linux's select leaves the time remaining in tv, so a retry waits only for the rest.
  return RetryOnEintr([&] { return ::select(n, read, write, except, tv); });
}

int oxa_sock_utils::poll_vtime(pollfd* fds, nfds_t count, timeval* tv) {
  if (tv == nullptr) return ::poll(fds, count, -1);
  for (;;) {
    const int64_t budget_us = static_cast<int64_t>(tv->tv_sec) * 1000000 + tv->tv_usec;
    const int64_t start_us = NowUs();
    const int ready = ::poll(fds, count, static_cast<int>((budget_us + 999) / 1000));
    const int poll_errno = errno;
    if (ready == 0) {
      *tv = timeval{};
      return 0;
    }
    const int64_t left_us = budget_us - (NowUs() - start_us);
    if (left_us > 0) {
      tv->tv_sec = static_cast<time_t>(left_us / 1000000);
      tv->tv_usec = static_cast<suseconds_t>(left_us % 1000000);
    } else {
      *tv = timeval{};
    }
    errno = poll_errno;
    if (ready > 0 || poll_errno != EINTR) return ready;
  }
}

oxa_net_utils::~oxa_net_utils() = default;
unsigned short oxa_net_utils::oxa_htons(unsigned short value) { return htons(value); }
unsigned short oxa_net_utils::oxa_ntohs(unsigned short value) { return ntohs(value); }
unsigned int oxa_net_utils::oxa_htonl(unsigned int value) { return htonl(value); }
unsigned int oxa_net_utils::oxa_ntohl(unsigned int value) { return ntohl(value); }

int oxa_net_utils::get_host_name(char* name, int length) {
  if (name == nullptr || length <= 0) {
    errno = EINVAL;
    return -1;
  }
  return ::gethostname(name, static_cast<size_t>(length));
}

hostent* oxa_net_utils::get_host_by_name(const char* name) {
  if (name == nullptr) return nullptr;
  return ::gethostbyname(name);  // NOLINT(concurrency-mt-unsafe): the documented record
}

}  // namespace oxa
