// Measuring contenders side by side: rounds in which every contender runs once, in an order
// that rotates from round to round, so a change of the machine's load meets all of them alike;
// medians with their spread; and pinning of threads to one CPU.
#ifndef OXA_BENCH_SIDE_BY_SIDE_H_
#define OXA_BENCH_SIDE_BY_SIDE_H_

#include <benchmark/benchmark.h>

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace oxa_bench {

// The CPUs this process may use, lowest first.
inline std::vector<int> UsableCpus() {
  cpu_set_t set;
  CPU_ZERO(&set);
  std::vector<int> cpus;
  if (sched_getaffinity(0, sizeof set, &set) != 0) return cpus;
  for (int i = 0; i < CPU_SETSIZE; ++i) {
    if (CPU_ISSET(i, &set)) cpus.push_back(i);
  }
  return cpus;
}

// The n-th usable CPU (the last one when there are fewer).
inline int NthCpu(size_t n) {
  const std::vector<int> cpus = UsableCpus();
  if (cpus.empty()) return 0;
  return cpus[n < cpus.size() ? n : cpus.size() - 1];
}

// Pins the calling thread (and the threads it starts from now on) to one CPU.
inline bool PinTo(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  return pthread_setaffinity_np(pthread_self(), sizeof set, &set) == 0;
}

// Pins the calling thread for a scope, then gives it back the CPUs it had.
class ScopedPin {
 public:
  explicit ScopedPin(int cpu) {
    CPU_ZERO(&saved_);
    pthread_getaffinity_np(pthread_self(), sizeof saved_, &saved_);
    PinTo(cpu);
  }
  ~ScopedPin() { pthread_setaffinity_np(pthread_self(), sizeof saved_, &saved_); }
  ScopedPin(const ScopedPin&) = delete;
  ScopedPin& operator=(const ScopedPin&) = delete;

 private:
  cpu_set_t saved_;
};

// The samples of one figure of one contender over the rounds.
struct Samples {
  std::vector<double> values;

  double Median() const { return Quantile(0.5); }
  double Min() const {
    return values.empty() ? 0 : *std::min_element(values.begin(), values.end());
  }
  double Max() const {
    return values.empty() ? 0 : *std::max_element(values.begin(), values.end());
  }
  // Spread as a fraction of the median: (max - min) / median.
  double Spread() const {
    const double m = Median();
    return m > 0 ? (Max() - Min()) / m : 0;
  }

 private:
  double Quantile(double q) const {
    if (values.empty()) return 0;
    std::vector<double> sorted = values;
    std::sort(sorted.begin(), sorted.end());
    const double at = q * (sorted.size() - 1);
    const size_t low = static_cast<size_t>(std::floor(at));
    const size_t high = static_cast<size_t>(std::ceil(at));
    return sorted[low] + (sorted[high] - sorted[low]) * (at - low);
  }
};

// Runs `rounds` rounds of `contenders` (each called with its index and the round), the order
// rotating by one every round.
inline void Interleave(int rounds, int contenders, const std::function<bool(int, int)>& run) {
  for (int r = 0; r < rounds; ++r) {
    for (int k = 0; k < contenders; ++k) {
      if (!run((r + k) % contenders, r)) return;
    }
  }
}

// Nanoseconds per call of `body`, timed over `calls` calls.
template <typename Body>
double NanosPerCall(long calls, Body body) {
  const auto start = std::chrono::steady_clock::now();
  for (long i = 0; i < calls; ++i)
    body(i);
  const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
  return took.count() / calls;
}

// Adds "name" (median), "name_spread" (max - min over the median) as counters.
inline void Report(benchmark::State& state, const std::string& name, const Samples& s) {
  state.counters[name] = s.Median();
  state.counters[name + "_spread"] = s.Spread();
}

}  // namespace oxa_bench

#endif  // OXA_BENCH_SIDE_BY_SIDE_H_
