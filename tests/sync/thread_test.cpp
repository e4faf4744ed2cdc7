#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <string.h>

#include <future>
#include <string>
#include <thread>

#include "oxa_thread.h"
#include "oxa_trace.h"

#include "support/test_support.h"
#include "sync/thread_start_block.h"

namespace {

using oxa_test::OpenFdCount;
using oxa_test::StderrCapture;
using oxa_test::ThreadCount;
using oxa_test::WaitForThreadCount;

oxa::oxa_tlsTraceInfoOper& Trace() { return oxa::oxa_tlsTraceInfoOper::instance(); }

OXA_TRACEINFO MakeInfo(const char* text, unsigned char byte) {
  OXA_TRACEINFO info{};
  strncpy(info.text1, text, sizeof info.text1 - 1);
  strncpy(info.text3, "third", sizeof info.text3 - 1);
  info.byte1 = byte;
  info.byte2 = 0xFE;
  return info;
}

bool SameInfo(const OXA_TRACEINFO& a, const OXA_TRACEINFO& b) {
  return memcmp(&a, &b, sizeof a) == 0;
}

// What a routine saw of its trace record on entry.
struct Probe {
  int rc = 0;
  OXA_TRACEINFO seen{};
  std::promise<void> done;  // for detached threads
};

void* RecordTrace(void* arg) {
  auto* probe = static_cast<Probe*>(arg);
  probe->rc = Trace().getTraceInfo(&probe->seen);
  Trace().setTraceInfo(MakeInfo("changed by the new thread", 1));  // must not reach the creator
  return arg;
}

void* RecordTraceAndSignal(void* arg) {
  RecordTrace(arg);
  static_cast<Probe*>(arg)->done.set_value();
  return nullptr;
}

// Each case runs on a thread of its own, so it starts without a trace record.
template <class F>
void OnFreshThread(F body) {
  std::thread(body).join();
}

TEST(Thread, SchedulingCallsAndTheInvalidHandle) {
  EXPECT_EQ(-1, OXA_Thread_Wait(OXA_INVALID_HANDLE));
  EXPECT_EQ(-1, OXA_Thread_SetPriority(OXA_INVALID_HANDLE, 5));
  EXPECT_EQ(-1, OXA_Thread_SetSchedPolicy(OXA_INVALID_HANDLE, SCHED_OTHER));
  EXPECT_EQ(-2, OXA_Thread_Suspend());
  EXPECT_EQ(-2, OXA_Thread_Resume());
  OXA_Thread never_started;
  EXPECT_EQ(-1, never_started.Wait());
  EXPECT_EQ(-1, never_started.SetPriority(0));
  EXPECT_EQ(-2, never_started.Suspend());

  const OXA_HANDLE self = OXA_Thread_GetSelfId();
  EXPECT_EQ(pthread_self(), static_cast<pthread_t>(self));
  EXPECT_EQ(0, OXA_Thread_SetPriority(self, 0));
  EXPECT_EQ(-1, OXA_Thread_SetPriority(self, 5)) << "SCHED_OTHER has priority 0 only";
  EXPECT_EQ(0, OXA_Thread_SetSchedPolicy(self, SCHED_FIFO));
  EXPECT_EQ(-1, OXA_Thread_SetSchedPolicy(self, 12345));
  int policy = -1;
  struct sched_param param {};
  ASSERT_EQ(0, pthread_getschedparam(pthread_self(), &policy, &param));
  EXPECT_EQ(SCHED_OTHER, policy) << "the policy is only checked, never applied";
}

TEST(Thread, CreateRunsTheRoutineAndWaitJoinsIt) {
  const int threads = ThreadCount();
  const int fds = OpenFdCount();
  int value = 0;
  auto set_value = [](void* arg) -> void* {
    *static_cast<int*>(arg) += 42;
    return nullptr;
  };
  const OXA_HANDLE handle = OXA_Thread_Create(set_value, &value, 0, 7, 0, SCHED_OTHER);
  ASSERT_NE(OXA_INVALID_HANDLE, handle);
  EXPECT_EQ(0, OXA_Thread_Wait(handle));
  EXPECT_EQ(42, value);

  OXA_Thread thread;
  ASSERT_EQ(0, thread.Create(set_value, &value, 1024 * 1024, 0, 0, SCHED_OTHER));
  EXPECT_EQ(0, thread.Wait());
  EXPECT_EQ(84, value);
  EXPECT_EQ(-1, thread.Wait()) << "a joined thread is forgotten";

  EXPECT_TRUE(WaitForThreadCount(threads));
  EXPECT_EQ(fds, OpenFdCount());
}

TEST(Thread, AttributesTheSystemRefusesFailCreation) {
  const int threads = ThreadCount();
  auto routine = [](void*) -> void* { return nullptr; };
  EXPECT_EQ(OXA_INVALID_HANDLE, OXA_Thread_Create(routine, nullptr, 1, 0, 0, SCHED_OTHER))
      << "stack below the minimum";
  EXPECT_EQ(OXA_INVALID_HANDLE, OXA_Thread_Create(routine, nullptr, 0, 0, 5, SCHED_OTHER))
      << "priority outside the policy's range";
  EXPECT_EQ(OXA_INVALID_HANDLE, OXA_Thread_Create(routine, nullptr, 0, 0, 0, 12345));
  EXPECT_EQ(OXA_INVALID_HANDLE, OXA_Thread_Create(nullptr, nullptr, 0, 0, 0, SCHED_OTHER));
  EXPECT_EQ(OXA_FALSE, OXA_ThreadDetached_Create(routine, nullptr, 1));
  EXPECT_EQ(OXA_FALSE, OXA_ThreadDetached_Create(nullptr, nullptr, 0));
  OXA_Thread thread;
  EXPECT_EQ(-1, thread.Create(routine, nullptr, 1, 0, 0, SCHED_OTHER));
  EXPECT_EQ(-1, thread.Wait());
  EXPECT_EQ(threads, ThreadCount());
}

TEST(ThreadTrace, ANewThreadStartsWithACopyOfItsCreatorsRecord) {
  OnFreshThread([] {
    const OXA_TRACEINFO mine = MakeInfo("request 17", 9);
    ASSERT_EQ(0, Trace().setTraceInfo(mine));
    Probe probe;
    const OXA_HANDLE handle = OXA_Thread_Create(RecordTrace, &probe, 0, 0, 0, SCHED_OTHER);
    ASSERT_NE(OXA_INVALID_HANDLE, handle);
    void* result = &probe;
    ASSERT_EQ(0, pthread_join(static_cast<pthread_t>(handle), &result));
    EXPECT_EQ(nullptr, result) << "started through the trampoline";
    EXPECT_EQ(0, probe.rc);
    EXPECT_TRUE(SameInfo(mine, probe.seen));
    OXA_TRACEINFO after{};
    EXPECT_EQ(0, Trace().getTraceInfo(&after));
    EXPECT_TRUE(SameInfo(mine, after)) << "the creator's record is its own";
    Trace().eraseTraceInfo();
  });
}

TEST(ThreadTrace, ACreatorWithoutRecordStartsTheRoutineDirectly) {
  OnFreshThread([] {
    Probe probe;
    const OXA_HANDLE handle = OXA_Thread_Create(RecordTrace, &probe, 0, 0, 0, SCHED_OTHER);
    ASSERT_NE(OXA_INVALID_HANDLE, handle);
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(static_cast<pthread_t>(handle), &result));
    EXPECT_EQ(&probe, result) << "the routine's own result: no trampoline";
    EXPECT_EQ(-1, probe.rc);
  });
}

TEST(ThreadTrace, DetachedThreadsGetTheRecordToo) {
  const int threads = ThreadCount();
  OnFreshThread([] {
    const OXA_TRACEINFO mine = MakeInfo("detached", 3);
    ASSERT_EQ(0, Trace().setTraceInfo(mine));
    Probe probe;
    ASSERT_EQ(OXA_TRUE, OXA_ThreadDetached_Create(RecordTraceAndSignal, &probe, 0));
    ASSERT_EQ(std::future_status::ready,
              probe.done.get_future().wait_for(std::chrono::milliseconds(oxa_test::kHangGuardMs)));
    EXPECT_EQ(0, probe.rc);
    EXPECT_TRUE(SameInfo(mine, probe.seen));
    Trace().eraseTraceInfo();
  });
  EXPECT_TRUE(WaitForThreadCount(threads));
}

// The trampoline called on this thread: the record exists exactly while the routine runs.
TEST(ThreadTrace, TheTrampolineInstallsTheRecordOnlyAroundTheRoutine) {
  OnFreshThread([] {
    Probe probe;
    auto* block = oxa::internal::NewThreadStartBlock();
    ASSERT_NE(nullptr, block);
    block->trace = MakeInfo("around the routine", 5);
    block->routine = RecordTrace;
    block->arg = &probe;
    block->has_trace = 1;
    EXPECT_EQ(nullptr, pfnThreadStartAddress(block));  // frees the block
    EXPECT_EQ(0, probe.rc);
    EXPECT_TRUE(SameInfo(MakeInfo("around the routine", 5), probe.seen));
    OXA_TRACEINFO after;
    EXPECT_EQ(-1, Trace().getTraceInfo(&after)) << "erased after the routine";
  });
}

TEST(ThreadTrace, ANullBlockIsReportedAndIgnored) {
  StderrCapture capture;
  EXPECT_EQ(nullptr, pfnThreadStartAddress(nullptr));
  EXPECT_EQ(nullptr, pfnDetachedThreadStartAddress(nullptr));
  const std::string line = "pfnThreadStartAddress, pParam is null!\r\n";
  EXPECT_EQ(line + line, capture.Take());
}

// Leaving through OXA_Thread_Exit unwinds the trampoline too: the sanitizer build sees a
// leaked start block otherwise.
TEST(ThreadTrace, ExitFromTheRoutineStillReleasesTheStartBlock) {
  OnFreshThread([] {
    ASSERT_EQ(0, Trace().setTraceInfo(MakeInfo("exits early", 1)));
    auto exit_early = [](void*) -> void* {
      OXA_Thread_Exit();
      return nullptr;
    };
    const OXA_HANDLE handle = OXA_Thread_Create(exit_early, nullptr, 0, 0, 0, SCHED_OTHER);
    ASSERT_NE(OXA_INVALID_HANDLE, handle);
    EXPECT_EQ(0, OXA_Thread_Wait(handle));
    Trace().eraseTraceInfo();
  });
}

}  // namespace
