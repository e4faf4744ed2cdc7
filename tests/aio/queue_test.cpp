#include <gtest/gtest.h>

#include <pthread.h>

#include <chrono>
#include <future>
#include <thread>

#include "oxa_aio.h"
#include "oxa_sysinfo.h"

#include "aio/aio_harness.h"
#include "support/test_support.h"

namespace {

using oxa_test::BadQueue;
using oxa_test::kHangGuardMs;
using oxa_test::Queue;
using oxa_test::Stopwatch;
using std::chrono::milliseconds;

TEST(CompletionQueue, WorkersStartAndAllGoWithTheQueue) {
  const int threads = oxa_test::ThreadCount();
  const int fds = oxa_test::OpenFdCount();
  void* queue = OXA_AIO_CreateQueueEx(3, 0);
  ASSERT_NE(BadQueue(), queue);
  ASSERT_NE(nullptr, queue);
  EXPECT_EQ(threads + 3, oxa_test::ThreadCount());
  EXPECT_EQ(fds + 3, oxa_test::OpenFdCount()) << "one epoll instance per worker";

  Stopwatch watch;
  EXPECT_EQ(0, OXA_AsyncIO_DestroyQueueEx(queue));
  // All workers are told to stop before the first is waited for: about one 500 ms wait.
  EXPECT_LT(watch.Elapsed(), milliseconds(3000));
  EXPECT_TRUE(oxa_test::WaitForThreadCount(threads));
  EXPECT_EQ(fds, oxa_test::OpenFdCount());
}

TEST(CompletionQueue, DefaultQueueHasTwiceProcessorsPlusOneWorkers) {
  const int threads = oxa_test::ThreadCount();
  void* queue = OXA_AsyncIO_CreateQueueEx2();
  ASSERT_NE(BadQueue(), queue);
  EXPECT_EQ(threads + (OXA_GetCPUNumber() + 1) * 2, oxa_test::ThreadCount());
  EXPECT_EQ(0, OXA_AsyncIO_DestroyQueueEx(queue));
  EXPECT_TRUE(oxa_test::WaitForThreadCount(threads));
}

TEST(CompletionQueue, QueueWithoutWorkersRefusesEveryBinding) {
  const int threads = oxa_test::ThreadCount();
  for (int workers : {0, -3}) {
    Queue queue(workers);
    ASSERT_TRUE(queue.ok()) << workers;
    EXPECT_EQ(threads, oxa_test::ThreadCount());
    oxa_test::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(-1, OXA_AsyncIO_BindIOHandleToQueueEx(fd.get(), queue.get()));
    EXPECT_EQ(-1, OXA_AsyncIO_UnBindIOHandleEx(fd.get(), queue.get()));
    EXPECT_EQ(-1, OXA_AsyncIO_SendEx(fd.get(), "x", 1, nullptr, nullptr)) << "never bound";
  }
}

TEST(CompletionQueue, BadHandlesAndSettings) {
  EXPECT_EQ(-1, OXA_AsyncIO_DestroyQueueEx(nullptr));
  EXPECT_EQ(-1, OXA_AsyncIO_DestroyQueueEx(BadQueue()));
  EXPECT_EQ(-1, OXA_AsyncIO_BindIOHandleToQueueEx(0, nullptr));
  EXPECT_EQ(-1, OXA_AsyncIO_UnBindIOHandleEx(0, BadQueue()));
  EXPECT_EQ(0, OXA_AsyncIO_BindCallBackToIOHandleEx(0, nullptr));

  EXPECT_EQ(-1, g_max_socket_send_dataMemory) << "unset until configured";
  EXPECT_EQ(-1, OXA_AsyncIO_SetIOQueueMemorySize(0));
  EXPECT_EQ(-1, OXA_AsyncIO_SetIOQueueMemorySize(-5));
  EXPECT_EQ(-1, g_max_socket_send_dataMemory);
  EXPECT_EQ(0, OXA_AsyncIO_SetIOQueueMemorySize(1 << 20));
  EXPECT_EQ(1 << 20, g_max_socket_send_dataMemory);
  g_max_socket_send_dataMemory = -1;
}

TEST(PostQueuedCompletion, CallbackRunsOnItsOwnThreadWhateverTheQueue) {
  const int threads = oxa_test::ThreadCount();
  struct Seen {
    std::promise<void> ran;
    unsigned long error = 0;
    unsigned long bytes = 0;
    std::thread::id thread;
  } seen;
  auto callback = [](unsigned long error, unsigned long bytes, void* context) {
    auto* s = static_cast<Seen*>(context);
    s->error = error;
    s->bytes = bytes;
    s->thread = std::this_thread::get_id();
    s->ran.set_value();
  };
  ASSERT_EQ(0, OXA_AsyncIO_PostQueuedCompleteStatusEx(BadQueue(), 7, 111, 222, &seen, callback));
  ASSERT_EQ(std::future_status::ready, seen.ran.get_future().wait_for(milliseconds(kHangGuardMs)));
  EXPECT_EQ(111u, seen.error);
  EXPECT_EQ(222u, seen.bytes);
  EXPECT_NE(std::this_thread::get_id(), seen.thread);
  EXPECT_TRUE(oxa_test::WaitForThreadCount(threads)) << "the posting thread ends by itself";

  EXPECT_EQ(-1, OXA_AsyncIO_PostQueuedCompleteStatusEx(nullptr, 0, 0, 0, &seen, nullptr));
}

// The earlier interface only has to link and fail; its queue class keeps the handle it got.
TEST(EarlierInterface, FailsAndDoesNothing) {
  char buf[4];
  EXPECT_EQ(BadQueue(), OXA_AsyncIO_CreateQueue());
  EXPECT_EQ(-1, OXA_AsyncIO_Send(nullptr, buf, sizeof buf, nullptr));
  OXA_AsyncIOQueue queue;
  EXPECT_EQ(nullptr, queue.GetHandle());
  EXPECT_EQ(-1, queue.Initialize());
  EXPECT_EQ(BadQueue(), queue.GetHandle());
  const int fds = oxa_test::OpenFdCount();
  EXPECT_EQ(0, queue.Release());
  EXPECT_EQ(fds, oxa_test::OpenFdCount()) << "-1 is not a descriptor to close";
  OXA_AsyncIO io(queue.GetHandle());
  EXPECT_EQ(-1, io.BindCallBackToIOHandle(nullptr));
  EXPECT_EQ(-1, io.BindCallBackToIOHandle(oxa_test::Recorder::Callback));
  EXPECT_EQ(-1, io.IORecv(buf, sizeof buf, nullptr));
  EXPECT_EQ(-1, io.BindIOHandleToQueue(&queue));
}

}  // namespace
