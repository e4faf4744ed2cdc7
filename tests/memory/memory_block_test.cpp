#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>

#include <string>

#include "oxa_memory.h"
#include "oxa_thread.h"
#include "oxa_time.h"

#include "memory/memory_test_util.h"

namespace {

using oxa::CMemoryBlock;

TEST(MemoryBlock, GuardsBracketTheUserBytes) {
  CMemoryBlock block(10);
  char* user = block.Ptr(OXA_Thread_GetSelfId());
  ASSERT_NE(nullptr, user);
  const auto* alloc = static_cast<const unsigned char*>(block.AllocPtr());
  EXPECT_EQ(reinterpret_cast<const char*>(alloc) + 4, user);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(0x16, alloc[i]);
    EXPECT_EQ(0x16, alloc[14 + i]);
  }
  memset(user, 0xAB, 10);  // every user byte may be written without touching a guard
  EXPECT_FALSE(block.BoundaryOverflow());
}

TEST(MemoryBlock, OverrunAndUnderrunAreSeenAndResetBoundaryRepairs) {
  CMemoryBlock block(7);  // the tail guard is not aligned
  char* user = block.Ptr(0);
  user[7] = 0;
  EXPECT_TRUE(block.BoundaryOverflow());
  block.ResetBoundary();
  EXPECT_FALSE(block.BoundaryOverflow());
  user[-1] = 0;
  EXPECT_TRUE(block.BoundaryOverflow());
}

TEST(MemoryBlock, ZeroSizeBlockHasNoUserPointer) {
  CMemoryBlock block(0);
  EXPECT_NE(nullptr, block.AllocPtr());
  EXPECT_EQ(nullptr, block.Ptr(0));
}

TEST(MemoryBlock, TimeOffsetIsMinusTheIdleTime) {
  CMemoryBlock block(16);
  block.Ptr(0);
  block.Reset();
  const oxa_uint64 now = OXA_GetTimeTick64();
  EXPECT_LE(block.TimeOffset(now), 0);
  EXPECT_GE(block.TimeOffset(now), -1000);
  EXPECT_EQ(block.TimeOffset(now) + 250, block.TimeOffset(now - 250));
}

TEST(MemoryBlock, ToStringDescribesTheBlockOnOneLine) {
  CMemoryBlock block(32);
  block.Ptr(static_cast<OXA_HANDLE>(0x1234));
  const std::string text = block.ToString();
  char expected_head[160];
  snprintf(expected_head, sizeof expected_head,
           "{ \"BlockSize\": 32, \"Alloc\": \"0x%p\", \"User\": \"0x%p\", \"Used\": true, "
           "\"LastThreadId\": \"0x%p\", \"CreateTime\": \"",
           block.AllocPtr(), static_cast<void*>(static_cast<char*>(block.AllocPtr()) + 4),
           reinterpret_cast<void*>(0x1234));
  ASSERT_EQ(0u, text.find(expected_head)) << text;
  EXPECT_NE(std::string::npos, text.find("0x0x")) << "the doubled prefix is part of the text";
  size_t at = strlen(expected_head);
  EXPECT_TRUE(oxa_test::IsCTimeText(text.substr(at, 24))) << text;
  const std::string between = "\", \"LastTime\": \"";
  EXPECT_EQ(between, text.substr(at + 24, between.size())) << text;
  at += 24 + between.size();
  EXPECT_TRUE(oxa_test::IsCTimeText(text.substr(at, 24))) << text;
  EXPECT_EQ(
      "\", \"HeaderBoundary\": \" 0x16 0x16 0x16 0x16\", "
      "\"TailBoundary\": \" 0x16 0x16 0x16 0x16\" }",
      text.substr(at + 24));
  EXPECT_EQ(std::string::npos, text.find('\n'));
}

TEST(MemoryBlock, ToStringShowsOverwrittenGuardBytes) {
  CMemoryBlock block(4);
  char* user = block.Ptr(0);
  user[4] = 0x41;
  block.Reset();
  const std::string text = block.ToString();
  EXPECT_NE(std::string::npos, text.find("\"Used\": false"));
  EXPECT_NE(std::string::npos, text.find("\"TailBoundary\": \" 0x41 0x16 0x16 0x16\" }")) << text;
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
