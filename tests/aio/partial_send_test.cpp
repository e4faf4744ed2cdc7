// Chunks that need several send calls. A local stream pair whose sender has a small buffer
// takes only part of a 16384-byte chunk per call, every time.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <vector>

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
using oxa_test::UniqueFd;

struct StreamPair {
  StreamPair() {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return;
    sender = UniqueFd(sv[0]);
    receiver = UniqueFd(sv[1]);
    const int small = 4096;
    setsockopt(sender.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    fcntl(sender.get(), F_SETFL, O_NONBLOCK);
  }
  UniqueFd sender;
  UniqueFd receiver;
};

int Drain(int fd) {
  char buf[65536];
  int total = 0;
  int n;
  while ((n = static_cast<int>(recv(fd, buf, sizeof buf, MSG_DONTWAIT))) > 0)
    total += n;
  return total;
}

// The engine's settled arithmetic: partial sends report nothing; the call that sends the last
// piece reports the whole chunk and returns only that piece; one more call sends nothing and
// reports again with whatever errno holds.
TEST(SendOperation, ChunkInSeveralPiecesReportsTwice) {
  StreamPair ends;
  ASSERT_TRUE(ends.sender);
  std::vector<char> block = oxa_test::Pattern(3, 16384);
  Recorder recorder;
  IO_DATA req{};
  req.fd = ends.sender.get();
  req.type = OXA_IO_SEND;
  req.buffer = block.data();
  req.length = 16384;
  req.callback = Recorder::Callback;
  req.context = &recorder;

  const int first = SendOperation(1, nullptr, &req);
  ASSERT_GT(first, 0);
  ASSERT_LT(first, 16384) << "the small buffer takes only part";
  EXPECT_EQ(first, req.done);
  EXPECT_EQ(0u, recorder.Count());

  int result = first;
  int received = Drain(ends.receiver.get());
  for (int calls = 0; recorder.Count() == 0 && calls < 100; ++calls) {
    result = SendOperation(1, nullptr, &req);
    ASSERT_GT(result, 0);
    received += Drain(ends.receiver.get());
  }
  ASSERT_EQ(1u, recorder.Count());
  EXPECT_LT(result, 16384) << "returns the size of the last piece";
  EXPECT_EQ(16384, req.done);
  EXPECT_EQ(16384, received);

  errno = EINTR;
  EXPECT_EQ(0, SendOperation(1, nullptr, &req)) << "nothing left to send";
  const std::vector<Completion> done = recorder.Snapshot();
  ASSERT_EQ(2u, done.size());
  EXPECT_EQ(0u, done[0].error);
  EXPECT_EQ(16384u, done[0].bytes);
  EXPECT_EQ(static_cast<unsigned long>(EINTR), done[1].error);
  EXPECT_EQ(16384u, done[1].bytes);

  req.type = OXA_IO_RECV;
  EXPECT_EQ(-1, SendOperation(1, nullptr, &req)) << "not a send-side request";
  EXPECT_EQ(-1, SendOperation(1, nullptr, nullptr));
  EXPECT_EQ(-1, RecvOperation(1, nullptr, nullptr));
  EXPECT_EQ(2u, recorder.Count());
}

// Through a queue the same chunk reports twice, then the next request follows in order.
TEST(AsyncTransfer, ChunkSentInPiecesReportsTwiceThenTheQueueMovesOn) {
  StreamPair ends;
  ASSERT_TRUE(ends.sender);
  Queue queue(1);
  ASSERT_TRUE(queue.ok());
  Binding bound(ends.sender.get(), queue.get());
  ASSERT_TRUE(bound.ok());
  const std::vector<char> data = oxa_test::Pattern(4, 16384 + 5);
  Recorder recorder;
  ASSERT_EQ(
      0, OXA_AsyncIO_SendEx(ends.sender.get(), data.data(), 16384, &recorder, Recorder::Callback));
  ASSERT_EQ(0, OXA_AsyncIO_SendEx(ends.sender.get(), data.data() + 16384, 5, &recorder,
                                  Recorder::Callback));
  std::vector<char> got(data.size());
  ASSERT_EQ(static_cast<int>(got.size()),
            OXA_Recvn(ends.receiver.get(), got.data(), static_cast<int>(got.size()), kHangGuardMs));
  EXPECT_EQ(data, got);
  ASSERT_TRUE(recorder.WaitFor(3));
  const std::vector<Completion> done = recorder.Snapshot();
  ASSERT_EQ(3u, done.size());
  EXPECT_EQ(0u, done[0].error);
  EXPECT_EQ(16384u, done[0].bytes);
  EXPECT_EQ(16384u, done[1].bytes) << "reported again when taken off the queue";
  EXPECT_EQ(0u, done[2].error);
  EXPECT_EQ(5u, done[2].bytes);
}

}  // namespace
