#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "oxa_memory.h"

#include "memory/memory_test_util.h"

namespace {

using oxa::CMemoryBlock;

TEST(MemoryBlock, GuardsSeeOverrunsAndUnderrunsButNotTheUserBytes) {
  CMemoryBlock block(7);  // the tail guard is not aligned
  char* user = block.Ptr(0);
  const auto* alloc = static_cast<const unsigned char*>(block.AllocPtr());
  ASSERT_EQ(reinterpret_cast<const char*>(alloc) + 4, user);
  memset(user, 0xAB, 7);
  EXPECT_FALSE(block.BoundaryOverflow());
  EXPECT_EQ(0, memcmp(alloc, "\x16\x16\x16\x16", 4));
  EXPECT_EQ(0, memcmp(alloc + 11, "\x16\x16\x16\x16", 4));
  user[7] = 0;
  EXPECT_TRUE(block.BoundaryOverflow());
  block.ResetBoundary();
  EXPECT_FALSE(block.BoundaryOverflow());
  user[-1] = 0;
  EXPECT_TRUE(block.BoundaryOverflow());
  EXPECT_EQ(nullptr, CMemoryBlock(0).Ptr(0));  // a zero-size block has no user bytes
}

TEST(MemoryBlock, ToStringDescribesTheBlockOnOneLine) {
  CMemoryBlock block(32);
  char* user = block.Ptr(static_cast<OXA_HANDLE>(0x1234));
  user[32] = 0x41;
  char head[160];
  snprintf(head, sizeof head,
           "{ \"BlockSize\": 32, \"Alloc\": \"0x%p\", \"User\": \"0x%p\", \"Used\": true, "
           "\"LastThreadId\": \"0x%p\", \"CreateTime\": \"",
           block.AllocPtr(), static_cast<void*>(user), reinterpret_cast<void*>(0x1234));
  const std::string text = block.ToString();
  ASSERT_EQ(0u, text.find(head)) << text;  // "0x%p": the doubled prefix is part of the text
  size_t at = strlen(head);
  EXPECT_TRUE(oxa_test::IsCTimeText(text.substr(at, 24))) << text;
  const std::string between = "\", \"LastTime\": \"";
  EXPECT_EQ(between, text.substr(at + 24, between.size())) << text;
  at += 24 + between.size();
  EXPECT_TRUE(oxa_test::IsCTimeText(text.substr(at, 24))) << text;
  EXPECT_EQ(
      "\", \"HeaderBoundary\": \" 0x16 0x16 0x16 0x16\", "
      "\"TailBoundary\": \" 0x41 0x16 0x16 0x16\" }",
      text.substr(at + 24));
}

TEST(MemoryBlockDeath, LendingTwiceReturningTwiceAndIdleTimeOfALentBlockAbort) {
  CMemoryBlock block(8);
  block.Ptr(0);
  EXPECT_DEATH(block.Ptr(0),
               "\\.\\./memory_block:25: char\\* oxa::CMemoryBlock::Ptr\\(OXA_HANDLE\\): "
               "Assertion `!m_bUsed' failed");
  EXPECT_DEATH(block.TimeOffset(0),
               "\\.\\./memory_block:71: oxa_int64 oxa::CMemoryBlock::TimeOffset\\(oxa_uint64\\) "
               "const: Assertion `!m_bUsed' failed");
  block.Reset();
  EXPECT_DEATH(block.Reset(),
               "\\.\\./memory_block:37: void oxa::CMemoryBlock::Reset\\(\\): "
               "Assertion `m_bUsed' failed");
}

}  // namespace
