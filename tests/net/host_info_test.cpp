// Host name, hardware-address lookup and byte order, checked against the system's own answers.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "oxa_netinfo.h"

#include "support/test_support.h"

namespace {

// True when some interface carries the IPv4 address `text`.
bool IsLocalIpv4(const char* text) {
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) return false;
  bool found = false;
  const in_addr_t wanted = inet_addr(text);
  for (ifaddrs* it = all; it != nullptr; it = it->ifa_next) {
    if (it->ifa_addr == nullptr || it->ifa_addr->sa_family != AF_INET) continue;
    found = found || reinterpret_cast<sockaddr_in*>(it->ifa_addr)->sin_addr.s_addr == wanted;
  }
  freeifaddrs(all);
  return found;
}

std::string MacText(const unsigned char* mac) {
  char text[18];
  snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
           mac[4], mac[5]);
  return text;
}

TEST(HostName, IsTheSystemsName) {
  char expected[256] = {};
  ASSERT_EQ(0, gethostname(expected, sizeof expected));
  char name[256];
  memset(name, 'x', sizeof name);
  ASSERT_EQ(0, OXA_GetHostName(name, sizeof name));
  EXPECT_STREQ(expected, name);
}

TEST(HostName, FailsWithoutRoomOrBuffer) {
  char expected[256] = {};
  ASSERT_EQ(0, gethostname(expected, sizeof expected));
  std::string name(strlen(expected), 'x');  // no room for the terminating zero
  EXPECT_EQ(OXA_ERROR, OXA_GetHostName(&name[0], static_cast<unsigned int>(name.size())));
  EXPECT_EQ(OXA_ERROR, OXA_GetHostName(nullptr, 64));
}

TEST(MacAddr, LoopbackAddressGivesTheLoopbacksHardwareAddress) {
  if (!IsLocalIpv4("127.0.0.1")) GTEST_SKIP() << "127.0.0.1 is not configured";
  std::ifstream file("/sys/class/net/lo/address");
  std::string expected;
  ASSERT_TRUE(static_cast<bool>(file >> expected));
  const int fds = oxa_test::OpenFdCount();
  unsigned char mac[6];
  memset(mac, 0xAA, sizeof mac);
  unsigned int len = 64;
  ASSERT_EQ(0, OXA_GetMacAddr("127.0.0.1", mac, &len));
  EXPECT_EQ(6u, len);
  EXPECT_EQ(expected, MacText(mac));
  EXPECT_EQ(fds, oxa_test::OpenFdCount());
}

TEST(MacAddr, AddressOfNoInterfaceFails) {
  const char* absent = "127.0.0.2";
  if (IsLocalIpv4(absent)) GTEST_SKIP() << absent << " is configured here";
  const int fds = oxa_test::OpenFdCount();
  unsigned char mac[6] = {1, 2, 3, 4, 5, 6};
  unsigned int len = 1;
  EXPECT_EQ(OXA_ERROR, OXA_GetMacAddr(absent, mac, &len));
  EXPECT_EQ(6u, len);  // set before the search
  const unsigned char untouched[6] = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(0, memcmp(untouched, mac, sizeof mac));
  EXPECT_EQ(fds, oxa_test::OpenFdCount());
}

TEST(MacAddr, BadArgumentsPrintAndChangeNothing) {
  unsigned char mac[6] = {1, 2, 3, 4, 5, 6};
  unsigned int len = 6;
  unsigned int zero = 0;
  oxa_test::StderrCapture capture;
  EXPECT_EQ(OXA_ERROR, OXA_GetMacAddr(nullptr, mac, &len));
  EXPECT_EQ(OXA_ERROR, OXA_GetMacAddr("127.0.0.1", nullptr, &len));
  EXPECT_EQ(OXA_ERROR, OXA_GetMacAddr("127.0.0.1", mac, nullptr));
  EXPECT_EQ(OXA_ERROR, OXA_GetMacAddr("127.0.0.1", mac, &zero));
  const std::string line = "trovik OXA_GetMacAddr parameter error, return OXA_ERROR\n";
  std::string expected;
  // The debug channel ends every line with its own newline after the message's.
  for (int i = 0; i < 4; ++i)
    expected += line + "\n";
  EXPECT_EQ(expected, capture.Take());
  EXPECT_EQ(0u, zero);
  const unsigned char untouched[6] = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(0, memcmp(untouched, mac, sizeof mac));
}

// The resolver's own answers for the same question, for comparison.
struct SystemAnswers {
  addrinfo* list = nullptr;
  ~SystemAnswers() {
    if (list != nullptr) freeaddrinfo(list);
  }
};

struct AnswerGuard {
  OXA_ADDRESS_INFO_T* list = nullptr;
  ~AnswerGuard() { OXA_FreeAddressInfo(list); }
};

// True when the record holds exactly len bytes of the system address and zeros after them.
bool SameAddress(const OXA_ADDR_T& addr, const sockaddr* system, socklen_t len) {
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&addr);
  for (size_t i = len; i < sizeof addr; ++i) {
    if (bytes[i] != 0) return false;
  }
  return memcmp(bytes, system, len) == 0;
}

TEST(AddressInfo, CopiesEveryAnswerOfTheResolverInOrder) {
  OXA_ADDRESS_HINTS_T hints = {};
  hints.flags = AI_CANONNAME;
  addrinfo system_hints = {};
  system_hints.ai_flags = AI_CANONNAME;
  SystemAnswers expected;
  ASSERT_EQ(0, getaddrinfo("localhost", "80", &system_hints, &expected.list));

  AnswerGuard got;
  ASSERT_EQ(0, OXA_GetAddressInfo("localhost", "80", &hints, &got.list));
  const OXA_ADDRESS_INFO_T* node = got.list;
  for (const addrinfo* want = expected.list; want != nullptr; want = want->ai_next) {
    ASSERT_NE(nullptr, node) << "fewer answers than the resolver's";
    EXPECT_EQ(want->ai_flags, node->flags);
    EXPECT_EQ(want->ai_family, node->family);
    EXPECT_EQ(want->ai_socktype, node->sockType);
    EXPECT_EQ(want->ai_protocol, node->protocol);
    EXPECT_TRUE(SameAddress(node->addr, want->ai_addr, want->ai_addrlen));
    if (want->ai_canonname == nullptr) {
      EXPECT_EQ(nullptr, node->canonName);
    } else {
      ASSERT_NE(nullptr, node->canonName);
      EXPECT_STREQ(want->ai_canonname, node->canonName);
      EXPECT_NE(want->ai_canonname, node->canonName);  // a copy, not the resolver's text
    }
    node = node->next;
  }
  EXPECT_EQ(nullptr, node) << "more answers than the resolver's";
}

TEST(AddressInfo, NumericAddressesCarryThePort) {
  OXA_ADDRESS_HINTS_T hints = {};
  hints.flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.family = AF_INET6;
  hints.sockType = SOCK_DGRAM;
  AnswerGuard v6;
  ASSERT_EQ(0, OXA_GetAddressInfo("::1", "8080", &hints, &v6.list));
  ASSERT_NE(nullptr, v6.list);
  EXPECT_EQ(nullptr, v6.list->next);
  EXPECT_EQ(AF_INET6, v6.list->family);
  EXPECT_EQ(SOCK_DGRAM, v6.list->sockType);
  EXPECT_EQ(IPPROTO_UDP, v6.list->protocol);
  EXPECT_EQ(nullptr, v6.list->canonName);
  EXPECT_EQ(htons(8080), v6.list->addr.in6.sin6_port);
  EXPECT_EQ(0, memcmp(&in6addr_loopback, &v6.list->addr.in6.sin6_addr, 16));
}

TEST(AddressInfo, FailuresLeaveTheResultAlone) {
  OXA_ADDRESS_HINTS_T hints = {};
  hints.flags = AI_NUMERICHOST;
  auto* sentinel = reinterpret_cast<OXA_ADDRESS_INFO_T*>(0x1);
  OXA_ADDRESS_INFO_T* result = sentinel;
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressInfo("not an address", nullptr, &hints, &result));
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressInfo(nullptr, nullptr, nullptr, &result));
  EXPECT_EQ(sentinel, result);
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressInfo("127.0.0.1", nullptr, &hints, nullptr));
  EXPECT_EQ(0, OXA_FreeAddressInfo(nullptr));
}

// The resolver's addresses for stream sockets, in its order.
std::vector<std::vector<unsigned char>> SystemAddresses(const char* name, int family) {
  addrinfo hints = {};
  hints.ai_family = family;
  hints.ai_socktype = SOCK_STREAM;
  SystemAnswers answers;
  std::vector<std::vector<unsigned char>> addresses;
  if (getaddrinfo(name, nullptr, &hints, &answers.list) != 0) return addresses;
  for (const addrinfo* it = answers.list; it != nullptr; it = it->ai_next) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(it->ai_addr);
    addresses.emplace_back(bytes, bytes + it->ai_addrlen);
  }
  return addresses;
}

TEST(AddressByName, GivesTheResolversAddressesWithPortZero) {
  const auto expected = SystemAddresses("localhost", AF_UNSPEC);
  ASSERT_FALSE(expected.empty());
  OXA_ADDR_T addrs[9];
  memset(addrs, 0x5A, sizeof addrs);
  unsigned int count = 8;
  ASSERT_EQ(0, OXA_GetAddressByName("localhost", OXA_AF_DUAL, addrs, &count));
  ASSERT_EQ(std::min<size_t>(expected.size(), 8), count);
  const unsigned char* beyond = reinterpret_cast<const unsigned char*>(&addrs[count]);
  for (size_t i = 0; i < sizeof addrs[count]; ++i)
    EXPECT_EQ(0x5A, beyond[i]);
  for (unsigned int i = 0; i < count; ++i) {
    EXPECT_TRUE(SameAddress(addrs[i], reinterpret_cast<const sockaddr*>(expected[i].data()),
                            static_cast<socklen_t>(expected[i].size())));
    EXPECT_EQ(0, OXA_GetAddrPort(&addrs[i]));
  }

  count = 1;
  ASSERT_EQ(0, OXA_GetAddressByName("::1", AF_INET6, addrs, &count));
  EXPECT_EQ(1u, count);
  EXPECT_EQ(AF_INET6, addrs[0].in6.sin6_family);
  EXPECT_EQ(0, memcmp(&in6addr_loopback, &addrs[0].in6.sin6_addr, 16));
  if (g_Af != AF_INET6) {  // OXA_AF_DEFAULT stands for g_Af
    EXPECT_EQ(0, OXA_GetAddressByName("127.0.0.1", OXA_AF_DEFAULT, addrs, &count));
  }
}

TEST(AddressByName, StopsAtTheCallersCapacity) {
  const auto expected = SystemAddresses("localhost", AF_UNSPEC);
  if (expected.size() < 2) GTEST_SKIP() << "localhost has a single address here";
  OXA_ADDR_T addrs[2];
  memset(addrs, 0x5A, sizeof addrs);
  unsigned int count = 1;
  ASSERT_EQ(0, OXA_GetAddressByName("localhost", OXA_AF_DUAL, addrs, &count));
  EXPECT_EQ(1u, count);
  EXPECT_TRUE(SameAddress(addrs[0], reinterpret_cast<const sockaddr*>(expected[0].data()),
                          static_cast<socklen_t>(expected[0].size())));
  const unsigned char* spare = reinterpret_cast<const unsigned char*>(&addrs[1]);
  for (size_t i = 0; i < sizeof addrs[1]; ++i)
    EXPECT_EQ(0x5A, spare[i]);
}

TEST(AddressByName, FailuresChangeNothing) {
  OXA_ADDR_T addr;
  memset(&addr, 0x5A, sizeof addr);
  OXA_ADDR_T untouched;
  memset(&untouched, 0x5A, sizeof untouched);
  unsigned int count = 1;
  unsigned int none = 0;
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressByName(nullptr, AF_INET, &addr, &count));
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressByName("127.0.0.1", AF_INET, nullptr, &count));
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressByName("127.0.0.1", AF_INET, &addr, nullptr));
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressByName("127.0.0.1", AF_INET, &addr, &none));
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressByName("127.0.0.1", 7, &addr, &count));
  // A literal of the other family is refused by the resolver without any lookup.
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressByName("127.0.0.1", AF_INET6, &addr, &count));
  EXPECT_EQ(OXA_ERROR, OXA_GetAddressByName("::1", AF_INET, &addr, &count));
  EXPECT_EQ(1u, count);
  EXPECT_EQ(0u, none);
  EXPECT_EQ(0, memcmp(&untouched, &addr, sizeof addr));
}

TEST(ByteOrder, NetworkOrderIsMostSignificantByteFirst) {
  const unsigned int network = OXA_Htonl(0x01020304u);
  const unsigned short network16 = OXA_Htons(0x0102);
  const unsigned char bytes[4] = {1, 2, 3, 4};
  EXPECT_EQ(0, memcmp(bytes, &network, 4));
  EXPECT_EQ(0, memcmp(bytes, &network16, 2));
  EXPECT_EQ(0x01020304u, OXA_Ntohl(network));
  EXPECT_EQ(0x0102, OXA_Ntohs(network16));
}

}  // namespace
