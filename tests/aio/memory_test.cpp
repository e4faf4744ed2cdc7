// Send memory and queue limits, and the absence of allocation in the steady state.
//
// While a test holds a descriptor's send mutex its worker cannot take requests off the send
// queue, so the queue fills deterministically. The replacement allocation functions below
// count every C++ allocation in the process, the library's included (the executable's
// definitions take precedence over the C++ runtime's for every shared object).
#include <gtest/gtest.h>

#include <stdlib.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "oxa_aio.h"
#include "oxa_socket.h"

#include "aio/aio_harness.h"
#include "support/loopback.h"
#include "support/test_support.h"

namespace {

std::atomic<long> g_allocations{0};

void* CountedAllocation(size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return malloc(size == 0 ? 1 : size);
}

// Out of line, so that the compiler does not see free() meet a pointer from operator new.
__attribute__((noinline)) void CountedRelease(void* p) { free(p); }

}  // namespace

void* operator new(size_t size) {
  void* p = CountedAllocation(size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new[](size_t size) {
  void* p = CountedAllocation(size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept { return CountedAllocation(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return CountedAllocation(size);
}
void operator delete(void* p) noexcept { CountedRelease(p); }
void operator delete[](void* p) noexcept { CountedRelease(p); }
void operator delete(void* p, size_t) noexcept { CountedRelease(p); }
void operator delete[](void* p, size_t) noexcept { CountedRelease(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { CountedRelease(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { CountedRelease(p); }

namespace {

using oxa_test::Binding;
using oxa_test::kHangGuardMs;
using oxa_test::Queue;
using oxa_test::Recorder;
using oxa_test::SendSideHold;
using oxa_test::StderrCapture;
using oxa_test::TcpPair;

// The configured limit is process-wide; every test that sets it puts it back.
struct LimitReset {
  ~LimitReset() { g_max_socket_send_dataMemory = -1; }
};

// Pooled bytes count whole blocks of the length's size class, and a send is refused only once
// they exceed the limit: the test comes before the new data counts, so one send may pass it.
// Until configured the limit is 32 MiB; a configured limit applies from the next send on.
TEST(SendMemory, LimitOnPooledBlocks) {
  LimitReset reset;
  Queue queue(1);
  ASSERT_TRUE(queue.ok());
  const struct {
    int length;
    int limit;     // 0: not configured
    int accepted;  // sends before -5
  } cases[] = {
      {16384, 0, 2049},   // 2048 blocks are exactly 32 MiB
      {1, 100, 4},        // 32-byte blocks: 0, 32, 64, 96 are not above 100
      {32, 63, 2},        // 32: 0, 32
      {33, 63, 1},        // 64: 0
      {1500, 1500, 2},    // 1500: 0, 1500
      {1501, 2047, 1},    // 2048: 0
      {8193, 16384, 2},   // 16384: 0, 16384
      {16385, 16415, 1},  // two chunks, 16384 + 32: 0
  };
  const std::vector<char> data(16385, 'd');
  for (const auto& c : cases) {
    TcpPair pair = oxa_test::ConnectedPair();
    ASSERT_TRUE(pair.client);
    const int fd = pair.client.get();
    Recorder recorder;  // outlives the binding: the worker may report the first chunks
    Binding bound(fd, queue.get());
    ASSERT_TRUE(bound.ok());
    if (c.limit > 0) {
      ASSERT_EQ(0, OXA_AsyncIO_SetIOQueueMemorySize(c.limit));
    }
    SendSideHold hold(oxa_test::SendSide(fd));
    StderrCapture capture;
    int accepted = 0;
    while (accepted <= c.accepted &&
           OXA_AsyncIO_SendEx(fd, data.data(), c.length, &recorder, Recorder::Callback) == 0)
      ++accepted;
    EXPECT_EQ(c.accepted, accepted) << "length " << c.length << ", limit " << c.limit;
    EXPECT_EQ("over max data memory limit! m_socketFd{" + std::to_string(fd) + "}\r\n",
              capture.Take());
    ASSERT_EQ(0, OXA_AsyncIO_SetIOQueueMemorySize(64 << 20));
    EXPECT_EQ(0, OXA_AsyncIO_SendEx(fd, data.data(), 1, &recorder, Recorder::Callback));
  }
  EXPECT_EQ(64 << 20, g_max_socket_send_dataMemory);
}

// 3840 queued requests fill the receive side and refuse a connect; sends have no count limit.
// Unbinding drops them all without a callback.
TEST(QueueLimits, At3840Requests) {
  Queue queue(1);
  TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(queue.ok() && pair.client);
  const int fd = pair.client.get();
  Recorder sent;
  Recorder received;
  char buf[4];
  OXA_ADDR_T addr = oxa_test::Loopback(AF_INET, 9);
  {
    Binding bound(fd, queue.get());
    ASSERT_TRUE(bound.ok());
    {
      SendSideHold hold(oxa_test::SendSide(fd));
      for (int i = 0; i < 3840; ++i) {
        ASSERT_EQ(0, OXA_AsyncIO_RecvEx(fd, buf, sizeof buf, &received, Recorder::Callback));
        ASSERT_EQ(0, OXA_AsyncIO_SendEx(fd, "s", 1, &sent, Recorder::Callback));
      }
      EXPECT_EQ(-1, OXA_AsyncIO_RecvEx(fd, buf, sizeof buf, &received, Recorder::Callback));
      EXPECT_EQ(-1, OXA_AsyncIO_ConnectEx(fd, &addr, nullptr, 0, &sent, Recorder::Callback));
      EXPECT_EQ(0, OXA_AsyncIO_SendEx(fd, "s", 1, &sent, Recorder::Callback));
      StderrCapture quiet;
      EXPECT_EQ(-1, OXA_AsyncIO_AcceptEx(fd, nullptr, nullptr, 0, &received, Recorder::Callback));
    }  // released first: the worker may be waiting for it, holding the lock unbinding needs
    EXPECT_EQ(0, bound.Unbind());
  }
  ASSERT_EQ(4, OXA_Send(pair.server.get(), "late", 4));
  char got[4];
  ASSERT_EQ(4, OXA_Recvn(fd, got, 4, kHangGuardMs)) << "no receive left to take it";
  EXPECT_EQ(0u, received.Count());
}

// A backlog of 2048 sends arms the trim; once the queue has drained to 512 or fewer, the next
// send gives the free blocks back. Here the trim runs while some blocks are still queued, and
// every byte must still arrive in order.
TEST(SendMemory, TrimAfterABacklogHasDrainedKeepsQueuedData) {
  Queue queue(1);
  TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(queue.ok() && pair.client);
  const int fd = pair.client.get();
  oxa_test::EnlargeBuffers(fd);
  oxa_test::EnlargeBuffers(pair.server.get());
  Recorder recorder;
  Binding bound(fd, queue.get());
  ASSERT_TRUE(bound.ok());
  constexpr int kBacklog = 2049;  // the last push sees 2048 queued and arms the trim
  constexpr int kRecord = 32;
  const std::vector<char> data = oxa_test::Pattern(5, size_t{kRecord} * (kBacklog + 1));
  {
    SendSideHold hold(oxa_test::SendSide(fd));
    StderrCapture silent;
    for (int i = 0; i < kBacklog; ++i)
      ASSERT_EQ(0,
                OXA_AsyncIO_SendEx(fd, &data[i * kRecord], kRecord, &recorder, Recorder::Callback));
    EXPECT_EQ("", silent.Take());
  }
  ASSERT_TRUE(recorder.WaitFor(kBacklog - 400));  // drained to at most 400 queued
  {
    SendSideHold hold(oxa_test::SendSide(fd));
    StderrCapture capture;
    ASSERT_EQ(0, OXA_AsyncIO_SendEx(fd, &data[kBacklog * kRecord], kRecord, &recorder,
                                    Recorder::Callback));
    EXPECT_EQ("trim boost pool!\r\n", capture.Take());
  }
  EXPECT_TRUE(oxa_test::ReceivesExactly(pair.server.get(), data));
}

// Counts send completions and received bytes; the receive re-queues itself from its callback.
struct Traffic {
  std::mutex mu;
  std::condition_variable cv;
  long sends_done = 0;
  long bytes_received = 0;
  int recv_fd = -1;
  char buf[4096];

  static void Sent(unsigned long, unsigned long, void* context) {
    auto* t = static_cast<Traffic*>(context);
    std::lock_guard<std::mutex> hold(t->mu);
    ++t->sends_done;
    t->cv.notify_all();
  }
  static void Received(unsigned long, unsigned long bytes, void* context) {
    auto* t = static_cast<Traffic*>(context);
    if (bytes > 0) OXA_AsyncIO_RecvEx(t->recv_fd, t->buf, sizeof t->buf, t, Received);
    std::lock_guard<std::mutex> hold(t->mu);
    t->bytes_received += static_cast<long>(bytes);
    t->cv.notify_all();
  }
  bool WaitFor(long sends, long bytes) {
    std::unique_lock<std::mutex> hold(mu);
    return cv.wait_for(hold, std::chrono::milliseconds(kHangGuardMs),
                       [&] { return sends_done >= sends && bytes_received >= bytes; });
  }
};

TEST(SteadyState, RequestsDoNotAllocateOnceTheSocketIsWarm) {
  Traffic traffic;
  TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(pair.client);
  const int fd = pair.client.get();
  oxa_test::EnlargeBuffers(fd);
  oxa_test::EnlargeBuffers(pair.server.get());
  Queue queue(2);
  Binding client(fd, queue.get());
  Binding server(pair.server.get(), queue.get());
  ASSERT_TRUE(queue.ok() && client.ok() && server.ok());
  traffic.recv_fd = pair.server.get();
  ASSERT_EQ(0, OXA_AsyncIO_RecvEx(traffic.recv_fd, traffic.buf, sizeof traffic.buf, &traffic,
                                  Traffic::Received));

  const int sizes[] = {1, 100, 700, 1500, 3000, 9000, 16384};
  char data[16384] = {};
  long sends = 0;
  long bytes = 0;
  // A burst queued while the worker is kept off the send queue puts all of it in the pools
  // at once: that is the peak the warm-up must reach, whatever the machine's speed.
  auto burst = [&](bool all_at_once) {
    if (all_at_once) oxa_test::SendSide(fd).Lock();
    bool queued = true;
    for (int i = 0; i < 50 && queued; ++i, ++sends) {
      queued = OXA_AsyncIO_SendEx(fd, data, sizes[i % 7], &traffic, Traffic::Sent) == 0;
      bytes += sizes[i % 7];
    }
    if (all_at_once) oxa_test::SendSide(fd).Unlock();
    return queued && traffic.WaitFor(sends, bytes);
  };
  for (int round = 0; round < 10; ++round)
    ASSERT_TRUE(burst(true)) << "warm-up round " << round;

  const long before = g_allocations.load();
  for (int round = 0; round < 40; ++round)
    ASSERT_TRUE(burst(round % 2 == 0)) << "round " << round;
  EXPECT_EQ(before, g_allocations.load());
}

}  // namespace
