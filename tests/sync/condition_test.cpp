#include <gtest/gtest.h>

#include <errno.h>
#include <pthread.h>
#include <stdio.h>

#include <future>
#include <string>
#include <vector>

#include "oxa_sync.h"

#include "support/test_support.h"

namespace {

using oxa_test::kHangGuardMs;
using std::chrono::milliseconds;

// Starts `count` threads that wait on a condition until `go`, then sets it and wakes them with
// `wake`; each waiter's last wait result. A waiter reports in while it holds the mutex, which
// it gives back only inside the wait: once this thread holds the mutex after every report,
// every waiter is waiting.
std::vector<int> WakeWaiters(int count, int (*wake)(pthread_cond_t*)) {
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  OXA_MutexCreate(&mutex, 0);
  OXA_CondCreate(&cond);
  bool go = false;  // Guarded by mutex.
  std::vector<std::promise<void>> ready(count);
  std::vector<std::future<int>> waiters;
  for (auto& waiting : ready) {
    waiters.push_back(std::async(std::launch::async, [&] {
      OXA_MutexLock(&mutex);
      waiting.set_value();
      int rc = 0;
      while (!go && rc == 0)
        rc = OXA_CondTimedWait(&cond, &mutex, kHangGuardMs);
      OXA_MutexUnlock(&mutex);
      return rc;
    }));
  }
  for (auto& waiting : ready)
    waiting.get_future().wait();
  OXA_MutexLock(&mutex);
  go = true;
  EXPECT_EQ(0, wake(&cond));
  OXA_MutexUnlock(&mutex);
  std::vector<int> results;
  for (auto& waiter : waiters)
    results.push_back(waiter.get());
  OXA_CondDestroy(&cond);
  OXA_MutexDestroy(&mutex);
  return results;
}

TEST(Condition, SignalWakesAWaiterAndBroadCastWakesEveryOne) {
  EXPECT_EQ(std::vector<int>{0}, WakeWaiters(1, OXA_CondSignal));
  EXPECT_EQ(std::vector<int>(3, 0), WakeWaiters(3, OXA_CondBroadCast));
}

// The deadline is computed on the monotonic clock; a condition left on the wall clock would
// see it decades in the past and return at once, which the lower bounds catch.
TEST(Condition, TimedWaitReturnsEtimedoutAfterTheTimeOut) {
  pthread_cond_t cond;
  pthread_mutex_t mutex;
  ASSERT_EQ(0, OXA_CondCreate(&cond));
  ASSERT_EQ(0, OXA_MutexCreate(&mutex, 0));
  ASSERT_EQ(0, OXA_MutexLock(&mutex));
  EXPECT_EQ(ETIMEDOUT, OXA_CondTimedWait(&cond, &mutex, 0));
  for (unsigned int ms : {50u, 1050u}) {  // 1050: whole seconds and a carry
    oxa_test::Stopwatch watch;
    EXPECT_EQ(ETIMEDOUT, OXA_CondTimedWait(&cond, &mutex, ms));
    EXPECT_GE(watch.Elapsed(), milliseconds(ms));
    EXPECT_LT(watch.Elapsed(), milliseconds(ms + 2000));
  }
  EXPECT_EQ(0, OXA_MutexUnlock(&mutex)) << "the wait gives the mutex back";
  EXPECT_EQ(0, OXA_MutexDestroy(&mutex));
  EXPECT_EQ(0, OXA_CondDestroy(&cond));
}

TEST(Condition, NullArgumentsGiveMinusOne) {
  pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  EXPECT_EQ(-1, OXA_CondCreate(nullptr));
  for (auto* fn : {OXA_CondDestroy, OXA_CondSignal, OXA_CondBroadCast})
    EXPECT_EQ(-1, fn(nullptr));
  EXPECT_EQ(-1, OXA_CondWait(nullptr, &mutex));
  EXPECT_EQ(-1, OXA_CondWait(&cond, nullptr));
  EXPECT_EQ(-1, OXA_CondTimedWait(nullptr, &mutex, 0));
  EXPECT_EQ(-1, OXA_CondTimedWait(&cond, nullptr, 0));
}

// Creating the same storage twice keeps one entry, with the newer attribute; a condition that
// was never registered is destroyed without a line.
TEST(Condition, CreateAndDestroyPrintTheRegisteredAttribute) {
  pthread_cond_t cond;
  pthread_cond_t unregistered = PTHREAD_COND_INITIALIZER;
  oxa_test::StderrCapture capture;
  ASSERT_EQ(0, OXA_CondCreate(&cond));
  ASSERT_EQ(0, OXA_CondCreate(&cond));
  EXPECT_EQ(0, OXA_CondDestroy(&cond));
  EXPECT_EQ(0, OXA_CondDestroy(&unregistered));
  const std::string text = capture.Take();
  void* created = nullptr;
  void* destroyed = nullptr;
  const size_t second = text.find("OXA_CondCreate", 1);
  const size_t destroy = text.find("OXA_CondDestroy");
  ASSERT_TRUE(second != std::string::npos && destroy != std::string::npos) << text;
  sscanf(text.c_str() + second, "OXA_CondCreate pCond:%*p,pCondAttr:%p", &created);
  sscanf(text.c_str() + destroy, "OXA_CondDestroy pCond:%*p,pCondAttr:%p", &destroyed);
  EXPECT_NE(nullptr, created);
  EXPECT_EQ(created, destroyed) << text;
  EXPECT_EQ(std::string::npos, text.find("OXA_CondDestroy", destroy + 1)) << text;
}

}  // namespace
