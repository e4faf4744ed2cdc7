// Helpers shared by the test suites.
#ifndef OXA_TESTS_SUPPORT_TEST_SUPPORT_H_
#define OXA_TESTS_SUPPORT_TEST_SUPPORT_H_

#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "oxa_trace.h"

namespace oxa_test {

// A generous bound for any blocking step that should finish at once: a failing test ends
// instead of hanging, even under qemu on a loaded machine.
constexpr unsigned int kHangGuardMs = 5000;

// The number of entries of a /proc directory such as /proc/self/fd or /proc/self/task.
int CountEntries(const char* dir);
inline int OpenFdCount() { return CountEntries("/proc/self/fd"); }
inline int ThreadCount() { return CountEntries("/proc/self/task"); }

// Polls every millisecond until pred() holds; false when the hang guard passed first. For
// states another thread reaches inside a blocking call, from where it cannot send a handshake.
// The pause leaves the CPU to the thread being waited for (two CPUs, or one under qemu).
template <class Pred>
bool Eventually(Pred pred) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kHangGuardMs);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Runs body on a thread of its own, which starts without any thread-local state (such as a
// trace context) and takes whatever it leaves with it.
template <class F>
void OnFreshThread(F body) {
  std::thread(body).join();
}

// The bytes of an object or array as a string, for comparisons that print what differs.
inline std::string Bytes(const void* data, size_t len) {
  return std::string(static_cast<const char*>(data), len);
}

// Deterministic test data of `size` bytes, different for every seed.
inline std::vector<char> Pattern(uint32_t seed, size_t size) {
  std::vector<char> data(size);
  for (size_t i = 0; i < size; ++i)
    data[i] = static_cast<char>((i * 2654435761u + seed) >> 13);
  return data;
}

// A trace record with these texts (cut to 64 characters) and bytes, zero everywhere else.
OXA_TRACEINFO TraceInfo(const std::string& text1, const std::string& text2 = "",
                        const std::string& text3 = "", unsigned char byte1 = 0,
                        unsigned char byte2 = 0);

// Waits until the process has `threads` threads again (exited threads vanish from
// /proc/self/task a little after join or detach); true when it got there within the guard.
bool WaitForThreadCount(int threads);

// Captures what the process writes to standard error (fd 2) between construction and Take().
class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Stops capturing (if still capturing) and returns everything written meanwhile.
  std::string Take();

 private:
  int saved_fd_;
  int file_fd_;
  std::string text_;
};

// Puts the library-wide default address family back when a test that changes it ends, even
// when the test fails half-way.
class DefaultFamilyRestorer {
 public:
  DefaultFamilyRestorer();
  ~DefaultFamilyRestorer();
  DefaultFamilyRestorer(const DefaultFamilyRestorer&) = delete;
  DefaultFamilyRestorer& operator=(const DefaultFamilyRestorer&) = delete;

 private:
  int saved_;
};

// Elapsed time of a steady clock since construction.
class Stopwatch {
 public:
  Stopwatch() : start_(std::chrono::steady_clock::now()) {}
  std::chrono::milliseconds Elapsed() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start_);
  }

 private:
  std::chrono::steady_clock::time_point start_;
};

// Values that other threads report and a test waits for. Every wait ends at the hang guard, so
// a test whose callback never comes fails instead of hanging.
template <class T>
class Collector {
 public:
  // Notifies under the lock: a test that has seen the value may destroy the recorder at once.
  void Add(T value) {
    std::lock_guard<std::mutex> hold(mu_);
    values_.push_back(std::move(value));
    cv_.notify_all();
  }
  // True once at least n values have arrived; false when the hang guard passed first.
  bool WaitFor(size_t n) {
    std::unique_lock<std::mutex> hold(mu_);
    return cv_.wait_for(hold, std::chrono::milliseconds(kHangGuardMs),
                        [&] { return values_.size() >= n; });
  }
  std::vector<T> Snapshot() {
    std::lock_guard<std::mutex> hold(mu_);
    return values_;
  }
  size_t Count() { return Snapshot().size(); }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<T> values_;  // Guarded by mu_.
};

// A one-way gate: Wait returns true once Open was called, false after the hang guard.
class Latch {
 public:
  void Open() { opened_.Add(true); }
  bool Wait() { return opened_.WaitFor(1); }
  bool IsOpen() { return opened_.Count() > 0; }

 private:
  Collector<bool> opened_;
};

}  // namespace oxa_test

#endif  // OXA_TESTS_SUPPORT_TEST_SUPPORT_H_
