#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "oxa_sysinfo.h"

namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "expected texts assume little endian");

TEST(Uuid, GeneratesDistinctRfcIdentifiers) {
  unsigned char first[16];
  unsigned char second[16];
  ASSERT_EQ(0, OXA_GetUUID(first));
  ASSERT_EQ(0, OXA_GetUUID(second));
  EXPECT_NE(0, memcmp(first, second, sizeof first));
  EXPECT_EQ(0x80, first[8] & 0xC0);  // the standard variant
  const int version = first[6] >> 4;
  EXPECT_TRUE(version == 4 || version == 1) << version;
  EXPECT_EQ(-1, OXA_GetUUID(nullptr));
}

TEST(Uuid, TextShowsNativeGroupsAndAcceptsSize36) {
  unsigned char id[16];
  for (int i = 0; i < 16; ++i)
    id[i] = static_cast<unsigned char>(i == 15 ? 0xAB : i);
  char text[40];
  ASSERT_EQ(0, OXA_StringFromUUID(id, text, sizeof text));
  EXPECT_STREQ("03020100-0504-0706-0809-0A0B0C0D0EAB", text);
  memset(text, '#', sizeof text);
  ASSERT_EQ(0, OXA_StringFromUUID(id, text, 36));
  EXPECT_STREQ("03020100-0504-0706-0809-0A0B0C0D0EA", text);  // the last digit is cut off
  memset(text, '#', sizeof text);
  EXPECT_EQ(-1, OXA_StringFromUUID(id, text, 35));
  EXPECT_EQ('#', text[0]);
  EXPECT_EQ(-1, OXA_StringFromUUID(nullptr, text, 40));
  EXPECT_EQ(-1, OXA_StringFromUUID(id, nullptr, 40));
}

}  // namespace
