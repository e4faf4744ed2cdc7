#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "oxa_event.h"

#include "support/loopback.h"
#include "support/test_support.h"

namespace {

using oxa_test::OpenFdCount;
using oxa_test::StderrCapture;
constexpr int kGuardMs = static_cast<int>(oxa_test::kHangGuardMs);

// Fails the test when it leaves a descriptor open; declared first, so it checks last.
struct FdLeakCheck {
  const int before = OpenFdCount();
  ~FdLeakCheck() { EXPECT_EQ(before, OpenFdCount()); }
};

unsigned int WaitAny(std::vector<OXA_EVENT_HANDLE> events, int timeout_ms) {
  return OXA_WaitForMultipleObjects(static_cast<int>(events.size()), events.data(), 0, timeout_ms);
}

// The network events of a socket event; *connect_error gets the connect slot.
int Triggered(int socket, OXA_EVENT_HANDLE event, int32_t* connect_error = nullptr) {
  OXA_NETWORKEVENTS result{};
  result.iErrorCode[OXA_FD_CONNECT_BIT] = -7;  // shows whether the slot was written
  StderrCapture quiet;                         // the single wait inside prints its no-pipe line
  EXPECT_EQ(0, OXA_EnumNetworkEvents(socket, event, &result));
  if (connect_error != nullptr) *connect_error = result.iErrorCode[OXA_FD_CONNECT_BIT];
  return result.lNetworkEvents;
}

TEST(Event, ManualResetStaysSignalledAndSetsDoNotAccumulate) {
  FdLeakCheck leaks;
  OXA_EVENT_HANDLE signalled = OXA_CreateEvent(1);
  OXA_EVENT_HANDLE event = OXA_CreateEvent(0);
  ASSERT_TRUE(signalled != nullptr && event != nullptr);
  EXPECT_EQ(0u, OXA_WaitForSingleObject(signalled, 0));
  EXPECT_EQ(0u, OXA_WaitForSingleObject(signalled, 0));  // waiting does not consume
  EXPECT_EQ(OXA_WAIT_TIMEOUT, OXA_WaitForSingleObject(event, 0));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(1, OXA_SetEvent(event));
  int queued = 0;
  ASSERT_EQ(0, ioctl(event->iPipeFd[0], FIONREAD, &queued));
  EXPECT_EQ(1, queued);
  EXPECT_EQ(1, OXA_ResetEvent(event));
  EXPECT_EQ(OXA_WAIT_TIMEOUT, OXA_WaitForSingleObject(event, 0));
  EXPECT_EQ(1, OXA_ResetEvent(event));  // resetting a clear event is fine

  // Null handles are skipped, the lowest signalled index wins, a negative count polls nothing.
  std::vector<OXA_EVENT_HANDLE> events = {signalled, event, signalled};
  EXPECT_EQ(0u, WaitAny(events, 0));
  EXPECT_EQ(2u, WaitAny({nullptr, event, signalled}, 0));
  EXPECT_EQ(OXA_WAIT_TIMEOUT, WaitAny({nullptr, event}, 0));
  EXPECT_EQ(OXA_WAIT_TIMEOUT, OXA_WaitForMultipleObjects(-1, events.data(), 0, 0));
  EXPECT_EQ(1, OXA_CloseEvent(event));
  EXPECT_EQ(1, OXA_CloseEvent(signalled));
}

TEST(Event, WaitsEndOnASetFromAnotherThreadOrAfterTheTimeOut) {
  OXA_EVENT_HANDLE single = OXA_CreateEvent(0);
  OXA_EVENT_HANDLE multiple = OXA_CreateEvent(0);
  ASSERT_TRUE(single != nullptr && multiple != nullptr);
  for (bool of_many : {false, true}) {
    oxa_test::Stopwatch watch;
    EXPECT_EQ(OXA_WAIT_TIMEOUT,
              of_many ? WaitAny({single, nullptr}, 60) : OXA_WaitForSingleObject(single, 60));
    EXPECT_GE(watch.Elapsed().count(), 59);
    EXPECT_LT(watch.Elapsed().count(), 3000);
  }

  std::promise<void> started;
  auto waited = std::async(std::launch::async, [&] {
    started.set_value();
    const unsigned int first = OXA_WaitForSingleObject(single, kGuardMs);
    return first == 0 ? WaitAny({single, multiple}, kGuardMs) : first;
  });
  started.get_future().wait();
  EXPECT_EQ(1, OXA_SetEvent(single));
  ASSERT_EQ(std::future_status::ready, waited.wait_for(std::chrono::milliseconds(kGuardMs)));
  EXPECT_EQ(0u, waited.get());
  OXA_CloseEvent(single);
  OXA_CloseEvent(multiple);
}

TEST(Event, MultipleWaitRefusesMoreThan128PollEntries) {
  FdLeakCheck leaks;
  std::vector<OXA_EVENT_HANDLE> events;
  for (int i = 0; i < OXA_MAXIMUM_WAIT_ENTRIES; ++i)
    events.push_back(OXA_CreateEvent(0));
  ASSERT_EQ(1, OXA_SetEvent(events.back()));
  EXPECT_EQ(127u, WaitAny(events, 0));  // exactly 128 entries still work
  // A socket event watching both directions needs two entries: 127 + 2 is one too many.
  const int socket_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(0, OXA_EventSelect(socket_fd, events.back(), OXA_FD_CONNECT));
  StderrCapture capture;
  EXPECT_EQ(OXA_WAIT_INVALID, WaitAny(events, kGuardMs));
  EXPECT_EQ("trovik !!! OXA_WaitForMultipleObjects (more than 128 poll entries) return error 0\n\n",
            capture.Take());
  for (OXA_EVENT_HANDLE event : events)
    OXA_CloseEvent(event);
  close(socket_fd);
}

TEST(Event, BadArgumentsGiveTheirResultsAndADiagnosticEach) {
  OXA_EVENT_HANDLE event = OXA_CreateEvent(0);
  OXA_NETWORKEVENTS result{};
  StderrCapture capture;
  EXPECT_EQ(0, OXA_CloseEvent(nullptr));
  EXPECT_EQ(0, OXA_SetEvent(nullptr));
  EXPECT_EQ(0, OXA_ResetEvent(nullptr));
  EXPECT_EQ(OXA_WAIT_INVALID, OXA_WaitForSingleObject(nullptr, 0));
  EXPECT_EQ(OXA_WAIT_INVALID, OXA_WaitForMultipleObjects(1, nullptr, 0, 0));
  EXPECT_EQ(-1, OXA_EventSelect(-1, event, OXA_FD_READ));
  EXPECT_EQ(-1, OXA_EventSelect(0, nullptr, OXA_FD_READ));
  EXPECT_EQ(-1, OXA_EventSelect(0, event, 0));
  EXPECT_EQ(-1, OXA_EnumNetworkEvents(-1, event, &result));
  EXPECT_EQ(-1, OXA_EnumNetworkEvents(0, event, nullptr));
  errno = 0;
  EXPECT_EQ(0, OXA_WritePipe_Inter(nullptr));
  EXPECT_EQ(0, OXA_ReadPipe_Inter(nullptr));
  EXPECT_EQ(-1, OXA_GetEventTriggeredFlag_Inter(nullptr, nullptr));
  EXPECT_EQ(-1, OXA_ClearEventMutex_Inter(nullptr));
  // Each refusal leaves one diagnostic; the pipe writer's also carries errno.
  const std::string text = capture.Take();
  size_t lines = 0;
  for (size_t at = 0; (at = text.find("!!! ", at)) != std::string::npos; ++at)
    ++lines;
  EXPECT_EQ(11u, lines) << text;
  EXPECT_EQ(OXA_WAIT_TIMEOUT, OXA_WaitForSingleObject(event, 0));  // untouched by the refusals
  OXA_CloseEvent(event);
}

TEST(Event, FailedCreationLeavesNothingAndKeepsErrno) {
  FdLeakCheck leaks;
  StderrCapture capture;
  rlimit old_limit;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &old_limit));
  rlimit low = old_limit;
  low.rlim_cur = static_cast<rlim_t>(OpenFdCount() + 8);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
  std::vector<int> fillers;  // take every descriptor left, so the pipe cannot be made
  for (int fd; (fd = fcntl(0, F_DUPFD_CLOEXEC, 0)) != -1;)
    fillers.push_back(fd);
  errno = 0;
  OXA_EVENT_HANDLE event = OXA_CreateEvent(1);
  const int error = errno;
  for (int fd : fillers)
    close(fd);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &old_limit));
  EXPECT_EQ(nullptr, event);
  EXPECT_EQ(EMFILE, error);
  EXPECT_NE(std::string::npos, capture.Take().find("OXA_CreateEvent"));
}

// Selecting closes the pipe for good (set, reset and the single wait refuse from then on) and
// makes the socket non-blocking; the multiple wait then reports data, then the peer's close.
TEST(Event, ReadEventReportsDataThenCloseAndHasNoPipe) {
  FdLeakCheck leaks;
  int sockets[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets));
  OXA_EVENT_HANDLE plain = OXA_CreateEvent(0);
  OXA_EVENT_HANDLE event = OXA_CreateEvent(1);
  const int fds_with_pipe = OpenFdCount();
  ASSERT_EQ(0, OXA_EventSelect(sockets[0], event, OXA_FD_READ | OXA_FD_CLOSE));
  EXPECT_EQ(fds_with_pipe - 2, OpenFdCount());
  EXPECT_TRUE(fcntl(sockets[0], F_GETFL) & O_NONBLOCK);
  StderrCapture capture;
  EXPECT_EQ(OXA_WAIT_NO_PIPE, OXA_WaitForSingleObject(event, 0));
  EXPECT_EQ(0, OXA_ResetEvent(event));
  EXPECT_EQ(0, OXA_SetEvent(event));
  const std::string text = capture.Take();
  for (const char* refused : {"OXA_WaitForSingleObject", "OXA_ResetEvent", "OXA_SetEvent"})
    EXPECT_NE(std::string::npos, text.find(refused)) << text;

  EXPECT_EQ(OXA_WAIT_TIMEOUT, WaitAny({plain, event}, 0));
  ASSERT_EQ(1, send(sockets[1], "x", 1, 0));
  EXPECT_EQ(1u, WaitAny({plain, event}, kGuardMs));
  EXPECT_EQ(OXA_FD_READ, Triggered(sockets[0], event));
  char byte;
  ASSERT_EQ(1, recv(sockets[0], &byte, 1, 0));
  close(sockets[1]);
  EXPECT_EQ(1u, WaitAny({plain, event}, kGuardMs));
  EXPECT_EQ(OXA_FD_CLOSE, Triggered(sockets[0], event));
  OXA_CloseEvent(plain);
  OXA_CloseEvent(event);
  close(sockets[0]);
}

TEST(Event, AcceptConnectAndWriteEvents) {
  FdLeakCheck leaks;
  OXA_ADDR_T addr;
  oxa_test::UniqueFd listening = oxa_test::BoundLoopback(AF_INET, SOCK_STREAM, &addr);
  const int listener = listening.get();
  const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  OXA_EVENT_HANDLE accepting = OXA_CreateEvent(0);
  OXA_EVENT_HANDLE connecting = OXA_CreateEvent(0);
  OXA_EVENT_HANDLE writing = OXA_CreateEvent(0);
  ASSERT_EQ(0, OXA_EventSelect(listener, accepting, OXA_FD_ACCEPT));
  ASSERT_EQ(0, OXA_EventSelect(client, connecting, OXA_FD_CONNECT));
  EXPECT_EQ(OXA_WAIT_TIMEOUT, WaitAny({accepting}, 0));
  EXPECT_TRUE(connect(client, &addr.sa, sizeof addr.in4) == 0 ||
              errno == EINPROGRESS);  // the socket is non-blocking
  EXPECT_EQ(0u, WaitAny({accepting}, kGuardMs));
  EXPECT_EQ(OXA_FD_ACCEPT, Triggered(listener, accepting));
  EXPECT_EQ(0u, WaitAny({connecting}, kGuardMs));
  int32_t connect_error = 0;
  EXPECT_EQ(OXA_FD_CONNECT, Triggered(client, connecting, &connect_error));
  EXPECT_EQ(-7, connect_error);  // a clean connect records no error
  ASSERT_EQ(0, OXA_EventSelect(client, writing, OXA_FD_WRITE));
  EXPECT_EQ(1u, WaitAny({nullptr, writing}, kGuardMs));
  EXPECT_EQ(OXA_FD_WRITE, Triggered(client, writing));
  for (OXA_EVENT_HANDLE event : {accepting, connecting, writing})
    OXA_CloseEvent(event);
  close(client);
}

TEST(Event, MultipleWaitResumesAfterASignal) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  struct sigaction old_action;
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, &old_action));  // no SA_RESTART
  OXA_EVENT_HANDLE event = OXA_CreateEvent(0);
  std::promise<pthread_t> started;
  auto waited = std::async(std::launch::async, [&] {
    started.set_value(pthread_self());
    return WaitAny({event}, kGuardMs);
  });
  const pthread_t waiter = started.get_future().get();
  // Signals land before or during the poll; either way only the set may end the wait.
  for (int i = 0; i < 10; ++i) {
    pthread_kill(waiter, SIGUSR1);
    waited.wait_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(1, OXA_SetEvent(event));
  ASSERT_EQ(std::future_status::ready, waited.wait_for(std::chrono::milliseconds(kGuardMs)));
  EXPECT_EQ(0u, waited.get());
  sigaction(SIGUSR1, &old_action, nullptr);
  OXA_CloseEvent(event);
}

}  // namespace
