// Once a socket's pools and queues have grown to its traffic, queuing and completing requests
// must not allocate. The replacement allocation functions below count every C++ allocation
// in the process, the library's included (the executable's definitions take precedence over
// the C++ runtime's for every shared object).
#include <gtest/gtest.h>

#include <stdlib.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <new>

#include "oxa_aio.h"
#include "oxa_socket.h"

#include "aio/aio_harness.h"
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
using oxa_test::TcpPair;

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
    {
      std::lock_guard<std::mutex> hold(t->mu);
      ++t->sends_done;
    }
    t->cv.notify_all();
  }
  static void Received(unsigned long, unsigned long bytes, void* context) {
    auto* t = static_cast<Traffic*>(context);
    {
      std::lock_guard<std::mutex> hold(t->mu);
      t->bytes_received += static_cast<long>(bytes);
    }
    if (bytes > 0) OXA_AsyncIO_RecvEx(t->recv_fd, t->buf, sizeof t->buf, t, Received);
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
  oxa_test::EnlargeBuffers(pair.client.get());
  oxa_test::EnlargeBuffers(pair.server.get());
  Queue queue(2);
  ASSERT_TRUE(queue.ok());
  Binding client(pair.client.get(), queue.get());
  Binding server(pair.server.get(), queue.get());
  ASSERT_TRUE(client.ok() && server.ok());
  traffic.recv_fd = pair.server.get();
  ASSERT_EQ(0, OXA_AsyncIO_RecvEx(traffic.recv_fd, traffic.buf, sizeof traffic.buf, &traffic,
                                  Traffic::Received));

  constexpr int kBurst = 50;
  const int sizes[] = {1, 100, 700, 1500, 3000, 9000, 16384};
  char data[16384] = {};
  long sends = 0;
  long bytes = 0;
  // A burst queued while the worker is kept off the send queue puts all of it in the pools
  // at once: that is the peak the warm-up must reach, whatever the machine's speed.
  auto burst = [&](bool all_at_once) {
    if (all_at_once) CSocketOperation::m_sendMutex[pair.client.get()].Lock();
    bool queued = true;
    for (int i = 0; i < kBurst && queued; ++i) {
      const int size = sizes[i % 7];
      queued = OXA_AsyncIO_SendEx(pair.client.get(), data, size, &traffic, Traffic::Sent) == 0;
      ++sends;
      bytes += size;
    }
    if (all_at_once) CSocketOperation::m_sendMutex[pair.client.get()].Unlock();
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
