#include <gtest/gtest.h>

#include <malloc.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "oxa_memory.h"

#include "memory/memory_test_util.h"
#include "support/test_support.h"

namespace {

using oxa_test::kHangGuardMs;
using oxa_test::StdoutLinesOf;
using oxa_test::Stopwatch;

// Polls the pool's size until it is `bytes` or the hang guard passes; true when it got there.
bool WaitForSize(OXA_MemoryPool* pool, unsigned int bytes) {
  Stopwatch watch;
  while (OXA_MemoryPool_Size(pool) != bytes) {
    if (watch.Elapsed().count() > kHangGuardMs) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));  // polling interval, not a handshake
  }
  return true;
}

TEST(FixedPool, GrowsOneBlockPerAllocUpToTheMaximumThenGivesNull) {
  OXA_MemoryPool* pool = OXA_MemoryPool_Create(100, 2, 4, 0, -1, 0);
  ASSERT_NE(nullptr, pool);
  EXPECT_EQ(200u, OXA_MemoryPool_Size(pool));
  EXPECT_EQ(200u, OXA_MemoryPool_IdleSize(pool));
  std::vector<void*> lent;
  for (int i = 0; i < 4; ++i) {
    lent.push_back(OXA_MemoryPool_Alloc(pool));
    ASSERT_NE(nullptr, lent.back());
    EXPECT_EQ(100u * std::max(2, i + 1), OXA_MemoryPool_Size(pool));
  }
  EXPECT_EQ(nullptr, OXA_MemoryPool_Alloc(pool));
  EXPECT_EQ(4u, std::set<void*>(lent.begin(), lent.end()).size());
  EXPECT_EQ(0u, OXA_MemoryPool_IdleSize(pool));
  for (void* p : lent)
    OXA_MemoryPool_Free(pool, p);
  EXPECT_EQ(400u, OXA_MemoryPool_IdleSize(pool));  // no time-out: the pool stays grown
  OXA_MemoryPool_Destroy(pool);
}

TEST(FixedPool, ReusesTheMostRecentlyReturnedBlockFirst) {
  OXA_MemoryPool pool(32, 3, 3, 0, -1, 1);
  void* a = pool.Alloc();
  void* b = pool.Alloc();
  void* c = pool.Alloc();
  pool.Free(b);
  pool.Free(a);
  pool.Free(c);
  EXPECT_EQ(c, pool.Alloc());
  EXPECT_EQ(a, pool.Alloc());
  EXPECT_EQ(b, pool.Alloc());
}

TEST(FixedPool, LimitsAndDegenerateSizes) {
  OXA_MemoryPool empty(64, 0, 0, 0, -1, 0);
  EXPECT_EQ(nullptr, empty.Alloc());
  EXPECT_EQ(0u, empty.Size());
  OXA_MemoryPool raised(64, 3, 1, 0, -1, 0);  // the maximum becomes the initial count
  for (int i = 0; i < 3; ++i)
    EXPECT_NE(nullptr, raised.Alloc());
  EXPECT_EQ(nullptr, raised.Alloc());
  OXA_MemoryPool zero(0, 2, 4, 1, -1, 0);
  EXPECT_EQ(nullptr, zero.Alloc());
  EXPECT_EQ(0u, zero.Size());
}

TEST(FixedPool, IgnoresNullForeignInteriorAndRepeatedFrees) {
  OXA_MemoryPool pool(64, 1, 2, 1, -1, 0);
  char* p = static_cast<char*>(pool.Alloc());
  ASSERT_NE(nullptr, p);
  char foreign[64];
  pool.Free(nullptr);
  pool.Free(foreign);
  pool.Free(p + 1);
  pool.Free(p - 4);
  EXPECT_EQ(0u, pool.IdleSize());  // still lent
  pool.Free(p);
  pool.Free(p);  // the second return finds an idle block and does nothing
  EXPECT_EQ(64u, pool.IdleSize());
  EXPECT_EQ(p, pool.Alloc());
  EXPECT_EQ(nullptr, OXA_MemoryPool_Alloc(nullptr));
  OXA_MemoryPool_Free(nullptr, p);
  EXPECT_EQ(0u, OXA_MemoryPool_Size(nullptr));
  EXPECT_EQ(0u, OXA_MemoryPool_IdleSize(nullptr));
  OXA_MemoryPool_Destroy(nullptr);
}

TEST(FixedPool, IdleBlocksShrinkBackToTheInitialCountAfterTheTimeOut) {
  constexpr long long kTimeoutMs = 60;
  OXA_MemoryPool* pool = OXA_MemoryPool_Create(64, 2, 10, 0, kTimeoutMs, 0);
  std::vector<void*> lent;
  for (int i = 0; i < 6; ++i)
    lent.push_back(OXA_MemoryPool_Alloc(pool));
  ASSERT_EQ(6u * 64, OXA_MemoryPool_Size(pool));
  Stopwatch since_first_return;
  for (void* p : lent)
    OXA_MemoryPool_Free(pool, p);
  ASSERT_TRUE(WaitForSize(pool, 2 * 64));
  EXPECT_GE(since_first_return.Elapsed().count(), kTimeoutMs - 1);  // ticks round to 1 ms
  EXPECT_EQ(2u * 64, OXA_MemoryPool_IdleSize(pool));
  // The survivors are the most recently returned blocks.
  void* first = OXA_MemoryPool_Alloc(pool);
  void* second = OXA_MemoryPool_Alloc(pool);
  EXPECT_EQ(lent[5], first);
  EXPECT_EQ(lent[4], second);
  // Grown again and returned again: the pool shrinks a second time.
  void* third = OXA_MemoryPool_Alloc(pool);
  OXA_MemoryPool_Free(pool, third);
  OXA_MemoryPool_Free(pool, first);
  OXA_MemoryPool_Free(pool, second);
  EXPECT_TRUE(WaitForSize(pool, 2 * 64));
  OXA_MemoryPool_Destroy(pool);
}

TEST(FixedPool, LentBlocksAreNotShrunkAndZeroTimeOutShrinksAtOnce) {
  OXA_MemoryPool* pool = OXA_MemoryPool_Create(64, 1, 10, 0, 0, 0);
  void* kept[3];
  for (void*& p : kept)
    p = OXA_MemoryPool_Alloc(pool);
  void* extra = OXA_MemoryPool_Alloc(pool);
  OXA_MemoryPool_Free(pool, extra);
  ASSERT_TRUE(WaitForSize(pool, 3 * 64));  // only the returned block goes
  EXPECT_EQ(0u, OXA_MemoryPool_IdleSize(pool));
  for (void* p : kept)
    OXA_MemoryPool_Free(pool, p);
  EXPECT_TRUE(WaitForSize(pool, 64));
  OXA_MemoryPool_Destroy(pool);
}

TEST(FixedPool, DestroyReportsEachLentBlockInAddressOrder) {
  OXA_MemoryPool* pool = OXA_MemoryPool_Create(48, 0, 8, 0, -1, 0);
  std::vector<void*> lent;
  for (int i = 0; i < 4; ++i)
    lent.push_back(OXA_MemoryPool_Alloc(pool));
  OXA_MemoryPool_Free(pool, lent[1]);
  const std::vector<std::string> lines = StdoutLinesOf([&] { OXA_MemoryPool_Destroy(pool); });
  ASSERT_EQ(3u, lines.size());
  const std::string head = "Block: { \"BlockSize\": 48, \"Alloc\": \"0x0x";
  std::vector<uintptr_t> users;
  for (const std::string& line : lines) {
    const std::string text = oxa_test::AfterPoolAddress(line, "memory_pool");
    ASSERT_EQ(0u, text.find("check memory leaked, " + head)) << line;
    const size_t user = text.find("\"User\": \"0x0x");
    ASSERT_NE(std::string::npos, user) << line;
    users.push_back(std::stoull(text.substr(user + 11), nullptr, 16));
    EXPECT_NE(std::string::npos, text.find("\"Used\": true")) << line;
  }
  EXPECT_TRUE(std::is_sorted(users.begin(), users.end()));
  std::vector<uintptr_t> expected = {reinterpret_cast<uintptr_t>(lent[0]),
                                     reinterpret_cast<uintptr_t>(lent[2]),
                                     reinterpret_cast<uintptr_t>(lent[3])};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, users);
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
    OXA_MemoryPool* pool = OXA_MemoryPool_Create(256, 2, 8, 1, 1000, 0);  // with its own thread
    void* kept = OXA_MemoryPool_Alloc(pool);
    for (int i = 0; i < 4; ++i)
      OXA_MemoryPool_Free(pool, OXA_MemoryPool_Alloc(pool));
    OXA_MemoryPool_Free(pool, kept);
    OXA_MemoryPool_Destroy(pool);  // while an idle check is pending
  };
  cycle();  // first-use allocations of the C and C++ runtimes happen here
  ASSERT_TRUE(oxa_test::WaitForThreadCount(oxa_test::ThreadCount()));
  const int threads = oxa_test::ThreadCount();
  const int fds = oxa_test::OpenFdCount();
  const size_t heap = mallinfo2().uordblks;
  for (int i = 0; i < 300; ++i)
    cycle();
  EXPECT_TRUE(oxa_test::WaitForThreadCount(threads));
  EXPECT_EQ(fds, oxa_test::OpenFdCount());
  // A leak of one block per cycle would be 75 KiB; the runtimes settle within one page.
  EXPECT_LT(mallinfo2().uordblks, heap + 4096);
}

TEST(FixedPoolDeath, OverwrittenGuardAbortsOnReturnWhenChecked) {
  OXA_MemoryPool checked(16, 1, 1, 1, -1, 0);
  char* p = static_cast<char*>(checked.Alloc());
  p[16] = 'x';
  EXPECT_DEATH(checked.Free(p),
               "\\.\\./real_memory_pool:146: void oxa::CRealMemoryPool::Free\\(void\\*\\): "
               "Assertion `Check_boundary_overflow' failed");
  OXA_MemoryPool unchecked(16, 1, 1, 0, -1, 0);
  char* q = static_cast<char*>(unchecked.Alloc());
  q[-1] = 'x';
  unchecked.Free(q);  // no check asked for: taken back
  EXPECT_EQ(16u, unchecked.IdleSize());
  p[16] = 0x16;
  checked.Free(p);
}

TEST(FixedPoolDeath, NegativeIdleCheckDelayAborts) {
  oxa::CRealMemoryPool pool(16, 0, 1, false, -1, false);
  EXPECT_DEATH(pool.CheckIdleTimeout(-1),
               "\\.\\./real_memory_pool:167: void oxa::CRealMemoryPool::CheckIdleTimeout\\("
               "oxa_int64\\): Assertion `delayedMillis >= 0' failed");
}

}  // namespace
