#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <stddef.h>
#include <string.h>

#include <string>

#include "oxa_addr.h"
#include "oxa_socket.h"

#include "net/loopback.h"
#include "support/test_support.h"

namespace {

std::string Hex(const void* data, size_t len) {
  std::string out;
  char byte[3];
  for (size_t i = 0; i < len; ++i) {
    snprintf(byte, sizeof byte, "%02x", static_cast<const unsigned char*>(data)[i]);
    out += byte;
  }
  return out;
}

// OXA_MakeAddrByString into a record preset to garbage; "fail" or the record's text form
// "family/port/address" (the address printed as the system does).
std::string Make(int af, const char* text, unsigned short port = 80) {
  OXA_ADDR_T addr;
  memset(&addr, 0xAB, sizeof addr);
  if (OXA_MakeAddrByString(af, text, port, &addr) != 0) {
    // A failed record is all zero, or holds family and port only.
    OXA_ADDR_T expect;
    memset(&expect, 0, sizeof expect);
    expect.sa.sa_family = addr.sa.sa_family;
    expect.in4.sin_port = addr.in4.sin_port;
    EXPECT_EQ(Hex(&expect, sizeof expect), Hex(&addr, sizeof addr)) << text;
    return "fail";
  }
  char ip[INET6_ADDRSTRLEN] = "?";
  const int family = addr.sa.sa_family;
  inet_ntop(family,
            family == AF_INET ? static_cast<const void*>(&addr.in4.sin_addr)
                              : static_cast<const void*>(&addr.in6.sin6_addr),
            ip, sizeof ip);
  // Bytes past the form in use stay zero.
  if (family == AF_INET) {
    EXPECT_EQ(std::string(40, '0'), Hex(reinterpret_cast<const char*>(&addr) + 8, 20)) << text;
  } else {
    EXPECT_EQ(0u, addr.in6.sin6_flowinfo) << text;
    EXPECT_EQ(0u, addr.in6.sin6_scope_id) << text;
  }
  return std::to_string(family) + "/" + std::to_string(ntohs(addr.in4.sin_port)) + "/" + ip;
}

TEST(AddressRecord, HasTheSystemLayout) {
  EXPECT_EQ(sizeof(sockaddr_in6), sizeof(OXA_ADDR_T));
  EXPECT_EQ(0u, offsetof(OXA_ADDR_T, in4.sin_family));
  EXPECT_EQ(2u, offsetof(OXA_ADDR_T, in4.sin_port));
  EXPECT_EQ(4u, offsetof(OXA_ADDR_T, in4.sin_addr));
  EXPECT_EQ(4u, offsetof(OXA_ADDR_T, in6.sin6_flowinfo));
  EXPECT_EQ(8u, offsetof(OXA_ADDR_T, in6.sin6_addr));
  EXPECT_EQ(24u, offsetof(OXA_ADDR_T, in6.sin6_scope_id));
  EXPECT_EQ(AF_INET, 2);
  EXPECT_EQ(AF_INET6, 10);
}

TEST(MakeAddrByString, FamiliesAndTexts) {
  EXPECT_EQ("2/80/0.0.0.0", Make(AF_INET, nullptr));
  EXPECT_EQ("10/80/::", Make(AF_INET6, ""));
  EXPECT_EQ("10/80/::", Make(OXA_AF_DUAL, ""));
  EXPECT_EQ("fail", Make(7, ""));
  EXPECT_EQ("2/8080/10.1.2.3", Make(AF_INET, "10.1.2.3", 8080));
  // IPv4 text is IPv4 whatever family was asked for, even an unknown one.
  EXPECT_EQ("2/80/192.168.1.1", Make(AF_INET6, "192.168.1.1"));
  EXPECT_EQ("2/80/192.168.1.1", Make(OXA_AF_DUAL, "192.168.1.1"));
  EXPECT_EQ("2/80/192.168.1.1", Make(7, "192.168.1.1"));
  // inet_addr's failure value doubles as the limited broadcast address: both refused.
  EXPECT_EQ("fail", Make(AF_INET, "255.255.255.255"));
  EXPECT_EQ("fail", Make(AF_INET, "1.2.3.x"));
  EXPECT_EQ("2/80/0.0.0.0", Make(AF_INET, "0.0.0.0"));
  EXPECT_EQ("10/80/::", Make(OXA_AF_DUAL, "0.0.0.0"));
  EXPECT_EQ("fail", Make(AF_INET6, "0.0.0.0"));
  EXPECT_EQ("fail", Make(7, "0.0.0.0"));
  EXPECT_EQ("fail", Make(AF_INET, "::1"));
  EXPECT_EQ("fail", Make(7, "::1"));
  EXPECT_EQ("10/80/::1", Make(AF_INET6, "::1"));
  EXPECT_EQ("10/80/::", Make(OXA_AF_DUAL, "::"));
  EXPECT_EQ("10/443/fe80::1", Make(OXA_AF_DUAL, "fe80 :: 1", 443));
  EXPECT_EQ("fail", Make(AF_INET6, "1::2::3"));
  EXPECT_EQ("fail", Make(OXA_AF_DUAL, "12345::1"));
  EXPECT_EQ(-1, OXA_MakeAddrByString(AF_INET, "1.2.3.4", 1, nullptr));
}

TEST(MakeAddrByString, DefaultFamilyFollowsGAf) {
  EXPECT_EQ(AF_INET, g_Af) << "no start-up has run in this process";
  EXPECT_EQ("2/80/0.0.0.0", Make(OXA_AF_DEFAULT, ""));
  EXPECT_EQ("fail", Make(OXA_AF_DEFAULT, "::1"));
  const int saved = g_Af;
  g_Af = OXA_AF_DUAL;
  EXPECT_EQ(OXA_AF_DUAL, OXA_GetAf_Inner(OXA_AF_DEFAULT));
  EXPECT_EQ("10/80/::", Make(OXA_AF_DEFAULT, "0.0.0.0"));
  g_Af = AF_INET6;
  EXPECT_EQ("fail", Make(OXA_AF_DEFAULT, "0.0.0.0"));
  EXPECT_EQ("10/80/::1", Make(OXA_AF_DEFAULT, "::1"));
  g_Af = saved;
  EXPECT_EQ(7, OXA_GetAf_Inner(7));
}

TEST(AddressRecord, IntegerFormsAndGetters) {
  OXA_ADDR_T addr;
  ASSERT_EQ(0, OXA_MakeAddr4ByInt(htonl(0x7F000001), 5000, &addr));
  EXPECT_EQ(AF_INET, OXA_GetAddrType(&addr));
  EXPECT_EQ(5000, OXA_GetAddrPort(&addr));
  unsigned int ip = 0;
  ASSERT_EQ(0, OXA_GetAddr4Int(&addr, &ip));
  EXPECT_EQ(htonl(0x7F000001), ip);
  unsigned char ip6[16];
  EXPECT_EQ(-1, OXA_GetAddr6Int(&addr, ip6));
  ASSERT_EQ(0, OXA_SetAddrPort(&addr, 6000));
  EXPECT_EQ(6000, OXA_GetAddrPort(&addr));
  EXPECT_STREQ("127.0.0.1", OXA_GetAddrString(&addr));

  const unsigned char bytes[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9};
  memset(&addr, 0xAB, sizeof addr);
  ASSERT_EQ(0, OXA_MakeAddr6ByInt(bytes, 7, &addr));
  EXPECT_EQ(AF_INET6, OXA_GetAddrType(&addr));
  EXPECT_EQ(0u, addr.in6.sin6_flowinfo);
  EXPECT_EQ(0u, addr.in6.sin6_scope_id);
  EXPECT_EQ(-1, OXA_GetAddr4Int(&addr, &ip));
  ASSERT_EQ(0, OXA_GetAddr6Int(&addr, ip6));
  EXPECT_EQ(0, memcmp(bytes, ip6, 16));
  EXPECT_STREQ("2001:db8::9", OXA_GetAddrString(&addr));

  // Any family but 2 is read as IPv6.
  addr.sa.sa_family = 0;
  memset(ip6, 0, sizeof ip6);
  EXPECT_EQ(0, OXA_GetAddr6Int(&addr, ip6));
  EXPECT_EQ(0, memcmp(bytes, ip6, 16));
}

TEST(AddressRecord, NullArgumentsFail) {
  OXA_ADDR_T addr;
  unsigned int ip;
  unsigned char ip6[16] = {};
  OXA_ADDR_INFO_T info;
  char buf[64];
  EXPECT_EQ(-1, OXA_MakeAddr4ByInt(1, 1, nullptr));
  EXPECT_EQ(-1, OXA_MakeAddr6ByInt(ip6, 1, nullptr));
  EXPECT_EQ(-1, OXA_MakeAddr6ByInt(nullptr, 1, &addr));
  EXPECT_EQ(-1, OXA_MakeAddr(nullptr, 16, &addr));
  EXPECT_EQ(-1, OXA_MakeAddr(&addr, 16, nullptr));
  EXPECT_EQ(-1, OXA_MakeAddr(ip6, 0, &addr));
  EXPECT_EQ(-1, OXA_SetAddrPort(nullptr, 1));
  EXPECT_EQ(-1, OXA_GetAddrType(nullptr));
  EXPECT_EQ(0, OXA_GetAddrPort(nullptr));
  EXPECT_EQ(-1, OXA_GetAddr4Int(nullptr, &ip));
  EXPECT_EQ(-1, OXA_GetAddr6Int(nullptr, ip6));
  EXPECT_EQ(-1, OXA_GetAddrInfo(nullptr, &info));
  EXPECT_EQ(-1, OXA_GetAddrInfo(&addr, nullptr));
  EXPECT_EQ(nullptr, OXA_GetAddrStringEx(nullptr, buf, sizeof buf));
  EXPECT_EQ(nullptr, OXA_GetAddrString(nullptr));
  EXPECT_EQ(-1, OXA_GetAddrBySockFd(0, nullptr, nullptr));
}

TEST(AddressRecord, MakeAddrCopiesTheSystemAddress) {
  sockaddr_in sys{};
  sys.sin_family = AF_INET;
  sys.sin_port = htons(99);
  sys.sin_addr.s_addr = htonl(0x0A000001);
  OXA_ADDR_T addr;
  memset(&addr, 0, sizeof addr);
  ASSERT_EQ(0, OXA_MakeAddr(&sys, sizeof sys, &addr));
  EXPECT_EQ(0, memcmp(&sys, &addr, sizeof sys));
  EXPECT_EQ(99, OXA_GetAddrPort(&addr));
}

TEST(AddressRecord, InfoIsAHostOrderView) {
  OXA_ADDR_T addr;
  ASSERT_EQ(0, OXA_MakeAddrByString(AF_INET, "1.2.3.4", 4660, &addr));
  OXA_ADDR_INFO_T info;
  memset(&info, 0x5A, sizeof info);
  ASSERT_EQ(0, OXA_GetAddrInfo(&addr, &info));
  EXPECT_EQ(2u, info.family);
  EXPECT_EQ(4660, info.port);
  EXPECT_EQ("010203045a5a5a5a5a5a5a5a5a5a5a5a", Hex(info.addr, 16)) << "the rest is left as it was";

  ASSERT_EQ(0, OXA_MakeAddrByString(AF_INET6, "ff02::1:2", 1, &addr));
  ASSERT_EQ(0, OXA_GetAddrInfo(&addr, &info));
  EXPECT_EQ(10u, info.family);
  EXPECT_EQ("ff020000000000000000000000010002", Hex(info.addr, 16));
}

TEST(AddressRecord, StringsOfUnusableRecordsAndTheSharedBuffer) {
  OXA_ADDR_T a;
  OXA_ADDR_T b;
  ASSERT_EQ(0, OXA_MakeAddrByString(AF_INET, "10.0.0.1", 1, &a));
  ASSERT_EQ(0, OXA_MakeAddrByString(AF_INET6, "::ffff:1.2.3.4", 1, &b));
  char* first = OXA_GetAddrString(&a);
  ASSERT_NE(nullptr, first);
  EXPECT_STREQ("10.0.0.1", first);
  EXPECT_EQ(first, OXA_GetAddrString(&b));
  EXPECT_STREQ("1.2.3.4", first) << "overwritten, cleared first so it stays terminated";

  char buf[8];
  EXPECT_EQ(nullptr, OXA_GetAddrStringEx(&a, buf, 0));
  EXPECT_EQ(nullptr, OXA_GetAddrStringEx(&a, buf, 7)) << "does not fit";
  a.sa.sa_family = 0;
  EXPECT_EQ(nullptr, OXA_GetAddrStringEx(&a, buf, sizeof buf));
  EXPECT_EQ(nullptr, OXA_GetAddrString(&a));
}

TEST(AddressRecord, AddressesOfAConnectedSocket) {
  const int fds_before = oxa_test::OpenFdCount();
  {
    oxa_test::TcpPair pair = oxa_test::ConnectedPair();
    ASSERT_TRUE(pair.client && pair.server);
    OXA_ADDR_T local;
    OXA_ADDR_T peer;
    ASSERT_EQ(0, OXA_GetAddrBySockFd(pair.client.get(), &local, &peer));
    OXA_ADDR_T server_local;
    ASSERT_EQ(0, OXA_GetAddrBySockFd(pair.server.get(), &server_local, nullptr));
    OXA_ADDR_T server_peer;
    ASSERT_EQ(0, OXA_GetAddrBySockFd(pair.server.get(), nullptr, &server_peer));
    EXPECT_EQ(0, memcmp(&peer, &server_local, sizeof peer));
    EXPECT_EQ(0, memcmp(&local, &server_peer, sizeof local));
    EXPECT_STREQ("127.0.0.1", OXA_GetAddrString(&local));
    EXPECT_NE(0, OXA_GetAddrPort(&local));

    // A listening socket has no peer: the local record is then not filled.
    OXA_ADDR_T listener_addr;
    oxa_test::UniqueFd listener = oxa_test::BoundLoopback(AF_INET, SOCK_STREAM, &listener_addr);
    ASSERT_TRUE(listener);
    memset(&local, 0xAB, sizeof local);
    EXPECT_EQ(-1, OXA_GetAddrBySockFd(listener.get(), &local, &peer));
    EXPECT_EQ(ENOTCONN, errno);
    EXPECT_EQ(0xABAB, local.sa.sa_family);
    EXPECT_EQ(-1, OXA_GetAddrBySockFd(-1, &local, nullptr));
  }
  EXPECT_EQ(fds_before, oxa_test::OpenFdCount());
}

}  // namespace
