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

using oxa_test::OnFreshThread;

using oxa_test::ThreadCount;
using oxa_test::WaitForThreadCount;

oxa::oxa_tlsTraceInfoOper& Trace() { return oxa::oxa_tlsTraceInfoOper::instance(); }

// A record whose every byte is `fill` but the texts' terminators: comparing records covers all.
OXA_TRACEINFO Info(char fill) {
  OXA_TRACEINFO info;
  memset(&info, fill, sizeof info);
  info.text1[sizeof info.text1 - 1] = info.text2[sizeof info.text2 - 1] =
      info.text3[sizeof info.text3 - 1] = 0;
  return info;
}

bool Same(const OXA_TRACEINFO& a, const OXA_TRACEINFO& b) { return memcmp(&a, &b, sizeof a) == 0; }

// What a routine saw of its trace record on entry.
struct Probe {
  int rc = 0;
  OXA_TRACEINFO seen{};
  std::promise<void> done;  // set once `seen` is filled in
};

void* RecordTrace(void* arg) {
  auto* probe = static_cast<Probe*>(arg);
  probe->rc = Trace().getTraceInfo(&probe->seen);
  Trace().setTraceInfo(Info('x'));  // must not reach the creator
  probe->done.set_value();
  return arg;
}

TEST(Thread, InvalidArgumentsAndTheSchedulingQuirks) {
  const int threads = ThreadCount();
  EXPECT_EQ(-1, OXA_Thread_Wait(OXA_INVALID_HANDLE));
  EXPECT_EQ(-1, OXA_Thread_SetPriority(OXA_INVALID_HANDLE, 5));
  EXPECT_EQ(-1, OXA_Thread_SetSchedPolicy(OXA_INVALID_HANDLE, SCHED_OTHER));
  EXPECT_EQ(-2, OXA_Thread_Suspend());
  EXPECT_EQ(-2, OXA_Thread_Resume());
  auto routine = [](void*) -> void* { return nullptr; };
  // Refused attributes: stack below the minimum, priority outside the policy's range, policy.
  EXPECT_EQ(OXA_INVALID_HANDLE, OXA_Thread_Create(routine, nullptr, 1, 0, 0, SCHED_OTHER));
  EXPECT_EQ(OXA_INVALID_HANDLE, OXA_Thread_Create(routine, nullptr, 0, 0, 5, SCHED_OTHER));
  EXPECT_EQ(OXA_INVALID_HANDLE, OXA_Thread_Create(routine, nullptr, 0, 0, 0, 12345));
  EXPECT_EQ(OXA_INVALID_HANDLE, OXA_Thread_Create(nullptr, nullptr, 0, 0, 0, SCHED_OTHER));
  EXPECT_EQ(OXA_FALSE, OXA_ThreadDetached_Create(routine, nullptr, 1));
  EXPECT_EQ(OXA_FALSE, OXA_ThreadDetached_Create(nullptr, nullptr, 0));
  OXA_Thread thread;
  EXPECT_EQ(-1, thread.Create(routine, nullptr, 1, 0, 0, SCHED_OTHER));
  EXPECT_EQ(-1, thread.Wait());
  EXPECT_EQ(threads, ThreadCount());

  const OXA_HANDLE self = OXA_Thread_GetSelfId();
  EXPECT_EQ(pthread_self(), static_cast<pthread_t>(self));
  EXPECT_EQ(0, OXA_Thread_SetPriority(self, 0));
  EXPECT_EQ(-1, OXA_Thread_SetPriority(self, 5)) << "SCHED_OTHER has priority 0 only";
  EXPECT_EQ(0, OXA_Thread_SetSchedPolicy(self, SCHED_FIFO));
  EXPECT_EQ(-1, OXA_Thread_SetSchedPolicy(self, 12345));
  int policy = -1;
  sched_param param{};
  ASSERT_EQ(0, pthread_getschedparam(pthread_self(), &policy, &param));
  EXPECT_EQ(SCHED_OTHER, policy) << "the policy is only checked, never applied";
}

// Without a record the routine starts directly; with one, joinable and detached threads start
// through the trampoline with a copy of the record. Waiting joins: the probes are filled in.
TEST(ThreadTrace, NewThreadsStartWithACopyOfTheCreatorsRecord) {
  const int threads = ThreadCount();
  const int fds = oxa_test::OpenFdCount();
  OnFreshThread([] {
    Probe direct, joinable, detached;
    OXA_Thread thread;
    ASSERT_EQ(0, thread.Create(RecordTrace, &direct, 1024 * 1024, 7, 0, SCHED_OTHER));
    EXPECT_EQ(0, thread.Wait());
    EXPECT_EQ(-1, thread.Wait()) << "a joined thread is forgotten";
    EXPECT_EQ(-1, direct.rc);

    ASSERT_EQ(0, Trace().setTraceInfo(Info('r')));
    const OXA_HANDLE handle = OXA_Thread_Create(RecordTrace, &joinable, 0, 0, 0, SCHED_OTHER);
    ASSERT_NE(OXA_INVALID_HANDLE, handle);
    EXPECT_EQ(0, OXA_Thread_Wait(handle));
    ASSERT_EQ(OXA_TRUE, OXA_ThreadDetached_Create(RecordTrace, &detached, 0));
    ASSERT_EQ(std::future_status::ready, detached.done.get_future().wait_for(
                                             std::chrono::milliseconds(oxa_test::kHangGuardMs)));
    for (const Probe* probe : {&joinable, &detached}) {
      EXPECT_EQ(0, probe->rc);
      EXPECT_TRUE(Same(Info('r'), probe->seen));
    }
    OXA_TRACEINFO after{};
    EXPECT_EQ(0, Trace().getTraceInfo(&after));
    EXPECT_TRUE(Same(Info('r'), after)) << "the creator's record is its own";

    // Leaving through OXA_Thread_Exit unwinds the trampoline too: the sanitizer build sees a
    // leaked start block otherwise.
    auto exit_early = [](void*) -> void* {
      OXA_Thread_Exit();
      return nullptr;
    };
    EXPECT_EQ(0, OXA_Thread_Wait(OXA_Thread_Create(exit_early, nullptr, 0, 0, 0, SCHED_OTHER)));
    Trace().eraseTraceInfo();
  });
  EXPECT_TRUE(WaitForThreadCount(threads));
  EXPECT_EQ(fds, oxa_test::OpenFdCount());
}

// The trampoline called on this thread: the record exists exactly while the routine runs.
TEST(ThreadTrace, TheTrampolineInstallsTheRecordOnlyAroundTheRoutine) {
  OnFreshThread([] {
    Probe probe;
    auto* block = oxa::internal::NewThreadStartBlock();
    ASSERT_NE(nullptr, block);
    *block = {Info('t'), RecordTrace, &probe, 1};
    EXPECT_EQ(nullptr, pfnThreadStartAddress(block));  // frees the block
    EXPECT_EQ(0, probe.rc);
    EXPECT_TRUE(Same(Info('t'), probe.seen));
    OXA_TRACEINFO after;
    EXPECT_EQ(-1, Trace().getTraceInfo(&after)) << "erased after the routine";
  });
  oxa_test::StderrCapture capture;
  EXPECT_EQ(nullptr, pfnThreadStartAddress(nullptr));
  EXPECT_EQ(nullptr, pfnDetachedThreadStartAddress(nullptr));
  const std::string line = "pfnThreadStartAddress, pParam is null!\r\n";
  EXPECT_EQ(line + line, capture.Take());
}

}  // namespace
