// An echo server on a completion queue: every byte a connection receives is queued straight
// back to it.
//
// Each connection keeps exactly one receive request queued. Its callback, on the worker that
// owns the socket, hands the bytes to OXA_AsyncIO_SendEx (which copies them, so the buffer can
// take the next receive at once) and queues the next receive. A peer that closes, or any
// failure, ends the connection in that same callback: unbind, close, free.
//
// Connections are accepted by a thread of the server's own with OXA_Accept and a short
// time-out, rather than with OXA_AsyncIO_AcceptEx, which announces every accept on standard
// error. The listener is on 127.0.0.1 only.
//
// Header-only so that the benchmark can build the same server.
#ifndef OXA_EXAMPLES_ECHO_ECHO_SERVER_H_
#define OXA_EXAMPLES_ECHO_ECHO_SERVER_H_

#include <stdint.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <new>
#include <thread>
#include <unordered_set>

#include "oxa_addr.h"
#include "oxa_aio.h"
#include "oxa_socket.h"

#include "worker_priority.h"

namespace oxa_echo {

// A queue handle of -1 is how the library reports a queue that could not be made.
inline bool IsQueue(void* queue) {
  return queue != nullptr && queue != reinterpret_cast<void*>(static_cast<intptr_t>(-1));
}

// The library's default worker count when `workers` is 0, else `workers`; callbacks run with
// the worker's slot lock held (mode 1), which lets a callback unbind its own socket.
inline void* MakeQueue(int workers) {
  return workers > 0 ? OXA_AsyncIO_CreateQueueEx_New(workers) : OXA_AsyncIO_CreateQueueEx2();
}

class EchoServer {
 public:
  // One receive at a time per connection, as large as one send chunk of the engine.
  static constexpr int kBufferBytes = 16384;

  EchoServer() = default;
  ~EchoServer() { Stop(); }
  EchoServer(const EchoServer&) = delete;
  EchoServer& operator=(const EchoServer&) = delete;

  // Listens on 127.0.0.1:port (0: a free port, see port()) and starts a queue of `workers`
  // workers (0: the library's default count). False, with a line on standard error and
  // nothing left behind, when something could not be made.
  bool Start(unsigned short port, int workers) {
    if (IsQueue(queue_)) return false;
    listener_ = OXA_CreateSocket(2, SOCK_STREAM, 0);
    OXA_ADDR_T where;
    if (listener_ == -1 || OXA_SetReuseAddr(listener_, 1) != 0 ||
        OXA_MakeAddrByString(2, "127.0.0.1", port, &where) != 0 ||
        OXA_Bind(listener_, &where) != 0 || OXA_Listen(listener_, SOMAXCONN) != 0 ||
        OXA_GetAddrBySockFd(listener_, &where, nullptr) != 0) {
      std::fprintf(stderr, "echo server: cannot listen on 127.0.0.1 port %u\n", port);
      Stop();
      return false;
    }
    port_ = OXA_GetAddrPort(&where);
    queue_ = MakeQueue(workers);
    if (!IsQueue(queue_)) {
      std::fprintf(stderr, "echo server: cannot create a completion queue\n");
      queue_ = nullptr;
      Stop();
      return false;
    }
    stopping_.store(false);
    acceptor_ = std::thread([this] { AcceptLoop(); });
    return true;
  }

  // Stops accepting, unbinds and closes every connection, destroys the queue. Safe to call more
  // than once.
  void Stop() {
    stopping_.store(true);
    if (acceptor_.joinable()) acceptor_.join();
    if (listener_ != -1) OXA_CloseSocket(listener_, 0);
    listener_ = -1;
    // Take the connections over first, then unbind outside the lock: unbinding waits for the
    // worker's current batch, whose callbacks may be waiting for this lock.
    std::unordered_set<Connection*> left;
    {
      std::lock_guard<std::mutex> hold(mutex_);
      left.swap(live_);
    }
    for (Connection* c : left) {
      OXA_AsyncIO_UnBindIOHandleEx(c->fd, queue_);  // no callback of c runs after this
      OXA_CloseSocket(c->fd, 0);
      delete c;
    }
    if (IsQueue(queue_)) OXA_AsyncIO_DestroyQueueEx(queue_);
    queue_ = nullptr;
  }

  unsigned short port() const { return port_; }
  uint64_t accepted() const { return accepted_.load(); }
  uint64_t echoed_bytes() const { return echoed_.load(); }
  uint64_t failures() const { return failures_.load(); }

 private:
  struct Connection {
    EchoServer* server;
    int fd;
    char buffer[kBufferBytes];
  };

  static constexpr unsigned int kAcceptPollMs = 100;  // how soon the acceptor notices Stop

  void AcceptLoop() {
    WorkerPriority priority;  // so that busy workers cannot hold new connections back
    while (!stopping_.load()) {
      const int fd = OXA_Accept(listener_, nullptr, kAcceptPollMs);
      if (fd == -1) continue;  // time-out, or a failed accept: look at the stop flag again
      OXA_SetNoDelay(fd, 1);   // a message split into chunks goes out without waiting for acks
      auto* c = new (std::nothrow) Connection;
      if (c == nullptr) {
        OXA_CloseSocket(fd, 0);
        failures_.fetch_add(1);
        continue;
      }
      c->server = this;
      c->fd = fd;
      if (!Track(c)) {
        OXA_CloseSocket(fd, 0);
        delete c;
        failures_.fetch_add(1);
        continue;
      }
      accepted_.fetch_add(1);
      if (OXA_AsyncIO_BindIOHandleToQueueEx(fd, queue_) != 0) {
        failures_.fetch_add(1);
        Drop(c, false);
        continue;
      }
      if (OXA_AsyncIO_RecvEx(fd, c->buffer, kBufferBytes, c, &EchoServer::OnReceived) != 0) {
        failures_.fetch_add(1);
        Drop(c, true);
      }
    }
  }

  bool Track(Connection* c) {
    try {
      std::lock_guard<std::mutex> hold(mutex_);
      live_.insert(c);
      return true;
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  // Runs on the worker that owns the connection's socket, one callback at a time.
  static void OnReceived(unsigned long error, unsigned long bytes, void* context) {
    auto* c = static_cast<Connection*>(context);
    EchoServer* server = c->server;
    // 0 bytes: the peer closed or the receive failed; error alone cannot tell which, since a
    // close reports whatever errno held. Either way the connection is over.
    if (error != 0 || bytes == 0) {
      server->Drop(c, true);
      return;
    }
    const int n = static_cast<int>(bytes);
    // No send callback: the client's receive is the proof of delivery, and a connection whose
    // sends fail also fails its next receive.
    if (OXA_AsyncIO_SendEx(c->fd, c->buffer, n, nullptr, nullptr) != 0 ||
        OXA_AsyncIO_RecvEx(c->fd, c->buffer, kBufferBytes, c, &EchoServer::OnReceived) != 0) {
      server->failures_.fetch_add(1);
      server->Drop(c, true);
      return;
    }
    server->echoed_.fetch_add(bytes, std::memory_order_relaxed);
  }

  // Ends a connection unless Stop has taken it over already (Stop then unbinds and frees it
  // once this callback's batch is over).
  void Drop(Connection* c, bool bound) {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      if (live_.erase(c) == 0) return;
    }
    if (bound) OXA_AsyncIO_UnBindIOHandleEx(c->fd, queue_);
    OXA_CloseSocket(c->fd, 0);
    delete c;
  }

  void* queue_ = nullptr;
  int listener_ = -1;
  unsigned short port_ = 0;
  std::thread acceptor_;
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::unordered_set<Connection*> live_;  // guarded by mutex_; owned by the set
  std::atomic<uint64_t> accepted_{0};
  std::atomic<uint64_t> echoed_{0};
  std::atomic<uint64_t> failures_{0};
};

}  // namespace oxa_echo

#endif  // OXA_EXAMPLES_ECHO_ECHO_SERVER_H_
