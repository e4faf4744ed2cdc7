#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "oxa_event.h"

#include "support/test_support.h"

namespace {

using oxa_test::kHangGuardMs;
constexpr int kGuardMs = static_cast<int>(kHangGuardMs);

// Fails the test when it leaves a descriptor open.
class FdLeakCheck {
 public:
  FdLeakCheck() : before_(oxa_test::OpenFdCount()) {}
  ~FdLeakCheck() { EXPECT_EQ(before_, oxa_test::OpenFdCount()); }
  FdLeakCheck(const FdLeakCheck&) = delete;
  FdLeakCheck& operator=(const FdLeakCheck&) = delete;

 private:
  int before_;
};

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() { Reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  void Reset() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

// A listening loopback socket on a port the system picked.
int Listen(sockaddr_in* addr) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  *addr = sockaddr_in{};
  addr->sin_family = AF_INET;
  addr->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof *addr;
  if (bind(fd, reinterpret_cast<sockaddr*>(addr), length) != 0 || listen(fd, 4) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(addr), &length) != 0) {
    ADD_FAILURE() << "cannot listen on loopback: " << errno;
  }
  return fd;
}

// Connects client to the listener at addr and returns the accepted server side.
int ConnectAndAccept(int client, int listener, const sockaddr_in& addr) {
  EXPECT_EQ(0, connect(client, reinterpret_cast<const sockaddr*>(&addr), sizeof addr));
  const int server = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  EXPECT_GE(server, 0);
  return server;
}

// A connected loopback pair: client and the server side accepted from the listener.
struct TcpPair {
  TcpPair()
      : listener(Listen(&addr)),
        client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
        server(ConnectAndAccept(client.get(), listener.get(), addr)) {}
  sockaddr_in addr;
  Fd listener;
  Fd client;
  Fd server;
};

unsigned int WaitAny(std::vector<OXA_EVENT_HANDLE> events, int timeout_ms) {
  return OXA_WaitForMultipleObjects(static_cast<int>(events.size()), events.data(), 0, timeout_ms);
}

int Triggered(int socket, OXA_EVENT_HANDLE event, int32_t* connect_error = nullptr) {
  OXA_NETWORKEVENTS result{};
  result.iErrorCode[OXA_FD_CONNECT_BIT] = -7;  // shows whether the slot was written
  oxa_test::StderrCapture quiet;               // the single wait inside prints its no-pipe line
  EXPECT_EQ(0, OXA_EnumNetworkEvents(socket, event, &result));
  if (connect_error != nullptr) *connect_error = result.iErrorCode[OXA_FD_CONNECT_BIT];
  return result.lNetworkEvents;
}

TEST(Event, ManualResetStaysSignalledAndSetsDoNotAccumulate) {
  FdLeakCheck leaks;
  OXA_EVENT_HANDLE signalled = OXA_CreateEvent(1);
  ASSERT_NE(nullptr, signalled);
  EXPECT_EQ(0u, OXA_WaitForSingleObject(signalled, 0));
  EXPECT_EQ(0u, OXA_WaitForSingleObject(signalled, 0));  // waiting does not consume

  OXA_EVENT_HANDLE event = OXA_CreateEvent(0);
  ASSERT_NE(nullptr, event);
  EXPECT_EQ(OXA_WAIT_TIMEOUT, OXA_WaitForSingleObject(event, 0));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(1, OXA_SetEvent(event));
  int queued = 0;
  ASSERT_EQ(0, ioctl(event->iPipeFd[0], FIONREAD, &queued));
  EXPECT_EQ(1, queued);
  EXPECT_EQ(1, OXA_ResetEvent(event));
  EXPECT_EQ(OXA_WAIT_TIMEOUT, OXA_WaitForSingleObject(event, 0));
  EXPECT_EQ(1, OXA_ResetEvent(event));  // resetting a clear event is fine
  EXPECT_EQ(1, OXA_CloseEvent(event));
  EXPECT_EQ(1, OXA_CloseEvent(signalled));
}

TEST(Event, WaitsTimeOutWithinBounds) {
  OXA_EVENT_HANDLE event = OXA_CreateEvent(0);
  ASSERT_NE(nullptr, event);
  oxa_test::Stopwatch single;
  EXPECT_EQ(OXA_WAIT_TIMEOUT, OXA_WaitForSingleObject(event, 60));
  EXPECT_GE(single.Elapsed().count(), 59);
  EXPECT_LT(single.Elapsed().count(), 3000);
  oxa_test::Stopwatch multiple;
  EXPECT_EQ(OXA_WAIT_TIMEOUT, WaitAny({event, nullptr}, 60));
  EXPECT_GE(multiple.Elapsed().count(), 59);
  EXPECT_LT(multiple.Elapsed().count(), 3000);
  OXA_CloseEvent(event);
}

TEST(Event, WaitReturnsWhenAnotherThreadSets) {
  OXA_EVENT_HANDLE single = OXA_CreateEvent(0);
  OXA_EVENT_HANDLE multiple = OXA_CreateEvent(0);
  ASSERT_TRUE(single != nullptr && multiple != nullptr);
  std::promise<void> started;
  auto waited = std::async(std::launch::async, [&] {
    started.set_value();
    const unsigned int first = OXA_WaitForSingleObject(single, kGuardMs);
    return first == 0 ? WaitAny({single, multiple}, kGuardMs) : first;
  });
  started.get_future().wait();
  EXPECT_EQ(1, OXA_SetEvent(single));
  ASSERT_EQ(std::future_status::ready, waited.wait_for(std::chrono::milliseconds(kGuardMs)));
  EXPECT_EQ(0u, waited.get());  // both events qualify; the lower index wins
  OXA_CloseEvent(single);
  OXA_CloseEvent(multiple);
}

TEST(Event, MultipleWaitPicksLowestSignalledAndSkipsNullHandles) {
  std::vector<OXA_EVENT_HANDLE> events = {OXA_CreateEvent(1), OXA_CreateEvent(0),
                                          OXA_CreateEvent(1)};
  EXPECT_EQ(0u, WaitAny(events, 0));
  EXPECT_EQ(2u, WaitAny({nullptr, events[1], events[2]}, 0));
  EXPECT_EQ(OXA_WAIT_TIMEOUT, WaitAny({nullptr, events[1]}, 0));
  EXPECT_EQ(OXA_WAIT_TIMEOUT, OXA_WaitForMultipleObjects(-1, events.data(), 0, 0));
  for (OXA_EVENT_HANDLE event : events)
    OXA_CloseEvent(event);
}

TEST(Event, MultipleWaitRefusesMoreThan128PollEntries) {
  FdLeakCheck leaks;
  TcpPair pair;
  std::vector<OXA_EVENT_HANDLE> events;
  for (int i = 0; i < OXA_MAXIMUM_WAIT_ENTRIES; ++i)
    events.push_back(OXA_CreateEvent(0));
  ASSERT_EQ(1, OXA_SetEvent(events.back()));
  EXPECT_EQ(127u, WaitAny(events, 0));  // exactly 128 entries still work
  // A socket event watching both directions needs two entries: 127 + 2 is one too many.
  OXA_CloseEvent(events.back());
  events.back() = OXA_CreateEvent(0);
  ASSERT_EQ(0, OXA_EventSelect(pair.client.get(), events.back(), OXA_FD_CONNECT));
  oxa_test::StderrCapture capture;
  EXPECT_EQ(OXA_WAIT_INVALID, WaitAny(events, kGuardMs));
  EXPECT_EQ("trovik !!! OXA_WaitForMultipleObjects (more than 128 poll entries) return error 0\n\n",
            capture.Take());
  for (OXA_EVENT_HANDLE event : events)
    OXA_CloseEvent(event);
}

TEST(Event, BadArgumentsGiveTheirResultsAndLines) {
  OXA_EVENT_HANDLE event = OXA_CreateEvent(0);
  OXA_NETWORKEVENTS result{};
  oxa_test::StderrCapture capture;
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
  const std::string select_line = "trovik !!! OXA_EventSelect input param error return error 0\n\n";
  const std::string enum_line =
      "trovik !!! OXA_EnumNetworkEvents input param error return error 0\n\n";
  EXPECT_EQ(
      "trovik !!! OXA_CloseEvent !hEvnet return error 0\n\n"
      "trovik !!! OXA_SetEvent !hEvent return error 0\n\n"
      "trovik !!! OXA_ResetEvent  !hEvent return error 0\n\n"
      "trovik !!! OXA_WaitForSingleObject !hEvent return error 0\n\n"
      "trovik !!! OXA_WaitForMultipleObjects ((nEventCount < 0) || !hEvents) return error "
      "0\n\n" +
          select_line + select_line + select_line + enum_line + enum_line +
          "trovik !!!! OXA_WritePipe_Inter return OXA_FALSE errno = 0\n",
      capture.Take());
  EXPECT_EQ(OXA_WAIT_TIMEOUT, OXA_WaitForSingleObject(event, 0));  // untouched by the refusals
  OXA_CloseEvent(event);
}

TEST(Event, FailedCreationLeavesNothingAndKeepsErrno) {
  FdLeakCheck leaks;
  oxa_test::StderrCapture capture;
  rlimit old_limit;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &old_limit));
  rlimit low = old_limit;
  low.rlim_cur = static_cast<rlim_t>(oxa_test::OpenFdCount() + 8);
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
  EXPECT_EQ("trovik !!! OXA_CreateEvent return error 24 0\n\n", capture.Take());
}

TEST(Event, SelectTurnsItIntoASocketEventForGood) {
  FdLeakCheck leaks;
  TcpPair pair;
  OXA_EVENT_HANDLE event = OXA_CreateEvent(1);
  const int fds_with_pipe = oxa_test::OpenFdCount();
  ASSERT_EQ(0, OXA_EventSelect(pair.server.get(), event, OXA_FD_READ));
  EXPECT_EQ(fds_with_pipe - 2, oxa_test::OpenFdCount());
  EXPECT_TRUE(fcntl(pair.server.get(), F_GETFL) & O_NONBLOCK);
  oxa_test::StderrCapture capture;
  EXPECT_EQ(OXA_WAIT_NO_PIPE, OXA_WaitForSingleObject(event, 0));
  EXPECT_EQ(0, OXA_ResetEvent(event));
  EXPECT_EQ(0, OXA_SetEvent(event));
  const std::string text = capture.Take();
  EXPECT_EQ(0u, text.find("trovik !!! OXA_WaitForSingleObject (pEvent->iPipeFd[0] == -1) return "
                          "error 1\n\ntrovik !!! OXA_ResetEvent (pEvent->iPipeFd[0] == -1) return "
                          "error 1\n\ntrovik !!!! OXA_WritePipe_Inter return OXA_FALSE errno = "))
      << text;
  EXPECT_NE(std::string::npos, text.find("trovik !!! OXA_SetEvent write pipe return error "));
  OXA_CloseEvent(event);
}

TEST(Event, ReadEventReportsDataThenClose) {
  FdLeakCheck leaks;
  TcpPair pair;
  OXA_EVENT_HANDLE plain = OXA_CreateEvent(0);
  OXA_EVENT_HANDLE event = OXA_CreateEvent(0);
  ASSERT_EQ(0, OXA_EventSelect(pair.server.get(), event, OXA_FD_READ | OXA_FD_CLOSE));
  EXPECT_EQ(OXA_WAIT_TIMEOUT, WaitAny({plain, event}, 0));
  ASSERT_EQ(1, send(pair.client.get(), "x", 1, 0));
  EXPECT_EQ(1u, WaitAny({plain, event}, kGuardMs));
  EXPECT_EQ(OXA_FD_READ, Triggered(pair.server.get(), event));
  char byte;
  ASSERT_EQ(1, recv(pair.server.get(), &byte, 1, 0));
  pair.client.Reset();
  EXPECT_EQ(1u, WaitAny({plain, event}, kGuardMs));
  EXPECT_EQ(OXA_FD_CLOSE, Triggered(pair.server.get(), event));
  OXA_CloseEvent(plain);
  OXA_CloseEvent(event);
}

TEST(Event, AcceptConnectAndWriteEvents) {
  FdLeakCheck leaks;
  sockaddr_in addr;
  Fd listener(Listen(&addr));
  Fd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  OXA_EVENT_HANDLE accepting = OXA_CreateEvent(0);
  OXA_EVENT_HANDLE connecting = OXA_CreateEvent(0);
  ASSERT_EQ(0, OXA_EventSelect(listener.get(), accepting, OXA_FD_ACCEPT));
  ASSERT_EQ(0, OXA_EventSelect(client.get(), connecting, OXA_FD_CONNECT));
  EXPECT_EQ(OXA_WAIT_TIMEOUT, WaitAny({accepting}, 0));
  const int rc = connect(client.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  EXPECT_TRUE(rc == 0 || errno == EINPROGRESS);  // the socket is non-blocking now
  EXPECT_EQ(0u, WaitAny({accepting}, kGuardMs));
  EXPECT_EQ(OXA_FD_ACCEPT, Triggered(listener.get(), accepting));
  EXPECT_EQ(0u, WaitAny({connecting}, kGuardMs));
  int32_t connect_error = 0;
  EXPECT_EQ(OXA_FD_CONNECT, Triggered(client.get(), connecting, &connect_error));
  EXPECT_EQ(-7, connect_error);  // a clean connect records no error
  OXA_EVENT_HANDLE writing = OXA_CreateEvent(0);
  ASSERT_EQ(0, OXA_EventSelect(client.get(), writing, OXA_FD_WRITE));
  EXPECT_EQ(1u, WaitAny({nullptr, writing}, kGuardMs));
  EXPECT_EQ(OXA_FD_WRITE, Triggered(client.get(), writing));
  for (OXA_EVENT_HANDLE event : {accepting, connecting, writing})
    OXA_CloseEvent(event);
}

TEST(Event, ConcurrentSetsAndResetsKeepAtMostOneByte) {
  OXA_EVENT_HANDLE event = OXA_CreateEvent(0);
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i) {
        if ((t == 0 ? OXA_ResetEvent(event) : OXA_SetEvent(event)) != 1) ++failures;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(0, failures.load());
  EXPECT_EQ(1, OXA_SetEvent(event));
  int queued = 0;
  ASSERT_EQ(0, ioctl(event->iPipeFd[0], FIONREAD, &queued));
  EXPECT_EQ(1, queued);
  OXA_CloseEvent(event);
}

TEST(Event, MultipleWaitResumesAfterASignal) {
  struct sigaction action = {};
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
