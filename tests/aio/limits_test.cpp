// Queue and memory limits. Holding a descriptor's send mutex (exported for exactly this kind
// of coordination) keeps its worker from taking requests off the send queue, so the queue
// fills deterministically.
#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "oxa_aio.h"
#include "oxa_socket.h"

#include "aio/aio_harness.h"
#include "support/test_support.h"

namespace {

using oxa_test::Binding;
using oxa_test::kHangGuardMs;
using oxa_test::Queue;
using oxa_test::Recorder;
using oxa_test::StderrCapture;
using oxa_test::TcpPair;

// Keeps the worker away from fd's send queue for a scope.
class SendSideHold {
 public:
  explicit SendSideHold(int fd) : fd_(fd) { CSocketOperation::m_sendMutex[fd_].Lock(); }
  ~SendSideHold() { Release(); }
  SendSideHold(const SendSideHold&) = delete;
  SendSideHold& operator=(const SendSideHold&) = delete;
  void Release() {
    if (fd_ >= 0) CSocketOperation::m_sendMutex[fd_].Unlock();
    fd_ = -1;
  }

 private:
  int fd_;
};

// The configured limit is process-wide; every test that sets it puts it back.
class LimitReset {
 public:
  LimitReset() = default;
  ~LimitReset() { g_max_socket_send_dataMemory = -1; }
  LimitReset(const LimitReset&) = delete;
  LimitReset& operator=(const LimitReset&) = delete;
};

TEST(SendMemory, ThirtyTwoMebibytesByDefaultThenTheConfiguredLimit) {
  LimitReset reset;
  Queue queue(1);
  ASSERT_TRUE(queue.ok());
  TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(pair.client);
  const int fd = pair.client.get();
  Recorder recorder;  // outlives the queue: the worker may report the first chunks
  Binding bound(fd, queue.get());
  ASSERT_TRUE(bound.ok());
  const std::vector<char> chunk(16384, 'x');
  {
    SendSideHold hold(fd);
    // 2048 chunks are exactly 32 MiB; the limit is only exceeded by the 2049th, which
    // still passes because the test comes before the new data counts.
    for (int i = 0; i < 2049; ++i) {
      ASSERT_EQ(0, OXA_AsyncIO_SendEx(fd, chunk.data(), 16384, &recorder, Recorder::Callback)) << i;
    }
    StderrCapture capture;
    EXPECT_EQ(-5, OXA_AsyncIO_SendEx(fd, chunk.data(), 1, &recorder, Recorder::Callback));
    EXPECT_EQ("over max data memory limit! m_socketFd{" + std::to_string(fd) + "}\r\n",
              capture.Take());
    ASSERT_EQ(0, OXA_AsyncIO_SetIOQueueMemorySize(64 << 20));
    EXPECT_EQ(0, OXA_AsyncIO_SendEx(fd, chunk.data(), 1, &recorder, Recorder::Callback));
  }
  EXPECT_EQ(0, bound.Unbind()) << "drops what is still queued, memory included";
}

// The pooled bytes count whole blocks of the length's size class.
TEST(SendMemory, UsageCountsSizeClasses) {
  LimitReset reset;
  Queue queue(1);
  ASSERT_TRUE(queue.ok());
  struct Case {
    int length;
    int limit;
    int accepted;  // sends before -5
  } cases[] = {
      {1, 100, 4},        // 32-byte blocks: 0, 32, 64, 96 are not above 100
      {32, 63, 2},        // 32: 0, 32
      {33, 63, 1},        // 64: 0
      {1500, 1500, 2},    // 1500: 0, 1500
      {1501, 2047, 1},    // 2048: 0
      {8193, 16384, 2},   // 16384: 0, 16384
      {16385, 16415, 1},  // two chunks, 16384 + 32: 0
  };
  const std::vector<char> data(16385, 'd');
  for (const Case& c : cases) {
    TcpPair pair = oxa_test::ConnectedPair();
    ASSERT_TRUE(pair.client);
    const int fd = pair.client.get();
    Recorder recorder;
    Binding bound(fd, queue.get());
    ASSERT_TRUE(bound.ok());
    ASSERT_EQ(0, OXA_AsyncIO_SetIOQueueMemorySize(c.limit));
    int accepted = 0;
    {
      SendSideHold hold(fd);
      StderrCapture quiet;
      while (accepted < 10 &&
             OXA_AsyncIO_SendEx(fd, data.data(), c.length, &recorder, Recorder::Callback) == 0)
        ++accepted;
    }
    EXPECT_EQ(c.accepted, accepted) << "length " << c.length << ", limit " << c.limit;
    ASSERT_EQ(0, bound.Unbind());
  }
}

TEST(QueueLimits, ReceiveSideStopsAt3840Requests) {
  Queue queue(1);
  ASSERT_TRUE(queue.ok());
  TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(pair.client);
  const int fd = pair.server.get();
  Recorder recorder;
  char buf[4];
  {
    Binding bound(fd, queue.get());
    ASSERT_TRUE(bound.ok());
    for (int i = 0; i < 3840; ++i)
      ASSERT_EQ(0, OXA_AsyncIO_RecvEx(fd, buf, sizeof buf, &recorder, Recorder::Callback)) << i;
    EXPECT_EQ(-1, OXA_AsyncIO_RecvEx(fd, buf, sizeof buf, &recorder, Recorder::Callback));
    StderrCapture quiet;
    EXPECT_EQ(-1, OXA_AsyncIO_AcceptEx(fd, nullptr, nullptr, 0, &recorder, Recorder::Callback));
    EXPECT_EQ(0, bound.Unbind());
  }
  EXPECT_EQ(0u, recorder.Count()) << "dropped requests never report";
}

TEST(QueueLimits, ConnectWaitsBehindAtMost3839SendRequests) {
  Queue queue(1);
  ASSERT_TRUE(queue.ok());
  TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(pair.client);
  const int fd = pair.client.get();
  Recorder recorder;
  Binding bound(fd, queue.get());
  ASSERT_TRUE(bound.ok());
  OXA_ADDR_T addr = oxa_test::Loopback(AF_INET, 9);
  SendSideHold hold(fd);
  for (int i = 0; i < 3840; ++i)
    ASSERT_EQ(0, OXA_AsyncIO_SendEx(fd, "s", 1, &recorder, Recorder::Callback)) << i;
  EXPECT_EQ(-1, OXA_AsyncIO_ConnectEx(fd, &addr, nullptr, 0, &recorder, Recorder::Callback));
  EXPECT_EQ(0, OXA_AsyncIO_SendEx(fd, "s", 1, &recorder, Recorder::Callback))
      << "sends have no count limit";
  hold.Release();
  EXPECT_EQ(0, bound.Unbind());
}

// A backlog of 2048 sends arms the trim; once the queue has drained to 512 or fewer, the next
// send gives the free blocks back. Here the trim runs while some blocks are still queued, and
// every byte must still arrive in order.
TEST(SendMemory, TrimAfterABacklogHasDrainedKeepsQueuedData) {
  Queue queue(1);
  ASSERT_TRUE(queue.ok());
  TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(pair.client);
  const int fd = pair.client.get();
  oxa_test::EnlargeBuffers(fd);
  oxa_test::EnlargeBuffers(pair.server.get());
  Recorder recorder;
  Binding bound(fd, queue.get());
  ASSERT_TRUE(bound.ok());
  constexpr int kBacklog = 2049;  // the last push sees 2048 queued and arms the trim
  constexpr int kRecord = 32;
  auto record = [](int i) {
    std::vector<char> r(kRecord);
    for (int k = 0; k < kRecord; ++k)
      r[k] = static_cast<char>(i * 7 + k);
    return r;
  };
  SendSideHold hold(fd);
  {
    StderrCapture capture;
    for (int i = 0; i < kBacklog; ++i)
      ASSERT_EQ(0,
                OXA_AsyncIO_SendEx(fd, record(i).data(), kRecord, &recorder, Recorder::Callback));
    EXPECT_EQ("", capture.Take());
  }
  hold.Release();
  ASSERT_TRUE(recorder.WaitFor(kBacklog - 400));  // drained to at most 400 queued
  {
    SendSideHold again(fd);
    StderrCapture capture;
    ASSERT_EQ(
        0, OXA_AsyncIO_SendEx(fd, record(kBacklog).data(), kRecord, &recorder, Recorder::Callback));
    EXPECT_EQ("trim boost pool!\r\n", capture.Take());
  }
  std::vector<char> got(static_cast<size_t>(kRecord) * (kBacklog + 1));
  ASSERT_EQ(static_cast<int>(got.size()),
            OXA_Recvn(pair.server.get(), got.data(), static_cast<int>(got.size()), kHangGuardMs));
  for (int i = 0; i <= kBacklog; ++i)
    ASSERT_EQ(0, memcmp(record(i).data(), &got[static_cast<size_t>(i) * kRecord], kRecord)) << i;
}

}  // namespace
