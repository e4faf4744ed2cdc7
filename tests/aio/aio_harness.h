// Helpers for the completion-queue tests: owned queues and bindings, and a recorder of
// completions that a test can wait on.
#ifndef OXA_TESTS_AIO_AIO_HARNESS_H_
#define OXA_TESTS_AIO_AIO_HARNESS_H_

#include <stdint.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "oxa_aio.h"

#include "support/loopback.h"
#include "support/test_support.h"

namespace oxa_test {

inline void* BadQueue() { return reinterpret_cast<void*>(static_cast<intptr_t>(-1)); }

// A completion queue destroyed with its scope.
class Queue {
 public:
  explicit Queue(int workers, int callback_mode = 1)
      : handle_(OXA_AIO_CreateQueueEx(workers, callback_mode)) {}
  ~Queue() {
    if (ok()) OXA_AsyncIO_DestroyQueueEx(handle_);
  }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  bool ok() const { return handle_ != BadQueue(); }
  void* get() const { return handle_; }

 private:
  void* handle_;
};

// A descriptor bound to a queue for a scope; unbinding drops whatever is still queued.
class Binding {
 public:
  Binding(int fd, void* queue) : fd_(fd), queue_(queue) {
    bound_ = OXA_AsyncIO_BindIOHandleToQueueEx(fd, queue) == 0;
  }
  ~Binding() { Unbind(); }
  Binding(const Binding&) = delete;
  Binding& operator=(const Binding&) = delete;

  bool ok() const { return bound_; }
  int Unbind() {
    if (!bound_) return 0;
    bound_ = false;
    return OXA_AsyncIO_UnBindIOHandleEx(fd_, queue_);
  }

 private:
  int fd_;
  void* queue_;
  bool bound_;
};

struct Completion {
  unsigned long error;
  unsigned long bytes;
  std::thread::id thread;
};

// Collects completions; pass the recorder as the context and Recorder::Callback as the
// callback. An optional hook runs on the worker after the completion is recorded.
class Recorder {
 public:
  static void Callback(unsigned long error, unsigned long bytes, void* context) {
    static_cast<Recorder*>(context)->Add(error, bytes);
  }

  void Add(unsigned long error, unsigned long bytes) {
    {
      std::lock_guard<std::mutex> hold(mu_);
      done_.push_back({error, bytes, std::this_thread::get_id()});
    }
    cv_.notify_all();
  }

  // True when at least n completions arrived within the hang guard.
  bool WaitFor(size_t n) {
    std::unique_lock<std::mutex> hold(mu_);
    return cv_.wait_for(hold, std::chrono::milliseconds(kHangGuardMs),
                        [&] { return done_.size() >= n; });
  }

  std::vector<Completion> Snapshot() {
    std::lock_guard<std::mutex> hold(mu_);
    return done_;
  }
  size_t Count() {
    std::lock_guard<std::mutex> hold(mu_);
    return done_.size();
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<Completion> done_;
};

// Large socket buffers, so that loopback sends in these tests complete in one call.
inline void EnlargeBuffers(int fd) {
  const int bytes = 1 << 20;
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

// Deterministic test data: byte i of a stream seeded with `seed`.
inline char PatternByte(uint32_t seed, size_t i) {
  return static_cast<char>((i * 2654435761u + seed) >> 13);
}

inline std::vector<char> Pattern(uint32_t seed, size_t size) {
  std::vector<char> data(size);
  for (size_t i = 0; i < size; ++i)
    data[i] = PatternByte(seed, i);
  return data;
}

}  // namespace oxa_test

#endif  // OXA_TESTS_AIO_AIO_HARNESS_H_
