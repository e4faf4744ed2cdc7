// Event ping-pong between two threads: the library's manual-reset events against a pair of
// eventfds. One iteration is one round trip: the benchmark thread signals "ping", an echo
// thread answers with "pong".
#include <benchmark/benchmark.h>

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "oxa_event.h"

namespace {

constexpr int kGuardMs = 5000;  // no wait of a round trip lasts this long unless it is broken

// Manual-reset events: whoever wakes on an event resets it before it answers, so the answer
// can never be signalled again before the reset has happened.
class OxaEventPair {
 public:
  OxaEventPair() : ping_(OXA_CreateEvent(0)), pong_(OXA_CreateEvent(0)) {
    if (ping_ != nullptr && pong_ != nullptr) echo_ = std::thread([this] { Echo(); });
  }
  ~OxaEventPair() {
    if (echo_.joinable()) {
      stop_.store(true, std::memory_order_release);  // pairs with the acquire load in Echo()
      OXA_SetEvent(ping_);
      echo_.join();
    }
    OXA_CloseEvent(ping_);
    OXA_CloseEvent(pong_);
  }
  OxaEventPair(const OxaEventPair&) = delete;
  OxaEventPair& operator=(const OxaEventPair&) = delete;

  bool ok() const { return echo_.joinable(); }

  bool RoundTrip() {
    OXA_SetEvent(ping_);
    if (OXA_WaitForSingleObject(pong_, kGuardMs) != 0) return false;
    return OXA_ResetEvent(pong_) == OXA_TRUE;
  }

 private:
  void Echo() {
    while (OXA_WaitForSingleObject(ping_, kGuardMs) == 0) {
      OXA_ResetEvent(ping_);
      if (stop_.load(std::memory_order_acquire)) return;
      OXA_SetEvent(pong_);
    }
  }

  OXA_EVENT_HANDLE ping_;
  OXA_EVENT_HANDLE pong_;
  std::atomic<bool> stop_{false};
  std::thread echo_;
};

// The same protocol on eventfds: a read consumes the signal, so no reset is needed.
class EventFdPair {
 public:
  EventFdPair() : ping_(eventfd(0, EFD_CLOEXEC)), pong_(eventfd(0, EFD_CLOEXEC)) {
    if (ping_ != -1 && pong_ != -1) echo_ = std::thread([this] { Echo(); });
  }
  ~EventFdPair() {
    if (echo_.joinable()) {
      stop_.store(true, std::memory_order_release);  // pairs with the acquire load in Echo()
      Signal(ping_);
      echo_.join();
    }
    if (ping_ != -1) close(ping_);
    if (pong_ != -1) close(pong_);
  }
  EventFdPair(const EventFdPair&) = delete;
  EventFdPair& operator=(const EventFdPair&) = delete;

  bool ok() const { return echo_.joinable(); }

  bool RoundTrip() { return Signal(ping_) && Take(pong_); }

 private:
  static bool Signal(int fd) {
    const uint64_t one = 1;
    ssize_t n;
    do {
      n = write(fd, &one, sizeof one);
    } while (n < 0 && errno == EINTR);
    return n == sizeof one;
  }
  // Waits with the same bound as the library's side, then consumes the signal.
  static bool Take(int fd) {
    pollfd entry{fd, POLLIN, 0};
    int ready;
    do {
      ready = poll(&entry, 1, kGuardMs);
    } while (ready < 0 && errno == EINTR);
    if (ready != 1) return false;
    uint64_t value = 0;
    ssize_t n;
    do {
      n = read(fd, &value, sizeof value);
    } while (n < 0 && errno == EINTR);
    return n == sizeof value;
  }

  void Echo() {
    while (Take(ping_)) {
      if (stop_.load(std::memory_order_acquire)) return;
      Signal(pong_);
    }
  }

  int ping_;
  int pong_;
  std::atomic<bool> stop_{false};
  std::thread echo_;
};

template <typename Pair>
void RunPingPong(benchmark::State& state) {
  Pair pair;
  if (!pair.ok()) {
    state.SkipWithError("could not create the pair");
    return;
  }
  for (auto _ : state) {
    if (!pair.RoundTrip()) {
      state.SkipWithError("a round trip failed or timed out");
      break;
    }
  }
}

void BM_OxaEventPingPong(benchmark::State& state) { RunPingPong<OxaEventPair>(state); }
BENCHMARK(BM_OxaEventPingPong)->UseRealTime();

void BM_EventFdPingPong(benchmark::State& state) { RunPingPong<EventFdPair>(state); }
BENCHMARK(BM_EventFdPingPong)->UseRealTime();

}  // namespace
