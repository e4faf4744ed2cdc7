// A bounded echo soak: several connections, the server ends on a queue whose callbacks run
// under the slot lock, the client ends on one whose callbacks run without it. Every byte
// must come back in order, and nothing may be left behind.
#include <gtest/gtest.h>

#include <stdint.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <random>
#include <vector>

#include "oxa_aio.h"

#include "aio/aio_harness.h"
#include "support/loopback.h"
#include "support/test_support.h"

namespace {

constexpr int kConnections = 8;
constexpr size_t kBytesPerConnection = size_t{192} * 1024;
constexpr int kSoakGuardMs = 30000;  // the whole soak; it takes well under a second on a host

// One end of a connection. The server end sends each receive straight back and queues the
// next receive from the callback itself; the client end collects the echo until all it sent
// is back. Either is done when its peer closes.
struct End {
  int fd = -1;
  bool echo = false;
  std::vector<char> sent;
  std::vector<char> got;
  char buf[8192];
  std::atomic<int> failures{0};
  std::promise<void> done;

  int QueueReceive() {
    return OXA_AsyncIO_RecvEx(fd, buf, echo ? 4096 : static_cast<int>(sizeof buf), this, Received);
  }
  static void Received(unsigned long error, unsigned long bytes, void* context) {
    auto* end = static_cast<End*>(context);
    if (bytes == 0 || error != 0) {
      end->done.set_value();
      return;
    }
    if (end->echo) {
      if (OXA_AsyncIO_SendEx(end->fd, end->buf, static_cast<int>(bytes), nullptr, nullptr) != 0)
        end->failures.fetch_add(1);
    } else {
      end->got.insert(end->got.end(), end->buf, end->buf + bytes);
      if (end->got.size() >= end->sent.size()) {
        end->done.set_value();
        return;
      }
    }
    if (end->QueueReceive() != 0) end->failures.fetch_add(1);
  }
};

TEST(EchoSoak, EveryByteComesBackInOrder) {
  const int threads = oxa_test::SettledThreadCount();
  const int fds = oxa_test::OpenFdCount();
  {
    // The ends outlive the queues, so that a failing test never leaves a worker with a
    // dangling context.
    End servers[kConnections];
    End clients[kConnections];
    oxa_test::TcpPair pairs[kConnections];
    oxa_test::Queue server_queue(2, 1);
    oxa_test::Queue client_queue(2, 0);
    ASSERT_TRUE(server_queue.ok() && client_queue.ok());
    for (int i = 0; i < kConnections; ++i) {
      pairs[i] = oxa_test::ConnectedPair();
      ASSERT_TRUE(pairs[i].client);
      servers[i].fd = pairs[i].server.get();
      servers[i].echo = true;
      clients[i].fd = pairs[i].client.get();
      clients[i].sent = oxa_test::Pattern(static_cast<uint32_t>(i) + 7, kBytesPerConnection);
      ASSERT_EQ(0, OXA_AsyncIO_BindIOHandleToQueueEx(servers[i].fd, server_queue.get()));
      ASSERT_EQ(0, OXA_AsyncIO_BindIOHandleToQueueEx(clients[i].fd, client_queue.get()));
      ASSERT_EQ(0, servers[i].QueueReceive());
      ASSERT_EQ(0, clients[i].QueueReceive());
    }

    // Pieces of random sizes, across the chunk size, round-robin over the connections.
    std::mt19937 random(12345);
    std::uniform_int_distribution<size_t> piece(1, 20000);
    size_t offset[kConnections] = {};
    for (bool more = true; more;) {
      more = false;
      for (int i = 0; i < kConnections; ++i) {
        const size_t n = std::min(kBytesPerConnection - offset[i], piece(random));
        if (n == 0) continue;
        ASSERT_EQ(0, OXA_AsyncIO_SendEx(clients[i].fd, &clients[i].sent[offset[i]],
                                        static_cast<int>(n), nullptr, nullptr));
        offset[i] += n;
        more = true;
      }
    }

    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kSoakGuardMs);
    for (int i = 0; i < kConnections; ++i) {
      ASSERT_EQ(std::future_status::ready, clients[i].done.get_future().wait_until(deadline));
      EXPECT_TRUE(clients[i].sent == clients[i].got) << "connection " << i;
      // Closing the client end lets the echo end see its peer go.
      ASSERT_EQ(0, OXA_AsyncIO_UnBindIOHandleEx(clients[i].fd, client_queue.get()));
      pairs[i].client.Reset();
      ASSERT_EQ(std::future_status::ready, servers[i].done.get_future().wait_until(deadline));
      ASSERT_EQ(0, OXA_AsyncIO_UnBindIOHandleEx(servers[i].fd, server_queue.get()));
      EXPECT_EQ(0, clients[i].failures + servers[i].failures) << "connection " << i;
    }
  }
  EXPECT_TRUE(oxa_test::WaitForThreadCount(threads));
  EXPECT_EQ(fds, oxa_test::OpenFdCount());
}

}  // namespace
