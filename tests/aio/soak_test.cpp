// A bounded echo soak: several connections, the server ends on a queue whose callbacks run
// under the slot lock, the client ends on one whose callbacks run without it. Every byte
// must come back in order.
#include <gtest/gtest.h>

#include <stdint.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <random>
#include <vector>

#include "oxa_aio.h"

#include "aio/aio_harness.h"
#include "support/test_support.h"

namespace {

using oxa_test::Queue;
using oxa_test::TcpPair;
using std::chrono::milliseconds;

constexpr int kConnections = 8;
constexpr size_t kBytesPerConnection = size_t{192} * 1024;
constexpr int kSoakGuardMs = 30000;  // the whole soak; it takes well under a second on a host

// Server end: each receive is sent straight back and the next receive queued, from the
// callback itself.
struct EchoEnd {
  int fd = -1;
  char buf[4096];
  std::atomic<int> failures{0};
  std::promise<void> closed;

  static void Received(unsigned long error, unsigned long bytes, void* context) {
    auto* end = static_cast<EchoEnd*>(context);
    if (bytes == 0 || error != 0) {
      end->closed.set_value();
      return;
    }
    if (OXA_AsyncIO_SendEx(end->fd, end->buf, static_cast<int>(bytes), nullptr, nullptr) != 0 ||
        OXA_AsyncIO_RecvEx(end->fd, end->buf, sizeof end->buf, end, Received) != 0) {
      end->failures.fetch_add(1, std::memory_order_relaxed);
    }
  }
};

// Client end: collects the echo until all it sent is back.
struct ClientEnd {
  int fd = -1;
  std::vector<char> sent;
  std::vector<char> echoed;
  char buf[8192];
  int failures = 0;
  std::promise<void> complete;

  static void Received(unsigned long error, unsigned long bytes, void* context) {
    auto* end = static_cast<ClientEnd*>(context);
    if (bytes == 0 || error != 0) {
      end->complete.set_value();  // closed early: the comparison will fail
      return;
    }
    end->echoed.insert(end->echoed.end(), end->buf, end->buf + bytes);
    if (end->echoed.size() >= end->sent.size()) {
      end->complete.set_value();
    } else if (OXA_AsyncIO_RecvEx(end->fd, end->buf, sizeof end->buf, end, Received) != 0) {
      ++end->failures;
      end->complete.set_value();
    }
  }
};

TEST(EchoSoak, EveryByteComesBackInOrder) {
  const int threads = oxa_test::ThreadCount();
  const int fds = oxa_test::OpenFdCount();
  {
    // The ends outlive the queues, so a failing test never leaves a worker with a dangling
    // context.
    std::vector<std::unique_ptr<EchoEnd>> servers;
    std::vector<std::unique_ptr<ClientEnd>> clients;
    std::vector<TcpPair> pairs(kConnections);
    Queue server_queue(2, 1);
    Queue client_queue(2, 0);
    ASSERT_TRUE(server_queue.ok() && client_queue.ok());
    std::mt19937 random(12345);
    for (int i = 0; i < kConnections; ++i) {
      pairs[i] = oxa_test::ConnectedPair();
      ASSERT_TRUE(pairs[i].client);
      servers.push_back(std::make_unique<EchoEnd>());
      clients.push_back(std::make_unique<ClientEnd>());
      servers[i]->fd = pairs[i].server.get();
      clients[i]->fd = pairs[i].client.get();
      clients[i]->sent = oxa_test::Pattern(static_cast<uint32_t>(i) + 7, kBytesPerConnection);
      clients[i]->echoed.reserve(kBytesPerConnection);
      ASSERT_EQ(0, OXA_AsyncIO_BindIOHandleToQueueEx(servers[i]->fd, server_queue.get()));
      ASSERT_EQ(0, OXA_AsyncIO_BindIOHandleToQueueEx(clients[i]->fd, client_queue.get()));
      ASSERT_EQ(0, OXA_AsyncIO_RecvEx(servers[i]->fd, servers[i]->buf, sizeof servers[i]->buf,
                                      servers[i].get(), EchoEnd::Received));
      ASSERT_EQ(0, OXA_AsyncIO_RecvEx(clients[i]->fd, clients[i]->buf, sizeof clients[i]->buf,
                                      clients[i].get(), ClientEnd::Received));
    }

    // Pieces of random sizes, across the chunk size, round-robin over the connections.
    std::vector<size_t> offset(kConnections, 0);
    std::uniform_int_distribution<int> piece(1, 20000);
    for (bool more = true; more;) {
      more = false;
      for (int i = 0; i < kConnections; ++i) {
        const size_t left = kBytesPerConnection - offset[i];
        if (left == 0) continue;
        const int n = static_cast<int>(std::min<size_t>(left, static_cast<size_t>(piece(random))));
        ASSERT_EQ(0, OXA_AsyncIO_SendEx(clients[i]->fd, clients[i]->sent.data() + offset[i], n,
                                        nullptr, nullptr));
        offset[i] += static_cast<size_t>(n);
        more = true;
      }
    }

    const auto deadline = std::chrono::steady_clock::now() + milliseconds(kSoakGuardMs);
    for (int i = 0; i < kConnections; ++i) {
      ASSERT_EQ(std::future_status::ready, clients[i]->complete.get_future().wait_until(deadline))
          << "connection " << i;
      EXPECT_EQ(0, clients[i]->failures);
      EXPECT_TRUE(clients[i]->sent == clients[i]->echoed) << "connection " << i;
    }
    // Closing the client ends lets every echo end see its peer go.
    for (int i = 0; i < kConnections; ++i) {
      ASSERT_EQ(0, OXA_AsyncIO_UnBindIOHandleEx(clients[i]->fd, client_queue.get()));
      pairs[i].client.Reset();
    }
    for (int i = 0; i < kConnections; ++i) {
      ASSERT_EQ(std::future_status::ready, servers[i]->closed.get_future().wait_until(deadline));
      EXPECT_EQ(0, servers[i]->failures.load());
      ASSERT_EQ(0, OXA_AsyncIO_UnBindIOHandleEx(servers[i]->fd, server_queue.get()));
    }
  }
  EXPECT_TRUE(oxa_test::WaitForThreadCount(threads));
  EXPECT_EQ(fds, oxa_test::OpenFdCount());
}

}  // namespace
