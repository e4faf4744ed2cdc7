#include <gtest/gtest.h>

#include <limits.h>

#include <atomic>
#include <thread>
#include <vector>

#include "oxa_atomic.h"

namespace {

TEST(LockedAtomic, SingleAttemptOperationsReturnTheValueFound) {
  volatile int v = 3;
  EXPECT_EQ(3, OXA_AtomicCas(&v, 5, 3));
  EXPECT_EQ(5, OXA_AtomicCas(&v, 6, 4));  // 5 found: no swap
  EXPECT_EQ(5, OXA_AtomicInc(&v));
  EXPECT_EQ(6, OXA_AtomicDec(&v));
  EXPECT_EQ(5, OXA_AtomicAdd(&v, -10));
  EXPECT_EQ(-5, OXA_AtomicSet(&v, INT_MAX));
  EXPECT_EQ(INT_MAX, OXA_AtomicInc(&v));
  EXPECT_EQ(INT_MIN, v);  // wraps, no overflow trap

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
  OXA_FiniAtomic_Inter();
  EXPECT_EQ(1, OXA_AtomicInc(&v));  // one start still counted
  OXA_FiniAtomic_Inter();
  OXA_FiniAtomic_Inter();           // unbalanced: harmless
  EXPECT_EQ(2, OXA_AtomicInc(&v));  // a destroyed lock would refuse here
  EXPECT_EQ(3, v);
}

// Each increment returns its new value, so across all threads the results are exactly 1..N
// once each; as many decrements bring the counter back to 0. Decrement and set return the new
// and the previous value.
TEST(OxaAtomic, ContendedIncrementsHandOutEveryValueOnce) {
  constexpr int kThreads = 4, kPerThread = 50000;
  oxa::oxa_atomic counter;
  EXPECT_EQ(-1, counter.decrement());
  EXPECT_EQ(-1, counter.set(0));
  std::vector<std::atomic<int>> hits(kThreads * kPerThread + 1);  // by value handed out
  std::atomic<bool> go{false};
  std::atomic<int> done_incrementing{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      while (!go.load())
        std::this_thread::yield();
      for (int i = 0; i < kPerThread; ++i) {
        const long value = counter.increment();
        if (value > 0 && value < static_cast<long>(hits.size())) ++hits[value];
      }
      ++done_incrementing;  // no decrement before every increment has returned its value
      while (done_incrementing.load() < kThreads)
        std::this_thread::yield();
      for (int i = 0; i < kPerThread; ++i)
        counter.decrement();
    });
  }
  go.store(true);
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(0, counter.get());
  for (size_t value = 1; value < hits.size(); ++value)
    ASSERT_EQ(1, hits[value].load()) << "value " << value;
}

}  // namespace
