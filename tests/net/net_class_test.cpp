#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <string>
#include <vector>

#include "oxa_netclass.h"

#include "support/loopback.h"
#include "support/test_support.h"

namespace {

using oxa::oxa_net_addr;
using oxa::oxa_sock_utils;
using oxa_test::kHangGuardMs;
using oxa_test::Stopwatch;
using oxa_test::UniqueFd;
using std::chrono::milliseconds;

const int kGuard = static_cast<int>(kHangGuardMs);

TEST(NetAddr, ParsesHostAndPortText) {
  oxa_net_addr addr("10.1.2.3:8000");
  EXPECT_STREQ("10.1.2.3", addr.get_host());
  EXPECT_EQ(8000, addr.get_port());

  addr.parse_url("1.2.3:80");  // a host of 6 characters or fewer keeps the address
  EXPECT_STREQ("10.1.2.3", addr.get_host());
  EXPECT_EQ(80, addr.get_port());
  addr.parse_url("10.9.9.9:");  // an empty port keeps the port
  EXPECT_STREQ("10.9.9.9", addr.get_host());
  EXPECT_EQ(80, addr.get_port());
  addr.parse_url("10.9.9.9:x1");
  EXPECT_EQ(0, addr.get_port());
  addr.parse_url("a:b:127.0.0.1:443");  // the last colon splits
  EXPECT_EQ(443, addr.get_port());

  sockaddr_in raw{};
  oxa_net_addr bare(raw);  // family 0
  EXPECT_EQ(0, bare.parse_url("no colon here"));
  bare.get_addr(raw);
  EXPECT_EQ(AF_INET, raw.sin_family);
  EXPECT_EQ(0u, raw.sin_addr.s_addr);
  EXPECT_EQ(0, bare.parse_url(nullptr));
  oxa_net_addr from_null(static_cast<const char*>(nullptr));
  from_null.get_addr(raw);
  EXPECT_EQ(0, raw.sin_family);
}

TEST(NetAddr, SettersComparisonAndText) {
  oxa_net_addr addr(8080, "192.168.1.20");
  EXPECT_EQ(-1, addr.set_port(65536));
  EXPECT_EQ(8080, addr.get_port());
  EXPECT_EQ(-1, addr.set_host(nullptr));
  EXPECT_EQ(-1, addr.set_addr(70000, "1.1.1.1"));
  EXPECT_STREQ("192.168.1.20", addr.get_host());
  EXPECT_EQ(0, addr.set_addr(81, nullptr));  // a null host keeps the address
  EXPECT_STREQ("192.168.1.20", addr.get_host());
  EXPECT_EQ(81, addr.get_port());

  oxa_net_addr copy(addr);
  EXPECT_TRUE(copy == addr);
  copy.set_port(82);
  EXPECT_TRUE(copy != addr);
  copy = copy;
  copy = addr;
  EXPECT_TRUE(copy == addr);

  char text[32];
  const std::string expected = "192.168.1.20:81";
  int length = static_cast<int>(expected.size());
  EXPECT_EQ(nullptr, addr.get_addr(text, length));  // no room for the terminator
  EXPECT_EQ(static_cast<int>(expected.size()), length);
  length = static_cast<int>(sizeof text);
  EXPECT_EQ(text, addr.get_addr(text, length));
  EXPECT_EQ(expected, text);
  EXPECT_EQ(static_cast<int>(expected.size()), length);
  length = 0;
  EXPECT_EQ(nullptr, addr.get_addr(text, length));
  EXPECT_EQ(nullptr, addr.get_addr(nullptr, length));
  EXPECT_TRUE(addr.is_valid_ipv4("anything"));
  EXPECT_FALSE(addr.is_valid_ipv4(nullptr));
}

// A listening socket on 127.0.0.1 with the port the system chose.
struct Listener {
  UniqueFd fd{oxa_sock_utils::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  oxa_net_addr addr{0, "127.0.0.1"};
  Listener() {
    EXPECT_EQ(0, oxa_sock_utils::bind(fd.get(), addr));
    EXPECT_EQ(0, oxa_sock_utils::listen(fd.get(), 8));
    oxa_net_addr peer;
    EXPECT_EQ(-1, oxa_sock_utils::getaddrbyfd(fd.get(), peer, addr));  // not connected
  }
};

TEST(SockUtils, ConnectAcceptTransferAndAddresses) {
  const int fds_before = oxa_test::OpenFdCount();
  {
    Listener listener;
    EXPECT_NE(0, listener.addr.get_port());
    UniqueFd client(oxa_sock_utils::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(0, oxa_sock_utils::set_nonblock(client.get(), 1));
    ASSERT_EQ(0, oxa_sock_utils::connect(client.get(), listener.addr, kGuard));
    EXPECT_NE(0, ::fcntl(client.get(), F_GETFL) & O_NONBLOCK);  // mode unchanged
    ASSERT_EQ(0, oxa_sock_utils::set_nonblock(client.get(), 0));
    oxa_net_addr peer;
    UniqueFd server(oxa_sock_utils::accept(listener.fd.get(), peer, kGuard));
    ASSERT_TRUE(server);

    oxa_net_addr client_peer, client_local;
    ASSERT_EQ(0, oxa_sock_utils::getaddrbyfd(client.get(), client_peer, client_local));
    EXPECT_TRUE(client_peer == listener.addr);
    EXPECT_TRUE(client_local == peer);

    EXPECT_EQ(oxa_sock_utils::kWritable, oxa_sock_utils::is_rdwr(server.get(), nullptr, 320));
    std::vector<char> out(100000, 'q');
    EXPECT_EQ(100000, oxa_sock_utils::sendn(client.get(), out.data(), 100000, -1));
    std::vector<char> in(100000);
    EXPECT_EQ(100000, oxa_sock_utils::recvn(server.get(), in.data(), 100000, kGuard));
    EXPECT_EQ(out, in);
    EXPECT_EQ(0, oxa_sock_utils::sendn(client.get(), out.data(), 0, kGuard));

    EXPECT_EQ(3, oxa_sock_utils::send(server.get(), "abc", 3, kGuard));
    timeval tv{5, 0};
    EXPECT_EQ(oxa_sock_utils::kReadable | oxa_sock_utils::kWritable,
              oxa_sock_utils::is_rdwr(client.get(), &tv, 320));
    char three[3];
    EXPECT_EQ(3, oxa_sock_utils::recv(client.get(), three, 3, kGuard));

    ASSERT_EQ(0, oxa_sock_utils::closesocket(server.Release()));
    EXPECT_EQ(-1, oxa_sock_utils::recvn(client.get(), three, 3, kGuard));  // peer closed
  }
  EXPECT_EQ(fds_before, oxa_test::OpenFdCount());
}

TEST(SockUtils, WaitsTimeOutWithinTheirBudget) {
  Listener listener;
  oxa_net_addr peer;
  Stopwatch accept_clock;
  EXPECT_EQ(-1, oxa_sock_utils::accept(listener.fd.get(), peer, 60));
  EXPECT_GE(accept_clock.Elapsed(), milliseconds(55));

  oxa_test::TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(pair.server);
  char byte;
  Stopwatch recv_clock;
  EXPECT_EQ(0, oxa_sock_utils::recv(pair.server.get(), &byte, 1, 60));
  EXPECT_GE(recv_clock.Elapsed(), milliseconds(55));
  EXPECT_LT(recv_clock.Elapsed(), milliseconds(kGuard));
  EXPECT_EQ(0, oxa_sock_utils::recvn(pair.server.get(), &byte, 1, 0));

  // select_ctime leaves the caller's time-out as it was; select_vtime leaves what is left.
  fd_set read_set;
  FD_ZERO(&read_set);
  FD_SET(pair.server.get(), &read_set);
  timeval tv{0, 50000};
  EXPECT_EQ(0,
            oxa_sock_utils::select_ctime(pair.server.get() + 1, &read_set, nullptr, nullptr, &tv));
  EXPECT_EQ(50000, tv.tv_usec);
  FD_SET(pair.server.get(), &read_set);
  EXPECT_EQ(0,
            oxa_sock_utils::select_vtime(pair.server.get() + 1, &read_set, nullptr, nullptr, &tv));
  EXPECT_EQ(0, tv.tv_sec + tv.tv_usec);

  pollfd wanted{pair.server.get(), POLLIN, 0};
  tv = {0, 50000};
  EXPECT_EQ(0, oxa_sock_utils::poll_vtime(&wanted, 1, &tv));
  EXPECT_EQ(0, tv.tv_sec + tv.tv_usec);
  ASSERT_EQ(1, ::send(pair.client.get(), "x", 1, 0));
  tv = {5, 0};
  EXPECT_EQ(1, oxa_sock_utils::poll_vtime(&wanted, 1, &tv));
  EXPECT_LE(tv.tv_sec, 5);
  EXPECT_GT(tv.tv_sec, 0);
}

TEST(SockUtils, SendnWithABudgetReturnsWhatWentOutWhenThePeerStopsReading) {
  oxa_test::TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(pair.client);
  ASSERT_EQ(0, oxa_sock_utils::set_buffsize(pair.client.get(), -1, 4096));
  ASSERT_EQ(0, oxa_sock_utils::set_buffsize(pair.server.get(), 4096, -1));
  std::vector<char> out(16 << 20, 'z');
  Stopwatch clock;
  const int sent =
      oxa_sock_utils::sendn(pair.client.get(), out.data(), static_cast<int>(out.size()), 150);
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, static_cast<int>(out.size()));
  EXPECT_GE(clock.Elapsed(), milliseconds(140));
  EXPECT_LT(clock.Elapsed(), milliseconds(kGuard));
}

TEST(SockUtils, FailuresGiveMinusOneWithErrno) {
  Listener closed;
  oxa_net_addr gone = closed.addr;
  closed.fd.Reset();  // nobody listens on that port now
  UniqueFd client(oxa_sock_utils::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(0, oxa_sock_utils::set_nonblock(client.get(), 1));
  errno = 0;
  EXPECT_EQ(-1, oxa_sock_utils::connect(client.get(), gone, kGuard));
  EXPECT_EQ(ECONNREFUSED, oxa_sock_utils::get_lasterror());

  EXPECT_EQ(-1, oxa_sock_utils::is_rd(-1, nullptr));
  EXPECT_EQ(-1, oxa_sock_utils::is_rd(FD_SETSIZE, nullptr));  // beyond any fd_set
  EXPECT_EQ(EBADF, errno);
  char byte;
  EXPECT_EQ(-1, oxa_sock_utils::recv(1 << 20, &byte, 1, 10));
  EXPECT_EQ(-1, oxa_sock_utils::set_nonblock(-1, 1));
  EXPECT_EQ(-1, oxa_sock_utils::set_buffsize(-1, 0, -1));
}

TEST(SockUtils, DatagramsCarryTheSenderAddress) {
  UniqueFd receiver(oxa_sock_utils::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  UniqueFd sender(oxa_sock_utils::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  oxa_net_addr to(0, "127.0.0.1");
  ASSERT_EQ(0, oxa_sock_utils::bind(receiver.get(), to));
  oxa_net_addr unused;
  sockaddr_in raw{};
  socklen_t length = sizeof raw;
  ASSERT_EQ(0, ::getsockname(receiver.get(), reinterpret_cast<sockaddr*>(&raw), &length));
  to.set_addr(raw);
  ASSERT_EQ(4, oxa_sock_utils::sendto(sender.get(), "ping", 4, to, kGuard));
  char text[8];
  oxa_net_addr from;
  ASSERT_EQ(4, oxa_sock_utils::recvfrom(receiver.get(), text, sizeof text, from, kGuard));
  EXPECT_STREQ("127.0.0.1", from.get_host());
  EXPECT_NE(0, from.get_port());
  EXPECT_EQ(0, oxa_sock_utils::recvfrom(receiver.get(), text, sizeof text, from, 20));
  EXPECT_EQ(-1, oxa::oxa_net_utils::get_host_name(nullptr, 10));
}

}  // namespace
