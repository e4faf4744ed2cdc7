#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "oxa_addr.h"
#include "oxa_aio.h"
#include "oxa_socket.h"

#include "aio/aio_harness.h"
#include "support/loopback.h"
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

std::vector<unsigned long> BytesOf(const std::vector<Completion>& done) {
  std::vector<unsigned long> bytes;
  for (const Completion& c : done)
    bytes.push_back(c.error == 0 ? c.bytes : ~0ul);
  return bytes;
}

// A receive and a send complete on a worker. Sends are copied at once and split into chunks
// of at most 16384 bytes, each completing on its own, in order. A receive whose peer closes
// completes with 0 bytes.
TEST(AsyncTransfer, SendReceiveChunksAndPeerClose) {
  Queue queue(2);
  TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(queue.ok() && pair.client);
  oxa_test::EnlargeBuffers(pair.client.get());  // every chunk goes out in one call
  oxa_test::EnlargeBuffers(pair.server.get());
  Recorder sent;
  Recorder received;
  Binding client(pair.client.get(), queue.get());
  Binding server(pair.server.get(), queue.get());
  ASSERT_TRUE(client.ok() && server.ok());
  char buf[64] = {};
  ASSERT_EQ(0,
            OXA_AsyncIO_RecvEx(pair.server.get(), buf, sizeof buf, &received, Recorder::Callback));
  ASSERT_EQ(0, OXA_AsyncIO_SendEx(pair.client.get(), "hello", 5, &sent, Recorder::Callback));
  ASSERT_TRUE(received.WaitFor(1));
  EXPECT_EQ(std::vector<unsigned long>{5}, BytesOf(received.Snapshot()));
  EXPECT_EQ(0, memcmp("hello", buf, 5));
  EXPECT_NE(std::this_thread::get_id(), received.Snapshot()[0].thread);

  ASSERT_EQ(0, server.Unbind());  // read directly below
  const std::vector<char> data = oxa_test::Pattern(1, 40000 + 16384 + 16385);
  std::vector<char> scratch = data;
  size_t offset = 0;
  for (int len : {40000, 16384, 16385}) {
    ASSERT_EQ(
        0, OXA_AsyncIO_SendEx(pair.client.get(), &scratch[offset], len, &sent, Recorder::Callback));
    offset += static_cast<size_t>(len);
  }
  std::fill(scratch.begin(), scratch.end(), 0);  // the caller's buffer is free at once
  EXPECT_TRUE(oxa_test::ReceivesExactly(pair.server.get(), data));
  ASSERT_TRUE(sent.WaitFor(7));
  const std::vector<unsigned long> chunks = {5, 16384, 16384, 7232, 16384, 16384, 1};
  EXPECT_EQ(chunks, BytesOf(sent.Snapshot()));

  ASSERT_EQ(0,
            OXA_AsyncIO_RecvEx(pair.client.get(), buf, sizeof buf, &received, Recorder::Callback));
  pair.server.Reset();
  ASSERT_TRUE(received.WaitFor(2));
  EXPECT_EQ(0u, received.Snapshot()[1].bytes) << "the peer closed";
}

// A chunk that takes several send calls reports when its last piece goes out and once more
// when it is taken off the queue; then the queue moves on. A local stream pair with a small
// send buffer takes only part of a 16384-byte chunk per call.
TEST(AsyncTransfer, ChunkSentInPiecesReportsTwiceThenTheQueueMovesOn) {
  int sv[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv));
  UniqueFd sender(sv[0]);
  UniqueFd receiver(sv[1]);
  const int small = 4096;
  setsockopt(sender.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  Queue queue(1);
  Binding bound(sender.get(), queue.get());
  ASSERT_TRUE(queue.ok() && bound.ok());
  const std::vector<char> data = oxa_test::Pattern(4, 16384 + 5);
  Recorder rec;
  ASSERT_EQ(0, OXA_AsyncIO_SendEx(sender.get(), data.data(), 16384, &rec, Recorder::Callback));
  ASSERT_EQ(0, OXA_AsyncIO_SendEx(sender.get(), &data[16384], 5, &rec, Recorder::Callback));
  EXPECT_TRUE(oxa_test::ReceivesExactly(receiver.get(), data));
  ASSERT_TRUE(rec.WaitFor(3));
  std::vector<Completion> done = rec.Snapshot();
  ASSERT_EQ(3u, done.size());
  done[1].error = 0;  // the second report carries whatever errno held at the time
  EXPECT_EQ((std::vector<unsigned long>{16384, 16384, 5}), BytesOf(done));
}

TEST(AsyncTransfer, DatagramsCarryTheirAddresses) {
  Queue queue(2, 0);
  OXA_ADDR_T receiver_addr;
  OXA_ADDR_T sender_addr;
  UniqueFd receiver = oxa_test::BoundLoopback(AF_INET, SOCK_DGRAM, &receiver_addr);
  UniqueFd sender = oxa_test::BoundLoopback(AF_INET, SOCK_DGRAM, &sender_addr);
  ASSERT_TRUE(queue.ok() && receiver && sender);
  Recorder received;
  Recorder sent;
  Binding bound_receiver(receiver.get(), queue.get());
  Binding bound_sender(sender.get(), queue.get());
  ASSERT_TRUE(bound_receiver.ok() && bound_sender.ok());
  char buf[32] = {};
  OXA_ADDR_T from{};
  ASSERT_EQ(0, OXA_AsyncIO_RecvFromEx(receiver.get(), buf, sizeof buf, &received, &from,
                                      Recorder::Callback));
  ASSERT_EQ(0, OXA_AsyncIO_SendToEx(sender.get(), "datagram", 8, &sent, &receiver_addr,
                                    Recorder::Callback));
  ASSERT_TRUE(received.WaitFor(1) && sent.WaitFor(1));
  EXPECT_EQ(std::vector<unsigned long>{8}, BytesOf(sent.Snapshot()));
  EXPECT_EQ(std::vector<unsigned long>{8}, BytesOf(received.Snapshot()));
  EXPECT_EQ(0, memcmp("datagram", buf, 8));
  EXPECT_EQ(AF_INET, from.sa.sa_family);
  EXPECT_EQ(OXA_GetAddrPort(&sender_addr), OXA_GetAddrPort(&from));
}

// A connect meets an accept on the same queue; a second connect, to a port that is bound but
// not listening, is refused.
TEST(AsyncConnectAccept, NewDescriptorPeerAndRefusal) {
  Queue queue(2);
  OXA_ADDR_T addr;
  UniqueFd listener = oxa_test::BoundLoopback(AF_INET, SOCK_STREAM, &addr);
  UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  UniqueFd refused(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  UniqueFd holder(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  OXA_ADDR_T not_listening = oxa_test::Loopback(AF_INET, 0);
  ASSERT_TRUE(queue.ok() && listener);
  ASSERT_EQ(0, OXA_Bind(holder.get(), &not_listening));
  ASSERT_EQ(0, OXA_GetAddrBySockFd(holder.get(), &not_listening, nullptr));
  Recorder accepted;
  Recorder connected;
  Binding bound_listener(listener.get(), queue.get());
  Binding bound_client(client.get(), queue.get());
  Binding bound_refused(refused.get(), queue.get());
  ASSERT_TRUE(bound_listener.ok() && bound_client.ok() && bound_refused.ok());
  OXA_ADDR_T peer{};
  {
    oxa_test::StderrCapture quiet;  // AcceptEx names every descriptor it queues for
    ASSERT_EQ(
        0, OXA_AsyncIO_AcceptEx(listener.get(), &peer, nullptr, 0, &accepted, Recorder::Callback));
  }
  ASSERT_EQ(0,
            OXA_AsyncIO_ConnectEx(client.get(), &addr, nullptr, 0, &connected, Recorder::Callback));
  ASSERT_TRUE(accepted.WaitFor(1) && connected.WaitFor(1));
  EXPECT_EQ(std::vector<unsigned long>{0}, BytesOf(connected.Snapshot()));
  EXPECT_EQ(0u, accepted.Snapshot()[0].error);
  UniqueFd conn(static_cast<int>(accepted.Snapshot()[0].bytes));
  ASSERT_GT(conn.get(), 0);
  OXA_ADDR_T client_addr;
  ASSERT_EQ(0, OXA_GetAddrBySockFd(client.get(), &client_addr, nullptr));
  EXPECT_EQ(OXA_GetAddrPort(&client_addr), OXA_GetAddrPort(&peer));
  EXPECT_EQ(0, fcntl(conn.get(), F_GETFL) & O_NONBLOCK) << "blocking, not bound";
  EXPECT_EQ(3, OXA_Send(conn.get(), "abc", 3)) << "a connected, usable socket";

  ASSERT_EQ(0, OXA_AsyncIO_ConnectEx(refused.get(), &not_listening, nullptr, 0, &connected,
                                     Recorder::Callback));
  ASSERT_TRUE(connected.WaitFor(2));
  EXPECT_EQ(static_cast<unsigned long>(ECONNREFUSED), connected.Snapshot()[1].error);
  EXPECT_EQ(0u, connected.Snapshot()[1].bytes);
}

// A callback unbinds its socket, binds it again and queues a new receive: the worker must
// notice the replacement and leave the new object's request alone. Mode 1 runs callbacks under
// the (recursive) slot lock; any other mode releases it around them, so that another thread
// can bind on the same worker while a callback is still running.
TEST(AsyncUnbind, FromACallbackInEitherMode) {
  for (int mode : {1, 0}) {
    Queue queue(1, mode);
    TcpPair pair = oxa_test::ConnectedPair();
    ASSERT_TRUE(queue.ok() && pair.client);
    struct Step {
      int fd;
      void* queue;
      bool wait;  // for the test to bind another socket meanwhile
      bool released = false;
      std::promise<void> entered{};
      std::promise<void> release{};
      std::promise<void> ran{};
      int results[3] = {1, 1, 1};  // unbind, bind again, receive again
      char buf[8] = {};
      Recorder later{};
    } step{pair.server.get(), queue.get(), mode != 1};
    auto first_done = [](unsigned long, unsigned long, void* context) {
      auto* s = static_cast<Step*>(context);
      s->entered.set_value();
      if (s->wait) {
        s->released = s->release.get_future().wait_for(milliseconds(kHangGuardMs)) ==
                      std::future_status::ready;
      }
      s->results[0] = OXA_AsyncIO_UnBindIOHandleEx(s->fd, s->queue);
      s->results[1] = OXA_AsyncIO_BindIOHandleToQueueEx(s->fd, s->queue);
      s->results[2] =
          OXA_AsyncIO_RecvEx(s->fd, s->buf, sizeof s->buf, &s->later, Recorder::Callback);
      s->ran.set_value();
    };
    ASSERT_EQ(0, OXA_AsyncIO_BindIOHandleToQueueEx(step.fd, queue.get()));
    ASSERT_EQ(0, OXA_AsyncIO_RecvEx(step.fd, step.buf, sizeof step.buf, &step, first_done));
    ASSERT_EQ(3, OXA_Send(pair.client.get(), "one", 3));
    ASSERT_EQ(std::future_status::ready,
              step.entered.get_future().wait_for(milliseconds(kHangGuardMs)));
    if (step.wait) {
      UniqueFd other(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      EXPECT_EQ(0, OXA_AsyncIO_BindIOHandleToQueueEx(other.get(), queue.get()));
      EXPECT_EQ(0, OXA_AsyncIO_UnBindIOHandleEx(other.get(), queue.get()));
      step.release.set_value();
    }
    ASSERT_EQ(std::future_status::ready,
              step.ran.get_future().wait_for(milliseconds(kHangGuardMs)));
    EXPECT_EQ(step.wait, step.released) << "bound while the worker's callback ran";
    EXPECT_EQ(0, step.results[0] | step.results[1] | step.results[2]) << "mode " << mode;
    ASSERT_EQ(3, OXA_Send(pair.client.get(), "two", 3));
    ASSERT_TRUE(step.later.WaitFor(1)) << "the new object's request was popped";
    EXPECT_EQ(3u, step.later.Snapshot()[0].bytes);
    EXPECT_EQ(0, memcmp("two", step.buf, 3));
    EXPECT_EQ(0, OXA_AsyncIO_UnBindIOHandleEx(step.fd, queue.get()));
  }
}

}  // namespace
