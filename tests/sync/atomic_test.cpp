#include <gtest/gtest.h>

#include <limits.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "oxa_atomic.h"

namespace {

constexpr int kThreads = 4;

// Runs body(thread index) on kThreads threads released together, so they really contend.
template <class Body>
void RunTogether(Body body) {
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      while (!go.load())
        std::this_thread::yield();
      body(t);
    });
  }
  go.store(true);
  for (auto& thread : threads)
    thread.join();
}

TEST(LockedAtomic, CasSwapsOnlyWhenTheExpectedValueIsFound) {
  volatile int v = 3;
  EXPECT_EQ(3, OXA_AtomicCas(&v, 5, 3));
  EXPECT_EQ(5, v);
  v = 4;
  EXPECT_EQ(4, OXA_AtomicCas(&v, 5, 3));
  EXPECT_EQ(4, v);
}

TEST(LockedAtomic, UpdatesReturnTheOldValueAndWrapAround) {
  volatile int v = 7;
  EXPECT_EQ(7, OXA_AtomicInc(&v));
  EXPECT_EQ(8, OXA_AtomicDec(&v));
  EXPECT_EQ(7, OXA_AtomicAdd(&v, -10));
  EXPECT_EQ(-3, OXA_AtomicSet(&v, 42));
  EXPECT_EQ(42, v);
  v = INT_MAX;
  EXPECT_EQ(INT_MAX, OXA_AtomicInc(&v));
  EXPECT_EQ(INT_MIN, v);
}

TEST(LockedAtomic, CasPtrIsANoOp) {
  int a = 0, b = 0;
  void* volatile target = &a;
  EXPECT_EQ(nullptr, OXA_AtomicCasPtr(&target, &b, &a));
  EXPECT_EQ(&a, target);
}

TEST(LockedAtomic, LockWorksUnstartedAndAfterTheLastStop) {
  volatile int v = 0;
  EXPECT_EQ(0, OXA_AtomicInc(&v));  // nobody started the lock
  EXPECT_EQ(0, OXA_InitAtomic_Inter());
  EXPECT_EQ(0, OXA_InitAtomic_Inter());
  EXPECT_EQ(1, OXA_AtomicInc(&v));
  OXA_FiniAtomic_Inter();
  EXPECT_EQ(2, OXA_AtomicInc(&v));  // one start still counted
  OXA_FiniAtomic_Inter();
  OXA_FiniAtomic_Inter();  // unbalanced: harmless
  EXPECT_EQ(3, OXA_AtomicInc(&v));
  EXPECT_EQ(4, v);
}

// A compare-and-swap retry loop over the locked family loses nothing: the swaps are atomic
// with respect to each other.
TEST(LockedAtomic, CasRetryLoopsFromManyThreadsCountExactly) {
  constexpr int kPerThread = 20000;
  volatile int v = 0;
  RunTogether([&](int) {
    for (int i = 0; i < kPerThread; ++i) {
      int seen;
      do {
        seen = OXA_AtomicCas(&v, 0, INT_MIN);  // never matches: a locked read
      } while (OXA_AtomicCas(&v, seen + 1, seen) != seen);
    }
  });
  EXPECT_EQ(kThreads * kPerThread, v);
}

TEST(OxaAtomic, OperationsReturnTheDocumentedValues) {
  oxa::oxa_atomic a;
  EXPECT_EQ(0, a.get());
  EXPECT_EQ(1, a.increment());
  EXPECT_EQ(0, a.decrement());
  EXPECT_EQ(-1, a.decrement());
  EXPECT_EQ(-1, a.set(9));
  EXPECT_EQ(9, a.get());
  oxa::oxa_atomic b(-5);
  EXPECT_EQ(-5, b.get());
}

// Every increment's result is the new value, so across all threads the results are exactly
// 1..N once each; the decrements then bring the counter back to 0.
TEST(OxaAtomic, ContendedIncrementsHandOutEveryValueOnce) {
  constexpr int kPerThread = 50000;
  oxa::oxa_atomic counter;
  std::vector<std::vector<long>> seen(kThreads);
  RunTogether([&](int t) {
    seen[t].reserve(kPerThread);
    for (int i = 0; i < kPerThread; ++i)
      seen[t].push_back(counter.increment());
  });
  ASSERT_EQ(kThreads * kPerThread, counter.get());
  std::vector<long> all;
  for (auto& part : seen)
    all.insert(all.end(), part.begin(), part.end());
  std::sort(all.begin(), all.end());
  for (long i = 0; i < static_cast<long>(all.size()); ++i)
    ASSERT_EQ(i + 1, all[i]);

  RunTogether([&](int) {
    for (int i = 0; i < kPerThread; ++i)
      counter.decrement();
  });
  EXPECT_EQ(0, counter.get());
}

TEST(OxaAtomic, ConcurrentSetsExchangeEveryValueOnce) {
  constexpr int kPerThread = 20000;
  oxa::oxa_atomic slot(-1);
  std::vector<std::vector<long>> returned(kThreads);
  RunTogether([&](int t) {
    for (int i = 0; i < kPerThread; ++i)
      returned[t].push_back(slot.set(t * kPerThread + i));
  });
  // Each stored value comes back exactly once, from the next exchange or the final get.
  std::vector<long> all{slot.get()};
  for (auto& part : returned)
    all.insert(all.end(), part.begin(), part.end());
  std::sort(all.begin(), all.end());
  ASSERT_EQ(static_cast<size_t>(kThreads * kPerThread + 1), all.size());
  for (long i = 0; i < static_cast<long>(all.size()); ++i)
    ASSERT_EQ(i - 1, all[i]);
}

}  // namespace
