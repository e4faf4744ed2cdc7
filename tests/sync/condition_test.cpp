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
using oxa_test::StderrCapture;
using oxa_test::Stopwatch;
using std::chrono::milliseconds;

std::string Line(const char* verb, const void* cond, const void* attr) {
  char line[128];
  snprintf(line, sizeof line, "%s pCond:%p,pCondAttr:%p\r\n", verb, cond, attr);
  return line;
}

// The attribute address printed by the create line that starts at `pos`.
const void* AttrOf(const std::string& text, size_t pos = 0) {
  void* cond = nullptr;
  void* attr = nullptr;
  sscanf(text.c_str() + pos, "OXA_CondCreate pCond:%p,pCondAttr:%p", &cond, &attr);
  return attr;
}

// Starts `count` threads that wait on `cond` until `go`, then sets it and wakes them with
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

TEST(Condition, NullArgumentsGiveMinusOne) {
  pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  EXPECT_EQ(-1, OXA_CondCreate(nullptr));
  EXPECT_EQ(-1, OXA_CondDestroy(nullptr));
  EXPECT_EQ(-1, OXA_CondWait(nullptr, &mutex));
  EXPECT_EQ(-1, OXA_CondWait(&cond, nullptr));
  EXPECT_EQ(-1, OXA_CondTimedWait(nullptr, &mutex, 0));
  EXPECT_EQ(-1, OXA_CondTimedWait(&cond, nullptr, 0));
  EXPECT_EQ(-1, OXA_CondSignal(nullptr));
  EXPECT_EQ(-1, OXA_CondBroadCast(nullptr));
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
    Stopwatch watch;
    EXPECT_EQ(ETIMEDOUT, OXA_CondTimedWait(&cond, &mutex, ms));
    EXPECT_GE(watch.Elapsed(), milliseconds(ms));
    EXPECT_LT(watch.Elapsed(), milliseconds(ms + 2000));
  }
  {
    OXA_Cond object;
    EXPECT_EQ(ETIMEDOUT, object.TimedWait(&mutex, 0));
    EXPECT_EQ(-1, object.Wait(nullptr));
    EXPECT_EQ(0, object.Signal());
    EXPECT_EQ(0, object.BroadCast());
  }
  EXPECT_EQ(0, OXA_MutexUnlock(&mutex)) << "the wait gives the mutex back";
  EXPECT_EQ(0, OXA_MutexDestroy(&mutex));
  EXPECT_EQ(0, OXA_CondDestroy(&cond));
}

TEST(Condition, SignalWakesAWaiter) {
  EXPECT_EQ(std::vector<int>{0}, WakeWaiters(1, OXA_CondSignal));
}

TEST(Condition, BroadCastWakesEveryWaiter) {
  EXPECT_EQ(std::vector<int>(3, 0), WakeWaiters(3, OXA_CondBroadCast));
}

TEST(Condition, CreateAndDestroyPrintTheAttribute) {
  pthread_cond_t cond;
  StderrCapture capture;
  ASSERT_EQ(0, OXA_CondCreate(&cond));
  ASSERT_EQ(0, OXA_CondDestroy(&cond));
  const std::string text = capture.Take();
  const void* attr = AttrOf(text);
  ASSERT_NE(nullptr, attr);
  EXPECT_EQ(Line("OXA_CondCreate", &cond, attr) + Line("OXA_CondDestroy", &cond, attr), text);
}

TEST(Condition, CreatingTwiceKeepsOneEntryWithTheNewerAttribute) {
  pthread_cond_t cond;
  StderrCapture capture;
  ASSERT_EQ(0, OXA_CondCreate(&cond));
  ASSERT_EQ(0, OXA_CondCreate(&cond));
  EXPECT_EQ(0, OXA_CondDestroy(&cond));
  const std::string text = capture.Take();
  const void* first = AttrOf(text);
  const void* second = AttrOf(text, text.find("OXA_CondCreate", 1));
  ASSERT_NE(nullptr, second);
  EXPECT_EQ(Line("OXA_CondCreate", &cond, first) + Line("OXA_CondCreate", &cond, second) +
                Line("OXA_CondDestroy", &cond, second),
            text);
}

TEST(Condition, DestroyingAnUnregisteredConditionPrintsNothing) {
  pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
  StderrCapture capture;
  EXPECT_EQ(0, OXA_CondDestroy(&cond));
  EXPECT_EQ("", capture.Take());
}

}  // namespace
