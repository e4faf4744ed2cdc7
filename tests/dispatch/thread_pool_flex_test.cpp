#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "oxa_threadpoolflex.h"
#include "oxa_trace.h"

#include "support/test_support.h"

namespace {

using oxa_test::kHangGuardMs;
using oxa_test::Stopwatch;
using oxa_test::ThreadCount;
using oxa_test::WaitForThreadCount;
using std::chrono::milliseconds;

// What the handler records, and a gate that holds handlers until the test opens it.
struct Probe {
  std::mutex mu;
  std::condition_variable cv;
  bool open = true;
  int running = 0;
  std::vector<long> order;  // the data of each item, in running order
  std::set<pthread_t> threads;
  std::vector<OXA_TRACEINFO> contexts;
  std::vector<int> had_context;
  size_t stack_bytes = 0;

  // Waits (bounded) until pred holds under the lock.
  template <class Pred>
  bool WaitUntil(Pred pred) {
    std::unique_lock<std::mutex> hold(mu);
    return cv.wait_for(hold, milliseconds(kHangGuardMs), pred);
  }
  void Open() {
    std::lock_guard<std::mutex> hold(mu);
    open = true;
    cv.notify_all();
  }
};

Probe* g_probe = nullptr;  // the handler has no context argument; set by each test

void Record(void* data) {
  Probe& probe = *g_probe;
  OXA_TRACEINFO info;
  const int had = oxa::oxa_tlsTraceInfoOper::instance().getTraceInfo(&info);
  pthread_attr_t attr;
  size_t stack = 0;
  if (pthread_getattr_np(pthread_self(), &attr) == 0) {
    pthread_attr_getstacksize(&attr, &stack);
    pthread_attr_destroy(&attr);
  }
  std::unique_lock<std::mutex> hold(probe.mu);
  ++probe.running;
  probe.order.push_back(reinterpret_cast<long>(data));
  probe.threads.insert(pthread_self());
  probe.contexts.push_back(info);
  probe.had_context.push_back(had);
  probe.stack_bytes = stack;
  probe.cv.notify_all();
  probe.cv.wait_for(hold, milliseconds(kHangGuardMs), [&] { return probe.open; });
  --probe.running;
  probe.cv.notify_all();
}

void* Data(long n) { return reinterpret_cast<void*>(n); }

class FlexPool : public ::testing::Test {
 protected:
  void SetUp() override {
    g_probe = &probe_;
    threads_before_ = ThreadCount();
  }
  void TearDown() override {
    EXPECT_TRUE(WaitForThreadCount(threads_before_));  // every worker has ended
    g_probe = nullptr;
  }
  Probe probe_;
  int threads_before_ = 0;
};

TEST_F(FlexPool, RefusesBadArgumentsWithoutSideEffects) {
  EXPECT_EQ(nullptr, thrmgr_new(4, 100, nullptr, 0));
  EXPECT_EQ(nullptr, thrmgr_new(0, 100, Record, 0));
  EXPECT_EQ(nullptr, thrmgr_new(-3, 100, Record, 0));
  EXPECT_EQ(nullptr, OXA_ThreadPoolFlex_Create(2, 100, Record, -1));
  EXPECT_EQ(0, thrmgr_dispatch(nullptr, Data(1)));
  EXPECT_EQ(-1, OXA_ThreadPoolFlex_Work(nullptr, Data(1)));
  EXPECT_EQ(-1, thrmgr_getQSize(nullptr));
  thrmgr_destroy(nullptr, -1);
  EXPECT_EQ(0, OXA_ThreadPoolFlex_Destroy(nullptr));
  EXPECT_EQ(0, OXA_ThreadPoolFlex_DestroyEx(nullptr, 100));
  // A pool that was never used holds no thread.
  OXA_THREADPOOLFLEX pool = thrmgr_new(4, 100, Record, 0);
  ASSERT_NE(nullptr, pool);
  EXPECT_EQ(threads_before_, ThreadCount());
  EXPECT_EQ(0, thrmgr_getQSize(pool));
  OXA_ThreadPoolFlex_Destroy(pool);
}

TEST_F(FlexPool, OneWorkerRunsQuickDispatchesInOrderOnASmallStackRaisedToTheFloor) {
  OXA_THREADPOOLFLEX pool = thrmgr_new(1, 1000, Record, 4096);
  ASSERT_NE(nullptr, pool);
  for (long i = 1; i <= 3; ++i)
    ASSERT_EQ(1, thrmgr_dispatch(pool, Data(i)));
  ASSERT_TRUE(probe_.WaitUntil([&] { return probe_.order.size() == 3; }));
  EXPECT_EQ((std::vector<long>{1, 2, 3}), probe_.order);
  EXPECT_EQ(1u, probe_.threads.size());
  EXPECT_GE(probe_.stack_bytes, 0x40000u);
  EXPECT_LT(probe_.stack_bytes, 0x100000u);
  thrmgr_destroy(pool, -1);
}

TEST_F(FlexPool, ABurstStartsWorkersUpToTheMaximum) {
  probe_.open = false;
  OXA_THREADPOOLFLEX pool = thrmgr_new(3, 1000, Record, 0);
  for (long i = 0; i < 6; ++i)
    ASSERT_EQ(0, OXA_ThreadPoolFlex_Work(pool, Data(i)));
  ASSERT_TRUE(probe_.WaitUntil([&] { return probe_.running == 3; }));
  EXPECT_EQ(3, thrmgr_getQSize(pool));  // three held by busy workers, three waiting
  EXPECT_EQ(threads_before_ + 3, ThreadCount());
  probe_.Open();
  OXA_ThreadPoolFlex_DestroyEx(pool, -1);
  EXPECT_EQ(6u, probe_.order.size());
  EXPECT_EQ(3u, probe_.threads.size());
}

TEST_F(FlexPool, QueueRefusesThe65536thWaitingItem) {
  probe_.open = false;
  OXA_THREADPOOLFLEX pool = thrmgr_new(1, 1000, Record, 0);
  ASSERT_EQ(1, thrmgr_dispatch(pool, Data(0)));
  ASSERT_TRUE(probe_.WaitUntil([&] { return probe_.running == 1; }));
  for (long i = 1; i <= 65535; ++i)
    ASSERT_EQ(1, thrmgr_dispatch(pool, Data(i))) << i;
  EXPECT_EQ(0, thrmgr_dispatch(pool, Data(65536)));
  EXPECT_EQ(65535, thrmgr_getQSize(pool));
  probe_.Open();
  // Dropping the queue still waits for the handler that is running.
  OXA_ThreadPoolFlex_Destroy(pool);
  EXPECT_EQ(0, probe_.running);
  EXPECT_LT(probe_.order.size(), 65536u);
}

// Five items, the first held in its handler while the pool is destroyed: -1 drains all five,
// 150 gives up draining after 150 ms, 0 drops the rest at once; all wait for the held one.
TEST_F(FlexPool, DestroyModesDrainWithoutLimitForAWhileOrNotAtAll) {
  struct Mode {
    int wait;
    size_t handled;
  };
  for (const Mode mode : {Mode{-1, 5}, Mode{150, 1}, Mode{0, 1}}) {
    probe_.order.clear();
    probe_.open = false;
    OXA_THREADPOOLFLEX pool = thrmgr_new(1, 1000, Record, 0);
    for (long i = 0; i < 5; ++i)
      ASSERT_EQ(1, thrmgr_dispatch(pool, Data(i)));
    ASSERT_TRUE(probe_.WaitUntil([&] { return probe_.running == 1; }));
    auto destroyer = std::async(std::launch::async, [&] {
      Stopwatch clock;
      thrmgr_destroy(pool, mode.wait);
      return clock.Elapsed();
    });
    // Destruction has begun once the queue size reads -1; dispatches fail from then on.
    Stopwatch guard;
    while (thrmgr_getQSize(pool) != -1 && guard.Elapsed() < milliseconds(kHangGuardMs)) {
      std::this_thread::yield();
    }
    EXPECT_EQ(0, thrmgr_dispatch(pool, Data(99)));
    if (mode.wait > 0) {  // hold the handler past the drain's limit; the destroyer waits on
      EXPECT_EQ(std::future_status::timeout, destroyer.wait_for(milliseconds(mode.wait + 100)));
    }
    probe_.Open();
    ASSERT_EQ(std::future_status::ready, destroyer.wait_for(milliseconds(kHangGuardMs)));
    const milliseconds took = destroyer.get();
    EXPECT_EQ(0, probe_.running);
    EXPECT_EQ(mode.handled, probe_.order.size()) << mode.wait;
    EXPECT_GE(took, milliseconds(mode.wait > 0 ? mode.wait : 0));
    ASSERT_TRUE(WaitForThreadCount(threads_before_));
  }
}

TEST_F(FlexPool, IdleWorkersEndAfterTheTimeOut) {
  for (int idle_ms : {0, 50}) {
    OXA_THREADPOOLFLEX pool = thrmgr_new(2, idle_ms, Record, 0);
    ASSERT_EQ(1, thrmgr_dispatch(pool, Data(1)));
    ASSERT_TRUE(probe_.WaitUntil([&] { return probe_.running == 0 && !probe_.order.empty(); }));
    EXPECT_TRUE(WaitForThreadCount(threads_before_)) << idle_ms;
    // The pool starts a fresh worker for the next item.
    ASSERT_EQ(1, thrmgr_dispatch(pool, Data(2)));
    ASSERT_TRUE(probe_.WaitUntil([&] { return probe_.order.size() == 2; }));
    thrmgr_destroy(pool, -1);
    probe_.order.clear();
  }
}

TEST_F(FlexPool, TheHandlerSeesTheDispatchersTraceContext) {
  OXA_THREADPOOLFLEX pool = thrmgr_new(1, 1000, Record, 0);
  std::thread with_context([&] {
    oxa::oxa_tlsTraceInfoOper::instance().setTraceInfo(
        oxa_test::TraceInfo("", "submitted here", "", 3));
    thrmgr_dispatch(pool, Data(1));
    oxa::oxa_tlsTraceInfoOper::instance().eraseTraceInfo();
  });
  with_context.join();
  ASSERT_TRUE(probe_.WaitUntil([&] { return probe_.order.size() == 1; }));
  std::thread without_context([&] { thrmgr_dispatch(pool, Data(2)); });
  without_context.join();
  ASSERT_TRUE(probe_.WaitUntil([&] { return probe_.order.size() == 2; }));
  thrmgr_destroy(pool, -1);
  EXPECT_EQ(0, probe_.had_context[0]);
  EXPECT_STREQ("submitted here", probe_.contexts[0].text2);
  EXPECT_EQ(3, probe_.contexts[0].byte1);
  EXPECT_EQ(-1, probe_.had_context[1]);  // no leftover from the previous item
}

}  // namespace
