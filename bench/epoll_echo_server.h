// A minimal edge-triggered epoll echo server with plain system calls: the peer that tells
// what one process can do on loopback.
#ifndef OXA_BENCH_EPOLL_ECHO_SERVER_H_
#define OXA_BENCH_EPOLL_ECHO_SERVER_H_

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
#include <thread>
#include <vector>

namespace oxa_bench {

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

}  // namespace oxa_bench

#endif  // OXA_BENCH_EPOLL_ECHO_SERVER_H_
