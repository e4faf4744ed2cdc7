// Queues, binding, and every refused argument.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "oxa_aio.h"
#include "oxa_socket.h"
#include "oxa_sysinfo.h"

#include "aio/aio_harness.h"
#include "support/loopback.h"
#include "support/test_support.h"

namespace {

using oxa_test::BadQueue;
using oxa_test::Binding;
using oxa_test::Queue;
using oxa_test::Recorder;
using oxa_test::StderrCapture;
using oxa_test::UniqueFd;

TEST(CompletionQueue, WorkersAndEpollInstancesGoWithTheQueue) {
  const int threads = oxa_test::SettledThreadCount();
  const int fds = oxa_test::OpenFdCount();
  struct Maker {
    void* (*create)();
    int workers;
  } makers[] = {
      {[] { return OXA_AIO_CreateQueueEx(3, 0); }, 3},
      {[] { return OXA_AsyncIO_CreateQueueEx_New(2); }, 2},
      {OXA_AsyncIO_CreateQueueEx2, (OXA_GetCPUNumber() + 1) * 2},
      {[] { return OXA_AIO_CreateQueueEx(0, 1); }, 0},
      {[] { return OXA_AIO_CreateQueueEx(-3, 1); }, 0},
  };
  // Idle workers are woken, not polled: a worker that only just began to wait must not keep
  // a destroy waiting for a time-out. Polling cost about 500 ms per queue, 2 s for the four
  // with workers; the sum of the destroys stays far below that even under load.
  std::chrono::steady_clock::duration destroying{};
  for (const Maker& m : makers) {
    void* queue = m.create();
    ASSERT_NE(BadQueue(), queue) << m.workers;
    EXPECT_EQ(threads + m.workers, oxa_test::ThreadCount());
    EXPECT_EQ(fds + m.workers + (m.workers > 0 ? 1 : 0), oxa_test::OpenFdCount())
        << "one epoll instance per worker and one wake-up descriptor";
    oxa_test::Stopwatch watch;
    EXPECT_EQ(0, OXA_AsyncIO_DestroyQueueEx(queue));
    destroying += watch.Elapsed();
    EXPECT_TRUE(oxa_test::WaitForThreadCount(threads));
    EXPECT_EQ(fds, oxa_test::OpenFdCount());
  }
  EXPECT_LT(destroying, std::chrono::milliseconds(1200));
}

// The scheduling policy of each thread of the process, by thread id.
std::map<int, int> ThreadPolicies() {
  std::map<int, int> policies;
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) return policies;
  while (dirent* entry = readdir(tasks)) {
    if (entry->d_name[0] == '.') continue;
    const int tid = atoi(entry->d_name);
    policies[tid] = sched_getscheduler(tid);
  }
  closedir(tasks);
  return policies;
}

// Workers ask for a real-time priority as they start. A queue handed out before they had
// run could leave a worker at the ordinary priority behind busy siblings for about a second
// (the kernel's real-time throttle), with its sockets unserved.
TEST(CompletionQueue, WorkersRunAtTheirPriorityBeforeTheQueueIsReturned) {
  bool granted = false;
  std::thread probe([&granted] {
    sched_param param{};
    param.sched_priority = 1;
    granted = pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0;
  });
  probe.join();
  if (!granted) GTEST_SKIP() << "real-time priorities are not granted here";
  const std::map<int, int> before = ThreadPolicies();
  Queue queue(4);
  ASSERT_TRUE(queue.ok());
  int workers = 0;
  for (const auto& [tid, policy] : ThreadPolicies()) {
    if (before.count(tid) != 0) continue;
    ++workers;
    EXPECT_EQ(SCHED_FIFO, policy) << "worker " << tid;
  }
  EXPECT_EQ(4, workers);
}

TEST(PostQueuedCompletion, CallbackRunsOnItsOwnThreadWhateverTheQueue) {
  const int threads = oxa_test::SettledThreadCount();
  Recorder rec;
  ASSERT_EQ(
      0, OXA_AsyncIO_PostQueuedCompleteStatusEx(BadQueue(), 7, 111, 222, &rec, Recorder::Callback));
  ASSERT_TRUE(rec.WaitFor(1));
  EXPECT_EQ(111u, rec.Snapshot()[0].error);
  EXPECT_EQ(222u, rec.Snapshot()[0].bytes);
  EXPECT_NE(std::this_thread::get_id(), rec.Snapshot()[0].thread);
  EXPECT_TRUE(oxa_test::WaitForThreadCount(threads)) << "the posting thread ends by itself";
}

// Every refusal: its result, its line on standard error (or none), and never a callback. The
// earlier interface only has to link and fail. One table holds the sockets of all queues.
TEST(Binding, RefusalsThenUnbindingAndBindingElsewhere) {
  Queue queue(2);
  Queue other(1);
  Queue empty(0);
  ASSERT_TRUE(queue.ok() && other.ok() && empty.ok());
  UniqueFd unbound(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  UniqueFd bound_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  Binding bound(bound_fd.get(), queue.get());
  ASSERT_TRUE(bound.ok());
  const int u = unbound.get();
  const int b = bound_fd.get();
  void* q = queue.get();
  Recorder rec;
  const OXA_AIO_CALLBACK cb = Recorder::Callback;
  char buf[8] = {};
  OXA_ADDR_T addr = oxa_test::Loopback(AF_INET, 9);
  OXA_AsyncIOQueue old_queue;
  OXA_AsyncIO old_io(nullptr);
  const auto bind = OXA_AsyncIO_BindIOHandleToQueueEx;
  const auto unbind = OXA_AsyncIO_UnBindIOHandleEx;
  auto line = [](const char* prefix, int fd) { return prefix + std::to_string(fd) + "\n"; };
  const std::string twice = line("OXA_AsyncIO_BindIOHandleToQueueEx, ERROR, socketFd = ", b);
  const char kNotBound[] = "OXA_AsyncIO_UnBindIOHandleEx gSocketOpr[socketFd] = NULL, socketFd = ";
  struct Case {
    Case(int r, std::function<int()> c, std::string l = "") : result(r), call(c), line(l) {}
    int result;
    std::function<int()> call;
    std::string line;
  };
  std::vector<Case> cases = {
      {-1, [] { return OXA_AsyncIO_DestroyQueueEx(nullptr); }},
      {-1, [] { return OXA_AsyncIO_DestroyQueueEx(BadQueue()); }},
      {-1, [&] { return bind(u, nullptr); }},
      {-1, [&] { return unbind(u, BadQueue()); }},
      {-1, [&] { return bind(u, empty.get()); }},
      {-1, [&] { return unbind(u, empty.get()); }},
      {-1, [&] { return bind(b, q); }, twice},
      {-1, [&] { return bind(b, other.get()); }, twice},
      {-1, [&] { return unbind(u, q); }, line(kNotBound, u)},
      {-1, [&] { return unbind(b, other.get()); }, line(kNotBound, b)},
      {-1, [] { return OXA_AsyncIO_SetIOQueueMemorySize(0); }},
      {0, [] { return OXA_AsyncIO_BindCallBackToIOHandleEx(0, nullptr); }},
      {-1, [&] { return OXA_AsyncIO_AcceptEx(65536, &addr, nullptr, 0, &rec, cb); }},
      {-1, [&] { return OXA_AsyncIO_AcceptEx(u, &addr, nullptr, 0, nullptr, cb); }},
      {-1, [&] { return OXA_AsyncIO_AcceptEx(b, &addr, nullptr, 0, &rec, nullptr); }},
      {-1, [&] { return OXA_AsyncIO_AcceptEx(u, nullptr, nullptr, 0, &rec, cb); },
       line("OXA_AsyncIO_AcceptEx ", u)},
      {-1, [&] { return OXA_AsyncIO_ConnectEx(b, nullptr, nullptr, 0, &rec, cb); }},
      {-1, [&] { return OXA_AsyncIO_ConnectEx(b, &addr, nullptr, 0, nullptr, cb); }},
      {-1, [&] { return OXA_AsyncIO_ConnectEx(b, &addr, nullptr, 0, &rec, nullptr); }},
      {-4, [&] { return OXA_AsyncIO_SendEx(b, nullptr, 8, &rec, cb); }},
      {-4, [&] { return OXA_AsyncIO_SendEx(b, buf, 0, &rec, cb); }},
      {-4, [&] { return OXA_AsyncIO_SendEx(b, buf, -1, &rec, cb); }},
      {-4, [&] { return OXA_AsyncIO_SendToEx(b, buf, 0, &rec, &addr, cb); }},
      // A queued negative length would have the worker receive far past buf.
      {-4, [&] { return OXA_AsyncIO_RecvEx(b, buf, -1, &rec, cb); }},
      {-4, [&] { return OXA_AsyncIO_RecvFromEx(b, buf, INT_MIN, &rec, &addr, cb); }},
      {-1,
       [] { return OXA_AsyncIO_PostQueuedCompleteStatusEx(nullptr, 0, 0, 0, nullptr, nullptr); }},
      {-1, [] { return SendOperation(1, nullptr, nullptr); }},
      {-1, [] { return RecvOperation(1, nullptr, nullptr); }},
      {-1, [&] { return OXA_AsyncIO_Send(nullptr, buf, sizeof buf, nullptr); }},
      {-1, [&] { return old_queue.Initialize(); }},
      {-1, [&] { return old_io.BindCallBackToIOHandle(cb); }},
      {-1, [&] { return old_io.IORecv(buf, sizeof buf, nullptr); }},
      {-1, [&] { return old_io.BindIOHandleToQueue(&old_queue); }},
  };
  for (int fd : {u, -1, 65536, 70000}) {  // unbound or outside the table
    cases.push_back({-1, [&, fd] { return OXA_AsyncIO_SendEx(fd, buf, 8, &rec, cb); }});
    cases.push_back({-1, [&, fd] { return OXA_AsyncIO_SendToEx(fd, buf, 8, &rec, &addr, cb); }});
    cases.push_back({-1, [&, fd] { return OXA_AsyncIO_RecvEx(fd, buf, 8, &rec, cb); }});
    cases.push_back({-1, [&, fd] { return OXA_AsyncIO_RecvFromEx(fd, buf, 8, &rec, &addr, cb); }});
    cases.push_back(
        {-1, [&, fd] { return OXA_AsyncIO_ConnectEx(fd, &addr, nullptr, 0, &rec, cb); }});
    if (fd == u) continue;
    cases.push_back({-1, [&, fd] { return bind(fd, q); }});
    cases.push_back({-1, [&, fd] { return unbind(fd, q); }});
  }
  for (size_t i = 0; i < cases.size(); ++i) {
    StderrCapture capture;
    EXPECT_EQ(cases[i].result, cases[i].call()) << "case " << i;
    EXPECT_EQ(cases[i].line, capture.Take()) << "case " << i;
  }
  EXPECT_EQ(-1, g_max_socket_send_dataMemory) << "a refused size changes nothing";
  EXPECT_EQ(BadQueue(), OXA_AsyncIO_CreateQueue());
  EXPECT_EQ(BadQueue(), old_queue.GetHandle()) << "kept from Initialize";
  EXPECT_EQ(0, old_queue.Release()) << "and not closed";
  EXPECT_EQ(0u, rec.Count());

  EXPECT_NE(0, fcntl(b, F_GETFL) & O_NONBLOCK) << "binding switched it";
  EXPECT_EQ(0, bound.Unbind());
  EXPECT_NE(-1, fcntl(b, F_GETFL)) << "unbinding leaves the socket open";
  EXPECT_EQ(0, bind(b, other.get())) << "free again";
  EXPECT_EQ(0, unbind(b, other.get()));
}

// The epoll interest follows the queues: EPOLLIN exactly while receives are queued, EPOLLOUT
// exactly while sends are; a worker would otherwise spin on, or never see, a ready socket.
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
    char buf[4];
    ASSERT_EQ(0, op.PushTCPRecvRequest(buf, sizeof buf, nullptr, nullptr));
    ASSERT_EQ(3, OXA_Send(pair.server.get(), "abc", 3));
    ASSERT_EQ(1, epoll_wait(ep.get(), ready, 4, static_cast<int>(oxa_test::kHangGuardMs)));
    EXPECT_EQ(static_cast<uint32_t>(EPOLLIN), ready[0].events);
    ASSERT_EQ(0, op.PushTCPSendRequest(buf, 1, nullptr, nullptr));
    ASSERT_EQ(1, epoll_wait(ep.get(), ready, 4, 0));
    EXPECT_EQ(static_cast<uint32_t>(EPOLLIN | EPOLLOUT), ready[0].events);
    EXPECT_EQ(0, op.ChangeSocketOpr(SOCKET_OPR_DEL)) << "requests queued: nothing to do";
    ASSERT_NE(nullptr, op.FrontSendRequest());
    op.PopSendRequest();
    ASSERT_NE(nullptr, op.FrontRecvRequest());
    op.PopRecvRequest();
    EXPECT_EQ(0, epoll_wait(ep.get(), ready, 4, 0)) << "both interests gone with the queues";
  }
  epoll_event event{};
  event.events = EPOLLIN;
  EXPECT_EQ(0, epoll_ctl(ep.get(), EPOLL_CTL_ADD, fd, &event)) << "unregistered on destruction";
}

}  // namespace
