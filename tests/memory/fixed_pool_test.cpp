#include <gtest/gtest.h>

#include <malloc.h>
#include <stdint.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "oxa_memory.h"

#include "memory/memory_test_util.h"
#include "support/test_support.h"

namespace {

using oxa_test::Stopwatch;

// True once the pool's idle check has brought its size to `bytes`, false after the hang guard.
bool WaitForSize(OXA_MemoryPool* pool, unsigned int bytes) {
  return oxa_test::Eventually([&] { return OXA_MemoryPool_Size(pool) == bytes; });
}

TEST(FixedPool, GrowsOneBlockPerAllocUpToTheMaximumAndReusesTheLatestReturnFirst) {
  OXA_MemoryPool* pool = OXA_MemoryPool_Create(100, 2, 4, 0, -1, 0);
  EXPECT_EQ(200u, OXA_MemoryPool_IdleSize(pool));
  std::vector<void*> lent;
  for (int i = 0; i < 4; ++i) {
    lent.push_back(OXA_MemoryPool_Alloc(pool));
    EXPECT_EQ(100u * std::max(2, i + 1), OXA_MemoryPool_Size(pool));
  }
  EXPECT_EQ(nullptr, OXA_MemoryPool_Alloc(pool));
  OXA_MemoryPool_Free(pool, lent[1]);
  OXA_MemoryPool_Free(pool, lent[3]);
  OXA_MemoryPool_Free(pool, lent[0]);
  EXPECT_EQ(lent[0], OXA_MemoryPool_Alloc(pool));
  EXPECT_EQ(lent[3], OXA_MemoryPool_Alloc(pool));
  EXPECT_EQ(100u, OXA_MemoryPool_IdleSize(pool));  // no time-out: the pool stays grown
  OXA_MemoryPool_Destroy(pool);

  OXA_MemoryPool empty(64, 0, 0, 0, -1, 0);
  EXPECT_EQ(nullptr, empty.Alloc());
  OXA_MemoryPool raised(64, 2, 1, 0, -1, 1);  // the maximum becomes the initial count
  EXPECT_NE(raised.Alloc(), raised.Alloc());
  EXPECT_EQ(nullptr, raised.Alloc());
  OXA_MemoryPool zero(0, 2, 4, 1, -1, 0);
  EXPECT_EQ(nullptr, zero.Alloc());
}

TEST(FixedPool, IgnoresNullForeignInteriorAndRepeatedFrees) {
  OXA_MemoryPool pool(64, 1, 2, 1, -1, 0);
  char* p = static_cast<char*>(pool.Alloc());
  char foreign[64];
  for (void* bad : {static_cast<void*>(nullptr), static_cast<void*>(foreign),
                    static_cast<void*>(p + 1), static_cast<void*>(p - 4)})
    pool.Free(bad);
  EXPECT_EQ(0u, pool.IdleSize());  // still lent
  pool.Free(p);
  pool.Free(p);
  EXPECT_EQ(64u, pool.IdleSize());
  EXPECT_EQ(nullptr, OXA_MemoryPool_Alloc(nullptr));
  OXA_MemoryPool_Free(nullptr, p);
  EXPECT_EQ(0u, OXA_MemoryPool_Size(nullptr) + OXA_MemoryPool_IdleSize(nullptr));
  OXA_MemoryPool_Destroy(nullptr);
}

TEST(FixedPool, IdleBlocksShrinkBackToTheInitialCountAfterTheTimeOut) {
  constexpr long long kTimeoutMs = 60;
  OXA_MemoryPool* pool = OXA_MemoryPool_Create(64, 2, 10, 0, kTimeoutMs, 0);
  std::vector<void*> lent;
  for (int i = 0; i < 6; ++i)
    lent.push_back(OXA_MemoryPool_Alloc(pool));
  Stopwatch since_first_return;
  for (void* p : lent)
    OXA_MemoryPool_Free(pool, p);
  ASSERT_TRUE(WaitForSize(pool, 2 * 64));
  EXPECT_GE(since_first_return.Elapsed().count(), kTimeoutMs - 1);  // ticks round to 1 ms
  // The survivors are the most recently returned blocks; grown and returned again, the pool
  // shrinks a second time, but never a block that is lent.
  void* first = OXA_MemoryPool_Alloc(pool);
  void* second = OXA_MemoryPool_Alloc(pool);
  EXPECT_EQ(lent[5], first);
  EXPECT_EQ(lent[4], second);
  OXA_MemoryPool_Free(pool, OXA_MemoryPool_Alloc(pool));
  OXA_MemoryPool_Free(pool, OXA_MemoryPool_Alloc(pool));
  EXPECT_TRUE(WaitForSize(pool, 2 * 64));
  EXPECT_EQ(0u, OXA_MemoryPool_IdleSize(pool));
  OXA_MemoryPool_Free(pool, first);
  OXA_MemoryPool_Free(pool, second);
  OXA_MemoryPool_Destroy(pool);
}

TEST(FixedPool, DestroyReportsEachLentBlockInAddressOrder) {
  OXA_MemoryPool* pool = OXA_MemoryPool_Create(48, 0, 8, 0, -1, 0);
  std::vector<uintptr_t> lent;
  for (int i = 0; i < 4; ++i)
    lent.push_back(reinterpret_cast<uintptr_t>(OXA_MemoryPool_Alloc(pool)));
  OXA_MemoryPool_Free(pool, reinterpret_cast<void*>(lent[1]));
  lent.erase(lent.begin() + 1);
  std::sort(lent.begin(), lent.end());
  const auto lines = oxa_test::StdoutLinesOf([&] { OXA_MemoryPool_Destroy(pool); });
  std::vector<uintptr_t> reported;
  for (const std::string& line : lines) {
    const std::string text = oxa_test::AfterPoolAddress(line, "memory_pool");
    EXPECT_EQ(0u, text.find("check memory leaked, Block: { \"BlockSize\": 48, \"Alloc\": \"0x0x"))
        << line;
    EXPECT_NE(std::string::npos, text.find("\"Used\": true")) << line;
    const size_t user = text.find("\"User\": \"0x0x");
    if (user != std::string::npos)
      reported.push_back(std::stoull(text.substr(user + 11), nullptr, 16));
  }
  EXPECT_EQ(lent, reported);
}

TEST(FixedPool, NoBlockIsEverLentTwiceAcrossThreads) {
  // 8 blocks for 4 threads holding 2 each. No-lock is asked for, but a pool with an idle
  // time-out locks all the same, since its idle check runs on a thread of its own.
  OXA_MemoryPool pool(64, 4, 8, 1, 60000, 1);
  EXPECT_EQ(0, oxa_test::RacingFillFailures(
                   4, 5000, 64, [&](unsigned int) { return pool.Alloc(); },
                   [&](void* p) { pool.Free(p); }));
  EXPECT_EQ(pool.Size(), pool.IdleSize());
}

TEST(FixedPool, CreateAndDestroyCyclesLeaveNoThreadsDescriptorsOrHeap) {
  auto cycle = [] {
    OXA_MemoryPool pool(256, 2, 8, 1, 1000, 0);  // with a thread of its own
    void* kept = pool.Alloc();
    for (int i = 0; i < 4; ++i)
      pool.Free(pool.Alloc());
    pool.Free(kept);
  };  // destroyed while an idle check is pending
  // Threads are counted before the first cycle: its pool's thread, although joined, may still
  // be listed for a moment (longer under qemu), and would be counted as a lasting one.
  const int threads = oxa_test::ThreadCount();
  cycle();  // first-use allocations of the C and C++ runtimes happen here
  ASSERT_TRUE(oxa_test::WaitForThreadCount(threads));
  const int fds = oxa_test::OpenFdCount();
  const size_t heap = mallinfo2().uordblks;
  for (int i = 0; i < 300; ++i)
    cycle();
  EXPECT_TRUE(oxa_test::WaitForThreadCount(threads));
  EXPECT_EQ(fds, oxa_test::OpenFdCount());
  EXPECT_LT(mallinfo2().uordblks, heap + 4096);  // one leaked block per cycle: 75 KiB
}

TEST(FixedPoolDeath, OverwrittenGuardAbortsOnReturnOnlyWhenChecked) {
  OXA_MemoryPool unchecked(16, 1, 1, 0, -1, 0);
  char* q = static_cast<char*>(unchecked.Alloc());
  q[-1] = 'x';
  unchecked.Free(q);
  EXPECT_EQ(16u, unchecked.IdleSize());
  OXA_MemoryPool checked(16, 1, 1, 1, -1, 0);
  char* p = static_cast<char*>(checked.Alloc());
  p[16] = 'x';
  EXPECT_DEATH(checked.Free(p),
               "\\.\\./real_memory_pool:146: void oxa::CRealMemoryPool::Free\\(void\\*\\): "
               "Assertion `Check_boundary_overflow' failed");
  p[16] = 0x16;
}

}  // namespace
