#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "oxa_threadpool.h"
#include "oxa_trace.h"

#include "support/test_support.h"

namespace {

using oxa_test::kHangGuardMs;
using oxa_test::Latch;
using oxa_test::ThreadCount;
using oxa_test::WaitForThreadCount;
using std::chrono::milliseconds;

// One work item: records where and with which trace context it ran; a blocking item holds
// its worker until released.
struct Task {
  explicit Task(bool blocking = false) : block(blocking) {}
  bool block;
  Latch started, release, finished;
  pid_t tid = 0;
  std::chrono::steady_clock::time_point done_at;
  int trace_result = 99;
  OXA_TRACEINFO trace{};
};

void* RunTask(void* arg) {
  auto* task = static_cast<Task*>(arg);
  task->tid = static_cast<pid_t>(syscall(SYS_gettid));
  task->trace_result = oxa::oxa_tlsTraceInfoOper::instance().getTraceInfo(&task->trace);
  task->started.Open();
  if (task->block) task->release.Wait();
  task->done_at = std::chrono::steady_clock::now();
  task->finished.Open();
  return nullptr;
}

TEST(ThreadPool, EmptyPoolStartsAWorkerForItsFirstItem) {
  const int base = ThreadCount();
  OXA_THREADPOOL pool = OXA_ThreadPool_Create(0, 2);
  ASSERT_NE(nullptr, pool);
  EXPECT_EQ(base, ThreadCount());
  Task task(true);
  ASSERT_EQ(0, OXA_ThreadPool_Work(pool, RunTask, &task));
  ASSERT_TRUE(task.started.Wait());
  EXPECT_EQ(base + 1, ThreadCount());
  task.release.Open();
  EXPECT_EQ(0, OXA_ThreadPool_Destroy(pool));
  EXPECT_TRUE(task.finished.IsOpen());
  EXPECT_TRUE(WaitForThreadCount(base));
}

TEST(ThreadPool, BadArgumentsRunNothingAndTheTableHolds64Pools) {
  const int base = ThreadCount();
  oxa_test::StderrCapture capture;
  Task task;
  EXPECT_EQ(-1, OXA_ThreadPool_Work(nullptr, RunTask, &task));
  EXPECT_EQ(-1, OXA_ThreadPool_Destroy(nullptr));
  EXPECT_EQ(nullptr, OXA_ThreadPool_CreateFlex(0, 513, 0, -1));
  EXPECT_EQ(nullptr, OXA_ThreadPool_Create(3, 2));          // more initial than maximum
  EXPECT_EQ(nullptr, OXA_ThreadPool_CreateEx(2, 2, 1000));  // stack below the minimum
  EXPECT_TRUE(WaitForThreadCount(base));
  OXA_THREADPOOL full = OXA_ThreadPool_Create(0, MAX_THREAD_PER_THREADPOOL);
  ASSERT_NE(nullptr, full);
  EXPECT_EQ(-1, OXA_ThreadPool_WorkEx(full, nullptr, &task, 1));
  EXPECT_EQ(0, OXA_ThreadPool_Destroy(full));
  EXPECT_FALSE(task.started.IsOpen());
  std::vector<OXA_THREADPOOL> pools;
  for (int i = 0; i < 64; ++i)
    pools.push_back(OXA_ThreadPool_Create(0, 1));
  for (OXA_THREADPOOL pool : pools)
    EXPECT_NE(nullptr, pool);
  EXPECT_EQ(nullptr, OXA_ThreadPool_Create(0, 1));
  ASSERT_EQ(0, OXA_ThreadPool_Destroy(pools[10]));
  EXPECT_EQ(pools[10], OXA_ThreadPool_Create(0, 1)) << "the freed entry is reused";
  for (OXA_THREADPOOL pool : pools)
    EXPECT_EQ(0, OXA_ThreadPool_Destroy(pool));
  EXPECT_TRUE(WaitForThreadCount(base));
}

TEST(ThreadPool, FullPoolFailsAtOnceOrWithWaitPollsUntilAWorkerIsFree) {
  OXA_THREADPOOL pool = OXA_ThreadPool_Create(1, 1);
  ASSERT_NE(nullptr, pool);
  Task busy(true), next;
  ASSERT_EQ(0, OXA_ThreadPool_Work(pool, RunTask, &busy));
  ASSERT_TRUE(busy.started.Wait());
  oxa_test::Stopwatch watch;
  EXPECT_EQ(-1, OXA_ThreadPool_Work(pool, RunTask, &next));
  EXPECT_LT(watch.Elapsed().count(), 1000);
  auto waiting = std::async(std::launch::async,
                            [&] { return OXA_ThreadPool_WorkEx(pool, RunTask, &next, 1); });
  EXPECT_EQ(std::future_status::timeout, waiting.wait_for(milliseconds(50)));
  busy.release.Open();
  ASSERT_EQ(std::future_status::ready, waiting.wait_for(milliseconds(kHangGuardMs)));
  EXPECT_EQ(0, waiting.get());
  ASSERT_TRUE(next.finished.Wait());
  EXPECT_EQ(busy.tid, next.tid);
  EXPECT_EQ(0, OXA_ThreadPool_Destroy(pool));
}

TEST(ThreadPool, DestroyRefusesWaitingItemsAndWaitsForRunningOnes) {
  const int base = ThreadCount();
  OXA_THREADPOOL pool = OXA_ThreadPool_Create(1, 1);
  ASSERT_NE(nullptr, pool);
  Task busy(true), refused;
  ASSERT_EQ(0, OXA_ThreadPool_Work(pool, RunTask, &busy));
  ASSERT_TRUE(busy.started.Wait());
  auto waiting = std::async(std::launch::async,
                            [&] { return OXA_ThreadPool_WorkEx(pool, RunTask, &refused, 1); });
  auto destroying = std::async(std::launch::async, [&] { return OXA_ThreadPool_Destroy(pool); });
  ASSERT_EQ(std::future_status::ready, waiting.wait_for(milliseconds(kHangGuardMs)));
  EXPECT_EQ(-1, waiting.get());
  EXPECT_EQ(std::future_status::timeout, destroying.wait_for(milliseconds(50)));
  busy.release.Open();
  ASSERT_EQ(std::future_status::ready, destroying.wait_for(milliseconds(kHangGuardMs)));
  EXPECT_EQ(0, destroying.get());
  EXPECT_TRUE(busy.finished.IsOpen());
  EXPECT_FALSE(refused.started.IsOpen());
  oxa_test::StderrCapture capture;
  EXPECT_EQ(-1, OXA_ThreadPool_Work(pool, RunTask, &refused));  // destroyed: silently refused
  EXPECT_EQ("", capture.Take());
  EXPECT_TRUE(WaitForThreadCount(base));
}

TEST(ThreadPool, LowestIdleWorkerTakesEachItem) {
  OXA_THREADPOOL pool = OXA_ThreadPool_Create(3, 3);
  ASSERT_NE(nullptr, pool);
  Task tasks[3] = {Task(true), Task(true), Task(true)};
  for (Task& task : tasks) {
    ASSERT_EQ(0, OXA_ThreadPool_Work(pool, RunTask, &task));
    ASSERT_TRUE(task.started.Wait());
  }
  // The workers were started in slot order, so their thread ids rise with the slot index.
  EXPECT_LT(tasks[0].tid, tasks[1].tid);
  EXPECT_LT(tasks[1].tid, tasks[2].tid);
  tasks[1].release.Open();
  Task again(true);
  ASSERT_EQ(0, OXA_ThreadPool_WorkEx(pool, RunTask, &again, 1));
  ASSERT_TRUE(again.started.Wait());
  EXPECT_EQ(tasks[1].tid, again.tid);
  for (Task* task : {&tasks[0], &tasks[2], &again})
    task->release.Open();
  EXPECT_EQ(0, OXA_ThreadPool_Destroy(pool));
}

TEST(ThreadPool, ExtraWorkerRetiresAfterIdleTimeoutInitialOneStays) {
  const int base = ThreadCount();
  OXA_THREADPOOL pool = OXA_ThreadPool_CreateFlex(1, 2, 256 * 1024, 100);
  ASSERT_NE(nullptr, pool);
  Task busy(true), extra;
  ASSERT_EQ(0, OXA_ThreadPool_Work(pool, RunTask, &busy));
  ASSERT_EQ(0, OXA_ThreadPool_Work(pool, RunTask, &extra));  // starts worker 1
  ASSERT_TRUE(extra.finished.Wait());
  ASSERT_TRUE(WaitForThreadCount(base + 1));
  // The time-out is polled on a millisecond tick, so allow for its rounding below 100 ms.
  EXPECT_GE(std::chrono::steady_clock::now() - extra.done_at, milliseconds(90));
  busy.release.Open();
  std::this_thread::sleep_for(milliseconds(400));  // well past the time-out: nothing may retire
  EXPECT_EQ(base + 1, ThreadCount());
  Task later;
  ASSERT_EQ(0, OXA_ThreadPool_Work(pool, RunTask, &later));
  EXPECT_TRUE(later.finished.Wait());
  EXPECT_EQ(0, OXA_ThreadPool_Destroy(pool));
  EXPECT_TRUE(WaitForThreadCount(base));
}

TEST(ThreadPool, ItemsCarryTheSubmittersTraceContextButNotWhenTheyStartAWorker) {
  auto& trace = oxa::oxa_tlsTraceInfoOper::instance();
  OXA_THREADPOOL pool = OXA_ThreadPool_Create(1, 2);
  ASSERT_NE(nullptr, pool);
  ASSERT_EQ(0, trace.setTraceInfo(oxa_test::TraceInfo("req-7", "", "", 7)));
  Task traced(true);
  ASSERT_EQ(0, OXA_ThreadPool_Work(pool, RunTask, &traced));  // idle worker 0
  ASSERT_TRUE(traced.started.Wait());
  EXPECT_EQ(0, traced.trace_result);
  EXPECT_STREQ("req-7", traced.trace.text1);
  EXPECT_EQ(7, traced.trace.byte1);
  Task grown;
  ASSERT_EQ(0, OXA_ThreadPool_Work(pool, RunTask, &grown));  // starts worker 1
  ASSERT_TRUE(grown.finished.Wait());
  EXPECT_EQ(0, grown.trace_result);
  EXPECT_STREQ("", grown.trace.text1);
  traced.release.Open();
  ASSERT_TRUE(traced.finished.Wait());
  ASSERT_EQ(0, trace.eraseTraceInfo());
  Task untraced;  // a submitter without context hands over an empty one
  ASSERT_EQ(0, OXA_ThreadPool_WorkEx(pool, RunTask, &untraced, 1));
  ASSERT_TRUE(untraced.finished.Wait());
  EXPECT_EQ(0, untraced.trace_result);
  EXPECT_STREQ("", untraced.trace.text1);
  EXPECT_EQ(0, untraced.trace.byte1);
  EXPECT_EQ(0, OXA_ThreadPool_Destroy(pool));
}

TEST(ThreadPool, ClassWrapsOnePoolAcrossAModuleRestart) {
  const int base = ThreadCount();
  EXPECT_EQ(0, OXA_InitThreadPool_Inter());
  OXA_ThreadPool pool;
  EXPECT_EQ(-1, pool.Destroy());  // no pool yet
  EXPECT_EQ(-1, pool.Create(1, MAX_THREAD_PER_THREADPOOL + 1));
  ASSERT_EQ(0, pool.Create(1, 1));
  Task task;
  ASSERT_EQ(0, pool.Work(RunTask, &task));
  EXPECT_TRUE(task.finished.Wait());
  EXPECT_EQ(0, pool.Destroy());
  EXPECT_EQ(-1, pool.Work(RunTask, &task));  // the handle is kept, the pool is stopping
  EXPECT_TRUE(WaitForThreadCount(base));
  EXPECT_EQ(0, OXA_FiniThreadPool_Inter());
  EXPECT_EQ(0, OXA_InitThreadPool_Inter());
  EXPECT_EQ(0, pool.Create(1, 1)) << "the table works again after a restart";
  EXPECT_EQ(0, pool.Destroy());
}

TEST(ThreadPool, AllWorkersOfAFullSizePoolRunAtOnce) {
  const int base = ThreadCount();
  OXA_THREADPOOL pool =
      OXA_ThreadPool_CreateEx(MAX_THREAD_PER_THREADPOOL, MAX_THREAD_PER_THREADPOOL, 256 * 1024);
  ASSERT_NE(nullptr, pool);
  EXPECT_EQ(base + MAX_THREAD_PER_THREADPOOL, ThreadCount());
  std::vector<Task> tasks(MAX_THREAD_PER_THREADPOOL);
  for (Task& task : tasks)
    task.block = true;
  for (Task& task : tasks)
    ASSERT_EQ(0, OXA_ThreadPool_Work(pool, RunTask, &task));
  for (Task& task : tasks)
    ASSERT_TRUE(task.started.Wait());
  for (Task& task : tasks)
    task.release.Open();
  EXPECT_EQ(0, OXA_ThreadPool_Destroy(pool));
  EXPECT_TRUE(WaitForThreadCount(base));
}

std::atomic<int> g_ran{0};

void* CountRun(void*) {
  g_ran.fetch_add(1, std::memory_order_relaxed);
  return nullptr;
}

// An item that a submission accepted runs before destroy returns, even when destroy follows
// the hand-over at once.
TEST(ThreadPool, DestroyRunsEveryAcceptedItem) {
  for (int round = 0; round < 20; ++round) {
    g_ran = 0;
    OXA_THREADPOOL pool = OXA_ThreadPool_Create(4, 4);
    ASSERT_NE(nullptr, pool);
    int accepted = 0;
    for (int i = 0; i < 100; ++i)
      accepted += OXA_ThreadPool_Work(pool, CountRun, nullptr) == 0 ? 1 : 0;
    ASSERT_EQ(0, OXA_ThreadPool_Destroy(pool));
    ASSERT_EQ(accepted, g_ran.load()) << "round " << round;
  }
}

// A flood of waiting submissions from two producers into two workers: workers and
// submitters keep switching between looking briefly and sleeping, and no item may be lost or
// refused on the way.
TEST(ThreadPool, FloodOfWaitingSubmissionsRunsEveryItem) {
  constexpr int kPerProducer = 5000;
  g_ran = 0;
  OXA_THREADPOOL pool = OXA_ThreadPool_Create(2, 2);
  ASSERT_NE(nullptr, pool);
  std::atomic<int> refused{0};
  auto produce = [&] {
    for (int i = 0; i < kPerProducer; ++i) {
      if (OXA_ThreadPool_WorkEx(pool, CountRun, nullptr, 1) != 0) ++refused;
    }
  };
  std::thread first(produce);
  std::thread second(produce);
  first.join();
  second.join();
  ASSERT_EQ(0, OXA_ThreadPool_Destroy(pool));
  EXPECT_EQ(0, refused.load());
  EXPECT_EQ(2 * kPerProducer, g_ran.load());
}

// Every worker, initial or extra, blocks until its item arrives: fifty hand-overs to an
// extra worker with an idle time-out take nowhere near fifty polling steps.
TEST(ThreadPool, ExtraWorkerTakesItsItemsAsSoonAsTheyArrive) {
  OXA_THREADPOOL pool = OXA_ThreadPool_CreateFlex(0, 1, 0, 60000);
  ASSERT_NE(nullptr, pool);
  Task first;
  ASSERT_EQ(0, OXA_ThreadPool_Work(pool, RunTask, &first));  // starts the extra worker
  ASSERT_TRUE(first.finished.Wait());
  oxa_test::Stopwatch watch;
  for (int i = 0; i < 50; ++i) {
    Task task;
    ASSERT_EQ(0, OXA_ThreadPool_WorkEx(pool, RunTask, &task, 1));
    ASSERT_TRUE(task.finished.Wait());
    EXPECT_EQ(first.tid, task.tid);
  }
  EXPECT_LT(watch.Elapsed().count(), 125);  // polling in 10 ms steps needs about 250
  EXPECT_EQ(0, OXA_ThreadPool_Destroy(pool));
}

}  // namespace
