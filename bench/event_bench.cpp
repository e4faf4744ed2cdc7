// Event ping-pong between two threads: the library's manual-reset events against a pair of
// eventfds. A round trip: the benchmark thread signals "ping", an echo thread answers with
// "pong". Both threads on one CPU (every hand-over is a switch on that CPU), then on two
// (every hand-over wakes the other CPU); the contenders take turns round by round.
#include <benchmark/benchmark.h>

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "oxa_event.h"

#include "side_by_side.h"

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

constexpr int kRounds = 7;
constexpr long kTripsPerRound = 20000;

// Nanoseconds per round trip of one pair, or a negative value when a round trip failed.
template <typename Pair>
double TimeRoundTrips(Pair* pair) {
  bool ok = true;
  const double ns =
      oxa_bench::NanosPerCall(kTripsPerRound, [&](long) { ok = ok && pair->RoundTrip(); });
  return ok ? ns : -1;
}

// Argument 1: both threads on one CPU; 2: the echo thread on one, the benchmark thread on
// another. Counters: the median cost of a round trip of each (ns), its spread, and the ratio
// of the rates, liboxa / eventfd (1.0: as fast as eventfd).
void BM_EventPingPong(benchmark::State& state) {
  const bool two_cpus = state.range(0) == 2;
  oxa_bench::Samples oxa_ns;
  oxa_bench::Samples efd_ns;
  for (auto _ : state) {
    oxa_bench::ScopedPin pin(oxa_bench::NthCpu(0));  // the echo threads start here
    OxaEventPair oxa_pair;
    EventFdPair efd_pair;
    if (!oxa_pair.ok() || !efd_pair.ok()) {
      state.SkipWithError("could not create the pairs");
      return;
    }
    if (two_cpus) oxa_bench::PinTo(oxa_bench::NthCpu(1));
    bool failed = false;
    oxa_bench::Interleave(kRounds, 2, [&](int who, int) {
      const double ns = who == 0 ? TimeRoundTrips(&oxa_pair) : TimeRoundTrips(&efd_pair);
      failed = ns < 0;
      (who == 0 ? oxa_ns : efd_ns).values.push_back(ns);
      return !failed;
    });
    if (failed) {
      state.SkipWithError("a round trip failed or timed out");
      return;
    }
  }
  oxa_bench::Report(state, "oxa_ns", oxa_ns);
  oxa_bench::Report(state, "eventfd_ns", efd_ns);
  state.counters["oxa/eventfd"] = efd_ns.Median() / oxa_ns.Median();
}
BENCHMARK(BM_EventPingPong)->ArgName("cpus")->Arg(1)->Arg(2)->Iterations(1)->UseRealTime();

}  // namespace
