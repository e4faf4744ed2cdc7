#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string.h>

#include <array>
#include <random>
#include <string>

#include "oxa_addr.h"

namespace {

using Bytes16 = std::array<unsigned char, 16>;

Bytes16 Groups(std::array<uint16_t, 8> groups) {
  Bytes16 out;
  for (int i = 0; i < 8; ++i) {
    out[2 * i] = static_cast<unsigned char>(groups[i] >> 8);
    out[2 * i + 1] = static_cast<unsigned char>(groups[i]);
  }
  return out;
}

// What Pton6 returns for text that did not parse.
const Bytes16 kFailed = [] {
  Bytes16 b;
  b.fill(0xEE);
  return b;
}();

// Parses IPv6 text into a destination preset to kFailed; a failure must leave it so.
Bytes16 Pton6(const char* text) {
  Bytes16 out = kFailed;
  return OXA_InetPton(text, out.data()) == 0 ? out : kFailed;
}

std::string Ntop6(const Bytes16& bytes) {
  char buf[64];
  memset(buf, 0, sizeof buf);
  const char* text = OXA_InetNtop(AF_INET6, bytes.data(), buf, sizeof buf);
  return text == nullptr ? "(null)" : std::string(text);
}

// Random addresses rich in zero groups, so every form of "::" compression comes up.
Bytes16 RandomAddress(std::mt19937& rng) {
  std::array<uint16_t, 8> groups;
  for (uint16_t& g : groups) {
    switch (rng() % 4) {
      case 0:
      case 1:
        g = 0;
        break;
      case 2:
        g = static_cast<uint16_t>(rng() % 16);
        break;
      default:
        g = static_cast<uint16_t>(rng());
    }
  }
  return Groups(groups);
}

// The system prints "::a.b.c.d" and "::ffff:a.b.c.d"; the library prints only the quad there.
bool EmbedsIpv4(const Bytes16& b) {
  for (int i = 0; i < 10; ++i) {
    if (b[i] != 0) return false;
  }
  const bool mapped = b[10] == 0xFF && b[11] == 0xFF;
  const bool compatible = b[10] == 0 && b[11] == 0 && (b[12] != 0 || b[13] != 0);
  return mapped || compatible;
}

TEST(InetText, AgreesWithTheSystemOnGeneratedAddresses) {
  std::mt19937 rng(20240611);
  for (int round = 0; round < 20000; ++round) {
    const Bytes16 addr = RandomAddress(rng);
    char sys[INET6_ADDRSTRLEN];
    ASSERT_NE(nullptr, inet_ntop(AF_INET6, addr.data(), sys, sizeof sys));
    EXPECT_EQ(addr, Pton6(sys)) << sys;
    if (!EmbedsIpv4(addr)) {
      EXPECT_EQ(sys, Ntop6(addr));
    }

    // The uncompressed, upper-case form reads the same.
    char full[64];
    snprintf(full, sizeof full, "%X:%X:%X:%X:%X:%X:%X:%X", addr[0] << 8 | addr[1],
             addr[2] << 8 | addr[3], addr[4] << 8 | addr[5], addr[6] << 8 | addr[7],
             addr[8] << 8 | addr[9], addr[10] << 8 | addr[11], addr[12] << 8 | addr[13],
             addr[14] << 8 | addr[15]);
    EXPECT_EQ(addr, Pton6(full)) << full;

    const unsigned char* v4 = addr.data() + 12;
    char sys4[INET_ADDRSTRLEN];
    char own4[INET_ADDRSTRLEN] = {};
    ASSERT_NE(nullptr, inet_ntop(AF_INET, v4, sys4, sizeof sys4));
    ASSERT_EQ(own4, OXA_InetNtop(AF_INET, v4, own4, sizeof own4));
    EXPECT_STREQ(sys4, own4);
    unsigned char back[4] = {};
    ASSERT_EQ(0, OXA_InetPton(sys4, back)) << sys4;
    EXPECT_EQ(0, memcmp(v4, back, 4)) << sys4;
  }
}

TEST(InetText, DottedQuadIsStrictButTakesLeadingZeros) {
  for (const char* bad :
       {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.256", " 1.2.3.4", "1.2.3.4 ", "1..2.3",
        ".1.2.3", "1.2.3.", "+1.2.3.4", "1.2.3.4x", "0x1.2.3.4", "1.2.3.-4"}) {
    unsigned char out[4] = {9, 9, 9, 9};
    EXPECT_EQ(-1, OXA_InetPton(bad, out)) << bad;
    EXPECT_EQ(9, out[0]) << "destination changed on failure: " << bad;
  }
  // The system's inet_pton refuses leading zeros; this reader takes them as decimal.
  unsigned char out[4];
  ASSERT_EQ(0, OXA_InetPton("010.001.1.0255", out));
  const unsigned char want[4] = {10, 1, 1, 255};
  EXPECT_EQ(0, memcmp(want, out, 4));
  unsigned char sys[4];
  EXPECT_EQ(0, inet_pton(AF_INET, "010.001.1.0255", sys));
}

TEST(InetText, ColonHexRejections) {
  for (const char* bad :
       {"1:2:3:4:5:6:7:8:9", "1::2::3", "12345::1", ":::", "1:", ":1", ":", "1:2:3:4:5:6:7", "::g",
        "1:2:3:4:5:6:7:1.2.3.4", "::1.2.3", "::256.1.1.1", "1:2:3:4:5:6:7:8:9:10", "1:::2"}) {
    Bytes16 out = kFailed;
    EXPECT_EQ(-1, OXA_InetPton(bad, out.data())) << bad;
    EXPECT_EQ(kFailed, out) << "destination changed on failure: " << bad;
  }
  // Ten colons fail before any field is read; with nine the same fields are fine.
  EXPECT_EQ(kFailed, Pton6(":1:2:3:4:5:6:7:8::"));
  EXPECT_EQ(Groups({1, 2, 3, 4, 5, 6, 7, 8}), Pton6(":1:2:3:4:5:6:7:8:"));
}

TEST(InetText, ColonHexLeniencyTheSystemDoesNotShare) {
  const Bytes16 seq = Groups({1, 2, 3, 4, 5, 6, 7, 8});
  for (const char* text : {":1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8:", "::1:2:3:4:5:6:7:8",
                           "1:2:3:4:5:6:7:8::", "1:2:3:4::5:6:7:8", " 1 : 2:3:4:5:6:7:8\n"}) {
    EXPECT_EQ(seq, Pton6(text)) << text;
    unsigned char sys[16];
    EXPECT_NE(1, inet_pton(AF_INET6, text, sys)) << text;
  }
  EXPECT_EQ(Groups({0xfe80, 0, 0, 0, 0, 0, 0, 1}), Pton6("fe80 :: 1"));
  // An embedded dotted quad may stand before other groups and is read leniently.
  EXPECT_EQ(Groups({0x0102, 0x0304, 0, 0, 0, 0, 0, 0}), Pton6("1.2.3.4::"));
  EXPECT_EQ(Groups({0, 0, 0, 0, 0, 0xffff, 0x0102, 0x0304}), Pton6("::ffff:01.002.3.4"));
  // Only the first 255 characters are read.
  EXPECT_EQ(Groups({0, 0, 0, 0, 0, 0, 0, 1}), Pton6(("::1" + std::string(300, ' ') + "x").c_str()));
}

TEST(InetText, PtonRejectsNullPointers) {
  unsigned char out[16];
  EXPECT_EQ(-1, OXA_InetPton(nullptr, out));
  EXPECT_EQ(-1, OXA_InetPton("::1", nullptr));
}

TEST(InetText, Ipv4PrintingIsBoundedByLenWithoutTerminator) {
  const unsigned char ip[4] = {192, 168, 10, 200};  // 14 characters
  char buf[20];
  memset(buf, 'x', sizeof buf);
  ASSERT_EQ(buf, OXA_InetNtop(AF_INET, ip, buf, 14));
  EXPECT_EQ(0, memcmp("192.168.10.200x", buf, 15)) << "no terminator when len is exact";
  EXPECT_EQ(nullptr, OXA_InetNtop(AF_INET, ip, buf, 13));
  memset(buf, 'x', sizeof buf);
  ASSERT_EQ(buf, OXA_InetNtop(AF_INET, ip, buf, 18));
  EXPECT_EQ(0, memcmp("192.168.10.200\0\0\0\0x", buf, 19)) << "padded with zeros to len";
}

TEST(InetText, Ipv6PrintingCompressesTheLongestEarliestRun) {
  EXPECT_EQ("::", Ntop6(Groups({0, 0, 0, 0, 0, 0, 0, 0})));
  EXPECT_EQ("::1", Ntop6(Groups({0, 0, 0, 0, 0, 0, 0, 1})));
  EXPECT_EQ("1::", Ntop6(Groups({1, 0, 0, 0, 0, 0, 0, 0})));
  EXPECT_EQ("1:0:2::3:0:0", Ntop6(Groups({1, 0, 2, 0, 0, 3, 0, 0})));
  EXPECT_EQ("1::2:0:0:3:4", Ntop6(Groups({1, 0, 0, 2, 0, 0, 3, 4})));
  EXPECT_EQ("1:0:2:3:4:5:6:7", Ntop6(Groups({1, 0, 2, 3, 4, 5, 6, 7})));
  EXPECT_EQ("1:2:3:4:5:6:7:8", Ntop6(Groups({1, 2, 3, 4, 5, 6, 7, 8})));
  EXPECT_EQ("abcd:ef::", Ntop6(Groups({0xabcd, 0xef, 0, 0, 0, 0, 0, 0})));

  const Bytes16 seq = Groups({1, 2, 3, 4, 5, 6, 7, 8});  // 15 characters
  char buf[20];
  EXPECT_EQ(nullptr, OXA_InetNtop(AF_INET6, seq.data(), buf, 15)) << "needs room for the zero";
  EXPECT_EQ(buf, OXA_InetNtop(AF_INET6, seq.data(), buf, 16));
  EXPECT_STREQ("1:2:3:4:5:6:7:8", buf);
}

TEST(InetText, EmbeddedIpv4PrintsOnlyTheUnterminatedQuad) {
  for (const Bytes16& addr : {Groups({0, 0, 0, 0, 0, 0xffff, 0x0102, 0x0304}),
                              Groups({0, 0, 0, 0, 0, 0, 0x0102, 0x0304})}) {
    char buf[32];
    memset(buf, 'x', sizeof buf);
    // len is not checked on this path (it only has to be non-zero).
    ASSERT_EQ(buf, OXA_InetNtop(AF_INET6, addr.data(), buf, 1));
    EXPECT_EQ(0, memcmp("1.2.3.4x", buf, 8));
  }
  // Not embedded: a mapped prefix needs five zero groups, a compatible one a non-zero group 6.
  EXPECT_EQ("::fffe:102:304", Ntop6(Groups({0, 0, 0, 0, 0, 0xfffe, 0x0102, 0x0304})));
  EXPECT_EQ("::304", Ntop6(Groups({0, 0, 0, 0, 0, 0, 0, 0x0304})));
}

TEST(InetText, NtopRejectsBadArguments) {
  const unsigned char ip[16] = {};
  char buf[64];
  EXPECT_EQ(nullptr, OXA_InetNtop(AF_INET, nullptr, buf, sizeof buf));
  EXPECT_EQ(nullptr, OXA_InetNtop(AF_INET, ip, nullptr, 64));
  EXPECT_EQ(nullptr, OXA_InetNtop(AF_INET6, ip, buf, 0));
  EXPECT_EQ(nullptr, OXA_InetNtop(AF_INET6, ip, buf, -5));
  EXPECT_EQ(nullptr, OXA_InetNtop(7, ip, buf, sizeof buf));
}

TEST(TextHelpers, Ipv4ToIntIsLenient) {
  unsigned int ip = 0;
  EXPECT_EQ(1, ipv4_to_i("1.2.3.4", &ip));
  EXPECT_EQ(0x01020304u, ip);
  EXPECT_EQ(1, ipv4_to_i(" 10.20.30.40trailing", &ip));
  EXPECT_EQ(0x0A141E28u, ip);
  for (const char* bad : {"1.2.3", "-1.2.3.4", "1.2.3.256", "a.b.c.d", ""}) {
    ip = 7;
    EXPECT_EQ(0, ipv4_to_i(bad, &ip)) << bad;
    EXPECT_EQ(7u, ip);
  }
  EXPECT_EQ(0, ipv4_to_i(nullptr, &ip));
  EXPECT_EQ(0, ipv4_to_i("1.2.3.4", nullptr));
}

TEST(TextHelpers, TrimCountAndFieldTypes) {
  char text[] = " a b\tc\r\nd ";
  EXPECT_EQ(text, string_white_space_trim(text));
  EXPECT_STREQ("abcd", text);
  EXPECT_EQ(nullptr, string_white_space_trim(nullptr));
  EXPECT_EQ(3, string_char_count("a:b::", ':'));
  EXPECT_EQ(0, string_char_count("", ':'));
  EXPECT_EQ(0, string_char_count(nullptr, ':'));

  EXPECT_EQ(1, ipv6_address_field_type_get(""));
  EXPECT_EQ(0, ipv6_address_field_type_get("a"));
  EXPECT_EQ(0, ipv6_address_field_type_get("FfFf"));
  EXPECT_EQ(-1, ipv6_address_field_type_get("fffff"));
  EXPECT_EQ(-1, ipv6_address_field_type_get("1.2.3"));  // 5 characters
  EXPECT_EQ(-1, ipv6_address_field_type_get("x1"));
  EXPECT_EQ(2, ipv6_address_field_type_get("1.2.3.4"));
  EXPECT_EQ(2, ipv6_address_field_type_get("255.255.255.255"));
  EXPECT_EQ(-1, ipv6_address_field_type_get("0255.255.255.255"));  // 16 characters
  EXPECT_EQ(-1, ipv6_address_field_type_get("1.2.3.x"));
  EXPECT_EQ(-1, ipv6_address_field_type_get(nullptr));
}

}  // namespace
