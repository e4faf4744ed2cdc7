#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "oxa_frame.h"
#include "oxa_memory.h"

#include "memory/memory_test_util.h"

namespace {

using oxa_test::StdoutLinesOf;

constexpr unsigned int kFullLimit = 0x80000000u;
// One initial chunk in each of the five classes.
constexpr unsigned int kInitialBytes = 2048 + 20480 + 204800 + 2097152 + 10485760;

// Sets the global pool up for one test and tears it down after, whatever the test did.
class GlobalPool : public testing::Test {
 protected:
  void TearDown() override { OXA_FiniMemoryPool_Inter(); }
};

TEST_F(GlobalPool, RequestsGoToTheSmallestClassThatTakesThem) {
  ASSERT_EQ(1, OXA_MemoryPoolGlobal_Init(kFullLimit));
  EXPECT_EQ(kInitialBytes, OXA_MemoryPoolGlobal_Size());
  const unsigned int bounds[][2] = {{500, 2048},         {501, 20480},      {5120, 20480},
                                    {5121, 204800},      {512000, 2097152}, {512001, 10485760},
                                    {10485760, 10485760}};
  for (const auto& bound : bounds) {
    unsigned int chunk = bound[0];
    OXA_MemoryPoolEx* pool = oxa::OXA_GetMemoryPoolEx(chunk);
    ASSERT_NE(nullptr, pool);
    EXPECT_EQ(bound[1], chunk);
    const unsigned int idle = pool->IdleSize();
    void* p = OXA_MemoryPoolGlobal_Alloc(bound[0]);
    EXPECT_EQ(idle - bound[0], pool->IdleSize()) << bound[0];
    OXA_MemoryPoolGlobal_Free(p);
    OXA_MemoryPoolGlobal_Free(p);  // the second free finds nothing
  }
  unsigned int too_big = 10485761;
  EXPECT_EQ(nullptr, oxa::OXA_GetMemoryPoolEx(too_big));
  EXPECT_EQ(nullptr, OXA_MemoryPoolGlobal_Alloc(too_big));
  EXPECT_EQ(kInitialBytes, OXA_MemoryPoolGlobal_IdleSize());
}

TEST_F(GlobalPool, ALimitBelowTheInitialChunksServesOnlyIdleMemory) {
  ASSERT_EQ(1, OXA_MemoryPoolGlobal_Init(4096));
  std::vector<void*> lent;
  for (int i = 0; i < 4; ++i) {  // 4 x 500 bytes fit the class's first chunk of 2048
    lent.push_back(OXA_MemoryPoolGlobal_Alloc(500));
    ASSERT_NE(nullptr, lent.back());
  }
  EXPECT_EQ(nullptr, OXA_MemoryPoolGlobal_Alloc(100));  // would need a second chunk
  EXPECT_NE(nullptr, OXA_MemoryPoolGlobal_Alloc(48));   // still fits
  EXPECT_EQ(kInitialBytes, OXA_MemoryPoolGlobal_Size());
  // Setting up again keeps the pools and only lifts the limit.
  ASSERT_EQ(1, OXA_MemoryPoolGlobal_Init(kFullLimit));
  EXPECT_NE(nullptr, OXA_MemoryPoolGlobal_Alloc(100));
  EXPECT_EQ(kInitialBytes + 2048, OXA_MemoryPoolGlobal_Size());
}

TEST_F(GlobalPool, NoByteRangeIsEverLentTwiceAcrossThreads) {
  ASSERT_EQ(1, OXA_MemoryPoolGlobal_Init(kFullLimit));
  EXPECT_EQ(0, oxa_test::RacingFillFailures(4, 1000, 6000, OXA_MemoryPoolGlobal_Alloc,
                                            OXA_MemoryPoolGlobal_Free));
  EXPECT_EQ(OXA_MemoryPoolGlobal_Size(), OXA_MemoryPoolGlobal_IdleSize());
}

TEST(GlobalPoolLifecycle, TheLastLibraryStopTearsThePoolDownWithItsLeakReport) {
  ASSERT_EQ(0, OXA_Init());
  ASSERT_EQ(1, OXA_MemoryPoolGlobal_Init(kFullLimit));
  void* leaked = OXA_MemoryPoolGlobal_Alloc(64);
  ASSERT_NE(nullptr, leaked);
  const std::vector<std::string> lines = StdoutLinesOf([] { OXA_Fini(); });
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(0u, lines[0].find("memory_pool_ex[")) << lines[0];
  // Torn down, it lends nothing until set up again; a pointer from before is ignored.
  EXPECT_EQ(nullptr, OXA_MemoryPoolGlobal_Alloc(64));
  EXPECT_EQ(0u, OXA_MemoryPoolGlobal_Size() + OXA_MemoryPoolGlobal_IdleSize());
  OXA_MemoryPoolGlobal_Free(leaked);
}

}  // namespace
