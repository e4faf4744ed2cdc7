// Helpers for the completion-queue tests: owned queues and bindings, a recorder of
// completions that a test can wait on, and a way to keep a worker off a send queue.
#ifndef OXA_TESTS_AIO_AIO_HARNESS_H_
#define OXA_TESTS_AIO_AIO_HARNESS_H_

#include <stdint.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "oxa_aio.h"
#include "oxa_socket.h"

#include "frame/scoped_lock.h"
#include "support/loopback.h"
#include "support/test_support.h"

namespace oxa_test {

// The process's thread count once a first thread has come and gone: ThreadSanitizer starts a
// helper thread of its own at the first thread creation, which would count as a leak. A
// joined thread leaves /proc a little later (much later under qemu), so its entry is awaited.
inline int SettledThreadCount() {
  pid_t tid = 0;
  std::thread([&tid] { tid = static_cast<pid_t>(syscall(SYS_gettid)); }).join();
  const std::string entry = "/proc/self/task/" + std::to_string(tid);
  for (int waited_ms = 0; waited_ms < 5000 && access(entry.c_str(), F_OK) == 0; ++waited_ms)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return ThreadCount();
}

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
  Binding(int fd, void* queue)
      : fd_(fd), queue_(queue), bound_(OXA_AsyncIO_BindIOHandleToQueueEx(fd, queue) == 0) {}
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

// Held by a test, this keeps fd's worker away from its send queue (the worker takes the same
// per-descriptor mutex), so that queued sends pile up deterministically.
using SendSideHold = oxa::internal::ScopedLock<OXA_Mutex>;
inline OXA_Mutex& SendSide(int fd) { return CSocketOperation::m_sendMutex[fd]; }

struct Completion {
  unsigned long error;
  unsigned long bytes;
  std::thread::id thread;
};

// Collects completions: pass the recorder as the context and Recorder::Callback as the
// callback.
class Recorder : public Collector<Completion> {
 public:
  static void Callback(unsigned long error, unsigned long bytes, void* context) {
    static_cast<Recorder*>(context)->Add({error, bytes, std::this_thread::get_id()});
  }
};

// Large socket buffers, so that loopback sends in these tests complete in one call.
inline void EnlargeBuffers(int fd) {
  const int bytes = 1 << 20;
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

// Reads exactly data.size() bytes from fd within the hang guard; true when they are `data`.
inline bool ReceivesExactly(int fd, const std::vector<char>& data) {
  std::vector<char> got(data.size());
  const int size = static_cast<int>(got.size());
  return OXA_Recvn(fd, got.data(), size, kHangGuardMs) == size && got == data;
}

}  // namespace oxa_test

#endif  // OXA_TESTS_AIO_AIO_HARNESS_H_
