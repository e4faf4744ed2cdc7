// An echo server on libuv, written the way its documentation suggests: one loop on one thread,
// a read buffer per connection, uv_try_write first and a queued write for what is left, with
// reading paused until that write is done.
#ifndef OXA_BENCH_UV_ECHO_SERVER_H_
#define OXA_BENCH_UV_ECHO_SERVER_H_

#include <pthread.h>
#include <sched.h>
#include <uv.h>

#include <cstdlib>
#include <cstring>
#include <thread>

namespace oxa_bench {

class UvEchoServer {
 public:
  UvEchoServer() = default;
  ~UvEchoServer() { Stop(); }
  UvEchoServer(const UvEchoServer&) = delete;
  UvEchoServer& operator=(const UvEchoServer&) = delete;

  bool Start() {
    if (uv_loop_init(&loop_) != 0) return false;
    loop_ready_ = true;
    sockaddr_in addr;
    uv_ip4_addr("127.0.0.1", 0, &addr);
    if (uv_tcp_init(&loop_, &listener_) != 0 ||
        uv_tcp_bind(&listener_, reinterpret_cast<const sockaddr*>(&addr), 0) != 0 ||
        uv_listen(reinterpret_cast<uv_stream_t*>(&listener_), SOMAXCONN, OnConnection) != 0) {
      return false;
    }
    int len = sizeof addr;
    uv_tcp_getsockname(&listener_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    listener_.data = this;
    uv_async_init(&loop_, &stop_, [](uv_async_t* a) {
      uv_walk(
          a->loop,
          [](uv_handle_t* h, void*) {
            if (!uv_is_closing(h))
              uv_close(h, h->type == UV_TCP && h->data != nullptr && h->data != h->loop->data
                              ? FreeConnection
                              : nullptr);
          },
          nullptr);
    });
    loop_.data = this;
    thread_ = std::thread([this] {
      sched_param param{};
      param.sched_priority = 1;
      pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);  // as the other servers ask
      uv_run(&loop_, UV_RUN_DEFAULT);
    });
    return true;
  }

  void Stop() {
    if (thread_.joinable()) {
      uv_async_send(&stop_);
      thread_.join();
    }
    if (loop_ready_) uv_loop_close(&loop_);
    loop_ready_ = false;
  }

  unsigned short port() const { return port_; }

 private:
  struct Connection {
    uv_tcp_t tcp;  // first: the handle's address is the connection's
    uv_write_t write;
    char* pending;  // what uv_try_write could not send, owned until the write is done
    char buffer[65536];
  };

  static void FreeConnection(uv_handle_t* h) {
    auto* c = reinterpret_cast<Connection*>(h);
    std::free(c->pending);
    delete c;
  }

  static void OnConnection(uv_stream_t* listener, int status) {
    if (status != 0) return;
    auto* c = new Connection;
    c->pending = nullptr;
    uv_tcp_init(listener->loop, &c->tcp);
    c->tcp.data = c;
    if (uv_accept(listener, reinterpret_cast<uv_stream_t*>(&c->tcp)) != 0) {
      uv_close(reinterpret_cast<uv_handle_t*>(&c->tcp), FreeConnection);
      return;
    }
    uv_tcp_nodelay(&c->tcp, 1);
    uv_read_start(reinterpret_cast<uv_stream_t*>(&c->tcp), OnAlloc, OnRead);
  }

  static void OnAlloc(uv_handle_t* h, size_t, uv_buf_t* buf) {
    auto* c = reinterpret_cast<Connection*>(h);
    *buf = uv_buf_init(c->buffer, sizeof c->buffer);
  }

  static void OnRead(uv_stream_t* stream, ssize_t n, const uv_buf_t* buf) {
    auto* c = reinterpret_cast<Connection*>(stream);
    if (n <= 0) {
      if (n < 0) uv_close(reinterpret_cast<uv_handle_t*>(stream), FreeConnection);
      return;
    }
    uv_buf_t out = uv_buf_init(buf->base, static_cast<unsigned int>(n));
    const int sent = uv_try_write(stream, &out, 1);
    if (sent == n) return;
    if (sent < 0 && sent != UV_EAGAIN) {
      uv_close(reinterpret_cast<uv_handle_t*>(stream), FreeConnection);
      return;
    }
    const size_t done = sent > 0 ? static_cast<size_t>(sent) : 0;
    const size_t rest = static_cast<size_t>(n) - done;
    c->pending = static_cast<char*>(std::malloc(rest));
    std::memcpy(c->pending, buf->base + done, rest);
    uv_buf_t left = uv_buf_init(c->pending, static_cast<unsigned int>(rest));
    uv_read_stop(stream);  // back-pressure: the next read waits for this write
    uv_write(&c->write, stream, &left, 1, [](uv_write_t* w, int status) {
      auto* conn = reinterpret_cast<Connection*>(w->handle);
      std::free(conn->pending);
      conn->pending = nullptr;
      if (status != 0) {
        if (!uv_is_closing(reinterpret_cast<uv_handle_t*>(w->handle)))
          uv_close(reinterpret_cast<uv_handle_t*>(w->handle), FreeConnection);
        return;
      }
      uv_read_start(w->handle, OnAlloc, OnRead);
    });
  }

  uv_loop_t loop_;
  bool loop_ready_ = false;
  uv_tcp_t listener_;
  uv_async_t stop_;
  unsigned short port_ = 0;
  std::thread thread_;
};

}  // namespace oxa_bench

#endif  // OXA_BENCH_UV_ECHO_SERVER_H_
