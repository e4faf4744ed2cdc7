#include <gtest/gtest.h>

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "oxa_string.h"

namespace {

TEST(NumberText, ItoaRoundTripsThroughStrToi32InEveryBaseTheParserTakes) {
  const int values[] = {0, 1, 7, 35, 255, 4096, 123456789, INT_MAX};
  for (unsigned int base = 2; base <= 16; ++base) {
    for (int value : values) {
      char text[40];
      ASSERT_EQ(text, OXA_Itoa(text, value, base));
      char* end = nullptr;
      EXPECT_EQ(value, OXA_StrToi32(text, &end, static_cast<int>(base))) << text << " " << base;
      EXPECT_EQ('\0', *end);
      EXPECT_EQ(value, OXA_StrToi64(text, nullptr, static_cast<int>(base)));
    }
  }
  // Itoa writes bases up to 36, which both parsers refuse: 0 with end at the start.
  for (unsigned int base = 17; base <= 36; ++base) {
    char text[40];
    ASSERT_NE(nullptr, OXA_Itoa(text, 123456789, base));
    char* end = nullptr;
    EXPECT_EQ(0, OXA_StrToi32(text, &end, static_cast<int>(base)));
    EXPECT_EQ(text, end);
  }
}

TEST(NumberText, ItoaDigitsSignsAndRefusals) {
  char text[70];
  EXPECT_STREQ("ff", OXA_Itoa(text, 255, 16));
  EXPECT_STREQ("-42", OXA_Itoa(text, -42, 10));
  EXPECT_STREQ("0", OXA_Itoa(text, 0, 2));
  EXPECT_STREQ("zz", OXA_Itoa(text, 36 * 36 - 1, 36));
  EXPECT_STREQ("-2147483648", OXA_Itoa(text, INT_MIN, 10));
  EXPECT_EQ(std::to_string(LONG_MIN), OXA_Ltoa(text, LONG_MIN, 10));
  EXPECT_EQ(std::string(sizeof(long) * 8 - 1, '1'), OXA_Ltoa(text, LONG_MAX, 2));
  // Non-decimal negatives give one character: '0' plus the negative first remainder.
  EXPECT_STREQ("/", OXA_Itoa(text, -1, 16));
  EXPECT_EQ(nullptr, OXA_Itoa(text, 5, 1));
  EXPECT_EQ(nullptr, OXA_Itoa(text, 5, 37));
  EXPECT_EQ(nullptr, OXA_Itoa(nullptr, 5, 10));
  EXPECT_EQ(nullptr, oxa::oxa_string::itoa(text, 5, -10));
  EXPECT_STREQ("-7", oxa::oxa_string::itoa(text, -7, 10));
}

TEST(NumberText, StrToi32BaseDetectionEndPointerAndSaturation) {
  char* end = nullptr;
  const char* hex = "  -0x1A";
  EXPECT_EQ(-26, OXA_StrToi32(hex, &end, 0));
  EXPECT_EQ(hex + 7, end);
  const char* octal = "099";
  EXPECT_EQ(0, OXA_StrToi32(octal, &end, 0));
  EXPECT_EQ(octal + 1, end);
  EXPECT_EQ(8, OXA_StrToi32("010", nullptr, 0));
  const char* bare_prefix = "0xg";
  EXPECT_EQ(0, OXA_StrToi32(bare_prefix, &end, 16));
  EXPECT_EQ(bare_prefix, end);
  const char* blank = "   ";
  EXPECT_EQ(0, OXA_StrToi32(blank, &end, 10));
  EXPECT_EQ(blank, end);
  EXPECT_EQ(0, OXA_StrToi32("z", &end, 36));
  EXPECT_EQ(0, OXA_StrToi32("7", nullptr, 1));

  const char* big = "99999999999x";
  EXPECT_EQ(INT_MAX, OXA_StrToi32(big, &end, 10));
  EXPECT_EQ(big + 11, end);  // digits after the overflow are still consumed
  EXPECT_EQ(INT_MIN, OXA_StrToi32("-99999999999", nullptr, 10));
  EXPECT_EQ(INT_MAX, OXA_StrToi32("2147483647", nullptr, 10));
  EXPECT_EQ(INT_MAX, OXA_StrToi32("2147483648", nullptr, 10));
  EXPECT_EQ(INT_MIN, OXA_StrToi32("-2147483648", nullptr, 10));
  EXPECT_EQ(INT_MIN, OXA_StrToi32("-2147483649", nullptr, 10));
  EXPECT_EQ(-123, OXA_Atoi32(" -123abc"));
}

TEST(NumberText, StrToi64KeepsItsLenientDigitAndMinusOneOverflow) {
  char* end = nullptr;
  EXPECT_EQ(20, OXA_StrToi64("1a", nullptr, 10));  // a digit equal to the base is taken
  EXPECT_EQ(1, OXA_StrToi32("1a", nullptr, 10));
  EXPECT_EQ(LLONG_MAX, OXA_StrToi64("9223372036854775807", nullptr, 10));
  EXPECT_EQ(LLONG_MIN, OXA_StrToi64("-9223372036854775808", nullptr, 10));
  EXPECT_EQ(-1, OXA_StrToi64("9223372036854775808", nullptr, 10));
  EXPECT_EQ(-1, OXA_StrToi64("-9223372036854775809", nullptr, 10));
  const char* huge = "99999999999999999999";
  EXPECT_EQ(-1, OXA_StrToi64(huge, &end, 10));
  EXPECT_EQ(huge + 20, end);
  EXPECT_EQ(LLONG_MAX, OXA_StrToi64("0x7fffffffffffffff", nullptr, 0));
  EXPECT_EQ(1234567890123LL, OXA_Atoi64("1234567890123"));
}

TEST(ByteString, CopiesPadAndDuplicate) {
  char buffer[8];
  memset(buffer, 'x', sizeof buffer);
  OXA_Strncpy(buffer, "ab", 5);
  EXPECT_EQ(0, memcmp("ab\0\0\0xxx", buffer, 8));
  OXA_Strncpy(buffer, "zzz", 0);
  EXPECT_EQ('a', buffer[0]);
  OXA_Strncpy(buffer, "abcdefgh", 3);
  EXPECT_EQ(0, memcmp("abc\0\0xxx", buffer, 8));  // no terminator when src is long
  OXA_Strcpy(buffer, "hello");
  EXPECT_STREQ("hello", buffer);

  char* whole = OXA_Strdup("text");
  char* part = OXA_Strndup("text", 2);
  char* more = OXA_Strndup("text", 99);
  char* none = OXA_Strndup("text", -3);
  EXPECT_STREQ("text", whole);
  EXPECT_STREQ("te", part);
  EXPECT_STREQ("text", more);
  EXPECT_STREQ("", none);
  free(whole), free(part), free(more), free(none);
}

TEST(ByteString, ComparisonsUseUnsignedBytesAndTheirOwnLimits) {
  EXPECT_EQ(0, OXA_Strcmp("abc", "abc"));
  EXPECT_EQ(0xFF - 'a', OXA_Strcmp("\xff", "a"));
  EXPECT_EQ('c', OXA_Strcmp("abc", "ab"));
  EXPECT_EQ(0, OXA_Strncmp("abX", "abY", 2));
  EXPECT_EQ(0, OXA_Strncmp("a", "b", 0));
  EXPECT_EQ(0, OXA_Strcasecmp("HeLLo", "hEllO"));
  EXPECT_EQ('D' - 'C', OXA_Strcasecmp("abd", "ABC"));
  EXPECT_EQ(0, OXA_Strncasecmp("abc", "ABD", 2));
  EXPECT_EQ(0, OXA_Strncasecmp("abc", "ABD", -1));  // only the first bytes
  EXPECT_EQ('B' - 'A', OXA_Strncasecmp("bcd", "acd", -5));
  EXPECT_NE(0, OXA_Strncasecmp("abc", "ABD", 3));
  EXPECT_EQ(0, OXA_Strncasecmp("ab", "AB", 10));  // stops at the terminator
}

TEST(ByteString, SearchesAndTheirEdges) {
  const char* text = "hello";
  EXPECT_EQ(text + 2, OXA_Strchr(text, 'l'));
  EXPECT_EQ(nullptr, OXA_Strchr(text, 0));  // the terminator of a non-empty text
  const char* empty = "";
  EXPECT_EQ(empty, OXA_Strchr(empty, 0));
  EXPECT_EQ(nullptr, OXA_Strchr(empty, 'a'));

  const char embedded[] = {'a', 'b', '\0', 'c', 'd', 'e'};
  EXPECT_EQ(embedded + 4, OXA_Strnchr(embedded, 'd', 5));
  EXPECT_EQ(nullptr, OXA_Strnchr(embedded, 'e', 5));
  EXPECT_EQ(nullptr, OXA_Strnchr(embedded, 'a', 0));

  EXPECT_EQ(text + 3, OXA_Strnstr(text, "loXX", 2));
  EXPECT_EQ(text, OXA_Strnstr(text, "", 0));
  EXPECT_EQ(nullptr, OXA_Strnstr("hi", "hi!", 3));
  EXPECT_EQ(text + 4, OXA_Strnstr(text, "o", 1));  // the last offset is searched

  EXPECT_EQ(text + 1, OXA_Strstr(text, "ell"));
  EXPECT_EQ(text, OXA_Strcasestr(text, ""));
  EXPECT_EQ(text + 2, OXA_Strcasestr(text, "LLo"));
  EXPECT_EQ(nullptr, OXA_Strcasestr(text, "LLoo"));
  EXPECT_EQ(text + 4, OXA_Strcasestr(text, "O"));
}

// "中文编码测试，你好世界。" in UTF-8 and in EUC-CN.
constexpr char kChineseUtf8[] =
    "\xe4\xb8\xad\xe6\x96\x87\xe7\xbc\x96\xe7\xa0\x81\xe6\xb5\x8b\xe8\xaf\x95\xef\xbc\x8c"
    "\xe4\xbd\xa0\xe5\xa5\xbd\xe4\xb8\x96\xe7\x95\x8c\xe3\x80\x82 ok";
constexpr char kChineseEucCn[] =
    "\xd6\xd0\xce\xc4\xb1\xe0\xc2\xeb\xb2\xe2\xca\xd4\xa3\xac\xc4\xe3\xba\xc3\xca\xc0\xbd\xe7"
    "\xa1\xa3 ok";

TEST(EucCn, RealChineseTextRoundTripsAndBadInputGivesNothing) {
  const std::string euc = OXA_UTF82A(kChineseUtf8);
  EXPECT_EQ(std::string(kChineseEucCn), euc);
  EXPECT_EQ(std::string(kChineseUtf8), OXA_A2UTF8(euc.c_str()));
  EXPECT_EQ("plain ascii", OXA_UTF82A("plain ascii"));
  EXPECT_EQ("", OXA_UTF82A(""));
  // Bad input gives an empty string, not a prefix.
  EXPECT_EQ("", OXA_UTF82A(nullptr));
  EXPECT_EQ("", OXA_A2UTF8(nullptr));
  EXPECT_EQ("", OXA_UTF82A("ok\xc3\x28"));          // invalid continuation
  EXPECT_EQ("", OXA_UTF82A("ok\xe4\xb8"));          // truncated at the end
  EXPECT_EQ("", OXA_UTF82A("ok\xf0\x9f\x98\x80"));  // not in GB2312
  EXPECT_EQ("", OXA_A2UTF8("ok\xd6"));              // half a character
}

}  // namespace
