#include <gtest/gtest.h>

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>

#include "oxa_addr.h"
#include "oxa_socket.h"

#include "net/loopback.h"

namespace {

using oxa_test::UniqueFd;

int ReadInt(int fd, int level, int option) {
  int value = -12345;
  socklen_t len = sizeof value;
  if (getsockopt(fd, level, option, &value, &len) != 0) return -12345;
  return value;
}

timeval ReadTimeval(int fd, int option) {
  timeval tv = {-1, -1};
  socklen_t len = sizeof tv;
  getsockopt(fd, SOL_SOCKET, option, &tv, &len);
  return tv;
}

TEST(SocketOptions, IntegerOptionsRoundTrip) {
  UniqueFd udp(OXA_CreateSocket(AF_INET, SOCK_DGRAM, 0));
  UniqueFd tcp(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  int value = 0;
  ASSERT_EQ(0, OXA_SetTTL(udp.get(), 17));
  ASSERT_EQ(0, OXA_GetTTL(udp.get(), &value));
  EXPECT_EQ(17, value);
  ASSERT_EQ(0, OXA_SetTOS(udp.get(), 0x10));
  ASSERT_EQ(0, OXA_GetTOS(udp.get(), &value));
  EXPECT_EQ(0x10, value);
  ASSERT_EQ(0, OXA_SetMultiCastTTL(udp.get(), 5));
  EXPECT_EQ(5, ReadInt(udp.get(), IPPROTO_IP, IP_MULTICAST_TTL));
  ASSERT_EQ(0, OXA_BroadCast(udp.get()));
  EXPECT_EQ(1, ReadInt(udp.get(), SOL_SOCKET, SO_BROADCAST));
  ASSERT_EQ(0, OXA_SetReuseAddr(tcp.get(), 1));
  EXPECT_EQ(1, ReadInt(tcp.get(), SOL_SOCKET, SO_REUSEADDR));
  ASSERT_EQ(0, OXA_SetNoDelay(tcp.get(), 1));
  EXPECT_EQ(1, ReadInt(tcp.get(), IPPROTO_TCP, TCP_NODELAY));

  EXPECT_EQ(-1, OXA_GetTTL(udp.get(), nullptr));
  EXPECT_EQ(-1, OXA_GetTOS(udp.get(), nullptr));
  errno = 0;
  EXPECT_EQ(-1, OXA_SetTTL(-1, 17));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-1, OXA_SetNoDelay(udp.get(), 1)) << "not a TCP socket";
}

TEST(SocketOptions, Ipv6IntegerOptions) {
  UniqueFd udp(OXA_CreateSocket(AF_INET6, SOCK_DGRAM, 0));
  if (!udp) GTEST_SKIP() << "no IPv6 on this host";
  int hops = 0;
  ASSERT_EQ(0, OXA_SetTTL_V6(udp.get(), 33));
  ASSERT_EQ(0, OXA_GetTTL_V6(udp.get(), &hops));
  EXPECT_EQ(33, hops);
  EXPECT_EQ(-1, OXA_GetTTL_V6(udp.get(), nullptr));
  ASSERT_EQ(0, OXA_SetMultiCastHopsV6(udp.get(), 4));
  EXPECT_EQ(4, ReadInt(udp.get(), IPPROTO_IPV6, IPV6_MULTICAST_HOPS));
  ASSERT_EQ(0, OXA_SetMultiCastTTL_V6(udp.get(), 6));
  EXPECT_EQ(6, ReadInt(udp.get(), IPPROTO_IPV6, IPV6_MULTICAST_HOPS));
  ASSERT_EQ(0, OXA_SetMultiCastLoopV6(udp.get(), 0));
  EXPECT_EQ(0, ReadInt(udp.get(), IPPROTO_IPV6, IPV6_MULTICAST_LOOP));
}

TEST(SocketOptions, LingerOnAndOff) {
  UniqueFd tcp(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  linger value{};
  socklen_t len = sizeof value;
  ASSERT_EQ(0, OXA_LingerOn(tcp.get(), 7));
  ASSERT_EQ(0, getsockopt(tcp.get(), SOL_SOCKET, SO_LINGER, &value, &len));
  EXPECT_NE(0, value.l_onoff);
  EXPECT_EQ(7, value.l_linger);
  ASSERT_EQ(0, OXA_LingerOff(tcp.get()));
  ASSERT_EQ(0, getsockopt(tcp.get(), SOL_SOCKET, SO_LINGER, &value, &len));
  EXPECT_EQ(0, value.l_onoff);  // the system keeps the old time while lingering is off
}

TEST(SocketOptions, TimeOutsKeepTheUnscaledRemainder) {
  UniqueFd tcp(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  EXPECT_EQ(0, OXA_SetTimeOut(tcp.get(), 0, 0));
  EXPECT_EQ(0, ReadTimeval(tcp.get(), SO_RCVTIMEO).tv_sec);
  EXPECT_EQ(0, ReadTimeval(tcp.get(), SO_RCVTIMEO).tv_usec);

  ASSERT_EQ(0, OXA_SetTimeOut(tcp.get(), 0, 1500));
  // 1500 ms is 1 s and 500 us; the system rounds the microseconds up to one clock tick.
  const timeval rcv = ReadTimeval(tcp.get(), SO_RCVTIMEO);
  EXPECT_EQ(1, rcv.tv_sec);
  EXPECT_GT(rcv.tv_usec, 0);
  EXPECT_LT(rcv.tv_usec, 20000) << "not half a second";
  EXPECT_EQ(0, ReadTimeval(tcp.get(), SO_SNDTIMEO).tv_sec) << "send side left unchanged";
  EXPECT_EQ(0, ReadTimeval(tcp.get(), SO_SNDTIMEO).tv_usec);

  ASSERT_EQ(0, OXA_SetTimeOut(tcp.get(), 3000, 0));
  EXPECT_EQ(3, ReadTimeval(tcp.get(), SO_SNDTIMEO).tv_sec);
  EXPECT_EQ(1, ReadTimeval(tcp.get(), SO_RCVTIMEO).tv_sec) << "receive side left unchanged";
  EXPECT_EQ(-1, OXA_SetTimeOut(-1, 1, 1));
  EXPECT_EQ(0, OXA_SetTimeOut(-1, 0, 0)) << "nothing to set";
}

TEST(SocketOptions, BufferSizes) {
  UniqueFd tcp(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  int send_size = 0;
  int recv_size = 0;
  ASSERT_EQ(0, OXA_GetBuffSize(tcp.get(), &send_size, &recv_size));
  const int original_send = send_size;
  ASSERT_EQ(0, OXA_SetBuffSize(tcp.get(), 0, 32768));
  ASSERT_EQ(0, OXA_GetBuffSize(tcp.get(), &send_size, &recv_size));
  EXPECT_EQ(65536, recv_size) << "the system doubles what it is given";
  EXPECT_EQ(original_send, send_size);
  ASSERT_EQ(0, OXA_SetBuffSize(tcp.get(), 40000, 0));
  ASSERT_EQ(0, OXA_GetBuffSize(tcp.get(), &send_size, nullptr));
  EXPECT_EQ(80000, send_size);
  EXPECT_EQ(0, OXA_GetBuffSize(tcp.get(), nullptr, nullptr));
  EXPECT_EQ(-1, OXA_GetBuffSize(-1, &send_size, nullptr));
  EXPECT_EQ(-1, OXA_SetBuffSize(-1, 0, 1));
}

TEST(SocketOptions, KeepAliveSetsProbesEitherWay) {
  UniqueFd tcp(OXA_CreateSocket(AF_INET, SOCK_STREAM, 0));
  int enable = 1;
  ASSERT_EQ(0, OXA_SetTCP_KeepAlive(tcp.get(), &enable, 30));
  EXPECT_EQ(1, ReadInt(tcp.get(), SOL_SOCKET, SO_KEEPALIVE));
  EXPECT_EQ(30, ReadInt(tcp.get(), IPPROTO_TCP, TCP_KEEPIDLE));
  EXPECT_EQ(10, ReadInt(tcp.get(), IPPROTO_TCP, TCP_KEEPINTVL));
  EXPECT_EQ(2, ReadInt(tcp.get(), IPPROTO_TCP, TCP_KEEPCNT));
  ASSERT_EQ(0, OXA_SetTCP_KeepAlive(tcp.get(), nullptr, 45));
  EXPECT_EQ(0, ReadInt(tcp.get(), SOL_SOCKET, SO_KEEPALIVE));
  EXPECT_EQ(45, ReadInt(tcp.get(), IPPROTO_TCP, TCP_KEEPIDLE));
  EXPECT_EQ(-1, OXA_SetTCP_KeepAlive(tcp.get(), &enable, 0)) << "the system refuses idle 0";
}

TEST(SocketOptions, BindToDevice) {
  UniqueFd udp(OXA_CreateSocket(AF_INET, SOCK_DGRAM, 0));
  EXPECT_EQ(-1, OXA_Bind_ToDevice(udp.get(), nullptr));
  errno = 0;
  EXPECT_EQ(-1, OXA_Bind_ToDevice(udp.get(), "no-such-device-name-20"));
  if (errno == EPERM) GTEST_SKIP() << "binding to a device needs privileges here";
  EXPECT_EQ(ENODEV, errno);
  ASSERT_EQ(0, OXA_Bind_ToDevice(udp.get(), "lo"));
  char name[32] = {};
  socklen_t len = sizeof name;
  ASSERT_EQ(0, getsockopt(udp.get(), SOL_SOCKET, SO_BINDTODEVICE, name, &len));
  EXPECT_STREQ("lo", name);
}

TEST(SocketOptions, MulticastMembership) {
  UniqueFd udp(OXA_CreateSocket(AF_INET, SOCK_DGRAM, 0));
  OXA_ADDR_T local;
  OXA_ADDR_T group;
  ASSERT_EQ(0, OXA_MakeAddrByString(AF_INET, "127.0.0.1", 0, &local));
  ASSERT_EQ(0, OXA_MakeAddrByString(AF_INET, "239.1.2.3", 0, &group));
  EXPECT_EQ(-1, OXA_JoinMultiCastGroup(udp.get(), nullptr, &group));
  EXPECT_EQ(-1, OXA_JoinMultiCastGroup(udp.get(), &local, nullptr));
  EXPECT_EQ(-1, OXA_LeaveMultiCastGroup(udp.get(), &local, nullptr));
  // Joined on the loopback interface, so membership reports stay on this host.
  ASSERT_EQ(0, OXA_JoinMultiCastGroup(udp.get(), &local, &group));
  EXPECT_EQ(-1, OXA_JoinMultiCastGroup(udp.get(), &local, &group));
  EXPECT_EQ(EADDRINUSE, errno) << "already a member";
  EXPECT_EQ(0, OXA_LeaveMultiCastGroup(udp.get(), &local, &group));
  EXPECT_EQ(-1, OXA_LeaveMultiCastGroup(udp.get(), &local, &group));

  OXA_ADDR_T unusable = group;
  unusable.sa.sa_family = AF_UNSPEC;
  errno = 0;
  EXPECT_EQ(-1, OXA_JoinMultiCastGroup(udp.get(), &local, &unusable));
  EXPECT_EQ(0, errno) << "refused without asking the system";
}

}  // namespace
