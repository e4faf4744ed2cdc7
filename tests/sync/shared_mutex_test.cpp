#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "oxa_atomic.h"

#include "support/test_support.h"

namespace {

using oxa_test::Eventually;
using oxa_test::kHangGuardMs;
using std::chrono::milliseconds;

TEST(SharedMutex, FunctionInterfaceChecksSlotsAndTracksHolders) {
  OXA_SharedMutex* m = nullptr;
  for (auto* fn : {OXA_SharedMutexCreate, OXA_SharedMutexDestroy, OXA_SharedMutexLock,
                   OXA_SharedMutexUnlock, OXA_SharedMutexTryLock, OXA_SharedMutexLockShared,
                   OXA_SharedMutexUnlockShared, OXA_SharedMutexTryLockShared}) {
    EXPECT_EQ(-1, fn(nullptr));
    if (fn != OXA_SharedMutexCreate) {
      EXPECT_EQ(-1, fn(&m));  // empty slot
    }
  }
  ASSERT_EQ(0, OXA_SharedMutexCreate(&m));
  OXA_SharedMutex* const first = m;
  EXPECT_EQ(-1, OXA_SharedMutexCreate(&m));  // the slot keeps its mutex
  EXPECT_EQ(first, m);

  ASSERT_EQ(0, OXA_SharedMutexLock(&m));
  EXPECT_EQ(-1, OXA_SharedMutexTryLockShared(&m));
  EXPECT_EQ(0, OXA_SharedMutexUnlock(&m));
  EXPECT_EQ(0, OXA_SharedMutexTryLockShared(&m));
  EXPECT_EQ(0, OXA_SharedMutexLockShared(&m));  // readers share
  EXPECT_EQ(0, OXA_SharedMutexUnlockShared(&m));
  EXPECT_EQ(-1, OXA_SharedMutexTryLock(&m));  // one reader left
  EXPECT_EQ(0, OXA_SharedMutexUnlockShared(&m));
  EXPECT_EQ(0, OXA_SharedMutexTryLock(&m));
  EXPECT_EQ(-1, OXA_SharedMutexTryLock(&m));
  EXPECT_EQ(0, OXA_SharedMutexUnlock(&m));

  EXPECT_EQ(0, OXA_SharedMutexDestroy(&m));
  EXPECT_EQ(nullptr, m);
  EXPECT_EQ(-1, OXA_SharedMutexDestroy(&m));
}

// A waiting writer closes the door to new readers and goes first once the reader leaves.
TEST(SharedMutex, WaitingWriterKeepsNewReadersOut) {
  OXA_SharedMutex m;
  ASSERT_EQ(0, m.LockShared());
  std::atomic<int> turn{0};
  auto writer = std::async(std::launch::async, [&] {
    m.Lock();
    const int mine = ++turn;
    m.Unlock();
    return mine;
  });
  // The writer counts as waiting once the shared try-lock is refused.
  const bool writer_waits = Eventually([&] {
    if (m.TryLockShread() == -1) return true;
    m.UnlockShared();
    return false;
  });
  if (!writer_waits) m.UnlockShared();  // let the writer finish before failing
  ASSERT_TRUE(writer_waits);
  std::promise<void> reader_started;
  auto reader = std::async(std::launch::async, [&] {
    reader_started.set_value();
    m.LockShared();
    const int mine = ++turn;
    m.UnlockShared();
    return mine;
  });
  reader_started.get_future().wait();
  EXPECT_EQ(std::future_status::timeout, reader.wait_for(milliseconds(50)));
  ASSERT_EQ(0, m.UnlockShared());
  ASSERT_EQ(std::future_status::ready, writer.wait_for(milliseconds(kHangGuardMs)));
  ASSERT_EQ(std::future_status::ready, reader.wait_for(milliseconds(kHangGuardMs)));
  EXPECT_EQ(1, writer.get());
  EXPECT_EQ(2, reader.get());
}

// Writers bump two plain counters one after the other while readers compare them; readers
// keep the lock shared almost all the time. Exclusion holds, no update is lost, and the
// writers are not starved: each of their waits is bounded.
TEST(SharedMutex, ContendedReadersAndWritersStayExclusiveAndWritersGetIn) {
  constexpr int kReaders = 4, kWriters = 2, kWritesEach = 100;
  OXA_SharedMutex m;
  long first = 0, second = 0;
  std::atomic<bool> stop{false};
  std::atomic<int> torn_reads{0};
  std::atomic<long> reads{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        m.LockShared();
        for (int spin = 0; spin < 20; ++spin) {
          if (first != second) ++torn_reads;
          std::this_thread::yield();
        }
        m.UnlockShared();
        ++reads;
      }
    });
  }
  std::vector<std::future<long long>> writers;  // each: its longest wait for the lock, in ms
  for (int i = 0; i < kWriters; ++i) {
    writers.push_back(std::async(std::launch::async, [&] {
      EXPECT_TRUE(Eventually([&] { return reads.load() > 50; }));  // readers are streaming
      long long longest_ms = 0;
      for (int n = 0; n < kWritesEach; ++n) {
        oxa_test::Stopwatch waited;
        m.Lock();
        longest_ms = std::max<long long>(longest_ms, waited.Elapsed().count());
        ++first;
        std::this_thread::yield();
        ++second;
        m.Unlock();
      }
      return longest_ms;
    }));
  }
  const auto deadline = std::chrono::steady_clock::now() + milliseconds(3 * kHangGuardMs);
  bool writers_done = true;
  for (auto& writer : writers)
    writers_done &= writer.wait_until(deadline) == std::future_status::ready;
  stop.store(true);  // ends the stream, so a starved writer gets in now and the test ends
  for (auto& reader : readers)
    reader.join();
  EXPECT_TRUE(writers_done);
  for (auto& writer : writers)
    EXPECT_LT(writer.get(), kHangGuardMs);
  EXPECT_EQ(0, torn_reads.load());
  EXPECT_EQ(kWriters * kWritesEach, first);
  EXPECT_EQ(first, second);
}

}  // namespace
