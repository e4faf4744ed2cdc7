// Host name, hardware-address lookup and byte order, checked against the system's own answers.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <string>

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

TEST(ByteOrder, MatchesTheSystem) {
  EXPECT_EQ(htons(0x1234), OXA_Htons(0x1234));
  EXPECT_EQ(ntohs(0x1234), OXA_Ntohs(0x1234));
  EXPECT_EQ(htonl(0x01020304u), OXA_Htonl(0x01020304u));
  EXPECT_EQ(ntohl(0x01020304u), OXA_Ntohl(0x01020304u));
  const unsigned int network = OXA_Htonl(0x01020304u);
  const unsigned char bytes[4] = {1, 2, 3, 4};
  EXPECT_EQ(0, memcmp(bytes, &network, 4));  // most significant byte first in memory
  EXPECT_EQ(0xBEEFu, OXA_Ntohs(OXA_Htons(0xBEEF)));
  EXPECT_EQ(0xDEADBEEFu, OXA_Ntohl(OXA_Htonl(0xDEADBEEFu)));
}

}  // namespace
