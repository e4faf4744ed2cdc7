// Sockets over loopback: families and dual stack, accept and connect time-outs, whole-buffer
// transfer, datagrams, the poll and select wrappers, and socket options read back.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <utility>
#include <vector>

#include "oxa_addr.h"
#include "oxa_socket.h"

#include "support/loopback.h"
#include "support/test_support.h"

namespace {

using oxa_test::kHangGuardMs;
using oxa_test::Stopwatch;
using std::chrono::milliseconds;

using oxa_test::BoundLoopback;
using oxa_test::ConnectedPair;
using oxa_test::Ipv6LoopbackAvailable;
using oxa_test::TcpPair;
using oxa_test::UniqueFd;

int ReadInt(int fd, int level, int option) {
  int value = -12345;
  socklen_t len = sizeof value;
  getsockopt(fd, level, option, &value, &len);
  return value;
}

TEST(CreateSocket, FamilySelectorsAndDualStackWithItsConnectQuirk) {
  UniqueFd by_default(OXA_CreateSocket(OXA_AF_DEFAULT, SOCK_DGRAM, 0));
  EXPECT_EQ(AF_INET, ReadInt(by_default.get(), SOL_SOCKET, SO_DOMAIN)) << "g_Af starts as IPv4";
  errno = 0;
  EXPECT_EQ(-1, OXA_CreateSocket(7, SOCK_STREAM, 0));
  EXPECT_EQ(EAFNOSUPPORT, errno);

  if (!Ipv6LoopbackAvailable()) GTEST_SKIP() << "no IPv6 on this host";
  oxa_test::DefaultFamilyRestorer restore;
  g_Af = OXA_AF_DUAL;
  UniqueFd listener(OXA_CreateSocket(OXA_AF_DEFAULT, SOCK_STREAM, 0));
  ASSERT_EQ(AF_INET6, ReadInt(listener.get(), SOL_SOCKET, SO_DOMAIN));
  EXPECT_EQ(0, ReadInt(listener.get(), IPPROTO_IPV6, IPV6_V6ONLY));
  OXA_ADDR_T addr;
  ASSERT_EQ(0, OXA_MakeAddrByString(OXA_AF_DUAL, nullptr, 0, &addr));
  ASSERT_EQ(0, OXA_Bind(listener.get(), &addr));
  ASSERT_EQ(0, OXA_Listen(listener.get(), 4));
  ASSERT_EQ(0, OXA_GetAddrBySockFd(listener.get(), &addr, nullptr));
  const unsigned short port = OXA_GetAddrPort(&addr);
  ASSERT_EQ(0, OXA_MakeAddrByString(AF_INET, "127.0.0.1", port, &addr));
  UniqueFd client(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(0, OXA_ConnectWithTimeOut(client.get(), &addr, kHangGuardMs));
  UniqueFd server(OXA_Accept(listener.get(), &addr, kHangGuardMs));
  ASSERT_GE(server.get(), 0);
  EXPECT_EQ(AF_INET6, OXA_GetAddrType(&addr));
  EXPECT_STREQ("127.0.0.1", OXA_GetAddrString(&addr)) << "an IPv4-mapped peer prints its quad";

  // Connecting without a time limit hands over the IPv4 address length, which an IPv6 socket
  // refuses: IPv6 needs a finite time-out.
  ASSERT_EQ(0, OXA_MakeAddrByString(AF_INET6, "::1", port, &addr));
  UniqueFd blocking(OXA_CreateSocket(AF_INET6, SOCK_STREAM, 0));
  errno = 0;
  EXPECT_EQ(-1, OXA_ConnectWithTimeOut(blocking.get(), &addr, OXA_INFINITE));
  EXPECT_EQ(EINVAL, errno);
  UniqueFd timed(OXA_CreateSocket(AF_INET6, SOCK_STREAM, 0));
  EXPECT_EQ(0, OXA_ConnectWithTimeOut(timed.get(), &addr, kHangGuardMs));
}

TEST(Accept, TimesOutThenFillsThePeerRecord) {
  OXA_ADDR_T addr;
  UniqueFd listener(BoundLoopback(AF_INET, SOCK_STREAM, &addr));
  ASSERT_GE(listener.get(), 0);
  Stopwatch watch;
  EXPECT_EQ(-1, OXA_Accept(listener.get(), nullptr, 100));
  EXPECT_GE(watch.Elapsed(), milliseconds(99));
  EXPECT_LT(watch.Elapsed(), milliseconds(kHangGuardMs));
  UniqueFd client(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(0, OXA_ConnectWithTimeOut(client.get(), &addr, OXA_INFINITE));
  OXA_ADDR_T peer;
  memset(&peer, 0xAB, sizeof peer);
  UniqueFd server(OXA_Accept(listener.get(), &peer, OXA_INFINITE));
  ASSERT_EQ(0, OXA_GetAddrBySockFd(client.get(), &addr, nullptr));
  EXPECT_EQ(0, memcmp(&addr, &peer, sizeof peer)) << "cleared before it is filled";
}

TEST(ConnectWithTimeOut, RefusedOrUnansweredConnectionsFail) {
  OXA_ADDR_T addr;
  UniqueFd closed(BoundLoopback(AF_INET, SOCK_DGRAM, &addr));  // holds the port, no listener
  UniqueFd client(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  errno = 0;
  EXPECT_EQ(-1, OXA_ConnectWithTimeOut(client.get(), &addr, kHangGuardMs));
  EXPECT_TRUE(errno == ECONNREFUSED || errno == ETIMEDOUT) << errno;
  EXPECT_EQ(-1, OXA_ConnectWithTimeOut(client.get(), nullptr, kHangGuardMs));

  // A listener whose accept queue is full drops further handshakes: those never answer.
  UniqueFd listener(BoundLoopback(AF_INET, SOCK_STREAM, &addr, 0));
  ASSERT_GE(listener.get(), 0);
  UniqueFd clients[8];
  bool timed_out = false;
  for (int i = 0; i < 8 && !timed_out; ++i) {
    clients[i] = UniqueFd(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
    Stopwatch watch;
    if (OXA_ConnectWithTimeOut(clients[i].get(), &addr, 200) == 0) continue;
    timed_out = true;
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_GE(watch.Elapsed(), milliseconds(199));
    EXPECT_EQ(0, fcntl(clients[i].get(), F_GETFL) & O_NONBLOCK) << "switched back to blocking";
  }
  EXPECT_TRUE(timed_out);
}

TEST(SendnRecvn, MoveALargeBufferWhole) {
  TcpPair pair = ConnectedPair();
  ASSERT_TRUE(pair.client && pair.server);
  const std::vector<char> out = oxa_test::Pattern(3, 2 << 20);
  std::vector<char> in(out.size());
  const int size = static_cast<int>(out.size());
  auto received = std::async(std::launch::async, [&] {
    return OXA_Recvn(pair.server.get(), in.data(), size, 4 * kHangGuardMs);
  });
  EXPECT_EQ(size, OXA_Sendn(pair.client.get(), out.data(), size, 4 * kHangGuardMs));
  EXPECT_EQ(size, received.get());
  EXPECT_TRUE(out == in);
}

TEST(Receive, TimeOutsClosedPeersAndClosing) {
  TcpPair pair = ConnectedPair();
  ASSERT_TRUE(pair.client && pair.server);
  char buf[100];
  Stopwatch watch;
  EXPECT_EQ(0, OXA_RecvWithTimeOut(pair.server.get(), buf, sizeof buf, 100));
  EXPECT_GE(watch.Elapsed(), milliseconds(99));
  ASSERT_EQ(3, OXA_Send(pair.client.get(), "abc", 3));
  EXPECT_EQ(3, OXA_RecvWithTimeOut(pair.server.get(), buf, sizeof buf, kHangGuardMs));
  // Recvn returns what arrived when the time runs out, and -1 when the peer closes first.
  ASSERT_EQ(10, OXA_Send(pair.client.get(), "0123456789", 10));
  Stopwatch recvn_watch;
  EXPECT_EQ(10, OXA_Recvn(pair.server.get(), buf, sizeof buf, 100));
  EXPECT_GE(recvn_watch.Elapsed(), milliseconds(99));
  ASSERT_EQ(10, OXA_Send(pair.client.get(), "0123456789", 10));
  EXPECT_EQ(0, OXA_CloseSocket(pair.client.Release(), 1));
  EXPECT_EQ(-1, OXA_Recvn(pair.server.get(), buf, sizeof buf, kHangGuardMs));
  EXPECT_EQ(-1, OXA_RecvWithTimeOut(pair.server.get(), buf, sizeof buf, kHangGuardMs));
  EXPECT_EQ(0, OXA_CloseSocket(pair.server.Release(), 0));
  EXPECT_EQ(-1, OXA_CloseSocket(-1, 1));
}

TEST(Sendn, TimeOutZeroSendsAtMostOnce) {
  TcpPair pair = ConnectedPair();
  ASSERT_TRUE(pair.client && pair.server);
  ASSERT_EQ(0, OXA_SetNonBlock(pair.client.get(), 1));
  std::vector<char> big(16 << 20);
  const int sent = OXA_Sendn(pair.client.get(), big.data(), static_cast<int>(big.size()), 0);
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, static_cast<int>(big.size())) << "the peer reads nothing: buffers fill";
  // Buffers full: nothing goes out in time, and that is not an error.
  Stopwatch watch;
  EXPECT_EQ(0, OXA_Sendn(pair.client.get(), big.data(), static_cast<int>(big.size()), 100));
  EXPECT_GE(watch.Elapsed(), milliseconds(99));
}

// Writing to a closed connection must not raise SIGPIPE, even before the module's start has
// ignored it.
TEST(Sendn, ClosedPeerGivesZeroAndNoSignal) {
  signal(SIGPIPE, SIG_DFL);
  TcpPair pair = ConnectedPair();
  ASSERT_TRUE(pair.client && pair.server);
  pair.server.Reset();
  for (int i = 0; i < 100 && OXA_Send(pair.client.get(), "x", 1) == 1; ++i) {
  }
  EXPECT_EQ(-1, OXA_Send(pair.client.get(), "x", 1));
  EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET) << errno;
  EXPECT_EQ(0, OXA_Sendn(pair.client.get(), "abc", 3, kHangGuardMs));
  EXPECT_EQ(0, OXA_InitNetwork_Inter());
  struct sigaction current {};
  sigaction(SIGPIPE, nullptr, &current);
  EXPECT_EQ(SIG_IGN, current.sa_handler);
  EXPECT_EQ(0, OXA_FiniNetwork_Inter());
}

// A blocking socket (as OXA_ConnectWithTimeOut leaves it) whose peer reads nothing: each step
// sends only what fits, so the budget holds instead of one send blocking until the peer goes.
TEST(Sendn, BudgetHoldsOnABlockingSocket) {
  TcpPair pair = ConnectedPair();
  ASSERT_TRUE(pair.client && pair.server);
  std::vector<char> big(16 << 20);
  const int size = static_cast<int>(big.size());
  Stopwatch watch;
  auto sending = std::async(std::launch::async,
                            [&] { return OXA_Sendn(pair.client.get(), big.data(), size, 200); });
  const bool in_time = sending.wait_for(milliseconds(kHangGuardMs)) == std::future_status::ready;
  if (!in_time) pair.server.Reset();  // unblocks the send, so the test ends
  ASSERT_TRUE(in_time) << "blocked past its 200 ms budget";
  const int sent = sending.get();
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, size);
  EXPECT_GE(watch.Elapsed().count(), 199);
}

// A negative length is refused before the buffer or the socket is touched; a zero length asks
// for nothing and is answered at once. poll ignores negative descriptors, so without a check
// calls on one would wait for ever.
TEST(Transfer, NegativeLengthsAreRefusedAndZeroAsksForNothing) {
  TcpPair pair = ConnectedPair();
  ASSERT_TRUE(pair.client && pair.server);
  const int server = pair.server.get();
  const int client = pair.client.get();
  ASSERT_EQ(4, OXA_Send(client, "abcd", 4));
  std::vector<char> canary(64, 'Z');
  char* buf = canary.data() + 8;
  const auto refused = [](int result) { return result == -1 && errno == EINVAL; };
  EXPECT_TRUE(refused(OXA_Recvn(server, buf, -1, kHangGuardMs)));
  EXPECT_TRUE(refused(OXA_RecvWithTimeOut(server, buf, -1, kHangGuardMs)));
  EXPECT_TRUE(refused(OXA_Recv(server, buf, -1)));
  EXPECT_TRUE(refused(OXA_RecvFrom(server, buf, -1, nullptr)));
  EXPECT_EQ(std::vector<char>(64, 'Z'), canary) << "nothing written";
  EXPECT_TRUE(refused(OXA_Sendn(client, buf, -1, kHangGuardMs)));
  EXPECT_TRUE(refused(OXA_Send(client, buf, -1)));
  OXA_ADDR_T to;
  ASSERT_EQ(0, OXA_GetAddrBySockFd(server, &to, nullptr));
  EXPECT_TRUE(refused(OXA_SendTo(client, buf, -1, &to)));
  EXPECT_TRUE(refused(OXA_MakeAddr(&to, -1, &to)));
  pollfd none = {client, POLLOUT, 0};
  EXPECT_TRUE(refused(OXA_Poll(&none, -1, 0)));
  unsigned int budget = 0;
  EXPECT_TRUE(refused(OXA_PollEx(&none, -1, &budget)));

  Stopwatch watch;
  EXPECT_EQ(0, OXA_Sendn(client, buf, 0, kHangGuardMs));
  EXPECT_EQ(0, OXA_Recvn(server, buf, 0, kHangGuardMs)) << "data waiting: still nothing asked";
  char got[8] = {};
  EXPECT_EQ(4, OXA_Recvn(server, got, 4, kHangGuardMs));
  EXPECT_STREQ("abcd", got) << "the refused calls left the stream alone";
  EXPECT_EQ(0, OXA_Recvn(server, buf, 0, kHangGuardMs)) << "nothing waiting: no wait either";
  EXPECT_LT(watch.Elapsed().count(), kHangGuardMs / 2);
  EXPECT_EQ(0, OXA_RecvWithTimeOut(server, got, sizeof got, 50)) << "nothing went on the wire";
  EXPECT_EQ(-1, OXA_Accept(-1, nullptr, OXA_INFINITE));
  EXPECT_EQ(-1, OXA_Sendn(-1, buf, 4, OXA_INFINITE));
  EXPECT_EQ(-1, OXA_Recvn(-1, buf, 4, OXA_INFINITE));
  errno = 0;
  EXPECT_EQ(-1, OXA_RecvWithTimeOut(-1, buf, 4, OXA_INFINITE));
  EXPECT_EQ(EBADF, errno);
}

TEST(Datagrams, SendToAndRecvFromReportTheSender) {
  OXA_ADDR_T a_addr, b_addr, from;
  UniqueFd a(BoundLoopback(AF_INET, SOCK_DGRAM, &a_addr));
  UniqueFd b(BoundLoopback(AF_INET, SOCK_DGRAM, &b_addr));
  ASSERT_EQ(0, OXA_SetTimeOut(b.get(), 0, static_cast<int>(kHangGuardMs)));
  ASSERT_EQ(5, OXA_SendTo(a.get(), "hello", 5, &b_addr));
  char buf[16];
  memset(&from, 0xAB, sizeof from);
  ASSERT_EQ(5, OXA_RecvFrom(b.get(), buf, sizeof buf, &from));
  EXPECT_EQ(0, memcmp(&a_addr, &from, sizeof from));
  ASSERT_EQ(2, OXA_SendTo(a.get(), "hi", 2, &b_addr));
  EXPECT_EQ(2, OXA_RecvFrom(b.get(), buf, sizeof buf, nullptr));
}

TEST(GetAddrBySockFd, AddressesOfBothEndsAndNoLeak) {
  const int fds_before = oxa_test::OpenFdCount();
  {
    TcpPair pair = ConnectedPair();
    ASSERT_TRUE(pair.client && pair.server);
    OXA_ADDR_T local, peer, server_local, server_peer;
    ASSERT_EQ(0, OXA_GetAddrBySockFd(pair.client.get(), &local, &peer));
    ASSERT_EQ(0, OXA_GetAddrBySockFd(pair.server.get(), &server_local, nullptr));
    ASSERT_EQ(0, OXA_GetAddrBySockFd(pair.server.get(), nullptr, &server_peer));
    EXPECT_EQ(0, memcmp(&peer, &server_local, sizeof peer));
    EXPECT_EQ(0, memcmp(&local, &server_peer, sizeof local));
    EXPECT_STREQ("127.0.0.1", OXA_GetAddrString(&local));
    // A listening socket has no peer, and the peer is read first: local is not filled.
    UniqueFd listener(BoundLoopback(AF_INET, SOCK_STREAM, &local));
    memset(&local, 0xAB, sizeof local);
    EXPECT_EQ(-1, OXA_GetAddrBySockFd(listener.get(), &local, &peer));
    EXPECT_EQ(ENOTCONN, errno);
    EXPECT_EQ(0xABAB, local.sa.sa_family);
  }
  EXPECT_EQ(fds_before, oxa_test::OpenFdCount());
}

volatile sig_atomic_t g_alarms = 0;
volatile sig_atomic_t g_alarm_write_fd = -1;

// One SIGALRM after `ms`, without SA_RESTART so that a blocked poll is interrupted. The
// handler counts and writes to g_alarm_write_fd when that is set.
void AlarmAfter(int ms) {
  g_alarms = 0;
  struct sigaction action {};
  action.sa_handler = [](int) {
    ++g_alarms;
    if (g_alarm_write_fd >= 0) (void)!write(g_alarm_write_fd, "!", 1);
  };
  sigemptyset(&action.sa_mask);
  sigaction(SIGALRM, &action, nullptr);
  itimerval timer{};
  timer.it_value.tv_usec = ms * 1000;
  setitimer(ITIMER_REAL, &timer, nullptr);
}

TEST(PollEx, InterruptedPollKeepsWaitingForTheRest) {
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
  UniqueFd read_end(fds[0]);
  UniqueFd write_end(fds[1]);
  pollfd wait = {read_end.get(), POLLIN, 0};
  unsigned int timeout = 400;
  AlarmAfter(50);
  Stopwatch watch;
  EXPECT_EQ(0, OXA_PollEx(&wait, 1, &timeout));
  EXPECT_EQ(1, g_alarms);
  EXPECT_EQ(0u, timeout);
  EXPECT_GE(watch.Elapsed(), milliseconds(390));  // the library counts whole milliseconds
  EXPECT_LT(watch.Elapsed(), milliseconds(kHangGuardMs));

  // Interrupted by a signal whose handler makes the pipe readable: the time left is reported.
  // Under load the signal may come before the poll begins, so the time used is compared
  // with the time spent in the call, not with the alarm's delay.
  timeout = kHangGuardMs;
  g_alarm_write_fd = write_end.get();
  AlarmAfter(100);
  Stopwatch in_call;
  EXPECT_EQ(1, OXA_PollEx(&wait, 1, &timeout));
  const auto spent = in_call.Elapsed().count();
  g_alarm_write_fd = -1;
  EXPECT_EQ(1, g_alarms);
  EXPECT_GE(kHangGuardMs - timeout + 2, spent) << "every millisecond waited is counted";
  EXPECT_GT(timeout, 0u);

  // Without a limit nothing is written down.
  timeout = OXA_INFINITE;
  EXPECT_EQ(1, OXA_PollEx(&wait, 1, &timeout));
  EXPECT_EQ(OXA_INFINITE, timeout);
  EXPECT_EQ(1, OXA_PollEx(&wait, 1, nullptr));
  EXPECT_EQ(1, OXA_Poll(&wait, 1, 0));
}

TEST(Select, CopyOrCallersTimeOutAndThirtyTwoBitWords) {
  UniqueFd s(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  fd_set set;
  FD_ZERO(&set);
  FD_SET(s.get(), &set);
  timeval tv = {0, 50000};
  EXPECT_EQ(0, OXA_Select(s.get() + 1, &set, nullptr, nullptr, &tv));
  EXPECT_EQ(50000, tv.tv_usec) << "the caller's time-out is kept";
  FD_SET(s.get(), &set);
  EXPECT_EQ(0, OXA_SelectEx(s.get() + 1, &set, nullptr, nullptr, &tv));
  EXPECT_EQ(0, tv.tv_usec) << "the system used it up";

  FD_ZERO(&set);
  for (int on : {0, 31, 32, 63, 64, 100, 1023})
    FD_SET(on, &set);
  for (int i = -1; i <= FD_SETSIZE; ++i)
    EXPECT_EQ(i >= 0 && i < FD_SETSIZE && FD_ISSET(i, &set) ? 1 : 0, OXA_FdIsSet(i, &set)) << i;
  EXPECT_EQ(0, OXA_FdIsSet(0, nullptr));
}

// Each setter must reach its own level and option; each getter must read it back.
TEST(SocketOptions, SettersReachTheirLevelAndName) {
  UniqueFd udp(OXA_CreateSocket(AF_INET, SOCK_DGRAM, 0));
  UniqueFd tcp(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  UniqueFd udp6(OXA_CreateSocket(AF_INET6, SOCK_DGRAM, 0));
  const struct {
    int fd;
    int (*set)(int, int);
    int (*get)(int, int*);
    int level, option, value;
  } cases[] = {{udp.get(), OXA_SetTTL, OXA_GetTTL, IPPROTO_IP, IP_TTL, 17},
               {udp.get(), OXA_SetTOS, OXA_GetTOS, IPPROTO_IP, IP_TOS, 0x10},
               {udp.get(), OXA_SetMultiCastTTL, nullptr, IPPROTO_IP, IP_MULTICAST_TTL, 5},
               {tcp.get(), OXA_SetReuseAddr, nullptr, SOL_SOCKET, SO_REUSEADDR, 1},
               {tcp.get(), OXA_SetNoDelay, nullptr, IPPROTO_TCP, TCP_NODELAY, 1},
               {udp6.get(), OXA_SetTTL_V6, OXA_GetTTL_V6, IPPROTO_IPV6, IPV6_UNICAST_HOPS, 33},
               {udp6.get(), OXA_SetMultiCastHopsV6, nullptr, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 4},
               {udp6.get(), OXA_SetMultiCastTTL_V6, nullptr, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 6},
               {udp6.get(), OXA_SetMultiCastLoopV6, nullptr, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 0}};
  for (const auto& c : cases) {
    if (c.fd < 0) continue;  // no IPv6 on this host
    int got = 0;
    EXPECT_EQ(0, c.set(c.fd, c.value)) << c.option;
    EXPECT_EQ(c.value, ReadInt(c.fd, c.level, c.option)) << c.option;
    EXPECT_TRUE(c.get == nullptr ||
                (c.get(c.fd, &got) == 0 && got == c.value && c.get(c.fd, nullptr) == -1))
        << c.option;
  }
  EXPECT_EQ(0, OXA_BroadCast(udp.get()));
  EXPECT_EQ(1, ReadInt(udp.get(), SOL_SOCKET, SO_BROADCAST));
  linger on{};
  linger off{};
  socklen_t len = sizeof on;
  EXPECT_EQ(0,
            OXA_LingerOn(tcp.get(), 7) | getsockopt(tcp.get(), SOL_SOCKET, SO_LINGER, &on, &len));
  EXPECT_EQ(0, OXA_LingerOff(tcp.get()) | getsockopt(tcp.get(), SOL_SOCKET, SO_LINGER, &off, &len));
  EXPECT_TRUE(on.l_onoff != 0 && on.l_linger == 7 && off.l_onoff == 0);
  const auto keepalive = [&] {
    return std::vector<int>{ReadInt(tcp.get(), SOL_SOCKET, SO_KEEPALIVE),
                            ReadInt(tcp.get(), IPPROTO_TCP, TCP_KEEPIDLE),
                            ReadInt(tcp.get(), IPPROTO_TCP, TCP_KEEPINTVL),
                            ReadInt(tcp.get(), IPPROTO_TCP, TCP_KEEPCNT)};
  };
  int enable = 1;
  EXPECT_EQ(0, OXA_SetTCP_KeepAlive(tcp.get(), &enable, 30));
  EXPECT_EQ(std::vector<int>({1, 30, 10, 2}), keepalive());
  EXPECT_EQ(0, OXA_SetTCP_KeepAlive(tcp.get(), nullptr, 45));  // the probes are set either way
  EXPECT_EQ(std::vector<int>({0, 45, 10, 2}), keepalive());
  EXPECT_EQ(-1, OXA_SetTCP_KeepAlive(tcp.get(), &enable, 0)) << "the system refuses idle 0";
}

// SO_RCVTIMEO or SO_SNDTIMEO in microseconds.
long long ReadTimeOutUs(int fd, int option) {
  timeval tv = {-1, -1};
  socklen_t len = sizeof tv;
  getsockopt(fd, SOL_SOCKET, option, &tv, &len);
  return tv.tv_sec * 1000000LL + tv.tv_usec;
}

TEST(SocketOptions, TimeOutsKeepTheUnscaledRemainderAndSizesTheirSide) {
  UniqueFd tcp(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  EXPECT_EQ(0, OXA_SetTimeOut(-1, 0, 0)) << "nothing to set";
  EXPECT_EQ(-1, OXA_SetTimeOut(-1, 1, 1));
  // 1500 ms is 1 s and 500 us, which the system rounds up to one clock tick (not 0.5 s).
  ASSERT_EQ(0, OXA_SetTimeOut(tcp.get(), 0, 1500));
  const long long rcv = ReadTimeOutUs(tcp.get(), SO_RCVTIMEO);
  EXPECT_TRUE(rcv > 1000000 && rcv < 1020000) << rcv;
  EXPECT_EQ(0, ReadTimeOutUs(tcp.get(), SO_SNDTIMEO)) << "send side left unchanged";
  ASSERT_EQ(0, OXA_SetTimeOut(tcp.get(), 3000, 0));
  EXPECT_EQ(3000000, ReadTimeOutUs(tcp.get(), SO_SNDTIMEO));
  EXPECT_EQ(rcv, ReadTimeOutUs(tcp.get(), SO_RCVTIMEO)) << "receive side left unchanged";

  int send_size = 0;
  int recv_size = 0;
  ASSERT_EQ(0, OXA_SetBuffSize(tcp.get(), 40000, 32768));  // the system doubles what it is given
  ASSERT_EQ(0, OXA_SetBuffSize(tcp.get(), 0, 0));          // 0 leaves a size unchanged
  ASSERT_EQ(0, OXA_GetBuffSize(tcp.get(), &send_size, &recv_size));
  EXPECT_TRUE(send_size == 80000 && recv_size == 65536) << send_size << " " << recv_size;
  EXPECT_EQ(0, OXA_GetBuffSize(tcp.get(), nullptr, nullptr));
  EXPECT_EQ(-1, OXA_GetBuffSize(-1, &send_size, nullptr));
  EXPECT_EQ(-1, OXA_SetBuffSize(-1, 0, 1));
}

TEST(SocketOptions, MulticastMembershipAndDevice) {
  UniqueFd udp(OXA_CreateSocket(AF_INET, SOCK_DGRAM, 0));
  OXA_ADDR_T local;
  OXA_ADDR_T group;
  ASSERT_EQ(0, OXA_MakeAddrByString(AF_INET, "127.0.0.1", 0, &local));
  ASSERT_EQ(0, OXA_MakeAddrByString(AF_INET, "239.1.2.3", 0, &group));
  EXPECT_EQ(-1, OXA_JoinMultiCastGroup(udp.get(), nullptr, &group));
  EXPECT_EQ(-1, OXA_LeaveMultiCastGroup(udp.get(), &local, nullptr));
  // Joined on the loopback interface, so membership reports stay on this host.
  EXPECT_EQ(0, OXA_JoinMultiCastGroup(udp.get(), &local, &group));
  EXPECT_EQ(0, OXA_LeaveMultiCastGroup(udp.get(), &local, &group));
  EXPECT_EQ(-1, OXA_LeaveMultiCastGroup(udp.get(), &local, &group)) << "no longer a member";
  group.sa.sa_family = AF_UNSPEC;
  errno = 0;
  EXPECT_EQ(-1, OXA_JoinMultiCastGroup(udp.get(), &local, &group));
  EXPECT_EQ(0, errno) << "refused without asking the system";

  EXPECT_EQ(-1, OXA_Bind_ToDevice(udp.get(), nullptr));
  EXPECT_EQ(-1, OXA_Bind_ToDevice(udp.get(), "no-such-device-name-20"));
  if (errno == EPERM) GTEST_SKIP() << "binding to a device needs privileges here";
  EXPECT_EQ(ENODEV, errno);
  EXPECT_EQ(0, OXA_Bind_ToDevice(udp.get(), "lo"));
}

}  // namespace
