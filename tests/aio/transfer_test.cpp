#include <gtest/gtest.h>

#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "oxa_addr.h"
#include "oxa_aio.h"
#include "oxa_socket.h"

#include "aio/aio_harness.h"
#include "support/test_support.h"

namespace {

using oxa_test::Binding;
using oxa_test::Completion;
using oxa_test::kHangGuardMs;
using oxa_test::Queue;
using oxa_test::Recorder;
using oxa_test::TcpPair;
using oxa_test::UniqueFd;
using std::chrono::milliseconds;

// A connected pair with large buffers, both ends bound to `queue`.
struct BoundPair {
  explicit BoundPair(void* queue)
      : pair(oxa_test::ConnectedPair()),
        client(Prepare(pair.client.get()), queue),
        server(Prepare(pair.server.get()), queue) {}
  static int Prepare(int fd) {
    oxa_test::EnlargeBuffers(fd);
    return fd;
  }
  bool ok() const { return client.ok() && server.ok(); }
  int client_fd() const { return pair.client.get(); }
  int server_fd() const { return pair.server.get(); }

  TcpPair pair;
  Binding client;
  Binding server;
};

TEST(AsyncTransfer, SendAndReceiveCompleteOnAWorker) {
  Queue queue(2);
  ASSERT_TRUE(queue.ok());
  BoundPair ends(queue.get());
  ASSERT_TRUE(ends.ok());
  Recorder sent;
  Recorder received;
  char buf[64] = {};
  ASSERT_EQ(0,
            OXA_AsyncIO_RecvEx(ends.server_fd(), buf, sizeof buf, &received, Recorder::Callback));
  ASSERT_EQ(0, OXA_AsyncIO_SendEx(ends.client_fd(), "hello", 5, &sent, Recorder::Callback));
  ASSERT_TRUE(sent.WaitFor(1));
  ASSERT_TRUE(received.WaitFor(1));
  const Completion send_done = sent.Snapshot()[0];
  const Completion recv_done = received.Snapshot()[0];
  EXPECT_EQ(0u, send_done.error);
  EXPECT_EQ(5u, send_done.bytes);
  EXPECT_EQ(0u, recv_done.error);
  EXPECT_EQ(5u, recv_done.bytes);
  EXPECT_EQ(0, memcmp("hello", buf, 5));
  EXPECT_NE(std::this_thread::get_id(), recv_done.thread);
}

TEST(AsyncTransfer, LargeSendCompletesChunkByChunkInOrder) {
  Queue queue(2);
  ASSERT_TRUE(queue.ok());
  BoundPair ends(queue.get());
  ASSERT_TRUE(ends.ok());
  std::vector<char> data = oxa_test::Pattern(1, 40000);
  const std::vector<char> expected = data;
  Recorder sent;
  ASSERT_EQ(0, OXA_AsyncIO_SendEx(ends.client_fd(), data.data(), 40000, &sent, Recorder::Callback));
  std::fill(data.begin(), data.end(), 0);  // copied at once: the buffer is the caller's again

  std::vector<char> got(40000);
  ASSERT_EQ(0, ends.server.Unbind());
  ASSERT_EQ(40000, OXA_Recvn(ends.server_fd(), got.data(), 40000, kHangGuardMs));
  EXPECT_EQ(expected, got);
  ASSERT_TRUE(sent.WaitFor(3));
  const std::vector<Completion> done = sent.Snapshot();
  ASSERT_EQ(3u, done.size());
  const unsigned long chunks[] = {16384, 16384, 7232};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(0u, done[i].error) << i;
    EXPECT_EQ(chunks[i], done[i].bytes) << i;
  }
}

TEST(AsyncTransfer, ChunkBoundaries) {
  Queue queue(1);
  ASSERT_TRUE(queue.ok());
  BoundPair ends(queue.get());
  ASSERT_TRUE(ends.ok());
  ASSERT_EQ(0, ends.server.Unbind());
  const std::vector<char> data = oxa_test::Pattern(2, 16385);
  Recorder whole;
  ASSERT_EQ(0,
            OXA_AsyncIO_SendEx(ends.client_fd(), data.data(), 16384, &whole, Recorder::Callback));
  ASSERT_TRUE(whole.WaitFor(1));
  Recorder split;
  ASSERT_EQ(0,
            OXA_AsyncIO_SendEx(ends.client_fd(), data.data(), 16385, &split, Recorder::Callback));
  ASSERT_TRUE(split.WaitFor(2));
  std::vector<char> got(16384 + 16385);
  ASSERT_EQ(static_cast<int>(got.size()),
            OXA_Recvn(ends.server_fd(), got.data(), static_cast<int>(got.size()), kHangGuardMs));
  EXPECT_EQ(1u, whole.Count());
  EXPECT_EQ(16384u, whole.Snapshot()[0].bytes);
  const std::vector<Completion> two = split.Snapshot();
  ASSERT_EQ(2u, two.size());
  EXPECT_EQ(16384u, two[0].bytes);
  EXPECT_EQ(1u, two[1].bytes);
  EXPECT_TRUE(std::equal(data.begin(), data.begin() + 16384, got.begin()));
  EXPECT_TRUE(std::equal(data.begin(), data.end(), got.begin() + 16384));
}

TEST(AsyncTransfer, DatagramsCarryTheirAddresses) {
  Queue queue(2, 0);
  ASSERT_TRUE(queue.ok());
  OXA_ADDR_T receiver_addr;
  OXA_ADDR_T sender_addr;
  UniqueFd receiver = oxa_test::BoundLoopback(AF_INET, SOCK_DGRAM, &receiver_addr);
  UniqueFd sender = oxa_test::BoundLoopback(AF_INET, SOCK_DGRAM, &sender_addr);
  ASSERT_TRUE(receiver && sender);
  Binding bound_receiver(receiver.get(), queue.get());
  Binding bound_sender(sender.get(), queue.get());
  ASSERT_TRUE(bound_receiver.ok() && bound_sender.ok());

  Recorder received;
  Recorder sent;
  char buf[32] = {};
  OXA_ADDR_T from{};
  ASSERT_EQ(0, OXA_AsyncIO_RecvFromEx(receiver.get(), buf, sizeof buf, &received, &from,
                                      Recorder::Callback));
  ASSERT_EQ(0, OXA_AsyncIO_SendToEx(sender.get(), "datagram", 8, &sent, &receiver_addr,
                                    Recorder::Callback));
  ASSERT_TRUE(received.WaitFor(1));
  ASSERT_TRUE(sent.WaitFor(1));
  EXPECT_EQ(8u, sent.Snapshot()[0].bytes);
  EXPECT_EQ(0u, received.Snapshot()[0].error);
  EXPECT_EQ(8u, received.Snapshot()[0].bytes);
  EXPECT_EQ(0, memcmp("datagram", buf, 8));
  EXPECT_EQ(AF_INET, from.sa.sa_family);
  EXPECT_EQ(OXA_GetAddrPort(&sender_addr), OXA_GetAddrPort(&from));
}

TEST(AsyncConnect, CompletesWhenConnected) {
  Queue queue(1);
  ASSERT_TRUE(queue.ok());
  OXA_ADDR_T addr;
  UniqueFd listener = oxa_test::BoundLoopback(AF_INET, SOCK_STREAM, &addr);
  UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_TRUE(listener && client);
  Binding bound(client.get(), queue.get());
  ASSERT_TRUE(bound.ok());
  Recorder connected;
  ASSERT_EQ(0,
            OXA_AsyncIO_ConnectEx(client.get(), &addr, nullptr, 0, &connected, Recorder::Callback));
  ASSERT_TRUE(connected.WaitFor(1));
  EXPECT_EQ(0u, connected.Snapshot()[0].error);
  EXPECT_EQ(0u, connected.Snapshot()[0].bytes);
  UniqueFd accepted(OXA_Accept(listener.get(), nullptr, kHangGuardMs));
  EXPECT_TRUE(accepted);
}

TEST(AsyncConnect, RefusedPortReportsTheError) {
  Queue queue(1);
  ASSERT_TRUE(queue.ok());
  // Bound but not listening: the port stays ours, and connecting to it is refused.
  UniqueFd holder(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  OXA_ADDR_T addr = oxa_test::Loopback(AF_INET, 0);
  ASSERT_EQ(0, OXA_Bind(holder.get(), &addr));
  ASSERT_EQ(0, OXA_GetAddrBySockFd(holder.get(), &addr, nullptr));
  UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  Binding bound(client.get(), queue.get());
  ASSERT_TRUE(bound.ok());
  Recorder connected;
  ASSERT_EQ(0,
            OXA_AsyncIO_ConnectEx(client.get(), &addr, nullptr, 0, &connected, Recorder::Callback));
  ASSERT_TRUE(connected.WaitFor(1));
  EXPECT_EQ(static_cast<unsigned long>(ECONNREFUSED), connected.Snapshot()[0].error);
  EXPECT_EQ(0u, connected.Snapshot()[0].bytes);
}

TEST(AsyncAccept, DeliversTheNewDescriptorAndThePeer) {
  Queue queue(2);
  ASSERT_TRUE(queue.ok());
  OXA_ADDR_T addr;
  UniqueFd listener = oxa_test::BoundLoopback(AF_INET, SOCK_STREAM, &addr);
  ASSERT_TRUE(listener);
  Binding bound(listener.get(), queue.get());
  ASSERT_TRUE(bound.ok());
  Recorder accepted;
  OXA_ADDR_T peer{};
  {
    oxa_test::StderrCapture quiet;  // AcceptEx names every descriptor it queues for
    ASSERT_EQ(
        0, OXA_AsyncIO_AcceptEx(listener.get(), &peer, nullptr, 0, &accepted, Recorder::Callback));
  }
  UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(0, OXA_ConnectWithTimeOut(client.get(), &addr, kHangGuardMs));
  ASSERT_TRUE(accepted.WaitFor(1));
  const Completion done = accepted.Snapshot()[0];
  EXPECT_EQ(0u, done.error);
  UniqueFd conn(static_cast<int>(done.bytes));
  ASSERT_GT(conn.get(), 0);
  OXA_ADDR_T client_addr;
  ASSERT_EQ(0, OXA_GetAddrBySockFd(client.get(), &client_addr, nullptr));
  EXPECT_EQ(OXA_GetAddrPort(&client_addr), OXA_GetAddrPort(&peer));
  EXPECT_EQ(3, OXA_Send(conn.get(), "abc", 3)) << "a connected, usable socket";
}

TEST(AsyncTransfer, PeerCloseCompletesAReceiveWithZeroBytes) {
  Queue queue(1);
  ASSERT_TRUE(queue.ok());
  TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(pair.client);
  Binding bound(pair.server.get(), queue.get());
  ASSERT_TRUE(bound.ok());
  Recorder received;
  char buf[16];
  ASSERT_EQ(0,
            OXA_AsyncIO_RecvEx(pair.server.get(), buf, sizeof buf, &received, Recorder::Callback));
  pair.client.Reset();
  ASSERT_TRUE(received.WaitFor(1));
  EXPECT_EQ(0u, received.Snapshot()[0].bytes);
}

// Mode 1: the callback unbinds its socket and binds it again with a new receive queued. The
// worker must notice the replacement and leave the new object's request alone.
TEST(AsyncUnbind, FromACallbackUnderTheSlotLock) {
  Queue queue(1, 1);
  ASSERT_TRUE(queue.ok());
  TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(pair.client);
  const int fd = pair.server.get();
  ASSERT_EQ(0, OXA_AsyncIO_BindIOHandleToQueueEx(fd, queue.get()));

  struct Step {
    int fd;
    void* queue;
    int unbind_result = 1;
    int rebind_result = 1;
    int recv_result = 1;
    char first[8] = {};
    char second[8] = {};
    Recorder later;
    std::promise<void> ran;
  } step;
  step.fd = fd;
  step.queue = queue.get();
  auto first_done = [](unsigned long, unsigned long, void* context) {
    auto* s = static_cast<Step*>(context);
    s->unbind_result = OXA_AsyncIO_UnBindIOHandleEx(s->fd, s->queue);
    s->rebind_result = OXA_AsyncIO_BindIOHandleToQueueEx(s->fd, s->queue);
    s->recv_result =
        OXA_AsyncIO_RecvEx(s->fd, s->second, sizeof s->second, &s->later, Recorder::Callback);
    s->ran.set_value();
  };
  ASSERT_EQ(0, OXA_AsyncIO_RecvEx(fd, step.first, sizeof step.first, &step, first_done));
  ASSERT_EQ(3, OXA_Send(pair.client.get(), "one", 3));
  ASSERT_EQ(std::future_status::ready, step.ran.get_future().wait_for(milliseconds(kHangGuardMs)));
  EXPECT_EQ(0, step.unbind_result);
  EXPECT_EQ(0, step.rebind_result);
  EXPECT_EQ(0, step.recv_result);

  ASSERT_EQ(3, OXA_Send(pair.client.get(), "two", 3));
  ASSERT_TRUE(step.later.WaitFor(1)) << "the new object's request was not popped";
  EXPECT_EQ(3u, step.later.Snapshot()[0].bytes);
  EXPECT_EQ(0, memcmp("two", step.second, 3));
  EXPECT_EQ(0, OXA_AsyncIO_UnBindIOHandleEx(fd, queue.get()));
}

// Any other mode: the slot lock is released around callbacks, so another thread can bind on
// the same worker while a callback is still running, and the callback can unbind its socket.
TEST(AsyncUnbind, OtherModesReleaseTheSlotLockAroundCallbacks) {
  Queue queue(1, 0);
  ASSERT_TRUE(queue.ok());
  TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(pair.client);
  ASSERT_EQ(0, OXA_AsyncIO_BindIOHandleToQueueEx(pair.server.get(), queue.get()));

  struct Step {
    std::promise<void> entered;
    std::promise<void> release;
    std::promise<void> finished;
    int unbind_result = 1;
    int fd = -1;
    void* queue = nullptr;
  } step;
  step.fd = pair.server.get();
  step.queue = queue.get();
  auto blocking = [](unsigned long, unsigned long, void* context) {
    auto* s = static_cast<Step*>(context);
    s->entered.set_value();
    s->release.get_future().wait_for(milliseconds(kHangGuardMs));
    s->unbind_result = OXA_AsyncIO_UnBindIOHandleEx(s->fd, s->queue);
    s->finished.set_value();
  };
  char buf[8];
  ASSERT_EQ(0, OXA_AsyncIO_RecvEx(pair.server.get(), buf, sizeof buf, &step, blocking));
  ASSERT_EQ(1, OXA_Send(pair.client.get(), "x", 1));
  ASSERT_EQ(std::future_status::ready,
            step.entered.get_future().wait_for(milliseconds(kHangGuardMs)));

  UniqueFd other(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(0, OXA_AsyncIO_BindIOHandleToQueueEx(other.get(), queue.get()))
      << "bound while the worker's callback runs";
  EXPECT_EQ(0, OXA_AsyncIO_UnBindIOHandleEx(other.get(), queue.get()));
  step.release.set_value();
  ASSERT_EQ(std::future_status::ready,
            step.finished.get_future().wait_for(milliseconds(kHangGuardMs)));
  EXPECT_EQ(0, step.unbind_result);
}

TEST(AsyncUnbind, DropsQueuedRequestsWithoutCallbacks) {
  Queue queue(1);
  ASSERT_TRUE(queue.ok());
  TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(pair.client);
  Recorder recorder;
  char buf[3][8];
  {
    Binding bound(pair.server.get(), queue.get());
    ASSERT_TRUE(bound.ok());
    for (auto& b : buf)
      ASSERT_EQ(0, OXA_AsyncIO_RecvEx(pair.server.get(), b, 8, &recorder, Recorder::Callback));
    ASSERT_EQ(0, bound.Unbind());
  }
  ASSERT_EQ(4, OXA_Send(pair.client.get(), "late", 4));
  char got[4];
  ASSERT_EQ(4, OXA_Recvn(pair.server.get(), got, 4, kHangGuardMs)) << "no longer consumed";
  EXPECT_EQ(0u, recorder.Count());
}

}  // namespace
