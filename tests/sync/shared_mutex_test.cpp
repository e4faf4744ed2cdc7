#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "oxa_atomic.h"

#include "support/test_support.h"

namespace {

using oxa_test::kHangGuardMs;
using std::chrono::milliseconds;

// Polls until pred() holds; false after the hang guard. For states another thread reaches
// inside a blocking call, where no handshake can be sent from.
template <class Pred>
bool Eventually(Pred pred) {
  oxa_test::Stopwatch watch;
  while (!pred()) {
    if (watch.Elapsed().count() > kHangGuardMs) return false;
    std::this_thread::yield();
  }
  return true;
}

TEST(SharedMutex, FunctionsRejectNullAndEmptySlots) {
  EXPECT_EQ(-1, OXA_SharedMutexCreate(nullptr));
  OXA_SharedMutex* slot = nullptr;
  for (auto* fn :
       {OXA_SharedMutexDestroy, OXA_SharedMutexLock, OXA_SharedMutexUnlock, OXA_SharedMutexTryLock,
        OXA_SharedMutexLockShared, OXA_SharedMutexUnlockShared, OXA_SharedMutexTryLockShared}) {
    EXPECT_EQ(-1, fn(nullptr));
    EXPECT_EQ(-1, fn(&slot));
  }
  ASSERT_EQ(0, OXA_SharedMutexCreate(&slot));
  OXA_SharedMutex* first = slot;
  EXPECT_EQ(-1, OXA_SharedMutexCreate(&slot));  // the slot keeps its mutex
  EXPECT_EQ(first, slot);
  EXPECT_EQ(0, OXA_SharedMutexDestroy(&slot));
  EXPECT_EQ(nullptr, slot);
  EXPECT_EQ(-1, OXA_SharedMutexDestroy(&slot));
}

TEST(SharedMutex, TryLocksFollowTheHolders) {
  OXA_SharedMutex* m = nullptr;
  ASSERT_EQ(0, OXA_SharedMutexCreate(&m));
  ASSERT_EQ(0, OXA_SharedMutexLock(&m));
  EXPECT_EQ(-1, OXA_SharedMutexTryLock(&m));
  EXPECT_EQ(-1, OXA_SharedMutexTryLockShared(&m));
  EXPECT_EQ(0, OXA_SharedMutexUnlock(&m));
  EXPECT_EQ(0, OXA_SharedMutexTryLockShared(&m));
  EXPECT_EQ(0, OXA_SharedMutexLockShared(&m));  // readers share
  EXPECT_EQ(-1, OXA_SharedMutexTryLock(&m));
  EXPECT_EQ(0, OXA_SharedMutexUnlockShared(&m));
  EXPECT_EQ(-1, OXA_SharedMutexTryLock(&m));
  EXPECT_EQ(0, OXA_SharedMutexUnlockShared(&m));
  EXPECT_EQ(0, OXA_SharedMutexTryLock(&m));
  EXPECT_EQ(0, OXA_SharedMutexUnlock(&m));
  EXPECT_EQ(0, OXA_SharedMutexDestroy(&m));
}

// A waiting writer closes the door to new readers and goes first once the reader leaves.
TEST(SharedMutex, WaitingWriterKeepsNewReadersOut) {
  OXA_SharedMutex m;
  ASSERT_EQ(0, m.LockShared());
  std::atomic<int> order{0};
  int writer_turn = 0, reader_turn = 0;
  auto writer = std::async(std::launch::async, [&] {
    m.Lock();
    writer_turn = ++order;
    m.Unlock();
  });
  // The writer is counted as waiting once the shared try-lock is refused.
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
    reader_turn = ++order;
    m.UnlockShared();
  });
  reader_started.get_future().wait();
  EXPECT_EQ(std::future_status::timeout, reader.wait_for(milliseconds(50)));
  ASSERT_EQ(0, m.UnlockShared());
  ASSERT_EQ(std::future_status::ready, writer.wait_for(milliseconds(kHangGuardMs)));
  ASSERT_EQ(std::future_status::ready, reader.wait_for(milliseconds(kHangGuardMs)));
  EXPECT_EQ(1, writer_turn);
  EXPECT_EQ(2, reader_turn);
}

// Writers update two plain counters in two steps; readers must never see them differ, and no
// update is lost.
TEST(SharedMutex, ReadersAndWritersUnderContentionSeeConsistentState) {
  constexpr int kWriters = 3, kReaders = 3, kPerThread = 5000;
  OXA_SharedMutex m;
  long first = 0, second = 0;
  std::atomic<int> torn_reads{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < kWriters; ++i) {
    threads.emplace_back([&] {
      while (!go.load())
        std::this_thread::yield();
      for (int n = 0; n < kPerThread; ++n) {
        m.Lock();
        ++first;
        ++second;
        m.Unlock();
      }
    });
  }
  for (int i = 0; i < kReaders; ++i) {
    threads.emplace_back([&] {
      while (!go.load())
        std::this_thread::yield();
      for (int n = 0; n < kPerThread; ++n) {
        m.LockShared();
        if (first != second) ++torn_reads;
        m.UnlockShared();
      }
    });
  }
  go.store(true);
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(0, torn_reads.load());
  EXPECT_EQ(kWriters * kPerThread, first);
  EXPECT_EQ(kWriters * kPerThread, second);
}

// Overlapping readers keep the lock shared all the time; a writer still gets in, promptly.
TEST(SharedMutex, StreamOfReadersDoesNotStarveAWriter) {
  constexpr int kReaders = 4;
  OXA_SharedMutex m;
  std::atomic<bool> stop{false};
  std::atomic<int> inside{0};
  std::atomic<long> passes{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        m.LockShared();
        ++inside;
        for (int spin = 0; spin < 200; ++spin)
          std::this_thread::yield();
        --inside;
        ++passes;
        m.UnlockShared();
      }
    });
  }
  ASSERT_TRUE(Eventually([&] { return passes.load() > 100; }));
  auto writer = std::async(std::launch::async, [&] {
    m.Lock();
    const int readers_inside = inside.load();
    m.Unlock();
    return readers_inside;
  });
  const auto status = writer.wait_for(milliseconds(kHangGuardMs));
  stop.store(true);
  for (auto& reader : readers)
    reader.join();
  ASSERT_EQ(std::future_status::ready, status);
  EXPECT_EQ(0, writer.get());
}

}  // namespace
