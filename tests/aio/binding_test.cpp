#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <string>

#include "oxa_aio.h"

#include "aio/aio_harness.h"
#include "support/test_support.h"

namespace {

using oxa_test::Binding;
using oxa_test::Queue;
using oxa_test::Recorder;
using oxa_test::StderrCapture;
using oxa_test::UniqueFd;

UniqueFd TcpSocket() { return UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

TEST(Binding, OnlyDescriptorsOfTheTableCanBeBound) {
  Queue queue(2);
  ASSERT_TRUE(queue.ok());
  for (int fd : {-1, -65536, 65536, 70000}) {
    EXPECT_EQ(-1, OXA_AsyncIO_BindIOHandleToQueueEx(fd, queue.get())) << fd;
    EXPECT_EQ(-1, OXA_AsyncIO_UnBindIOHandleEx(fd, queue.get())) << fd;
  }
}

TEST(Binding, SwitchesToNonBlockingAndRefusesASecondBinding) {
  Queue first(2);
  Queue second(3);
  ASSERT_TRUE(first.ok() && second.ok());
  UniqueFd fd = TcpSocket();
  ASSERT_EQ(0, OXA_AsyncIO_BindIOHandleToQueueEx(fd.get(), first.get()));
  EXPECT_NE(0, fcntl(fd.get(), F_GETFL) & O_NONBLOCK);

  StderrCapture capture;
  EXPECT_EQ(-1, OXA_AsyncIO_BindIOHandleToQueueEx(fd.get(), first.get()));
  EXPECT_EQ(-1, OXA_AsyncIO_BindIOHandleToQueueEx(fd.get(), second.get())) << "one table";
  const std::string line =
      "OXA_AsyncIO_BindIOHandleToQueueEx, ERROR, socketFd = " + std::to_string(fd.get()) + "\n";
  EXPECT_EQ(line + line, capture.Take());

  EXPECT_EQ(0, OXA_AsyncIO_UnBindIOHandleEx(fd.get(), first.get()));
  EXPECT_EQ(0, OXA_AsyncIO_BindIOHandleToQueueEx(fd.get(), second.get())) << "free again";
  EXPECT_EQ(0, OXA_AsyncIO_UnBindIOHandleEx(fd.get(), second.get()));
}

TEST(Binding, UnbindingWhatIsNotBoundHereFailsWithTheMessage) {
  Queue first(1);
  Queue second(1);
  ASSERT_TRUE(first.ok() && second.ok());
  UniqueFd fd = TcpSocket();
  Binding bound(fd.get(), first.get());
  ASSERT_TRUE(bound.ok());
  UniqueFd other = TcpSocket();

  StderrCapture capture;
  EXPECT_EQ(-1, OXA_AsyncIO_UnBindIOHandleEx(fd.get(), second.get())) << "other queue";
  EXPECT_EQ(-1, OXA_AsyncIO_UnBindIOHandleEx(other.get(), first.get())) << "never bound";
  const std::string prefix =
      "OXA_AsyncIO_UnBindIOHandleEx gSocketOpr[socketFd] = NULL, socketFd = ";
  EXPECT_EQ(prefix + std::to_string(fd.get()) + "\n" + prefix + std::to_string(other.get()) + "\n",
            capture.Take());
  EXPECT_EQ(0, bound.Unbind());
  EXPECT_NE(-1, fcntl(fd.get(), F_GETFL)) << "unbinding leaves the socket open";
}

TEST(Binding, RequestsOnUnboundOrOutOfRangeDescriptorsAreRefusedWithoutCallback) {
  Recorder recorder;
  char buf[8] = {};
  OXA_ADDR_T addr = oxa_test::Loopback(AF_INET, 9);
  UniqueFd fd = TcpSocket();
  for (int bad : {fd.get(), -1, 65536}) {
    EXPECT_EQ(-1, OXA_AsyncIO_SendEx(bad, buf, 8, &recorder, Recorder::Callback));
    EXPECT_EQ(-1, OXA_AsyncIO_SendToEx(bad, buf, 8, &recorder, &addr, Recorder::Callback));
    EXPECT_EQ(-1, OXA_AsyncIO_RecvEx(bad, buf, 8, &recorder, Recorder::Callback));
    EXPECT_EQ(-1, OXA_AsyncIO_RecvFromEx(bad, buf, 8, &recorder, &addr, Recorder::Callback));
    EXPECT_EQ(-1, OXA_AsyncIO_ConnectEx(bad, &addr, nullptr, 0, &recorder, Recorder::Callback));
  }
  {
    StderrCapture capture;
    EXPECT_EQ(-1, OXA_AsyncIO_AcceptEx(65536, &addr, nullptr, 0, &recorder, Recorder::Callback));
    EXPECT_EQ(-1, OXA_AsyncIO_AcceptEx(fd.get(), &addr, nullptr, 0, nullptr, Recorder::Callback));
    EXPECT_EQ("", capture.Take()) << "refused before the message";
  }
  StderrCapture capture;
  EXPECT_EQ(-1, OXA_AsyncIO_AcceptEx(fd.get(), nullptr, nullptr, 0, &recorder, Recorder::Callback));
  EXPECT_EQ("OXA_AsyncIO_AcceptEx " + std::to_string(fd.get()) + "\n", capture.Take());
  EXPECT_EQ(0u, recorder.Count());
}

TEST(Binding, NullArgumentsAreRefusedOnABoundSocket) {
  Queue queue(1);
  ASSERT_TRUE(queue.ok());
  UniqueFd fd = TcpSocket();
  Binding bound(fd.get(), queue.get());
  ASSERT_TRUE(bound.ok());
  Recorder recorder;
  OXA_ADDR_T addr = oxa_test::Loopback(AF_INET, 9);
  const int s = fd.get();
  EXPECT_EQ(-1, OXA_AsyncIO_ConnectEx(s, nullptr, nullptr, 0, &recorder, Recorder::Callback));
  EXPECT_EQ(-1, OXA_AsyncIO_ConnectEx(s, &addr, nullptr, 0, nullptr, Recorder::Callback));
  EXPECT_EQ(-1, OXA_AsyncIO_ConnectEx(s, &addr, nullptr, 0, &recorder, nullptr));
  EXPECT_EQ(-1, OXA_AsyncIO_AcceptEx(s, &addr, nullptr, 0, &recorder, nullptr));
  EXPECT_EQ(-4, OXA_AsyncIO_SendEx(s, nullptr, 8, &recorder, Recorder::Callback));
  EXPECT_EQ(-4, OXA_AsyncIO_SendEx(s, "x", 0, &recorder, Recorder::Callback));
  EXPECT_EQ(-4, OXA_AsyncIO_SendEx(s, "x", -1, &recorder, Recorder::Callback));
  EXPECT_EQ(-4, OXA_AsyncIO_SendToEx(s, "x", 0, &recorder, &addr, Recorder::Callback));
  EXPECT_EQ(0u, recorder.Count());
}

TEST(SocketOperation, RegistrationFollowsTheQueues) {
  UniqueFd ep(epoll_create1(EPOLL_CLOEXEC));
  oxa_test::TcpPair pair = oxa_test::ConnectedPair();
  ASSERT_TRUE(pair.client);
  const int fd = pair.client.get();
  epoll_event ready[4];
  {
    CSocketOperation op(fd, ep.get());
    ASSERT_TRUE(op.IsValid());
    EXPECT_EQ(0, epoll_wait(ep.get(), ready, 4, 0)) << "errors and hang-ups only";
    EXPECT_EQ(-1, op.ChangeSocketOpr(static_cast<__SOCKET_OPR>(6)));
    EXPECT_EQ(-1, op.ChangeSocketOpr(SOCKET_OPR_ADD)) << "already registered";

    char buf[4];
    ASSERT_EQ(0, op.PushTCPRecvRequest(buf, sizeof buf, nullptr, nullptr));
    ASSERT_EQ(3, OXA_Send(pair.server.get(), "abc", 3));
    ASSERT_EQ(1, epoll_wait(ep.get(), ready, 4, static_cast<int>(oxa_test::kHangGuardMs)));
    EXPECT_EQ(static_cast<uint32_t>(EPOLLIN), ready[0].events);
    EXPECT_EQ(fd, ready[0].data.fd);

    EXPECT_EQ(0, op.PushTCPSendRequest(buf, 1, nullptr, nullptr));
    ASSERT_EQ(1, epoll_wait(ep.get(), ready, 4, 0));
    EXPECT_EQ(static_cast<uint32_t>(EPOLLIN | EPOLLOUT), ready[0].events);
    EXPECT_EQ(0, op.ChangeSocketOpr(SOCKET_OPR_DEL)) << "requests queued: nothing to do";

    IO_DATA* send = op.FrontSendRequest();
    ASSERT_NE(nullptr, send);
    EXPECT_EQ(OXA_IO_SEND, send->type);
    EXPECT_EQ(1, send->length);
    EXPECT_NE(static_cast<void*>(buf), send->buffer) << "data is copied";
    op.PopSendRequest();
    IO_DATA* recv = op.FrontRecvRequest();
    ASSERT_NE(nullptr, recv);
    EXPECT_EQ(static_cast<void*>(buf), recv->buffer) << "receive buffers are not";
    op.PopRecvRequest();
    EXPECT_EQ(nullptr, op.FrontRecvRequest());
    EXPECT_EQ(0, epoll_wait(ep.get(), ready, 4, 0)) << "both interests gone with the queues";
  }
  // Destroyed: unregistered, so a fresh registration is accepted.
  epoll_event event{};
  event.events = EPOLLIN;
  EXPECT_EQ(0, epoll_ctl(ep.get(), EPOLL_CTL_ADD, fd, &event));

  CSocketOperation out_of_range(65536, ep.get());
  EXPECT_FALSE(out_of_range.IsValid());
  EXPECT_EQ(-6, out_of_range.PushTCPSendRequest(&event, 1, nullptr, nullptr));
  EXPECT_EQ(-1, out_of_range.PushTCPRecvRequest(&event, 1, nullptr, nullptr));
  EXPECT_EQ(nullptr, out_of_range.FrontSendRequest());
}

}  // namespace
