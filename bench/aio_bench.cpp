// Echo round trips on loopback: the completion-queue echo server of examples/echo against a
// minimal edge-triggered epoll echo server written with plain system calls, the practical
// limit of one process on loopback. One load client (the example's, on its own completion
// queue) drives both in the same cell, in alternating slices, with every byte compared; a
// cell reports both rates and their ratio, liboxa / epoll, so 1.0 means "as fast as the
// system".
//
// Both servers get the same number of threads, and the epoll threads ask for the SCHED_FIFO
// priority 1 that the library's workers ask for, so where that is granted (root) neither
// server has the scheduler's favour over the other or over the client.
#include <benchmark/benchmark.h>

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "oxa_addr.h"
#include "oxa_aio.h"

#include "../examples/echo/echo_client.h"
#include "../examples/echo/echo_server.h"

namespace {

// Per server and cell 3 x 0.5 s, so that the 9 cells stay under a minute.
constexpr int kSlices = 3;
constexpr double kSliceSeconds = 0.5;
constexpr int kServerThreads = 2;  // liboxa workers, and epoll threads
constexpr int kClientWorkers = 2;

// Echo with plain system calls: one epoll instance per thread, edge-triggered, connections
// spread over the threads by descriptor (as the library spreads them over its workers).
// Thread 0 also accepts. A connection reads until EAGAIN, writing each read straight back;
// a write that meets EAGAIN keeps the rest and waits for the writable edge before reading on.
class EpollEchoServer {
 public:
  EpollEchoServer() = default;
  ~EpollEchoServer() { Stop(); }
  EpollEchoServer(const EpollEchoServer&) = delete;
  EpollEchoServer& operator=(const EpollEchoServer&) = delete;

  bool Start(int threads) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (listener_ == -1 || wake_ == -1 ||
        bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listener_, SOMAXCONN) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
      return false;
    }
    port_ = ntohs(addr.sin_port);
    for (int i = 0; i < threads; ++i) {
      const int epfd = epoll_create1(EPOLL_CLOEXEC);
      if (epfd == -1) return false;
      epolls_.push_back(epfd);
      // The wake-up descriptor stays readable once written: level-triggered, never read.
      if (!Watch(epfd, wake_, EPOLLIN, &wake_)) return false;
    }
    if (!Watch(epolls_[0], listener_, EPOLLIN | EPOLLET, nullptr)) return false;
    for (int epfd : epolls_)
      threads_.emplace_back([this, epfd] { Loop(epfd); });
    return true;
  }

  void Stop() {
    stop_.store(true);  // noticed within a second even if the wake-up cannot be written
    if (wake_ != -1) {
      const uint64_t one = 1;
      const ssize_t written = write(wake_, &one, sizeof one);
      static_cast<void>(written);
    }
    for (std::thread& t : threads_)
      t.join();
    threads_.clear();
    for (Connection* c : connections_) {
      if (c->fd != -1) close(c->fd);
      delete c;
    }
    connections_.clear();
    for (int epfd : epolls_)
      close(epfd);
    epolls_.clear();
    if (listener_ != -1) close(listener_);
    if (wake_ != -1) close(wake_);
    listener_ = wake_ = -1;
  }

  unsigned short port() const { return port_; }

 private:
  struct Connection {
    int fd;
    int sent;            // bytes of buffer already written back
    int pending;         // bytes of buffer to write back
    char buffer[65536];  // a whole 64 KiB message in one receive: the best case of plain calls
  };

  static bool Watch(int epfd, int fd, unsigned int events, void* tag) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = tag;
    return epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &event) == 0;
  }

  void Loop(int epfd) {
    sched_param param{};
    param.sched_priority = 1;
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);  // refused without privilege
    epoll_event events[256];
    while (!stop_.load(std::memory_order_relaxed)) {
      const int n = epoll_wait(epfd, events, 256, 1000);
      for (int i = 0; i < n; ++i) {
        void* tag = events[i].data.ptr;
        if (tag == &wake_) return;
        if (tag == nullptr) {
          AcceptAll();
        } else {
          Serve(static_cast<Connection*>(tag));
        }
      }
    }
  }

  void AcceptAll() {
    for (;;) {
      const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd == -1) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        return;  // EAGAIN: all taken
      }
      const int on = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      auto* c = new (std::nothrow) Connection;
      if (c == nullptr) {
        close(fd);
        continue;
      }
      c->fd = fd;
      c->sent = c->pending = 0;
      {
        // Freed by Stop only, so a stale event of a closed connection finds fd -1.
        std::lock_guard<std::mutex> hold(mutex_);
        connections_.push_back(c);
      }
      if (!Watch(epolls_[fd % epolls_.size()], fd, EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, c))
        Close(c);
    }
  }

  static void Close(Connection* c) {
    close(c->fd);
    c->fd = -1;
  }

  // Writes back what is pending; false when the connection must wait (or was closed).
  static bool Flush(Connection* c) {
    while (c->sent < c->pending) {
      const ssize_t n = send(c->fd, c->buffer + c->sent, c->pending - c->sent, MSG_NOSIGNAL);
      if (n > 0) {
        c->sent += static_cast<int>(n);
      } else if (n == -1 && errno == EINTR) {
        continue;
      } else {
        if (n == 0 || errno != EAGAIN) Close(c);
        return false;
      }
    }
    c->sent = c->pending = 0;
    return true;
  }

  static void Serve(Connection* c) {
    if (c->fd == -1 || !Flush(c)) return;
    for (;;) {
      const ssize_t n = recv(c->fd, c->buffer, sizeof c->buffer, 0);
      if (n > 0) {
        c->pending = static_cast<int>(n);
        if (!Flush(c)) return;
      } else if (n == -1 && errno == EINTR) {
        continue;
      } else {
        if (n == 0 || errno != EAGAIN) Close(c);
        return;
      }
    }
  }

  int listener_ = -1;
  int wake_ = -1;
  unsigned short port_ = 0;
  std::atomic<bool> stop_{false};
  std::vector<int> epolls_;
  std::vector<std::thread> threads_;
  std::mutex mutex_;
  std::vector<Connection*> connections_;  // guarded by mutex_ until the threads are joined
};

// Adds one slice of load to a server's total.
void Accumulate(const oxa_echo::LoadResult& slice, oxa_echo::LoadResult* total) {
  if (total->error.empty() && !slice.ok) total->error = slice.error;
  total->ok = total->error.empty();
  total->clients = slice.clients;
  total->message_bytes = slice.message_bytes;
  total->round_trips += slice.round_trips;
  total->verified_bytes += slice.verified_bytes;
  total->seconds += slice.seconds;
}

void Drive(void* queue, unsigned short port, int clients, int size, oxa_echo::LoadResult* total) {
  OXA_ADDR_T where;
  OXA_MakeAddrByString(2, "127.0.0.1", port, &where);
  Accumulate(oxa_echo::LoadRun::Run(queue, where, clients, size, kSliceSeconds), total);
}

void BM_EchoLoopback(benchmark::State& state) {
  const int clients = static_cast<int>(state.range(0));
  const int size = static_cast<int>(state.range(1));
  oxa_echo::LoadResult with_oxa;
  oxa_echo::LoadResult with_epoll;
  with_oxa.ok = with_epoll.ok = true;
  static std::string failure;  // SkipWithError keeps the pointer
  for (auto _ : state) {
    void* queue = oxa_echo::MakeQueue(kClientWorkers);
    oxa_echo::EchoServer oxa_server;
    EpollEchoServer epoll_server;
    if (!oxa_echo::IsQueue(queue) || !oxa_server.Start(0, kServerThreads) ||
        !epoll_server.Start(kServerThreads)) {
      if (oxa_echo::IsQueue(queue)) OXA_AsyncIO_DestroyQueueEx(queue);
      state.SkipWithError("cannot start the client's queue or a server");
      return;
    }
    // Slices in turn, so that a change of the machine's load meets both servers alike; the
    // idle one waits in epoll meanwhile.
    for (int i = 0; i < kSlices && with_oxa.ok && with_epoll.ok; ++i) {
      Drive(queue, oxa_server.port(), clients, size, &with_oxa);
      Drive(queue, epoll_server.port(), clients, size, &with_epoll);
    }
    OXA_AsyncIO_DestroyQueueEx(queue);
  }
  if (!with_oxa.ok || !with_epoll.ok) {
    failure = !with_oxa.ok ? "liboxa: " + with_oxa.error : "epoll: " + with_epoll.error;
    state.SkipWithError(failure.c_str());
    return;
  }
  state.counters["oxa_rt/s"] = with_oxa.RoundTripsPerSecond();
  state.counters["epoll_rt/s"] = with_epoll.RoundTripsPerSecond();
  state.counters["oxa/epoll"] = with_oxa.RoundTripsPerSecond() / with_epoll.RoundTripsPerSecond();
  state.counters["oxa_MB/s"] = with_oxa.MegabytesPerSecond();
  state.counters["epoll_MB/s"] = with_epoll.MegabytesPerSecond();
}

BENCHMARK(BM_EchoLoopback)
    ->ArgNames({"conns", "bytes"})
    ->ArgsProduct({{1, 16, 128}, {64, 4096, 65536}})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kSecond);

}  // namespace
