#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "oxa_memory.h"

#include "memory/memory_test_util.h"

namespace {

constexpr unsigned int kChunk = 1000;

TEST(VariablePool, CarvesRequestsByteExactUpToTheChunkSizeAndTheMaximum) {
  OXA_MemoryPoolEx pool(0, 2, -1, 0, kChunk);  // initial 0 counts as 1
  EXPECT_EQ(kChunk, pool.Size());
  EXPECT_EQ(nullptr, pool.Alloc(kChunk + 1));
  auto* a = static_cast<char*>(pool.Alloc(3));
  auto* b = static_cast<char*>(pool.Alloc(5));
  EXPECT_EQ(a + 3, b);  // no alignment, no header
  EXPECT_EQ(kChunk - 8, pool.IdleSize());
  EXPECT_EQ(b + 5, pool.Alloc(kChunk - 8));  // exactly what is left
  EXPECT_EQ(0u, pool.IdleSize());
  EXPECT_NE(nullptr, pool.Alloc(kChunk));  // a second, fresh chunk
  EXPECT_EQ(nullptr, pool.Alloc(1));       // no third one
  EXPECT_EQ(2 * kChunk, pool.Size());
}

TEST(VariablePool, TheLatestRequestGivesItsBytesBackAndTheLastOneRewinds) {
  OXA_MemoryPoolEx pool(1, 2, -1, 0, kChunk);
  auto* a = static_cast<char*>(pool.Alloc(10));
  auto* b = static_cast<char*>(pool.Alloc(20));
  pool.Free(b);
  EXPECT_EQ(b, pool.Alloc(20));  // same size again, same address
  auto* c = static_cast<char*>(pool.Alloc(30));
  pool.Free(b);  // not the latest: its bytes stay used until the chunk empties
  EXPECT_EQ(kChunk - 60, pool.IdleSize());
  pool.Free(c);
  EXPECT_EQ(kChunk - 30, pool.IdleSize());
  pool.Free(a);
  EXPECT_EQ(kChunk, pool.IdleSize());
  EXPECT_EQ(a, pool.Alloc(kChunk));
}

TEST(VariablePool, AnOldChunkGoesBackWithItsLastRequest) {
  OXA_MemoryPoolEx pool(1, 3, -1, 0, kChunk);
  void* old1 = pool.Alloc(600);
  void* old2 = pool.Alloc(300);
  void* current = pool.Alloc(600);  // moves to a second chunk
  pool.Free(old1);
  EXPECT_EQ(kChunk - 600, pool.IdleSize());  // the old chunk still holds old2
  pool.Free(old2);
  EXPECT_EQ(2 * kChunk - 600, pool.IdleSize());
  EXPECT_EQ(old1, pool.Alloc(kChunk));  // the old chunk is lent again as the next fresh one
  pool.Free(current);
}

TEST(VariablePool, IgnoresUnknownPointersAndNullPools) {
  OXA_MemoryPoolEx* pool = OXA_MemoryPoolEx_Create(1, 1, -1, 0, kChunk);
  auto* a = static_cast<char*>(OXA_MemoryPoolEx_Alloc(pool, 10));
  auto* b = static_cast<char*>(OXA_MemoryPoolEx_Alloc(pool, 10));
  char foreign[8];
  for (char* bad : {static_cast<char*>(nullptr), foreign, a + 1, a, a})  // a twice
    OXA_MemoryPoolEx_Free(pool, bad);
  EXPECT_EQ(kChunk - 20, OXA_MemoryPoolEx_IdleSize(pool));  // b still lives
  EXPECT_EQ(nullptr, OXA_MemoryPoolEx_Alloc(nullptr, 1));
  OXA_MemoryPoolEx_Free(nullptr, b);
  EXPECT_EQ(0u, OXA_MemoryPoolEx_Size(nullptr) + OXA_MemoryPoolEx_IdleSize(nullptr));
  OXA_MemoryPoolEx_Destroy(nullptr);
  OXA_MemoryPoolEx_Free(pool, b);
  OXA_MemoryPoolEx_Destroy(pool);
}

TEST(VariablePool, DestroyReportsEveryLiveRequestThenTheChunks) {
  OXA_MemoryPoolEx* pool = OXA_MemoryPoolEx_Create(1, 4, -1, 0, kChunk);
  char* a = static_cast<char*>(OXA_MemoryPoolEx_Alloc(pool, 100));
  OXA_MemoryPoolEx_Alloc(pool, 100);
  const auto lines = oxa_test::StdoutLinesOf([&] { OXA_MemoryPoolEx_Destroy(pool); });
  ASSERT_EQ(3u, lines.size());
  char record[200];
  snprintf(record, sizeof record,
           ", \"AllocPtr\": \"0x%p\", \"IdlePtr\": \"0x%p\", \"RemainBytes\": %u, \"UsedNum\": 2 }",
           static_cast<void*>(a), static_cast<void*>(a + 200), kChunk - 200);
  for (int i = 0; i < 2; ++i) {  // one line per live request, the same record each time
    EXPECT_EQ(std::string("check memory leaked, Used record: ") + record,
              oxa_test::AfterPoolAddress(lines[i], "memory_pool_ex"));
  }
  EXPECT_EQ(0u, lines[2].find("memory_pool[")) << lines[2];  // the chunk pool's own line
}

TEST(VariablePool, NoByteRangeIsEverLentTwiceAcrossThreads) {
  OXA_MemoryPoolEx pool(1, 64, -1, 0, 4096);
  EXPECT_EQ(0, oxa_test::RacingFillFailures(
                   4, 3000, 700, [&](unsigned int size) { return pool.Alloc(size); },
                   [&](void* p) { pool.Free(p); }));
  EXPECT_EQ(pool.Size(), pool.IdleSize());
}

TEST(VariablePoolDeath, AZeroByteRequestFollowedByAnotherAborts) {
  OXA_MemoryPoolEx pool(1, 1, -1, 0, kChunk);
  EXPECT_NE(nullptr, pool.Alloc(0));
  EXPECT_DEATH(pool.Alloc(1),
               "\\.\\./real_memory_pool_ex:142: void\\* oxa::CRealMemoryPoolEx::Alloc\\("
               "unsigned int\\): Assertion `m_mapUsedRecords.find\\(pRet\\) == "
               "m_mapUsedRecords.end\\(\\)' failed");
}

}  // namespace
