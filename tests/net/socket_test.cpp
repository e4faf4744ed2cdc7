#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <vector>

#include "oxa_addr.h"
#include "oxa_socket.h"

#include "net/loopback.h"
#include "support/test_support.h"

namespace {

using oxa_test::BoundLoopback;
using oxa_test::ConnectedPair;
using oxa_test::kHangGuardMs;
using oxa_test::Stopwatch;
using oxa_test::TcpPair;
using oxa_test::UniqueFd;
using std::chrono::milliseconds;

int SocketDomain(int fd) {
  int domain = -1;
  socklen_t len = sizeof domain;
  getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len);
  return domain;
}

bool IsNonBlocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

TEST(NetworkModule, StartIgnoresSigpipeAndStopDoesNothing) {
  signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(0, OXA_InitNetwork_Inter());
  struct sigaction current {};
  sigaction(SIGPIPE, nullptr, &current);
  EXPECT_EQ(SIG_IGN, current.sa_handler);
  EXPECT_EQ(0, OXA_FiniNetwork_Inter());
  sigaction(SIGPIPE, nullptr, &current);
  EXPECT_EQ(SIG_IGN, current.sa_handler);
}

TEST(CreateSocket, FamilySelectors) {
  UniqueFd v4(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  EXPECT_EQ(AF_INET, SocketDomain(v4.get()));
  UniqueFd by_default(OXA_CreateSocket(OXA_AF_DEFAULT, SOCK_DGRAM, 0));
  EXPECT_EQ(AF_INET, SocketDomain(by_default.get())) << "g_Af starts as IPv4";
  errno = 0;
  EXPECT_EQ(-1, OXA_CreateSocket(7, SOCK_STREAM, 0));
  EXPECT_EQ(EAFNOSUPPORT, errno);
  EXPECT_EQ(-1, OXA_CreateSocket(AF_INET, 12345, 0));
}

TEST(CreateSocket, DualStackListenerAcceptsIpv4Peers) {
  if (!oxa_test::Ipv6LoopbackAvailable()) GTEST_SKIP() << "no IPv6 on this host";
  g_Af = OXA_AF_DUAL;
  UniqueFd listener(OXA_CreateSocket(OXA_AF_DEFAULT, SOCK_STREAM, 0));
  ASSERT_TRUE(listener);
  EXPECT_EQ(AF_INET6, SocketDomain(listener.get()));
  int v6only = -1;
  socklen_t len = sizeof v6only;
  ASSERT_EQ(0, getsockopt(listener.get(), IPPROTO_IPV6, IPV6_V6ONLY, &v6only, &len));
  EXPECT_EQ(0, v6only);

  OXA_ADDR_T any;
  ASSERT_EQ(0, OXA_MakeAddrByString(OXA_AF_DUAL, nullptr, 0, &any));
  ASSERT_EQ(0, OXA_Bind(listener.get(), &any));
  ASSERT_EQ(0, OXA_Listen(listener.get(), 4));
  OXA_ADDR_T bound;
  ASSERT_EQ(0, OXA_GetAddrBySockFd(listener.get(), &bound, nullptr));

  UniqueFd client(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  OXA_ADDR_T target = oxa_test::Loopback(AF_INET, OXA_GetAddrPort(&bound));
  ASSERT_EQ(0, OXA_ConnectWithTimeOut(client.get(), &target, kHangGuardMs));
  OXA_ADDR_T peer;
  UniqueFd server(OXA_Accept(listener.get(), &peer, kHangGuardMs));
  ASSERT_TRUE(server);
  EXPECT_EQ(AF_INET6, OXA_GetAddrType(&peer));
  EXPECT_STREQ("127.0.0.1", OXA_GetAddrString(&peer)) << "an IPv4-mapped peer prints its quad";
}

TEST(Accept, TimesOutWithoutAConnection) {
  OXA_ADDR_T addr;
  UniqueFd listener = BoundLoopback(AF_INET, SOCK_STREAM, &addr);
  ASSERT_TRUE(listener);
  Stopwatch watch;
  EXPECT_EQ(-1, OXA_Accept(listener.get(), nullptr, 100));
  EXPECT_GE(watch.Elapsed(), milliseconds(99));
  EXPECT_LT(watch.Elapsed(), milliseconds(kHangGuardMs));
  errno = 0;
  EXPECT_EQ(-1, OXA_Accept(-1, nullptr, OXA_INFINITE));
  EXPECT_EQ(EBADF, errno);
}

TEST(Accept, FillsThePeerRecord) {
  OXA_ADDR_T addr;
  UniqueFd listener = BoundLoopback(AF_INET, SOCK_STREAM, &addr);
  UniqueFd client(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(0, OXA_ConnectWithTimeOut(client.get(), &addr, OXA_INFINITE));
  OXA_ADDR_T peer;
  memset(&peer, 0xAB, sizeof peer);
  UniqueFd server(OXA_Accept(listener.get(), &peer, OXA_INFINITE));
  ASSERT_TRUE(server);
  OXA_ADDR_T client_local;
  ASSERT_EQ(0, OXA_GetAddrBySockFd(client.get(), &client_local, nullptr));
  EXPECT_EQ(0, memcmp(&client_local, &peer, sizeof peer)) << "cleared before it is filled";
}

TEST(ConnectWithTimeOut, RefusedOrUnansweredConnectionsFail) {
  OXA_ADDR_T addr;
  UniqueFd closed = BoundLoopback(AF_INET, SOCK_DGRAM, &addr);  // holds the port, no listener
  UniqueFd client(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  errno = 0;
  EXPECT_EQ(-1, OXA_ConnectWithTimeOut(client.get(), &addr, kHangGuardMs));
  EXPECT_TRUE(errno == ECONNREFUSED || errno == ETIMEDOUT) << errno;
  EXPECT_EQ(-1, OXA_ConnectWithTimeOut(client.get(), nullptr, kHangGuardMs));

  // A listener whose accept queue is full drops further handshakes: those never answer.
  UniqueFd listener = BoundLoopback(AF_INET, SOCK_STREAM, &addr, 0);
  ASSERT_TRUE(listener);
  std::vector<UniqueFd> clients;
  bool timed_out = false;
  for (int i = 0; i < 8 && !timed_out; ++i) {
    clients.emplace_back(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
    Stopwatch watch;
    if (OXA_ConnectWithTimeOut(clients.back().get(), &addr, 200) == 0) continue;
    timed_out = true;
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_GE(watch.Elapsed(), milliseconds(199));
    EXPECT_FALSE(IsNonBlocking(clients.back().get())) << "switched back to blocking";
  }
  EXPECT_TRUE(timed_out);
}

TEST(ConnectWithTimeOut, Ipv6NeedsAFiniteTimeOut) {
  if (!oxa_test::Ipv6LoopbackAvailable()) GTEST_SKIP() << "no IPv6 on this host";
  OXA_ADDR_T addr;
  UniqueFd listener = BoundLoopback(AF_INET6, SOCK_STREAM, &addr);
  ASSERT_TRUE(listener);
  UniqueFd blocking(OXA_CreateSocket(AF_INET6, SOCK_STREAM, 0));
  // Without a limit the IPv4 address length is handed over, which an IPv6 socket refuses.
  errno = 0;
  EXPECT_EQ(-1, OXA_ConnectWithTimeOut(blocking.get(), &addr, OXA_INFINITE));
  EXPECT_EQ(EINVAL, errno);
  UniqueFd timed(OXA_CreateSocket(AF_INET6, SOCK_STREAM, 0));
  EXPECT_EQ(0, OXA_ConnectWithTimeOut(timed.get(), &addr, kHangGuardMs));
  UniqueFd server(OXA_Accept(listener.get(), nullptr, kHangGuardMs));
  EXPECT_TRUE(server);
}

TEST(SendnRecvn, MoveALargeBufferWhole) {
  TcpPair pair = ConnectedPair();
  ASSERT_TRUE(pair.client && pair.server);
  std::vector<char> out(2 << 20);
  for (size_t i = 0; i < out.size(); ++i)
    out[i] = static_cast<char>(i * 7 + i / 251);
  std::vector<char> in(out.size());
  const int size = static_cast<int>(out.size());
  auto received = std::async(std::launch::async, [&] {
    return OXA_Recvn(pair.server.get(), in.data(), size, 4 * kHangGuardMs);
  });
  EXPECT_EQ(size, OXA_Sendn(pair.client.get(), out.data(), size, 4 * kHangGuardMs));
  EXPECT_EQ(size, received.get());
  EXPECT_TRUE(out == in);
}

TEST(Recvn, TimeOutReturnsWhatArrivedAndCloseIsAnError) {
  TcpPair pair = ConnectedPair();
  ASSERT_TRUE(pair.client && pair.server);
  char buf[100];
  ASSERT_EQ(10, OXA_Send(pair.client.get(), "0123456789", 10));
  Stopwatch watch;
  EXPECT_EQ(10, OXA_Recvn(pair.server.get(), buf, sizeof buf, 100));
  EXPECT_GE(watch.Elapsed(), milliseconds(99));

  ASSERT_EQ(10, OXA_Send(pair.client.get(), "0123456789", 10));
  pair.client.Reset();
  EXPECT_EQ(-1, OXA_Recvn(pair.server.get(), buf, sizeof buf, kHangGuardMs));
  errno = 0;
  EXPECT_EQ(-1, OXA_Recvn(-1, buf, sizeof buf, OXA_INFINITE));
  EXPECT_EQ(EBADF, errno);
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

TEST(Sendn, ClosedPeerGivesZeroAndNoSignal) {
  signal(SIGPIPE, SIG_DFL);  // the process would die if a send raised SIGPIPE
  TcpPair pair = ConnectedPair();
  ASSERT_TRUE(pair.client && pair.server);
  pair.server.Reset();
  for (int i = 0; i < 100 && OXA_Send(pair.client.get(), "x", 1) == 1; ++i) {
  }
  EXPECT_EQ(-1, OXA_Send(pair.client.get(), "x", 1));
  EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET) << errno;
  EXPECT_EQ(0, OXA_Sendn(pair.client.get(), "abc", 3, kHangGuardMs));
  errno = 0;
  EXPECT_EQ(-1, OXA_Sendn(-1, "abc", 3, OXA_INFINITE));
  EXPECT_EQ(EBADF, errno);
}

TEST(RecvWithTimeOut, TimeOutDataAndClose) {
  TcpPair pair = ConnectedPair();
  ASSERT_TRUE(pair.client && pair.server);
  char buf[16];
  Stopwatch watch;
  EXPECT_EQ(0, OXA_RecvWithTimeOut(pair.server.get(), buf, sizeof buf, 100));
  EXPECT_GE(watch.Elapsed(), milliseconds(99));
  ASSERT_EQ(3, OXA_Send(pair.client.get(), "abc", 3));
  EXPECT_EQ(3, OXA_RecvWithTimeOut(pair.server.get(), buf, sizeof buf, kHangGuardMs));
  pair.client.Reset();
  EXPECT_EQ(-1, OXA_RecvWithTimeOut(pair.server.get(), buf, sizeof buf, kHangGuardMs));
  EXPECT_EQ(-1, OXA_RecvWithTimeOut(-1, buf, sizeof buf, OXA_INFINITE));
}

TEST(Datagrams, SendToAndRecvFromReportTheSender) {
  OXA_ADDR_T a_addr;
  OXA_ADDR_T b_addr;
  UniqueFd a = BoundLoopback(AF_INET, SOCK_DGRAM, &a_addr);
  UniqueFd b = BoundLoopback(AF_INET, SOCK_DGRAM, &b_addr);
  ASSERT_TRUE(a && b);
  ASSERT_EQ(0, OXA_SetTimeOut(b.get(), 0, static_cast<int>(kHangGuardMs)));
  ASSERT_EQ(5, OXA_SendTo(a.get(), "hello", 5, &b_addr));
  char buf[16];
  OXA_ADDR_T from;
  memset(&from, 0xAB, sizeof from);
  ASSERT_EQ(5, OXA_RecvFrom(b.get(), buf, sizeof buf, &from));
  EXPECT_EQ(0, memcmp(&a_addr, &from, sizeof from));
  ASSERT_EQ(2, OXA_SendTo(a.get(), "hi", 2, &b_addr));
  EXPECT_EQ(2, OXA_RecvFrom(b.get(), buf, sizeof buf, nullptr));
}

TEST(CloseSocket, ShutsDownFirstOnRequest) {
  const int fds_before = oxa_test::OpenFdCount();
  TcpPair pair = ConnectedPair();
  ASSERT_TRUE(pair.client && pair.server);
  EXPECT_EQ(0, OXA_CloseSocket(pair.client.Release(), 1));
  char c;
  EXPECT_EQ(-1, OXA_RecvWithTimeOut(pair.server.get(), &c, 1, kHangGuardMs)) << "peer saw EOF";
  EXPECT_EQ(0, OXA_CloseSocket(pair.server.Release(), 0));
  EXPECT_EQ(-1, OXA_CloseSocket(-1, 1));
  EXPECT_EQ(fds_before, oxa_test::OpenFdCount());
}

// ---- Waiting -----------------------------------------------------------------------------

struct Pipe {
  UniqueFd read_end;
  UniqueFd write_end;
  Pipe() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) == 0) {
      read_end = UniqueFd(fds[0]);
      write_end = UniqueFd(fds[1]);
    }
  }
};

// SIGALRM after `ms`, once, without SA_RESTART so that a blocked poll is interrupted.
volatile sig_atomic_t g_alarms = 0;
volatile sig_atomic_t g_alarm_write_fd = -1;

void OnAlarm(int) {
  ++g_alarms;
  if (g_alarm_write_fd >= 0) (void)!write(g_alarm_write_fd, "!", 1);
}

void AlarmAfter(int ms) {
  struct sigaction action {};
  action.sa_handler = OnAlarm;
  sigemptyset(&action.sa_mask);
  sigaction(SIGALRM, &action, nullptr);
  itimerval timer{};
  timer.it_value.tv_sec = ms / 1000;
  timer.it_value.tv_usec = (ms % 1000) * 1000;
  setitimer(ITIMER_REAL, &timer, nullptr);
}

TEST(PollEx, InterruptedPollKeepsWaitingForTheRest) {
  Pipe p;
  pollfd wait = {p.read_end.get(), POLLIN, 0};
  unsigned int timeout = 400;
  AlarmAfter(50);
  Stopwatch watch;
  EXPECT_EQ(0, OXA_PollEx(&wait, 1, &timeout));
  EXPECT_EQ(1, g_alarms);
  EXPECT_EQ(0u, timeout);
  EXPECT_GE(watch.Elapsed(), milliseconds(395));
  EXPECT_LT(watch.Elapsed(), milliseconds(kHangGuardMs));
}

TEST(PollEx, ReportsTheTimeLeftAfterAnInterruption) {
  Pipe p;
  g_alarm_write_fd = p.write_end.get();  // the handler makes the pipe readable
  pollfd wait = {p.read_end.get(), POLLIN, 0};
  unsigned int timeout = kHangGuardMs;
  AlarmAfter(100);
  EXPECT_EQ(1, OXA_PollEx(&wait, 1, &timeout));
  EXPECT_EQ(1, g_alarms);
  EXPECT_TRUE(wait.revents & POLLIN);
  EXPECT_LE(timeout, kHangGuardMs - 90);
  EXPECT_GT(timeout, 0u);
  g_alarm_write_fd = -1;
}

TEST(PollEx, ZeroAndInfiniteTimeOuts) {
  Pipe p;
  pollfd wait = {p.read_end.get(), POLLIN, 0};
  unsigned int timeout = 0;
  EXPECT_EQ(0, OXA_PollEx(&wait, 1, &timeout));
  EXPECT_EQ(0u, timeout);
  ASSERT_EQ(1, write(p.write_end.get(), "x", 1));
  EXPECT_EQ(1, OXA_PollEx(&wait, 1, nullptr));
  timeout = OXA_INFINITE;
  EXPECT_EQ(1, OXA_PollEx(&wait, 1, &timeout));
  EXPECT_EQ(OXA_INFINITE, timeout) << "no limit is never written down";
  timeout = kHangGuardMs;
  EXPECT_EQ(1, OXA_PollEx(&wait, 1, &timeout));
  EXPECT_GE(timeout, kHangGuardMs - 100);
  EXPECT_EQ(1, OXA_Poll(&wait, 1, 0));
}

TEST(Select, CopyOrCallersTimeOut) {
  Pipe p;
  const int fd = p.read_end.get();
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd, &set);
  timeval tv = {0, 50000};
  EXPECT_EQ(0, OXA_Select(fd + 1, &set, nullptr, nullptr, &tv));
  EXPECT_EQ(0, tv.tv_sec);
  EXPECT_EQ(50000, tv.tv_usec) << "the caller's time-out is kept";
  FD_SET(fd, &set);
  EXPECT_EQ(0, OXA_SelectEx(fd + 1, &set, nullptr, nullptr, &tv));
  EXPECT_EQ(0, tv.tv_usec) << "the system used it up";
  ASSERT_EQ(1, write(p.write_end.get(), "x", 1));
  FD_SET(fd, &set);
  EXPECT_EQ(1, OXA_Select(fd + 1, &set, nullptr, nullptr, nullptr));
  EXPECT_EQ(1, OXA_FdIsSet(fd, &set));
}

TEST(FdIsSet, ReadsThirtyTwoBitWords) {
  fd_set set;
  FD_ZERO(&set);
  const int on[] = {0, 31, 32, 63, 64, 100, 1023};
  for (int fd : on)
    FD_SET(fd, &set);
  for (int fd = 0; fd < FD_SETSIZE; ++fd) {
    EXPECT_EQ(FD_ISSET(fd, &set) ? 1 : 0, OXA_FdIsSet(fd, &set)) << fd;
  }
  EXPECT_EQ(0, OXA_FdIsSet(-1, &set));
  EXPECT_EQ(0, OXA_FdIsSet(FD_SETSIZE, &set));
  EXPECT_EQ(0, OXA_FdIsSet(0, nullptr));
}

}  // namespace
