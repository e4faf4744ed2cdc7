// Address text and records. The parser and printer are compared with the system's inet_pton and
// inet_ntop on generated input; each place where they deliberately differ has its own case.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <ctype.h>
#include <string.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "oxa_addr.h"

#include "support/test_support.h"

namespace {

using oxa_test::Bytes;

using Bytes16 = std::array<unsigned char, 16>;

Bytes16 Groups(std::array<uint16_t, 8> groups) {
  Bytes16 out;
  for (int i = 0; i < 16; ++i)
    out[i] = static_cast<unsigned char>(groups[i / 2] >> (i % 2 == 0 ? 8 : 0));
  return out;
}

const Bytes16 kFailed = Groups({0xeeee, 0xeeee, 0xeeee, 0xeeee, 0xeeee, 0xeeee, 0xeeee, 0xeeee});

// The 16 bytes parsed, or kFailed when parsing failed, which must leave the destination alone.
Bytes16 Pton6(const std::string& text) {
  Bytes16 out = kFailed;
  if (OXA_InetPton(text.c_str(), out.data()) == 0) return out;
  EXPECT_EQ(kFailed, out) << "destination changed on failure: " << text;
  return kFailed;
}

// "::a.b.c.d" (a.b not zero) and "::ffff:a.b.c.d", which the library prints as the quad alone.
bool EmbedsIpv4(const Bytes16& b) {
  if (Bytes(b.data(), 10) != std::string(10, '\0')) return false;
  return (b[10] == 0xff && b[11] == 0xff) || (b[10] == 0 && b[11] == 0 && (b[12] | b[13]) != 0);
}

// The system refuses leading zeros, which the library reads as decimal: drop them.
std::string WithoutLeadingZeros(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '0' || (!out.empty() && isdigit(out.back())) || !isdigit(text[i + 1]))
      out += text[i];
  }
  return out;
}

TEST(InetText, AgreesWithTheSystemOnGeneratedText) {
  std::mt19937 rng(20240611);
  for (int round = 0; round < 20000; ++round) {
    // Groups rich in zeros (every form of "::") and in 0xffff (mapped IPv4).
    std::array<uint16_t, 8> groups;
    for (uint16_t& g : groups) {
      const unsigned int kind = rng() % 5;
      g = static_cast<uint16_t>(kind < 2    ? 0u
                                : kind == 2 ? rng() % 16
                                : kind == 3 ? 0xffff
                                            : rng());
    }
    const Bytes16 addr = Groups(groups);
    char sys[INET6_ADDRSTRLEN];
    ASSERT_NE(nullptr, inet_ntop(AF_INET6, addr.data(), sys, sizeof sys));
    EXPECT_EQ(addr, Pton6(sys)) << sys;
    const std::string text = sys;
    char own[64] = {};
    OXA_InetNtop(AF_INET6, addr.data(), own, sizeof own);
    EXPECT_EQ(EmbedsIpv4(addr) ? text.substr(text.rfind(':') + 1) : text, std::string(own));
    char full[64];  // uncompressed and upper case
    snprintf(full, sizeof full, "%X:%X:%X:%X:%X:%X:%X:%X", groups[0], groups[1], groups[2],
             groups[3], groups[4], groups[5], groups[6], groups[7]);
    EXPECT_EQ(addr, Pton6(full)) << full;
    char sys4[INET_ADDRSTRLEN];
    char own4[INET_ADDRSTRLEN] = {};
    ASSERT_NE(nullptr, inet_ntop(AF_INET, addr.data() + 12, sys4, sizeof sys4));
    ASSERT_EQ(own4, OXA_InetNtop(AF_INET, addr.data() + 12, own4, sizeof own4));
    EXPECT_STREQ(sys4, own4);

    // Dotted quads of 3 to 5 numbers, often with leading zeros, now and then a stray character.
    std::string quad;
    for (unsigned int part = 0, parts = 3 + rng() % 3; part < parts; ++part) {
      if (part != 0) quad += '.';
      for (unsigned int d = 0, digits = rng() % 5; d < digits; ++d)
        quad += static_cast<char>('0' + rng() % (d == 0 ? 3 : 10));
    }
    if (rng() % 8 == 0) quad.insert(rng() % (quad.size() + 1), 1, " x+-"[rng() % 4]);
    unsigned char want[4] = {9, 9, 9, 9};
    unsigned char got[4] = {9, 9, 9, 9};
    const bool accepted = inet_pton(AF_INET, WithoutLeadingZeros(quad).c_str(), want) == 1;
    EXPECT_EQ(accepted ? 0 : -1, OXA_InetPton(quad.c_str(), got)) << quad;
    EXPECT_EQ(Bytes(want, 4), Bytes(got, 4)) << quad;
  }
  unsigned char sys[4];
  EXPECT_EQ(0, inet_pton(AF_INET, "010.1.1.1", sys)) << "the system does refuse leading zeros";
}

TEST(InetText, ColonHexRejectionsAndLeniency) {
  for (const char* bad : {"1:2:3:4:5:6:7:8:9", "1::2::3", "12345::1", ":::", "1:", ":",
                          "1:2:3:4:5:6:7", "::g", "1:2:3:4:5:6:7:1.2.3.4", "::1.2.3", "::256.1.1.1",
                          ":1:2:3:4:5:6:7:8::"})  // ten colons fail before any field is read
    EXPECT_EQ(kFailed, Pton6(bad)) << bad;
  // Accepted here, refused by the system.
  for (const char* text : {":1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8:", "::1:2:3:4:5:6:7:8",
                           "1:2:3:4:5:6:7:8::", "1:2:3:4::5:6:7:8", " 1 : 2:3:4:5:6:7:8\n"}) {
    EXPECT_EQ(Groups({1, 2, 3, 4, 5, 6, 7, 8}), Pton6(text)) << text;
    unsigned char sys[16];
    EXPECT_NE(1, inet_pton(AF_INET6, text, sys)) << text;
  }
  // An embedded dotted quad may stand before other groups and is read leniently.
  EXPECT_EQ(Groups({0x0102, 0x0304, 0, 0, 0, 0, 0, 0}), Pton6("1.2.3.4::"));
  EXPECT_EQ(Groups({0, 0, 0, 0, 0, 0xffff, 0x0102, 0x0304}), Pton6("::ffff:01.002.3.4"));
  // Only the first 255 characters are read.
  EXPECT_EQ(Groups({0, 0, 0, 0, 0, 0, 0, 1}), Pton6("::1" + std::string(300, ' ') + "x"));
}

TEST(InetText, PrintingLengthRules) {
  // IPv4: bounded by len and padded with zeros; no terminator when len is the text's length.
  const unsigned char ip[4] = {192, 168, 10, 200};
  char buf[20];
  memset(buf, 'x', sizeof buf);
  ASSERT_EQ(buf, OXA_InetNtop(AF_INET, ip, buf, 14));
  EXPECT_EQ("192.168.10.200x", Bytes(buf, 15));
  EXPECT_EQ(nullptr, OXA_InetNtop(AF_INET, ip, buf, 13));
  ASSERT_EQ(buf, OXA_InetNtop(AF_INET, ip, buf, 18));
  EXPECT_EQ(Bytes("192.168.10.200\0\0\0\0x", 19), Bytes(buf, 19));
  // IPv6 needs room for the terminator...
  const Bytes16 seq = Groups({1, 2, 3, 4, 5, 6, 7, 8});
  EXPECT_EQ(nullptr, OXA_InetNtop(AF_INET6, seq.data(), buf, 15));
  EXPECT_EQ(buf, OXA_InetNtop(AF_INET6, seq.data(), buf, 16));
  EXPECT_STREQ("1:2:3:4:5:6:7:8", buf);
  // ...except an embedded quad, written without one, and only when it fits.
  const Bytes16 mapped = Groups({0, 0, 0, 0, 0, 0xffff, 0x0102, 0x0304});
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(nullptr, OXA_InetNtop(AF_INET6, mapped.data(), buf, 6));
  EXPECT_EQ("xxxxxxxx", Bytes(buf, 8)) << "nothing is written past len";
  ASSERT_EQ(buf, OXA_InetNtop(AF_INET6, mapped.data(), buf, 7));
  EXPECT_EQ("1.2.3.4x", Bytes(buf, 8));
  // The same through an address record, into a heap buffer the address sanitizer watches.
  OXA_ADDR_T addr;
  ASSERT_EQ(0, OXA_MakeAddr6ByInt(Groups({0, 0, 0, 0, 0, 0, 0xffff, 0xffff}).data(), 0, &addr));
  std::vector<char> small(8, 'x');
  EXPECT_EQ(nullptr, OXA_GetAddrStringEx(&addr, small.data(), 8)) << "255.255.255.255 is 15";
  EXPECT_EQ(std::string(8, 'x'), std::string(small.begin(), small.end()));
  EXPECT_EQ(nullptr, OXA_GetAddrStringEx(&addr, small.data(), -1));
}

TEST(TextHelpers, Ipv4ToIntTrimCountAndFieldTypes) {
  unsigned int ip = 0;
  // sscanf rules: leading white space allowed, anything after the fourth number ignored.
  EXPECT_EQ(1, ipv4_to_i(" 10.20.30.40trailing", &ip));
  for (const char* bad : {"1.2.3", "-1.2.3.4", "1.2.3.256", "a.b.c.d"})
    EXPECT_EQ(0, ipv4_to_i(bad, &ip)) << bad;
  EXPECT_EQ(0x0A141E28u, ip);
  char text[] = " a b\tc\r\nd ";
  EXPECT_EQ(text, string_white_space_trim(text));
  EXPECT_STREQ("abcd", text);
  EXPECT_EQ(3, string_char_count("a:b::", ':') + string_char_count("", ':'));
  const std::pair<const char*, int> fields[] = {
      {"", 1},         {"FfFf", 0},    {"fffff", -1},          {"1.2.3", -1},
      {"1.2.3.x", -1}, {"1.2.3.4", 2}, {"255.255.255.255", 2}, {"0255.255.255.255", -1}};
  for (const auto& f : fields)
    EXPECT_EQ(f.second, ipv6_address_field_type_get(f.first)) << f.first;
}

// OXA_MakeAddrByString into a record preset to garbage: "fail", or "family/port/address".
std::string Make(int af, const char* text) {
  OXA_ADDR_T addr;
  memset(&addr, 0xAB, sizeof addr);
  if (OXA_MakeAddrByString(af, text, 80, &addr) != 0) {
    OXA_ADDR_T expect;  // all zero, or family and port only
    memset(&expect, 0, sizeof expect);
    expect.in4.sin_family = addr.in4.sin_family;
    expect.in4.sin_port = addr.in4.sin_port;
    EXPECT_EQ(Bytes(&expect, sizeof expect), Bytes(&addr, sizeof addr)) << text;
    return "fail";
  }
  const bool v4 = addr.sa.sa_family == AF_INET;
  if (v4) {  // whatever the form does not use is zero
    EXPECT_EQ(std::string(20, '\0'), Bytes(reinterpret_cast<char*>(&addr) + 8, 20)) << text;
  } else {
    EXPECT_EQ(0u, addr.in6.sin6_flowinfo | addr.in6.sin6_scope_id) << text;
  }
  char ip[INET6_ADDRSTRLEN] = "?";
  inet_ntop(addr.sa.sa_family, v4 ? static_cast<void*>(&addr.in4.sin_addr) : &addr.in6.sin6_addr,
            ip, sizeof ip);
  return std::to_string(addr.sa.sa_family) + "/" + std::to_string(ntohs(addr.in4.sin_port)) + "/" +
         ip;
}

TEST(MakeAddrByString, FamiliesAndTexts) {
  const struct {
    int af;
    const char* text;
    const char* want;
  } cases[] = {
      {AF_INET, nullptr, "2/80/0.0.0.0"},
      {AF_INET6, "", "10/80/::"},
      {7, "", "fail"},
      {AF_INET, "10.1.2.3", "2/80/10.1.2.3"},
      // IPv4 text is IPv4 whatever family was asked for, even an unknown one.
      {AF_INET6, "192.168.1.1", "2/80/192.168.1.1"},
      {7, "192.168.1.1", "2/80/192.168.1.1"},
      // inet_addr's failure value doubles as the limited broadcast address: both refused.
      {AF_INET, "255.255.255.255", "fail"},
      {AF_INET, "1.2.3.x", "fail"},
      {AF_INET, "0.0.0.0", "2/80/0.0.0.0"},
      {OXA_AF_DUAL, "0.0.0.0", "10/80/::"},
      {AF_INET6, "0.0.0.0", "fail"},
      {7, "0.0.0.0", "fail"},
      {AF_INET, "::1", "fail"},
      {AF_INET6, "::1", "10/80/::1"},
      {OXA_AF_DUAL, "::", "10/80/::"},
      {OXA_AF_DUAL, "fe80 :: 1", "10/80/fe80::1"},
      {AF_INET6, "1::2::3", "fail"},
      {OXA_AF_DUAL, "12345::1", "fail"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.want, Make(c.af, c.text)) << c.af << " " << c.text;
  // The default family is g_Af, which starts as 2 (no start-up runs in this process).
  EXPECT_EQ("fail", Make(OXA_AF_DEFAULT, "::1"));
  oxa_test::DefaultFamilyRestorer restore;
  g_Af = OXA_AF_DUAL;
  EXPECT_EQ("10/80/::", Make(OXA_AF_DEFAULT, "0.0.0.0"));
  g_Af = AF_INET6;
  EXPECT_EQ("fail", Make(OXA_AF_DEFAULT, "0.0.0.0"));
  EXPECT_EQ(AF_INET6, OXA_GetAf_Inner(OXA_AF_DEFAULT));
  EXPECT_EQ(7, OXA_GetAf_Inner(7));
}

TEST(AddressRecord, IntegerFormsAndViews) {
  const sockaddr_in want = {AF_INET, htons(4661), {htonl(0x01020304)}, {}};
  OXA_ADDR_T addr;
  OXA_ADDR_T copy;
  OXA_ADDR_INFO_T info;
  unsigned int ip = 0;
  unsigned char ip6[16];
  memset(&addr, 0xAB, sizeof addr);
  ASSERT_EQ(0, OXA_MakeAddr4ByInt(htonl(0x01020304), 4660, &addr));
  ASSERT_EQ(0, OXA_SetAddrPort(&addr, 4661));
  EXPECT_EQ(Bytes(&want, sizeof want) + std::string(12, '\0'), Bytes(&addr, sizeof addr));
  memset(&copy, 0, sizeof copy);
  ASSERT_EQ(0, OXA_MakeAddr(&want, sizeof want, &copy));
  EXPECT_EQ(Bytes(&addr, sizeof addr), Bytes(&copy, sizeof copy));
  EXPECT_TRUE(OXA_GetAddrType(&addr) == AF_INET && OXA_GetAddrPort(&addr) == 4661);
  EXPECT_TRUE(OXA_GetAddr4Int(&addr, &ip) == 0 && ip == htonl(0x01020304));
  EXPECT_EQ(-1, OXA_GetAddr6Int(&addr, ip6));
  memset(&info, 0x5A, sizeof info);
  ASSERT_EQ(0, OXA_GetAddrInfo(&addr, &info));
  EXPECT_TRUE(info.family == 2 && info.port == 4661);
  EXPECT_EQ("\1\2\3\4" + std::string(12, '\x5a'), Bytes(info.addr, 16)) << "the rest is kept";

  const Bytes16 bytes = Groups({0x2001, 0xdb8, 0, 0, 0, 0, 0, 9});
  memset(&addr, 0xAB, sizeof addr);
  ASSERT_EQ(0, OXA_MakeAddr6ByInt(bytes.data(), 7, &addr));
  EXPECT_EQ(0u, addr.in6.sin6_flowinfo | addr.in6.sin6_scope_id);
  EXPECT_EQ(-1, OXA_GetAddr4Int(&addr, &ip));
  char* shared = OXA_GetAddrString(&addr);
  EXPECT_STREQ("2001:db8::9", shared);
  // The shared buffer is overwritten, and cleared first so that the shorter text is terminated.
  OXA_ADDR_T mapped;
  ASSERT_EQ(0, OXA_MakeAddrByString(AF_INET6, "::ffff:1.2.3.4", 1, &mapped));
  EXPECT_EQ(shared, OXA_GetAddrString(&mapped));
  EXPECT_STREQ("1.2.3.4", shared);
  char buf[11];
  EXPECT_EQ(nullptr, OXA_GetAddrStringEx(&addr, buf, 11)) << "no room for the terminator";
  // Any family but 2 is read as IPv6, but only 2 and 10 print.
  addr.sa.sa_family = 0;
  ASSERT_EQ(0, OXA_GetAddr6Int(&addr, ip6));
  EXPECT_EQ(Bytes(bytes.data(), 16), Bytes(ip6, 16));
  EXPECT_EQ(nullptr, OXA_GetAddrString(&addr));
}

TEST(AddressRecord, NullAndBadArgumentsFail) {
  OXA_ADDR_T addr;
  ASSERT_EQ(0, OXA_MakeAddr4ByInt(1, 1, &addr));
  unsigned int ip = 0;
  unsigned char ip6[16] = {};
  OXA_ADDR_INFO_T info;
  char buf[64];
  EXPECT_EQ(-1, OXA_MakeAddrByString(AF_INET, "1.2.3.4", 1, nullptr));
  EXPECT_EQ(-1, OXA_MakeAddr4ByInt(1, 1, nullptr));
  EXPECT_EQ(-1, OXA_MakeAddr6ByInt(ip6, 1, nullptr));
  EXPECT_EQ(-1, OXA_MakeAddr6ByInt(nullptr, 1, &addr));
  EXPECT_EQ(-1, OXA_MakeAddr(nullptr, 16, &addr));
  EXPECT_EQ(-1, OXA_MakeAddr(ip6, 16, nullptr));
  EXPECT_EQ(-1, OXA_MakeAddr(ip6, 0, &addr));
  EXPECT_EQ(-1, OXA_SetAddrPort(nullptr, 1));
  EXPECT_EQ(-1, OXA_GetAddrType(nullptr));
  EXPECT_EQ(0, OXA_GetAddrPort(nullptr));
  EXPECT_EQ(-1, OXA_GetAddr4Int(nullptr, &ip));
  EXPECT_EQ(-1, OXA_GetAddr6Int(nullptr, ip6));
  EXPECT_EQ(-1, OXA_GetAddrInfo(nullptr, &info));
  EXPECT_EQ(-1, OXA_GetAddrInfo(&addr, nullptr));
  EXPECT_EQ(nullptr, OXA_GetAddrStringEx(nullptr, buf, sizeof buf));
  EXPECT_EQ(nullptr, OXA_GetAddrStringEx(&addr, buf, 0));
  EXPECT_EQ(nullptr, OXA_GetAddrString(nullptr));
  EXPECT_EQ(-1, OXA_GetAddrBySockFd(0, nullptr, nullptr));
  EXPECT_EQ(-1, OXA_InetPton(nullptr, ip6));
  EXPECT_EQ(-1, OXA_InetPton("::1", nullptr));
  EXPECT_EQ(nullptr, OXA_InetNtop(AF_INET, nullptr, buf, sizeof buf));
  EXPECT_EQ(nullptr, OXA_InetNtop(AF_INET, ip6, nullptr, 64));
  EXPECT_EQ(nullptr, OXA_InetNtop(AF_INET6, ip6, buf, 0));
  EXPECT_EQ(nullptr, OXA_InetNtop(7, ip6, buf, sizeof buf));
  EXPECT_EQ(0, ipv4_to_i(nullptr, &ip) | ipv4_to_i("1.2.3.4", nullptr));
  EXPECT_EQ(nullptr, string_white_space_trim(nullptr));
  EXPECT_EQ(0, string_char_count(nullptr, ':'));
  EXPECT_EQ(-1, ipv6_address_field_type_get(nullptr));
  EXPECT_EQ(0u, ip);
}

}  // namespace
